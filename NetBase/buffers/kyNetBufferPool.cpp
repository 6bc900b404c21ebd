#include <NetBase/buffers/kyNetBufferPool.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <forward_list>
#include <mutex>
#include <new>
#include <thread>
#include <utility>

namespace {

constexpr std::size_t s_cacheLine = 64;

/// How many buffers one call of getMany takes together.
constexpr std::size_t s_mostAtOnce = 256;

/// Lets one thread at a time pass a few instructions; the others let it have the processor.
class SpinLock
{
public:
    void lock()
    {
        while (m_isTaken.exchange(true, std::memory_order_acquire)) {
            std::this_thread::yield();
        }
    }
    void unlock() { m_isTaken.store(false, std::memory_order_release); }

private:
    std::atomic<bool> m_isTaken{false};
};

using Lock = std::lock_guard<SpinLock>;

} // namespace

/// Owns every buffer of a pool and queues those that nobody holds. Who releases a buffer appends it
/// to one list; who takes reads another from its begin, and exchanges the two when that has run
/// out: a thread that takes what others release meets them once for all that has come back
/// meanwhile. (A list for each thread that takes would let them meet less often still, but would
/// reuse buffers out of turn.) They are lists of pointers in a row, not a chain through the
/// buffers: what comes next is known without reading what another processor has written.
///
/// Nothing is allocated unless the pool grows: both lists have room for all buffers that there are,
/// and what a shared pointer needs is kept beside its buffer. Nothing is counted for each buffer
/// either: one that is released when the pool is gone finds the list closed, and the last of them
/// takes the lists along.
class kyNetBufferPool::FreeList
{
public:
    FreeList() = default;
    FreeList(const FreeList&) = delete;
    FreeList& operator=(const FreeList&) = delete;

    /// The buffer that has been back for longest, empty if none is.
    std::shared_ptr<kyNetBuffer> tryTake();

    /// Appends up to so many of those that have been back for longest; answers how many.
    std::size_t tryTake(std::size_t most, std::vector<std::shared_ptr<kyNetBuffer>>& out);

    void makeOne();

    /// The end of the pool: nothing is taken any more. What is back goes now, the rest when it is
    /// released.
    void close();

private:
    struct Entry;
    struct ControlBlock;
    template <class T> struct ControlBlockAllocator;
    using Entries = std::vector<Entry*>;

    std::size_t takeEntries(Entry** entries, std::size_t most);
    static void fetchSome(Entry* const* next, std::size_t count);
    static std::shared_ptr<kyNetBuffer> handOut(Entry* entry);
    static ControlBlock* getControlBlock(Entry* entry);
    void giveBack(Entry* entry) noexcept;
    static void discard(Entry* entry) noexcept;
    static void dropUse(Entry* entry) noexcept;
    void dropUse() noexcept;

    // Of those who take.
    alignas(s_cacheLine) SpinLock m_taking;
    Entries m_oldest;
    std::size_t m_next = 0; ///< The first of them that is not taken.

    // Of those who release.
    alignas(s_cacheLine) SpinLock m_releasing;
    Entries m_newest;
    bool m_isClosed = false;

    // Of the buffers that there are, and of the pool.
    alignas(s_cacheLine) std::atomic<std::size_t> m_uses{1};
};

/// Memory of what a shared pointer keeps beside the buffer. Different threads use the neighbours:
/// on a cache line of its own.
struct alignas(s_cacheLine) kyNetBufferPool::FreeList::ControlBlock
{
    enum class State
    {
        Free,
        Used,
        LeftBehind ///< Used, and its pool is gone.
    };

    alignas(std::max_align_t) std::array<unsigned char, 48> memory;
    std::atomic<State> state{State::Free};
};

/// A buffer, and what it takes to hand it out.
struct alignas(s_cacheLine) kyNetBufferPool::FreeList::Entry
{
    explicit Entry(FreeList* owner) : list(owner) {}

    kyNetBuffer buffer;
    FreeList* list;
    std::atomic<std::size_t> uses{0}; ///< Blocks that are left behind.
    ControlBlock block;
    // With one more there are enough for two threads: a buffer is back a moment before its block
    // is, and long before if there are weak pointers.
    std::forward_list<ControlBlock> spareBlocks{1};
};

