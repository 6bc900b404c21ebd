#include <apps/TALORender/RenderArguments.h>

#include <array>
#include <charconv>
#include <map>

#include <NetBase/buffers/kyNetError.h>
#include <apps/common/CommandLine.h>
#include <apps/common/NodeAddress.h>
#include <apps/common/RenderProtocol.h>
#include <apps/common/Scene.h>
#include <apps/common/ZstdCompressor.h>

namespace render {

namespace {

constexpr int s_maxServers = 1024;
constexpr std::uint32_t s_maxFrames = 9999;

/// Reads a number of pixels and moves the position behind it; 0 if there is none.
std::uint32_t readEdge(const char*& position, const char* end)
{
    std::uint32_t edge = 0;
    const auto result = std::from_chars(position, end, edge);
    position = result.ptr;
    return result.ec == std::errc() && edge <= limits::s_imageEdge ? edge : 0;
}

const std::map<std::string, kyNetCompression>& imageCompressions()
{
    static const std::map<std::string, kyNetCompression> s_compressions{
        {"none", kyNetCompression::None},
        {"lz4", kyNetCompression::Standard},
        {"zstd", ZstdCompressor::s_method}};
    return s_compressions;
}

} // namespace

PictureSize parseSize(const std::string& text)
{
    const char* position = text.data();
    const char* end = position + text.size();
    const std::uint32_t width = readEdge(position, end);
    const bool isSeparated = position != end && *position++ == 'x';
    const std::uint32_t height = readEdge(position, end);
    if (width == 0 || !isSeparated || height == 0 || position != end ||
        std::uint64_t{width} * height > limits::s_imagePixels) {
        throw kyNetError("'" + text + "' is no size WxH of at most " +
                         std::to_string(limits::s_imageEdge) + " pixels each way and " +
                         std::to_string(limits::s_imagePixels) + " in all");
    }
    return {width, height};
}

kyNetInterfaceOptions parseChannels(const std::string& text)
{
    const char* position = text.data();
    const char* end = position + text.size();
    std::array<std::int32_t, 3> numbers{};
    bool isSound = true;
    for (std::int32_t& number : numbers) {
        const auto result = std::from_chars(position, end, number);
        isSound = isSound && number >= 1 && number <= Hello::s_maxChannels;
        position = result.ptr;
        if (&number != &numbers.back()) {
            isSound = isSound && position != end && *position++ == ',';
        }
    }
    if (!isSound || position != end) {
        throw kyNetError("'" + text + "' is not three numbers SYNC,IMAGE,LATENCY from 1 to " +
                         std::to_string(Hello::s_maxChannels));
    }
    kyNetInterfaceOptions channels;
    channels.setSyncChannels(numbers[0]);
    channels.setImageChannels(numbers[1]);
    channels.setLowLatencyChannels(numbers[2]);
    return channels;
}

void RenderArguments::describe(CLI::App& program)
{
    program.add_option("SCENE", scene, "Model to render (PLY, OBJ, ...)")->required();
    program.add_option("-o,--output", output, "Picture to write (PNG)")->required();
    program.add_option("--node", nodes, "Node to start servers on; may be given again")
        ->check(readableBy(&NodeAddress::parse, "HOST[:PORT]"))
        ->allow_extra_args(false)
        ->capture_default_str();
    program.add_option("--servers", servers, "Servers to start, spread over the nodes [one each]")
        ->check(CLI::Range(1, s_maxServers));
    program
        .add_option_function<std::string>(
            "--size", [this](const std::string& text) { size = parseSize(text); },
            "Size of the picture")
        ->check(readableBy(&parseSize, "WxH"))
        ->default_str("960x720");
    program.add_option("--samples", samples, "Paths per pixel")
        ->check(CLI::Range(std::uint32_t{1}, limits::s_samples))
        ->capture_default_str();
    program
        .add_option("--frames", frames,
                    "Pictures to render, from all around the model; several are written to "
                    "OUT-0001.png, OUT-0002.png, ...")
        ->check(CLI::Range(std::uint32_t{1}, s_maxFrames))
        ->capture_default_str();
    program.add_option("--booking", bookingId, "Booking id that the servers belong to");
    program.add_option("--key", keyFile,
                       "File with the key that the nodes' services hold, too; everything is "
                       "encrypted then");
    program
        .add_option_function<std::string>(
            "--channels", [this](const std::string& text) { channels = parseChannels(text); },
            "Connections of each type to each server")
        ->check(readableBy(&parseChannels, "SYNC,IMAGE,LATENCY"))
        ->default_str("1,4,6");
    program
        .add_option_function<std::string>(
            "--image-compression",
            [this](const std::string& name) { imageCompression = imageCompressions().at(name); },
            "How finished tiles are compressed on their way back")
        ->check(CLI::IsMember(imageCompressions()))
        ->default_str("lz4");
    program
        .add_option_function<std::string>(
            "--relay", [this](const std::string& name) { isRelayed = name == "tree"; },
            "Whether the servers of a node pass the scene on to each other, so that it is sent to "
            "each node only once")
        ->check(CLI::IsMember({"none", "tree"}))
        ->default_str("none");
}

} // namespace render
