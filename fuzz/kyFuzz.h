#pragma once

#include <cstdio>
#include <cstdlib>

/// What the harnesses share.
namespace kyFuzz {

/// Ends the process unless the condition holds; a fuzzer keeps the bytes that led here.
inline void require(bool condition, const char* what)
{
    if (!condition) {
        std::fprintf(stderr, "%s\n", what);
        std::abort();
    }
}

} // namespace kyFuzz
