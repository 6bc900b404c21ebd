#include <apps/common/NodeAddress.h>

#include <stdexcept>

#include <NetBase/buffers/kyNetError.h>
#include <NetBase/buffers/kyNetOptions.h>
#include <NetBase/links/kySocketAddress.h>
#include <apps/common/platform/NumericAddress.h>

namespace {

bool isIPv6(const std::string& host)
{
    return host.find(':') != std::string::npos;
}

bool isHost(const std::string& host)
{
    if (isIPv6(host)) {
        return !parseNumericAddress(host.substr(0, host.find('%'))).empty();
    }
    return !host.empty() && host.find_first_of(" \t[]") == std::string::npos;
}

} // namespace

NodeAddress NodeAddress::parse(const std::string& text)
{
    NodeAddress node;
    bool isValid = true;
    try {
        kySocketAddress::splitServerAndPort(text, node.host, node.port,
                                            kyNetOptions::getDefaultServicePort());
    } catch (const std::out_of_range&) {
        isValid = false;
    }
    if (!isValid || !isHost(node.host) || node.port < 1 || node.port > 65535) {
        throw kyNetError("'" + text + "' is no HOST[:PORT]");
    }
    return node;
}

std::string NodeAddress::toString() const
{
    return (isIPv6(host) ? "[" + host + "]" : host) + ":" + std::to_string(port);
}
