#include <NetBase/platform/kyAddresses.h>

#include <cerrno>
#include <memory>

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <NetBase/platform/kyLastError.h>

namespace kyAddresses {

const int s_familyIPv4 = AF_INET;
const int s_familyIPv6 = AF_INET6;

namespace {

const sockaddr_in& asIPv4(const sockaddr* address)
{
    return *reinterpret_cast<const sockaddr_in*>(address);
}

const sockaddr_in6& asIPv6(const sockaddr* address)
{
    return *reinterpret_cast<const sockaddr_in6*>(address);
}

std::string describeFailure(int code)
{
    return code == EAI_SYSTEM ? kyLastError::getText(errno) : ::gai_strerror(code);
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
    return ntohs(getFamily(address) == AF_INET6 ? asIPv6(address).sin6_port
                                                : asIPv4(address).sin_port);
}

std::string getNumericName(const sockaddr* address)
{
    char text[INET6_ADDRSTRLEN];
    if (getFamily(address) == AF_INET) {
        return ::inet_ntop(AF_INET, &asIPv4(address).sin_addr, text, sizeof(text)) ? text : "";
    }
    const sockaddr_in6& record = asIPv6(address);
    if (::inet_ntop(AF_INET6, &record.sin6_addr, text, sizeof(text)) == nullptr) {
        return {};
    }
    const std::uint32_t scope = record.sin6_scope_id;
    return scope == 0 ? text : std::string(text) + "%" + std::to_string(scope);
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
