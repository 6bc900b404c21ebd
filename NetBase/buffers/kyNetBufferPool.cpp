#include <NetBase/buffers/kyNetBufferPool.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <forward_list>
#include <mutex>
#include <new>
#include <thread>
#include <utility>

namespace {

constexpr std::size_t s_cacheLine = 64;

/// How many buffers one call of getMany takes together.
constexpr std::size_t s_mostAtOnce = 256;

/// How many buffers ahead of the one that is taken what the next ones consist of is fetched.
constexpr std::size_t s_later = 16;
constexpr std::size_t s_soon = 8;

/// How long the end of a pool waits for a thread that is releasing a buffer.
constexpr std::chrono::seconds s_patience{1};

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

} // namespace

/// Owns every buffer of a pool and queues those that nobody holds: on two shelves of numbered
/// places. Who releases a buffer draws a ticket for the next place of one shelf and puts it there,
/// without waiting for anybody. Who takes empties the other shelf from its begin, and has the next
/// tickets lead to that one when it is empty: a thread that takes what others release meets them
/// once for all that has come back meanwhile. (Shelves for each thread that takes would let them
/// meet less often still, but would reuse buffers out of turn.)
///
/// What a buffer is made of is on its way from the processor that used it last, and would be waited
/// for where it is needed at once. A shelf tells what comes next without it, in time to have it
/// fetched.
///
/// Nothing is allocated unless the pool grows: each shelf has a place for every buffer that there
/// is, and what a shared pointer needs is kept beside its buffer. Nothing is counted for each
/// buffer either: one that is released when the pool is gone finds the tickets void, and the last
/// of them takes the shelves along.
class kyNetBufferPool::FreeList
{
    struct Entry;
    struct ControlBlock;
    template <class T> struct ControlBlockAllocator;

    /// Empty until the buffer of its ticket is there.
    using Place = std::atomic<Entry*>;

    /// Places that stay where they are, and are used, while there are more and more: each block of
    /// them has twice as many as the one before.
    class Shelf
    {
    public:
        /// One of those that there are.
        Place& operator[](std::size_t number) const
        {
            const std::size_t i = number + s_first;
            const std::size_t block = getHighestBit(i);
            return m_blocks[block - getHighestBit(s_first)][i - (std::size_t{1} << block)];
        }

        /// So many, at least. Throws std::bad_alloc.
        void growTo(std::size_t count)
        {
            for (std::size_t block = 0, size = s_first; count > size - s_first; ++block) {
                if (!m_blocks[block]) {
                    m_blocks[block].reset(new Place[size]());
                }
                size *= 2;
            }
        }

    private:
        static constexpr std::size_t s_first = 64;

        static constexpr std::size_t getHighestBit(std::size_t i)
        {
            return static_cast<std::size_t>(63 - __builtin_clzll(i));
        }

        std::array<std::unique_ptr<Place[]>, 57> m_blocks;
    };

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
    using Clock = std::chrono::steady_clock;

    /// The number of a place, twice, and which shelf.
    using Ticket = std::uint64_t;
    static constexpr Ticket s_void = Ticket{1} << 63;
    Place& getPlace(Ticket ticket) const { return m_shelves[ticket % 2][ticket / 2]; }

    std::size_t takeEntries(Entry** entries, std::size_t most);
    void changeShelves();
    static Entry* await(const Place& place, Clock::time_point end);
    const Entry* look(std::size_t ahead) const;
    static void fetch(const Entry* later, const Entry* soon);
    static std::shared_ptr<kyNetBuffer> handOut(Entry* entry);
    static ControlBlock* getControlBlock(Entry* entry);
    void giveBack(Entry* entry) noexcept;
    void discardFrom(Ticket next, Ticket end) noexcept;
    static void discard(Entry* entry) noexcept;
    static void dropUse(Entry* entry) noexcept;
    void dropUse() noexcept;

    // Of those who take.
    alignas(s_cacheLine) SpinLock m_taking;
    Ticket m_next = 0;
    Ticket m_end = 0;

    // Of those who release.
    alignas(s_cacheLine) std::atomic<Ticket> m_ticket{1};

