#pragma once

#include <cstdint>

#include <NetBase/kyNetBaseExport.h>

/// Copies large blocks of memory on several processors, and tells how much memory there is.
///
/// Threads: all members may be called from any thread; blocks must not overlap, nor be null.
class KY_NETBASE_EXPORT kyNetMem
{
public:
    /// Copies n bytes and returns dst: up to 1000000 at once, more as parallelCopy.
    static void* copy(void* dst, const void* src, std::uint64_t n);

    /// Copies n bytes in equal parts, one per eight hardware threads and at least one, each by a
    /// task of its own, waits for them and returns dst.
    ///
    /// The parts are whole: what remains of n divided by their number, fewer bytes than there are
    /// parts, is not copied. On machines of 16 hardware threads and more, copy sizes that divide.
    static void* parallelCopy(void* dst, const void* src, std::uint64_t n);

    /// Physical memory that this process occupies, in bytes; 0 if the system does not say.
    static std::uint64_t getUsedMemory();

    /// Physical memory of the machine that programs can still take, in bytes; 0 if the system
    /// does not say.
    static std::uint64_t getAvailableMemory();
};
