#include <NetBase/platform/kyAddresses.h>

#include <cstring>
#include <memory>

#include <winsock2.h>
#include <ws2tcpip.h>

#include <windows.h>

#include <NetBase/platform/kySockets.h>

namespace kyAddresses {

const int s_familyIPv4 = AF_INET;
const int s_familyIPv6 = AF_INET6;

namespace {

constexpr std::size_t s_longestName = 4096;
constexpr std::size_t s_longestFailure = 1024;

/// The system's text for a code of the resolver, on one line; empty if it has none.
std::string describeFailure(int code)
{
    constexpr DWORD flags =
        FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_MAX_WIDTH_MASK;
    constexpr DWORD language = MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT);
    char text[s_longestFailure];
    const DWORD length = ::FormatMessageA(flags, nullptr, static_cast<DWORD>(code), language, text,
                                          s_longestFailure, nullptr);
    return {text, length};
}

} // namespace

std::size_t getSize(int family)
{
    switch (family) {
    case AF_INET:
        return sizeof(sockaddr_in);
    case AF_INET6:
        return sizeof(sockaddr_in6);
    default:
        return 0;
    }
}

int getFamily(const sockaddr* address)
{
    return address->sa_family;
}

int getPort(const sockaddr* address)
{
    // It stands at the same place in the records of both families.
    return ::ntohs(reinterpret_cast<const sockaddr_in*>(address)->sin_port);
}

std::string getNumericName(const sockaddr* address)
{
    const std::size_t size = getSize(getFamily(address));
    sockaddr_in6 record{};
    std::memcpy(&record, address, size);
    record.sin6_port = 0; // Or it would be part of the text.

    char text[s_longestName];
    DWORD length = s_longestName;
    const bool isWritten =
        kySockets::start() &&
        ::WSAAddressToStringA(reinterpret_cast<sockaddr*>(&record), static_cast<DWORD>(size),
                              nullptr, text, &length) == 0;
    return isWritten ? text : "";
}

Resolved resolve(const char* server, const char* port)
{
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_ADDRCONFIG | AI_V4MAPPED | (server == nullptr ? AI_PASSIVE : 0);

    addrinfo* first = nullptr;
    const int code = ::getaddrinfo(server, port, &hints, &first);
    if (code != 0) {
        return {{}, describeFailure(code)};
    }
    const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> owner(first, ::freeaddrinfo);
    Resolved resolved;
    for (const addrinfo* entry = first; entry != nullptr; entry = entry->ai_next) {
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(entry->ai_addr);
        resolved.addresses.emplace_back(bytes, bytes + entry->ai_addrlen);
    }
    return resolved;
}

} // namespace kyAddresses
