// Splits any text into server and port. The answer is the one of the two expressions that define
// it, as long as the text is short enough for them; a long text is split all the same.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <regex>
#include <stdexcept>
#include <string>
#include <utility>

#include <NetBase/links/kySocketAddress.h>
#include <fuzz/kyFuzz.h>

namespace {

using kyFuzz::require;

/// The expressions recurse for each letter.
constexpr std::size_t s_longestCompared = 200;
constexpr int s_defaultPort = -7;

/// Server and port, or nothing where the port is beyond any number.
using Split = std::optional<std::pair<std::string, int>>;

Split split(const std::string& text)
{
    try {
        std::string server;
        int port = 0;
        kySocketAddress::splitServerAndPort(text, server, port, s_defaultPort);
        return std::pair(server, port);
    } catch (const std::out_of_range&) {
        return std::nullopt;
    }
}

Split splitByExpressions(const std::string& text)
{
    static const std::regex bracketed(R"(^\s*\[(.+)\](?::(\d*))?\s*$)");
    static const std::regex plain(R"(^\s*([^:\[\]]+)(?::(\d*))?\s*$)");
    std::smatch match;
    if (!std::regex_match(text, match, bracketed) && !std::regex_match(text, match, plain)) {
        return std::pair(text, s_defaultPort);
    }
    try {
        const bool hasPort = match[2].matched && match[2].length() > 0;
        return std::pair(match[1].str(), hasPort ? std::stoi(match[2]) : s_defaultPort);
    } catch (const std::out_of_range&) {
        return std::nullopt;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string text(data, data + size);
    const Split answer = split(text);
    require(!answer || answer->first.size() <= text.size(), "a server longer than the text");
    if (size <= s_longestCompared) {
        require(answer == splitByExpressions(text), "another split than the expressions say");
    }
    return 0;
}
