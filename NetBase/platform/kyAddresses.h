#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct sockaddr;

/// Internet addresses in the system's own records, kept as bytes so that nothing above needs the
/// system's headers. Every function may be called by any thread.
namespace kyAddresses {

/// The numbers of the two families, which differ between systems.
extern const int s_familyIPv4;
extern const int s_familyIPv6;

/// Bytes of the record of a family, 0 for a family that is neither.
std::size_t getSize(int family);

/// The family field of a record.
int getFamily(const sockaddr* address);

/// The port of a record of one of the two families, in host order.
int getPort(const sockaddr* address);

/// The numeric text of an address of one of the two families, without its port; a scope is a
/// number. Empty on failure.
std::string getNumericName(const sockaddr* address);

/// What a resolver answers: the records in its order, or why there are none, in words.
struct Resolved
{
    std::vector<std::vector<std::uint8_t>> addresses;
    std::string error;
};

/// Asks the system for the TCP addresses of a server and a port, each null for none; without a
/// server they are those to listen on. Blocks while name servers are asked.
Resolved resolve(const char* server, const char* port);

/// What the resolver means by a code, in the system's words; "" if it has none.
std::string describeFailure(int code);

} // namespace kyAddresses
