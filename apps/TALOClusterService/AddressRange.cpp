#include <apps/TALOClusterService/AddressRange.h>

#include <algorithm>
#include <charconv>

#include <NetBase/buffers/kyNetError.h>
#include <apps/common/platform/NumericAddress.h>

namespace {

constexpr std::size_t s_bitsPerByte = 8;

/// The address without what lies behind its first bits.
std::vector<std::uint8_t> maskAddress(std::vector<std::uint8_t> address, std::size_t bits)
{
    for (std::size_t i = 0; i < address.size(); ++i) {
        const std::size_t before = i * s_bitsPerByte;
        const std::size_t kept = bits > before ? std::min(bits - before, s_bitsPerByte) : 0;
        address[i] &= static_cast<std::uint8_t>(0xff00U >> kept);
    }
    return address;
}

} // namespace

AddressRange::AddressRange(const std::string& text)
{
    const std::size_t slash = text.find('/');
    m_network = parseNumericAddress(text.substr(0, slash));
    m_bits = m_network.size() * s_bitsPerByte;
    bool isValid = !m_network.empty();
    if (slash != std::string::npos) {
        const char* const end = text.data() + text.size();
        const auto result = std::from_chars(text.data() + slash + 1, end, m_bits);
        isValid = isValid && result.ec == std::errc() && result.ptr == end &&
                  m_bits <= m_network.size() * s_bitsPerByte;
    }
    if (!isValid) {
        throw kyNetError("'" + text + "' is no ADDRESS[/BITS]");
    }
    m_network = maskAddress(m_network, m_bits);
}

bool AddressRange::contains(const std::string& address) const
{
    const std::vector<std::uint8_t> bytes =
        parseNumericAddress(address.substr(0, address.find('%')));
    return bytes.size() == m_network.size() && maskAddress(bytes, m_bits) == m_network;
}

std::vector<AddressRange> AddressRange::loopback()
{
    return {AddressRange("127.0.0.0/8"), AddressRange("::1/128")};
}
