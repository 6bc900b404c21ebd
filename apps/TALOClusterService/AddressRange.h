#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// A range of addresses that clients may come from: "10.1.0.0/16", "fd00::/8", "192.168.7.4".
///
/// An IPv4 client is an IPv4 client also where the system shows it as a mapped IPv6 address.
/// A constant value: any number of threads may ask it.
class AddressRange
{
public:
    /// Reads ADDRESS[/BITS]; without bits it is the one address, and what the address says behind
    /// its first bits does not matter. Throws kyNetError naming the text if it is neither IPv4 nor
    /// IPv6, or has more bits than the address.
    explicit AddressRange(const std::string& text);

    /// Whether a numeric address lies in the range; false for anything else. A zone ("%eth0") is
    /// left out of account.
    bool contains(const std::string& address) const;

    /// What is served when nothing else is said: clients of the same machine.
    static std::vector<AddressRange> loopback();

private:
    std::vector<std::uint8_t> m_network;
    std::size_t m_bits = 0;
};
