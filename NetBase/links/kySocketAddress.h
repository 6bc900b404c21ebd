#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <NetBase/kyNetBaseExport.h>

struct sockaddr;

/// One end of a TCP connection: an IPv4 or IPv6 address and a port.
///
/// It reads the texts in which people name a server, asks the system's resolver (which blocks
/// while name servers are asked), and prints the answer as numbers:
///
///     kySocketAddress("node7:8080", 8889)   port 8080
///     kySocketAddress("[fe80::1]", 8889)    port 8889
///     kySocketAddress("node7", "8080")      server and port apart
///
/// A server that has both kinds of address is taken by its IPv4 one. An address is a plain value:
/// one that was moved from has family 0, and asking it for more throws.
///
/// Limits: splitting takes time in proportion to the text and no stack, so it may come from
/// anyone. Ports are not checked; those outside 16 bits are what the resolver makes of them.
class KY_NETBASE_EXPORT kySocketAddress
{
public:
    /// Resolves; either text may be empty, an empty server is the address to listen on. Throws
    /// kyNetError.
    kySocketAddress(const std::string& server, const std::string& port);

    /// Splits the text and resolves. Throws kyNetError, and what splitServerAndPort throws.
    kySocketAddress(const std::string& address, int defaultPort);

    /// Copies a record of the system. Throws kyNetError "Protocol not supported" for one that is
    /// neither IPv4 nor IPv6.
    explicit kySocketAddress(const sockaddr* address);

    /// The record of the system, null if there is none.
    const sockaddr* getSockAddr() const;

    /// Bytes of the record. Throws kyNetError "Unsupported protocol", as the next two do.
    std::size_t getSockAddrSize() const;

    int getPort() const;

    /// The address as numbers, without the port; an IPv4 address inside an IPv6 one as IPv4.
    std::string getName() const;

    /// Whether a connection between the two stays on one machine: they are the same, or both are of
    /// the loopback network. Ports do not matter.
    bool isOnTheMachineOf(const kySocketAddress& other) const;

    /// The system's number of the family, 0 if there is no address.
    int getFamily() const;

    /// Always a stream, of whatever protocol the system has for it.
    int getSockType() const { return 1; }
    int getProtocol() const { return 0; }

    /// Splits "server", "server:port", "[server]" and "[server]:port". Blanks around them are
    /// dropped, but those behind a server without brackets belong to it. A text of another form (a
    /// bare IPv6 address) is the server as a whole. Without port digits the port is the default.
    /// Throws std::out_of_range for a port beyond int.
    static void splitServerAndPort(std::string address, std::string& server, int& port,
                                   int defaultPort);

    /// One half of that split.
    static int parsePort(std::string address, int defaultPort);
    static std::string parseServer(std::string address);

private:
    std::vector<std::uint8_t> m_address;
};
