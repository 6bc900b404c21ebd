#include <NetBase/links/kySocketAddress.h>

#include <algorithm>
#include <string_view>
#include <utility>

#include <NetBase/buffers/kyNetError.h>
#include <NetBase/links/kySocketLink.h>
#include <NetBase/platform/kyAddresses.h>

namespace {

constexpr std::string_view s_blanks = " \t\n\v\f\r";
constexpr std::string_view s_digits = "0123456789";
constexpr std::string_view s_mappedPrefix = "::ffff:";

/// A server text that was recognised, and the digits of its port.
struct Split
{
    bool isRecognised = false;
    std::string_view server;
    std::string_view port;
};

/// Reads what may follow a server: a colon with digits or without, then blanks to the end.
bool readTail(std::string_view tail, std::string_view& port)
{
    port = {};
    if (!tail.empty() && tail.front() == ':') {
        tail.remove_prefix(1);
        port = tail.substr(0, tail.find_first_not_of(s_digits));
        tail.remove_prefix(port.size());
    }
    return tail.find_first_not_of(s_blanks) == std::string_view::npos;
}

/// "[server]" with a tail. The last bracket ends the server, since none may stand in the tail;
/// whatever stands inside belongs to it, but it is one line.
Split splitBracketed(std::string_view text)
{
    Split split;
    const std::size_t open = text.find_first_not_of(s_blanks);
    if (open == std::string_view::npos || text[open] != '[') {
        return split;
    }
    const std::size_t close = text.rfind(']');
    if (close == std::string_view::npos || close < open + 2) {
        return split;
    }
    split.server = text.substr(open + 1, close - open - 1);
    split.isRecognised = split.server.find_first_of("\n\r") == std::string_view::npos &&
                         readTail(text.substr(close + 1), split.port);
    return split;
}

/// A name without colons and brackets, with a tail. Blanks before it are skipped, those behind it
/// belong to it; where there is nothing but blanks, the last one is the name.
Split splitPlain(std::string_view text)
{
    constexpr std::string_view ends = ":[]";
    Split split;
    const std::size_t end = std::min(text.find_first_of(ends), text.size());
    if (end == 0) {
        return split;
    }
    const std::size_t begin = std::min(text.find_first_not_of(s_blanks), end - 1);
    split.server = text.substr(begin, end - begin);
    split.isRecognised = readTail(text.substr(end), split.port);
    return split;
}

} // namespace

kySocketAddress::kySocketAddress(const std::string& server, const std::string& port)
{
    kySocketLink::initialize();
    kyAddresses::Resolved resolved = kyAddresses::resolve(server.empty() ? nullptr : server.c_str(),
                                                          port.empty() ? nullptr : port.c_str());
    if (resolved.addresses.empty()) {
        throw kyNetError("Unable to get address info for '" + server + "' " + resolved.error);
    }
    const auto isIPv4 = [](const std::vector<std::uint8_t>& address) {
        return kyAddresses::getFamily(reinterpret_cast<const sockaddr*>(address.data())) ==
               kyAddresses::s_familyIPv4;
    };
    const auto found = std::find_if(resolved.addresses.begin(), resolved.addresses.end(), isIPv4);
    m_address = std::move(found != resolved.addresses.end() ? *found : resolved.addresses.back());
}

kySocketAddress::kySocketAddress(const std::string& address, int defaultPort)
    : kySocketAddress(parseServer(address), std::to_string(parsePort(address, defaultPort)))
{
}

kySocketAddress::kySocketAddress(const sockaddr* address)
{
    const std::size_t size = kyAddresses::getSize(kyAddresses::getFamily(address));
    if (size == 0) {
        throw kyNetError("Protocol not supported");
    }
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(address);
    m_address.assign(bytes, bytes + size);
}

const sockaddr* kySocketAddress::getSockAddr() const
{
    return reinterpret_cast<const sockaddr*>(m_address.data());
}

int kySocketAddress::getFamily() const
{
    return m_address.empty() ? 0 : kyAddresses::getFamily(getSockAddr());
}

std::size_t kySocketAddress::getSockAddrSize() const
{
    const std::size_t size = kyAddresses::getSize(getFamily());
    if (size == 0) {
        throw kyNetError("Unsupported protocol");
    }
    return size;
}

int kySocketAddress::getPort() const
{
    getSockAddrSize(); // Throws for what has no port.
    return kyAddresses::getPort(getSockAddr());
}

std::string kySocketAddress::getName() const
{
    getSockAddrSize(); // Throws for what has no name.
    std::string name = kyAddresses::getNumericName(getSockAddr());
    if (name.empty()) {
        throw kyNetError("Unable to convert address to string");
    }
    const bool isMapped = name.compare(0, s_mappedPrefix.size(), s_mappedPrefix) == 0;
    if (isMapped && name.size() > s_mappedPrefix.size()) {
        name.erase(0, s_mappedPrefix.size());
    }
    return name;
}

bool kySocketAddress::isOnTheMachineOf(const kySocketAddress& other) const
{
    const auto isLoopback = [](const std::string& name) { return name.compare(0, 4, "127.") == 0; };
    const std::string name = getName();
    const std::string otherName = other.getName();
    return name == otherName || (isLoopback(name) && isLoopback(otherName));
}

void kySocketAddress::splitServerAndPort(std::string address, std::string& server, int& port,
                                         int defaultPort)
{
    Split split = splitBracketed(address);
    if (!split.isRecognised) {
        split = splitPlain(address);
    }
    port = defaultPort;
    if (!split.isRecognised) {
        server = std::move(address);
        return;
    }
    server = split.server;
    if (!split.port.empty()) {
        port = std::stoi(std::string(split.port));
    }
}

int kySocketAddress::parsePort(std::string address, int defaultPort)
{
    std::string server;
    int port = defaultPort;
    splitServerAndPort(std::move(address), server, port, defaultPort);
    return port;
}

std::string kySocketAddress::parseServer(std::string address)
{
    std::string server;
    int port = -1;
    splitServerAndPort(std::move(address), server, port, -1);
    return server;
}
