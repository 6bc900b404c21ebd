#include <NetBase/platform/kyAddresses.h>

#include <memory>

#include <NetBase/platform/kySystemSockets.h>

namespace kyAddresses {

const int s_familyIPv4 = AF_INET;
const int s_familyIPv6 = AF_INET6;

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
    return ntohs(getFamily(address) == AF_INET6
                     ? reinterpret_cast<const sockaddr_in6*>(address)->sin6_port
                     : reinterpret_cast<const sockaddr_in*>(address)->sin_port);
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