template <class T> struct kyNetBufferPool::FreeList::ControlBlockAllocator
{
    using value_type = T;

    ControlBlockAllocator(Entry* owner, ControlBlock* memory) : entry(owner), block(memory) {}
    template <class Other>
    ControlBlockAllocator(const ControlBlockAllocator<Other>& other)
        : entry(other.entry), block(other.block)
    {
    }

    T* allocate(std::size_t)
    {
        static_assert(sizeof(T) <= sizeof block->memory);
        static_assert(alignof(T) <= alignof(std::max_align_t));
        return reinterpret_cast<T*>(block->memory.data());
    }
    void deallocate(T*, std::size_t) noexcept
    {
        using State = ControlBlock::State;
        if (block->state.exchange(State::Free) == State::LeftBehind) {
            dropUse(entry);
        }
    }

    Entry* entry;
    ControlBlock* block;
};

std::shared_ptr<kyNetBuffer> kyNetBufferPool::FreeList::tryTake()
{
    Entry* entry = nullptr;
    return takeEntries(&entry, 1) == 1 ? handOut(entry) : nullptr;
}

std::size_t kyNetBufferPool::FreeList::tryTake(std::size_t most,
                                               std::vector<std::shared_ptr<kyNetBuffer>>& out)
{
    std::array<Entry*, s_mostAtOnce> entries;
    const std::size_t count = takeEntries(entries.data(), std::min(most, entries.size()));
    std::size_t i = 0;
    try {
        for (; i < count; ++i) {
            fetchSome(&entries[i], count - i);
            out.push_back(handOut(entries[i]));
        }
    } catch (const std::bad_alloc&) { // That one is back already.
        std::for_each(entries.data() + i + 1, entries.data() + count,
                      [this](Entry* entry) { giveBack(entry); });
        throw;
    }
    return count;
}

/// Fetches what comes after them, too.
std::size_t kyNetBufferPool::FreeList::takeEntries(Entry** entries, std::size_t most)
{
    const Lock taking(m_taking);
    if (m_next == m_oldest.size()) {
        m_oldest.clear();
        m_next = 0;
        const Lock releasing(m_releasing);
        std::swap(m_oldest, m_newest);
    }
    const std::size_t count = std::min(most, m_oldest.size() - m_next);
    std::copy_n(m_oldest.data() + m_next, count, entries);
    m_next += count;
    fetchSome(m_oldest.data() + m_next, m_oldest.size() - m_next);
    return count;
}

/// Another processor may have used those that are handed out next, and will have to give them up:
/// asks for one of them so early that it is here in time, and for the beginning of its data, which
/// cannot be found before it is here, when it is nearer.
void kyNetBufferPool::FreeList::fetchSome(Entry* const* next, std::size_t count)
{
    constexpr std::size_t entriesAhead = 16;
    constexpr std::size_t dataAhead = 8;
    if (count > entriesAhead) {
        const Entry* const entry = next[entriesAhead];
        __builtin_prefetch(&entry->buffer, 1);
        __builtin_prefetch(&entry->block, 1);
    }
    if (count > dataAhead) {
        const auto* const begin =
            reinterpret_cast<const char*>(next[dataAhead]->buffer.getBuffer());
        __builtin_prefetch(begin, 1);
        __builtin_prefetch(begin + s_cacheLine, 1);
    }
}

std::shared_ptr<kyNetBuffer> kyNetBufferPool::FreeList::handOut(Entry* entry)
{
    ControlBlock* const block = getControlBlock(entry);
    return {&entry->buffer, [entry](kyNetBuffer*) { entry->list->giveBack(entry); },
            ControlBlockAllocator<kyNetBuffer>{entry, block}};
}

