#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include <apps/common/SharedKey.h>

namespace kyTest {

/// A key of which every byte is the same.
inline std::shared_ptr<const SharedKey> makeKey(std::uint8_t byte)
{
    SharedKey::Bytes bytes{};
    bytes.fill(byte);
    return std::make_shared<SharedKey>(bytes);
}

/// What the key file of that key holds; `digits` are the two of the byte.
inline std::string keyText(const std::string& digits)
{
    std::string text;
    for (std::size_t i = 0; i < SharedKey::s_size; ++i) {
        text += digits;
    }
    return text;
}

} // namespace kyTest
