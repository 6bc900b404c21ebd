#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include <NetBase/buffers/kyNetHeader.h>
#include <NetBase/buffers/kyNetInterfaceOptions.h>

namespace render {

struct PictureSize
{
    std::uint32_t width;
    std::uint32_t height;
};

/// Reads "WxH". Throws kyNetError if it is none, or too large.
PictureSize parseSize(const std::string& text);

/// Reads "SYNC,IMAGE,LATENCY", the number of channels of each type. Throws kyNetError if it is not
/// three numbers from 1 to Hello::s_maxChannels.
kyNetInterfaceOptions parseChannels(const std::string& text);

/// What the user asks for:
///
///     TALORender SCENE -o OUT.png [--node HOST[:PORT]]... [--servers N] [--size WxH]
///                [--samples N] [--frames N] [--booking ID] [--key FILE]
///                [--channels SYNC,IMAGE,LATENCY] [--image-compression none|lz4|zstd]
///                [--relay none|tree]
struct RenderArguments
{
    /// Describes the arguments to the parser, which then fills this object in.
    void describe(CLI::App& program);

    std::string scene;
    std::string output;
    std::vector<std::string> nodes{"127.0.0.1"};
    /// 0: one on each node.
    int servers = 0;
    PictureSize size{960, 720};
    std::uint32_t samples = 64;
    std::uint32_t frames = 1;
    std::string bookingId;
    std::optional<std::string> keyFile;
    kyNetInterfaceOptions channels;
    kyNetCompression imageCompression = kyNetCompression::Standard;
    bool isRelayed = false;
};

} // namespace render
