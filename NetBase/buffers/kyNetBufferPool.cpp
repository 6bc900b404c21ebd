#include <NetBase/buffers/kyNetBufferPool.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <forward_list>
#include <new>
#include <thread>
#include <utility>

namespace {

constexpr std::size_t s_cacheLine = 64;

} // namespace

/// Owns every buffer of a pool and queues those that nobody holds. Who releases puts a buffer on a
/// stack; who takes has a list, and turns the whole stack into the next one when that has run out:
/// a thread that takes what others release meets them once for all that has come back meanwhile.
/// (A list for each thread that takes would let them meet less often still, but would reuse buffers
/// out of turn.)
///
/// Nothing is allocated unless the pool grows: what a shared pointer needs is kept beside its
/// buffer. Nothing is counted for each buffer either: one that is released when the pool is gone
/// finds the stack closed, and the last of them takes the list along.
class kyNetBufferPool::FreeList
{
public:
    FreeList() = default;
    FreeList(const FreeList&) = delete;
    FreeList& operator=(const FreeList&) = delete;

    /// The buffer that has been back for longest, empty if none is.
    std::shared_ptr<kyNetBuffer> tryTake();

    void makeOne();

    /// The end of the pool: nothing is taken any more. What is back goes now, the rest when it is
    /// released.
    void close();

private:
    struct Entry;
    struct ControlBlock;
    template <class T> struct ControlBlockAllocator;

    Entry* takeEntry();
    static Entry* reverse(Entry* newest);
    static void fetchSome(Entry* entry);
    ControlBlock* getControlBlock(Entry* entry);
    void giveBack(Entry* entry) noexcept;
    static void discard(Entry* entry) noexcept;
    static void dropUse(Entry* entry) noexcept;
    void dropUse() noexcept;

    /// Stands for the newest when the pool is gone.
    Entry* getClosedMark() { return reinterpret_cast<Entry*>(this); }

    // Of those who take: one at a time, for a few instructions.
    alignas(s_cacheLine) std::atomic<bool> m_isTaking{false};
    Entry* m_oldest = nullptr;

    // Of those who release.
    alignas(s_cacheLine) std::atomic<Entry*> m_newest{nullptr};

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
    Entry* next = nullptr; ///< Came back after it; on the stack before it.
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

kyNetBufferPool::FreeList::Entry* kyNetBufferPool::FreeList::takeEntry()
{
    while (m_isTaking.exchange(true, std::memory_order_acquire)) {
        std::this_thread::yield();
    }
    Entry* oldest = m_oldest;
    if (oldest == nullptr && m_newest.load(std::memory_order_relaxed) != nullptr) {
        oldest = reverse(m_newest.exchange(nullptr, std::memory_order_acq_rel));
    }
    if (oldest != nullptr) {
        m_oldest = oldest->next;
        fetchSome(m_oldest);
    }
    m_isTaking.store(false, std::memory_order_release);
    return oldest;
}

/// Puts the oldest first.
kyNetBufferPool::FreeList::Entry* kyNetBufferPool::FreeList::reverse(Entry* newest)
{
    Entry* oldest = nullptr;
    while (newest != nullptr) {
        oldest = std::exchange(newest, std::exchange(newest->next, oldest));
    }
    return oldest;
}

/// Whoever takes the next buffers but two will write the beginning of one that another processor
/// has read: has it brought here meanwhile.
void kyNetBufferPool::FreeList::fetchSome(Entry* entry)
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
    return {&entry->buffer, [entry](kyNetBuffer*) { entry->list->giveBack(entry); },
            ControlBlockAllocator<kyNetBuffer>{entry, block}};
}

void kyNetBufferPool::FreeList::makeOne()
{
    auto* const entry = new Entry(this);
    ++m_uses;
    giveBack(entry);
}

void kyNetBufferPool::FreeList::close()
{
    while (Entry* const entry = takeEntry()) {
        discard(entry);
    }
    // Some may have come back meanwhile.
    Entry* newest = m_newest.exchange(getClosedMark(), std::memory_order_acquire);
    while (newest != nullptr) {
        discard(std::exchange(newest, newest->next));
    }
    dropUse();
}

/// A block that is not used, of an entry that is taken.
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
    Entry* newest = m_newest.load(std::memory_order_relaxed);
    do {
        if (newest == getClosedMark()) {
            discard(entry);
            return;
        }
        entry->next = newest;
    } while (!m_newest.compare_exchange_weak(newest, entry, std::memory_order_release,
                                             std::memory_order_relaxed));
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
