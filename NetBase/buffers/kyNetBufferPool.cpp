#include <NetBase/buffers/kyNetBufferPool.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <forward_list>
#include <functional>
#include <new>
#include <thread>
#include <utility>

namespace {

constexpr std::size_t s_cacheLine = 64;

} // namespace

/// Owns every buffer of a pool and queues those that nobody holds, in lanes: a thread takes from
/// its own lane, and a buffer comes back to the lane that it was taken for, whoever releases it.
/// So threads touch the same memory only where they pass buffers to each other, and one that takes
/// what others release meets them once for all that has come back meanwhile.
///
/// Nothing is allocated unless the pool grows: what a shared pointer needs is kept beside its
/// buffer. Nothing is counted for each buffer either: one that is released when the pool is gone
/// finds its lane closed, and the last of them takes the list along.
class kyNetBufferPool::FreeList
{
public:
    FreeList() = default;
    FreeList(const FreeList&) = delete;
    FreeList& operator=(const FreeList&) = delete;

    /// The buffer of the calling thread's lane that has been back for longest; of another lane, if
    /// there is none; empty if no lane has any.
    std::shared_ptr<kyNetBuffer> tryTake();

    /// Adds a buffer to the calling thread's lane.
    void makeOne();

    /// The end of the pool: nothing is taken any more. What is back goes now, the rest when it is
    /// released.
    void close();

private:
    struct Entry;
    struct ControlBlock;
    template <class T> struct ControlBlockAllocator;

    /// A queue of buffers. Who releases puts them on a stack; who takes has a list, and turns the
    /// whole stack into the next one when that has run out.
    class Lane
    {
    public:
        /// The one that has been back for longest, null if there is none.
        Entry* take();

        /// Whether there is nothing to take, as far as can be told at any moment.
        bool isEmpty() const;

        /// False if the lane is closed.
        bool giveBack(Entry* entry);

        /// Lets none come back any more. Answers those that are on the stack.
        Entry* close() { return m_newest.exchange(getClosedMark(), std::memory_order_acquire); }

    private:
        static Entry* reverse(Entry* newest);
        static void fetchSome(Entry* entry);

        /// Stands for the newest when the lane is closed.
        Entry* getClosedMark() { return reinterpret_cast<Entry*>(this); }

        // Of those who take: one at a time, for a few instructions.
        alignas(s_cacheLine) std::atomic<bool> m_isTaking{false};
        std::atomic<Entry*> m_oldest{nullptr};

        // Of those who release.
        alignas(s_cacheLine) std::atomic<Entry*> m_newest{nullptr};
    };

    static std::size_t laneOfThread()
    {
        return std::hash<std::thread::id>()(std::this_thread::get_id()) % s_laneCount;
    }

    Entry* takeEntry();
    static ControlBlock* getControlBlock(Entry* entry);
    static void giveBack(Entry* entry) noexcept;
    static void discard(Entry* entry) noexcept;
    static void dropUse(Entry* entry) noexcept;
    void dropUse() noexcept;

    // So many that busy threads seldom share one, and so few that looking at all costs little.
    static constexpr std::size_t s_laneCount = 32;

