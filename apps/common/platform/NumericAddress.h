#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// The bytes of a numeric address, most significant first: 4 of an IPv4 address ("10.0.0.5"), 16 of
/// an IPv6 address ("fe80::1"); none if the text is neither. Names are not resolved.
std::vector<std::uint8_t> parseNumericAddress(const std::string& text);
