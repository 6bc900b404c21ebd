#include <apps/TALORender/RenderArguments.h>

#include <charconv>

#include <NetBase/buffers/kyNetError.h>
#include <apps/common/CommandLine.h>
#include <apps/common/NodeAddress.h>
#include <apps/common/Scene.h>

namespace render {

namespace {

constexpr int s_maxServers = 1024;

/// Reads a number of pixels and moves the position behind it; 0 if there is none.
std::uint32_t readEdge(const char*& position, const char* end)
{
    std::uint32_t edge = 0;
    const auto result = std::from_chars(position, end, edge);
    position = result.ptr;
    return result.ec == std::errc() && edge <= limits::s_imageEdge ? edge : 0;
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
    program.add_option("--booking", bookingId, "Booking id that the servers belong to");
}

} // namespace render
