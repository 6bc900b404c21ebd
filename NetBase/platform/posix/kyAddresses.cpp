#include <NetBase/platform/kyAddresses.h>

#include <cerrno>

#include <NetBase/platform/kyLastError.h>
#include <NetBase/platform/kySystemSockets.h>

std::string kyAddresses::getNumericName(const sockaddr* address)
{
    char text[INET6_ADDRSTRLEN];
    if (getFamily(address) == AF_INET) {
        const auto& record = *reinterpret_cast<const sockaddr_in*>(address);
        return ::inet_ntop(AF_INET, &record.sin_addr, text, sizeof(text)) ? text : "";
    }
    const auto& record = *reinterpret_cast<const sockaddr_in6*>(address);
    if (::inet_ntop(AF_INET6, &record.sin6_addr, text, sizeof(text)) == nullptr) {
        return {};
    }
    const std::uint32_t scope = record.sin6_scope_id;
    return scope == 0 ? text : std::string(text) + "%" + std::to_string(scope);
}

std::string kyAddresses::describeFailure(int code)
{
    return code == EAI_SYSTEM ? kyLastError::getText(errno) : ::gai_strerror(code);
}
