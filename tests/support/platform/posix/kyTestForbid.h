#pragma once

#include <optional>

namespace kyTest {

/// A system call, and its first argument if only calls with that one are meant.
struct SystemCall
{
    unsigned number;
    std::optional<unsigned> argument = {};
};

/// Makes every further such call of the calling thread fail with the code, until the thread ends.
void forbid(const SystemCall& call, int code);

} // namespace kyTest
