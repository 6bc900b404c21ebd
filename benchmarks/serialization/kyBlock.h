#pragma once

#include <array>
#include <cstdint>

/// What the peers of the serializer benchmark move as one piece.
using kyBlock = std::array<std::uint8_t, 4096>;
