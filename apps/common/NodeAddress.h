#pragma once

#include <string>

/// Where the cluster service of a node listens: a host and a port.
///
/// A plain value. Nothing is resolved before somebody connects.
struct NodeAddress
{
    std::string host;
    int port = 0;

    /// Reads "HOST[:PORT]", "[IPV6][:PORT]" or a bare IPv6 address; without a port the service's
    /// well-known one. Throws kyNetError naming the text if it is no address.
    static NodeAddress parse(const std::string& text);

    /// "host:port", an IPv6 address in brackets: what messages and tables call the node.
    std::string toString() const;
};