    std::array<Lane, s_laneCount> m_lanes;
    std::atomic<std::size_t> m_uses{1}; ///< Buffers that there are, and the pool.
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
    Entry* next = nullptr; ///< Came back after it; on the stack before it.
    Lane* lane = nullptr;
    FreeList* list;
    std::atomic<std::size_t> uses{0}; ///< Blocks that are left behind.
    // Two are enough for two threads: a buffer is back a moment before its block is, and long
    // before if there are weak pointers.
    std::forward_list<ControlBlock> blocks{2};
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

kyNetBufferPool::FreeList::Entry* kyNetBufferPool::FreeList::Lane::take()
{
    while (m_isTaking.exchange(true, std::memory_order_acquire)) {
        std::this_thread::yield();
    }
    Entry* oldest = m_oldest.load(std::memory_order_relaxed);
    if (oldest == nullptr && m_newest.load(std::memory_order_relaxed) != nullptr) {
        oldest = reverse(m_newest.exchange(nullptr, std::memory_order_acq_rel));
    }
    if (oldest != nullptr) {
        m_oldest.store(oldest->next, std::memory_order_relaxed);
        fetchSome(oldest->next);
    }
    m_isTaking.store(false, std::memory_order_release);
    return oldest;
}

bool kyNetBufferPool::FreeList::Lane::isEmpty() const
{
    // In this order: while the stack becomes the list, it is taken.
    return m_newest.load(std::memory_order_acquire) == nullptr &&
           !m_isTaking.load(std::memory_order_acquire) &&
           m_oldest.load(std::memory_order_relaxed) == nullptr;
}

bool kyNetBufferPool::FreeList::Lane::giveBack(Entry* entry)
{
    Entry* newest = m_newest.load(std::memory_order_relaxed);
    do {
        if (newest == getClosedMark()) {
            return false;
        }
        entry->next = newest;
    } while (!m_newest.compare_exchange_weak(newest, entry, std::memory_order_release,
                                             std::memory_order_relaxed));
    return true;
}

/// Puts the oldest first.
kyNetBufferPool::FreeList::Entry* kyNetBufferPool::FreeList::Lane::reverse(Entry* newest)
{
    Entry* oldest = nullptr;
    while (newest != nullptr) {
        oldest = std::exchange(newest, std::exchange(newest->next, oldest));
    }
    return oldest;
}

/// Whoever takes the next buffers but two will write the beginning of one that another processor
/// has read: has it brought here meanwhile.
void kyNetBufferPool::FreeList::Lane::fetchSome(Entry* entry)
{
    for (int i = 0; i < 2 && entry != nullptr; ++i) {
        entry = entry->next;
    }
    if (entry != nullptr) {
        const auto* const begin = reinterpret_cast<const char*>(entry->buffer.getBuffer());
        __builtin_prefetch(begin, 1);
        __builtin_prefetch(begin + s_cacheLine, 1);
        __builtin_prefetch(&entry->blocks.front(), 1);
    }
}

std::shared_ptr<kyNetBuffer> kyNetBufferPool::FreeList::tryTake()
{
    Entry* const entry = takeEntry();
    if (entry == nullptr) {
        return nullptr;
    }
    ControlBlock* const block = getControlBlock(entry);
    return {&entry->buffer, [entry](kyNetBuffer*) { giveBack(entry); },
            ControlBlockAllocator<kyNetBuffer>{entry, block}};
}

void kyNetBufferPool::FreeList::makeOne()
{
    auto* const entry = new Entry(this);
    ++m_uses;
    entry->lane = &m_lanes[laneOfThread()];
    giveBack(entry);
}

void kyNetBufferPool::FreeList::close()
{
    for (Lane& lane : m_lanes) {
        while (Entry* const entry = lane.take()) {
            discard(entry);
        }
        for (Entry* entry = lane.close(); entry != nullptr;) {
            discard(std::exchange(entry, entry->next));
        }
    }
    dropUse();
}

kyNetBufferPool::FreeList::Entry* kyNetBufferPool::FreeList::takeEntry()
{
    const std::size_t own = laneOfThread();
    Entry* entry = m_lanes[own].take();
    for (std::size_t i = 1; i < s_laneCount && entry == nullptr; ++i) {
        Lane& other = m_lanes[(own + i) % s_laneCount];
        entry = other.isEmpty() ? nullptr : other.take();
    }
    if (entry != nullptr) {
        entry->lane = &m_lanes[own];
    }
    return entry;
}

/// A block that is not used, of an entry that is in no lane.
kyNetBufferPool::FreeList::ControlBlock* kyNetBufferPool::FreeList::getControlBlock(Entry* entry)
{
    using State = ControlBlock::State;
    for (ControlBlock& block : entry->blocks) {
        if (block.state.load(std::memory_order_acquire) == State::Free) {
            block.state.store(State::Used, std::memory_order_relaxed);
            return &block;
        }
    }
    try {
        entry->blocks.emplace_front();
    } catch (const std::bad_alloc&) {
        giveBack(entry);
        throw;
    }
    entry->blocks.front().state = State::Used;
    return &entry->blocks.front();
}

void kyNetBufferPool::FreeList::giveBack(Entry* entry) noexcept
{
    if (!entry->lane->giveBack(entry)) {
        discard(entry);
    }
}

/// Lets an entry go whose pool is gone, as soon as none of its blocks is used any more.
void kyNetBufferPool::FreeList::discard(Entry* entry) noexcept
{
    using State = ControlBlock::State;
    entry->uses = 1;
    for (ControlBlock& block : entry->blocks) {
        ++entry->uses;
        if (block.state.exchange(State::LeftBehind) == State::Free) {
            --entry->uses;
        }
    }
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
    for (int i = 0; i < n; ++i) {
        out.push_back(get());
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
