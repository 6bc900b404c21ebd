#include <apps/common/platform/NumericAddress.h>

#include <winsock2.h>
#include <ws2tcpip.h>

std::vector<std::uint8_t> parseNumericAddress(const std::string& text)
{
    std::vector<std::uint8_t> bytes(sizeof(in_addr));
    if (inet_pton(AF_INET, text.c_str(), bytes.data()) == 1) {
        return bytes;
    }
    bytes.resize(sizeof(in6_addr));
    if (inet_pton(AF_INET6, text.c_str(), bytes.data()) == 1) {
        return bytes;
    }
    return {};
}