    // Of the buffers that there are, and of the pool.
    alignas(s_cacheLine) std::array<Shelf, 2> m_shelves;
    std::mutex m_making;
    std::atomic<std::size_t> m_uses{1};
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
    // One beside the first is enough for two threads: a buffer is back a moment before its block
    // is, and long before if there are weak pointers.
    std::forward_list<ControlBlock> spareBlocks{1};
    ControlBlock block; ///< Used first.
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
    const auto look = [&](std::size_t i) { return i < count ? entries[i] : nullptr; };
    std::size_t i = 0;
    try {
        for (; i < count; ++i) {
            fetch(look(i + s_later), look(i + s_soon));
            out.push_back(handOut(entries[i]));
        }
    } catch (...) { // That one is back already.
        std::for_each(entries.data() + i + 1, entries.data() + count,
                      [this](Entry* entry) { giveBack(entry); });
        throw;
    }
    return count;
}

/// Fetches some of what comes after them, too.
std::size_t kyNetBufferPool::FreeList::takeEntries(Entry** entries, std::size_t most)
{
    const std::lock_guard<SpinLock> taking(m_taking);
    if (m_next == m_end) {
        changeShelves();
    }
    const std::size_t count = std::min<std::size_t>(most, (m_end - m_next) / 2);
    for (std::size_t i = 0; i < count; ++i, m_next += 2) {
        Place& place = getPlace(m_next);
        entries[i] = await(place, Clock::time_point::max());
        place.store(nullptr, std::memory_order_relaxed);
    }
    fetch(look(s_later), look(s_soon));
    return count;
}

/// The empty shelf for the one on which something has come back meanwhile.
void kyNetBufferPool::FreeList::changeShelves()
{
    if (m_ticket.load(std::memory_order_relaxed) > 1) {
        m_end = m_ticket.exchange(m_end % 2, std::memory_order_acq_rel);
        m_next = m_end % 2;
    }
}

/// The buffer whose ticket led there: it comes in a moment. Nothing if it has not until the end.
kyNetBufferPool::FreeList::Entry* kyNetBufferPool::FreeList::await(const Place& place,
                                                                   Clock::time_point end)
{
    Entry* entry = place.load(std::memory_order_acquire);
    while (entry == nullptr && Clock::now() < end) {
        std::this_thread::yield();
        entry = place.load(std::memory_order_acquire);
    }
    return entry;
}

/// What will be taken after so many others, nothing if that is not known.
const kyNetBufferPool::FreeList::Entry* kyNetBufferPool::FreeList::look(std::size_t ahead) const
{
    const Ticket ticket = m_next + 2 * ahead;
    return ticket < m_end ? getPlace(ticket).load(std::memory_order_acquire) : nullptr;
}

/// The beginning of a buffer's data cannot be found before the rest of it is here.
void kyNetBufferPool::FreeList::fetch(const Entry* later, const Entry* soon)
{
    if (later != nullptr) {
        __builtin_prefetch(&later->buffer, 1);
        __builtin_prefetch(&later->block, 1);
    }
    if (soon != nullptr) {
        const auto* const begin = reinterpret_cast<const char*>(soon->buffer.getBuffer());
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
    {
        const std::lock_guard<std::mutex> making(m_making);
        const std::size_t buffers = m_uses; // The pool's use counted for the new one.
        for (Shelf& shelf : m_shelves) {
            shelf.growTo(buffers);
        }
        ++m_uses;
    }
    giveBack(entry.release());
}

void kyNetBufferPool::FreeList::giveBack(Entry* entry) noexcept
{
    const Ticket ticket = m_ticket.fetch_add(2, std::memory_order_acq_rel);
    if (ticket < s_void) {
        getPlace(ticket).store(entry, std::memory_order_release);
    } else {
        discard(entry);
    }
}

void kyNetBufferPool::FreeList::close()
{
    const Ticket end = m_ticket.fetch_or(s_void, std::memory_order_acq_rel);
    discardFrom(m_next, m_end);
    discardFrom(end % 2, end);
    dropUse();
}

/// Leaves behind, for good, what does not come: its thread stands still, or was ended by force as
/// at a process's end.
void kyNetBufferPool::FreeList::discardFrom(Ticket next, Ticket end) noexcept
{
    const auto patience = Clock::now() + s_patience;
    for (; next != end; next += 2) {
        if (Entry* const entry = await(getPlace(next), patience)) {
            discard(entry);
        }
    }
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
