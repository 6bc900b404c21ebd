#include <tests/support/kyTestMemory.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

// How many requests come before the one that fails; below 0 there is none.
thread_local int s_left = -1;

thread_local bool s_isServed = false;
std::atomic<bool> s_areOthersRefused{false};

bool isRefused()
{
    return (s_left >= 0 && s_left-- == 0) || (s_areOthersRefused && !s_isServed);
}

} // namespace

void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return isRefused() ? nullptr : std::malloc(size);
}

void* operator new(std::size_t size)
{
    void* memory = operator new(size, std::nothrow);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}

namespace kyTest {

NoMemoryAfter::NoMemoryAfter(int count)
{
    s_left = count;
}

NoMemoryAfter::~NoMemoryAfter()
{
    s_left = -1;
}

bool NoMemoryAfter::hasFailed() const
{
    return s_left < 0;
}

NoMemoryElsewhere::NoMemoryElsewhere()
{
    s_isServed = true;
    s_areOthersRefused = true;
}

NoMemoryElsewhere::~NoMemoryElsewhere()
{
    s_areOthersRefused = false;
    s_isServed = false;
}

} // namespace kyTest
