#include <NetBase/platform/kyAddresses.h>

#include <cstring>

#include <winsock2.h>
#include <ws2tcpip.h>

#include <windows.h>

#include <NetBase/platform/kySockets.h>

std::string kyAddresses::getNumericName(const sockaddr* address)
{
    constexpr std::size_t longest = 4096;
    const std::size_t size = getSize(getFamily(address));
    sockaddr_in6 record{};
    std::memcpy(&record, address, size);
    record.sin6_port = 0; // Or it would be part of the text.

    char text[longest];
    DWORD length = longest;
    const bool isWritten =
        kySockets::start() &&
        ::WSAAddressToStringA(reinterpret_cast<sockaddr*>(&record), static_cast<DWORD>(size),
                              nullptr, text, &length) == 0;
    return isWritten ? text : "";
}

std::string kyAddresses::describeFailure(int code)
{
    constexpr std::size_t longest = 1024;
    // On one line.
    constexpr DWORD flags =
        FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_MAX_WIDTH_MASK;
    constexpr DWORD language = MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT);
    char text[longest];
    const DWORD length = ::FormatMessageA(flags, nullptr, static_cast<DWORD>(code), language, text,
                                          longest, nullptr);
    return {text, length};
}
