#pragma once

#include <cstdint>

/// A socket as the operating system names it, the same type on every system: a descriptor is
/// widened. All bits set means that there is none.
using kySocketHandle = std::uintptr_t;

constexpr kySocketHandle s_invalidSocketHandle = ~kySocketHandle{0};