/// A block that is not used, of an entry that is taken. The entry is back if there is no memory.
kyNetBufferPool::FreeList::ControlBlock* kyNetBufferPool::FreeList::getControlBlock(Entry* entry)
{
    using State = ControlBlock::State;
    const auto tryUse = [](ControlBlock& block) {
        const bool isFree = block.state.load(std::memory_order_acquire) == State::Free;
        if (isFree) {
            block.state.store(State::Used, std::memory_order_relaxed);
        }
        return isFree;
    };
    if (tryUse(entry->block)) {
        return &entry->block;
    }
    for (ControlBlock& block : entry->spareBlocks) {
        if (tryUse(block)) {
            return &block;
        }
    }
    try {
        entry->spareBlocks.emplace_front();
    } catch (const std::bad_alloc&) {
        entry->list->giveBack(entry);
        throw;
    }
    entry->spareBlocks.front().state = State::Used;
    return &entry->spareBlocks.front();
}

void kyNetBufferPool::FreeList::makeOne()
{
    auto entry = std::make_unique<Entry>(this);
    const Lock taking(m_taking);
    const Lock releasing(m_releasing);
    const std::size_t buffers = m_uses; // The pool's use counted for the new one.
    for (Entries* entries : {&m_oldest, &m_newest}) {
        if (entries->capacity() < buffers) {
            entries->reserve(2 * buffers);
        }
    }
    m_newest.push_back(entry.release());
    ++m_uses;
}

void kyNetBufferPool::FreeList::giveBack(Entry* entry) noexcept
{
    {
        const Lock releasing(m_releasing);
        if (!m_isClosed) {
            m_newest.push_back(entry); // There is room.
            return;
        }
    }
    discard(entry);
}

void kyNetBufferPool::FreeList::close()
{
    {
        const Lock releasing(m_releasing);
        m_isClosed = true;
    }
    std::for_each(m_oldest.begin() + static_cast<std::ptrdiff_t>(m_next), m_oldest.end(), discard);
    std::for_each(m_newest.begin(), m_newest.end(), discard);
    dropUse();
}

/// Lets an entry go whose pool is gone, as soon as none of its blocks is used any more.
void kyNetBufferPool::FreeList::discard(Entry* entry) noexcept
{
    using State = ControlBlock::State;
    entry->uses = 1;
    const auto leave = [&](ControlBlock& block) {
        ++entry->uses;
        if (block.state.exchange(State::LeftBehind) == State::Free) {
            --entry->uses;
        }
    };
    leave(entry->block);
    std::for_each(entry->spareBlocks.begin(), entry->spareBlocks.end(), leave);
    dropUse(entry);
}

void kyNetBufferPool::FreeList::dropUse(Entry* entry) noexcept
{
    if (--entry->uses == 0) {
        FreeList* const list = entry->list;
        delete entry;
        list->dropUse();
    }
}

void kyNetBufferPool::FreeList::dropUse() noexcept
{
    if (--m_uses == 0) {
        delete this;
    }
}

// Never destroyed: detached threads return their buffers even while the process ends.
kyNetBufferPool& kyNetBufferPool::s_instance = *new kyNetBufferPool;

kyNetBufferPool::kyNetBufferPool() : m_freeList(new FreeList, [](FreeList* list) { list->close(); })
{
}

std::shared_ptr<kyNetBuffer> kyNetBufferPool::get()
{
    std::shared_ptr<kyNetBuffer> buffer = m_freeList->tryTake();
    while (!buffer) {
        // Another thread may take the new one first; then this one makes another.
        addBuffer();
        buffer = m_freeList->tryTake();
    }
    return buffer;
}

void kyNetBufferPool::getMany(int n, std::vector<std::shared_ptr<kyNetBuffer>>& out)
{
    while (n > 0) {
        const auto taken = static_cast<int>(m_freeList->tryTake(static_cast<std::size_t>(n), out));
        if (taken == 0) {
            addBuffer();
        }
        n -= taken;
    }
}

std::shared_ptr<kyNetBuffer> kyNetBufferPool::pop()
{
    return s_instance.get();
}

void kyNetBufferPool::popMany(int n, std::vector<std::shared_ptr<kyNetBuffer>>& out)
{
    s_instance.getMany(n, out);
}

void kyNetBufferPool::addBuffer()
{
    m_freeList->makeOne();
}
