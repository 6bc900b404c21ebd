#include <tests/support/kyTestMemory.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace {

// How many requests come before the one that fails; below 0 there is none.
thread_local int s_left = -1;

thread_local bool s_isServed = false;
std::atomic<bool> s_areOthersRefused{false};

std::atomic<bool> s_isCounting{false};
std::atomic<int> s_count{0};

bool isRefused()
{
    if (s_isCounting) {
        ++s_count;
    }
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

// The address to free stands before the memory: the beginning of a block has room for it, as it is
// aligned for pointers, and less than what is asked for here.
void* operator new(std::size_t size, std::align_val_t alignment)
{
    const auto step = static_cast<std::size_t>(alignment);
    void* const block = operator new(size + step);
    const std::uintptr_t address = (reinterpret_cast<std::uintptr_t>(block) / step + 1) * step;
    void** const memory = reinterpret_cast<void**>(address);
    memory[-1] = block;
    return memory;
}

void operator delete(void* memory, std::align_val_t) noexcept
{
    if (memory != nullptr) {
        std::free(static_cast<void**>(memory)[-1]);
    }
}

void operator delete(void* memory, std::size_t, std::align_val_t alignment) noexcept
{
    operator delete(memory, alignment);
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

CountedMemory::CountedMemory()
{
    s_count = 0;
    s_isCounting = true;
}

CountedMemory::~CountedMemory()
{
    s_isCounting = false;
}

int CountedMemory::getCount() const
{
    return s_count;
}

} // namespace kyTest
