#include <NetBase/buffers/kyNetBufferPool.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <forward_list>
#include <new>
#include <utility>

#include <tbb/cache_aligned_allocator.h>
#include <tbb/concurrent_queue.h>

namespace {

/// Memory for the pages of a queue, which takes and lets go of one every few pushes. Any thread.
class Pages
{
public:
    static constexpr std::size_t s_size = 320;

    /// A page that is not used, null if there is none.
    void* take()
    {
        for (Page& page : m_pages) {
            if (!page.isUsed && !page.isUsed.exchange(true)) {
                return page.memory.data();
            }
        }
        return nullptr;
    }

    /// False if the memory is not from here.
    bool giveBack(void* memory)
    {
        for (Page& page : m_pages) {
            if (page.memory.data() == memory) {
                page.isUsed = false;
                return true;
            }
        }
        return false;
    }

private:
    struct alignas(64) Page
    {
        std::array<unsigned char, s_size> memory;
        std::atomic<bool> isUsed{false};
    };

    // Enough for some 700 buffers: the queue has 8 lanes, a page 32 places.
    std::array<Page, 32> m_pages;
};

/// Pages from there, and from where queues have theirs otherwise when those are all in use.
template <class T> struct PageAllocator
{
    using value_type = T;

    explicit PageAllocator(Pages* memory) : pages(memory) {}
    template <class Other> PageAllocator(const PageAllocator<Other>& other) : pages(other.pages) {}

    T* allocate(std::size_t count)
    {
        static_assert(sizeof(T) <= Pages::s_size);
        void* const page = pages->take();
        return page != nullptr ? static_cast<T*>(page) : Otherwise().allocate(count);
    }
    void deallocate(T* page, std::size_t count) noexcept
    {
        if (!pages->giveBack(page)) {
            Otherwise().deallocate(page, count);
        }
    }

    using Otherwise = tbb::cache_aligned_allocator<T>;
    Pages* pages;
};

} // namespace

/// Owns every buffer of a pool and queues those that nobody holds. Who holds a buffer shares it,
/// so it outlives its pool while buffers are held.
///
/// Nothing is allocated unless the pool grows: what shared pointers and the queue need is kept and
/// used again, as the buffers are.
///
/// On cache lines of its own: the count of its holders changes with every buffer, and whoever
/// takes one reads the list (two threads that only take and return are a tenth faster so).
class alignas(64) kyNetBufferPool::FreeList
{
public:
    FreeList() = default;
    FreeList(const FreeList&) = delete;
    FreeList& operator=(const FreeList&) = delete;

    ~FreeList()
    {
        for (Entry* entry = m_made; entry != nullptr;) {
            delete std::exchange(entry, entry->next);
        }
    }

    /// The buffer that has been back for longest, empty if none is.
    static std::shared_ptr<kyNetBuffer> tryTake(const std::shared_ptr<FreeList>& list)
    {
        Entry* entry = nullptr;
        if (!list->m_free.try_pop(entry)) {
            return nullptr;
        }
        ControlBlock* const block = list->getControlBlock(entry);
        block->list = list;
        return {&entry->buffer, [raw = list.get(), entry](kyNetBuffer*) { raw->giveBack(entry); },
                ControlBlockAllocator<kyNetBuffer>{block}};
    }

    void makeOne()
    {
        auto* entry = new Entry;
        entry->next = m_made;
        while (!m_made.compare_exchange_weak(entry->next, entry)) {
        }
        m_free.push(entry);
    }

private:
    /// Memory of what a shared pointer keeps beside the buffer, and what lets the list live as
    /// long as that is used. Different threads use the neighbours: on cache lines of its own.
    struct alignas(64) ControlBlock
    {
        std::atomic<bool> isUsed{false};
        std::shared_ptr<FreeList> list;
        alignas(std::max_align_t) std::array<unsigned char, 64> memory;
    };

    template <class T> struct ControlBlockAllocator
    {
        using value_type = T;

        explicit ControlBlockAllocator(ControlBlock* memory) : block(memory) {}
        template <class Other>
        ControlBlockAllocator(const ControlBlockAllocator<Other>& other) : block(other.block)
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
            const std::shared_ptr<FreeList> list = std::move(block->list);
            block->isUsed.store(false, std::memory_order_release);
        }

        ControlBlock* block;
    };

    struct Entry
    {
        kyNetBuffer buffer;
        // Two are enough for two threads: a buffer is back a moment before its block is, and long
        // before if there are weak pointers.
        std::forward_list<ControlBlock> blocks{2};
        Entry* next = nullptr;
    };

    /// A block that is not used, of an entry that is not in the queue.
    ControlBlock* getControlBlock(Entry* entry)
    {
        for (ControlBlock& block : entry->blocks) {
            if (!block.isUsed.load(std::memory_order_acquire)) {
                block.isUsed.store(true, std::memory_order_relaxed);
                return &block;
            }
        }
        try {
            entry->blocks.emplace_front();
        } catch (const std::bad_alloc&) {
            giveBack(entry);
            throw;
        }
        entry->blocks.front().isUsed = true;
        return &entry->blocks.front();
    }

    /// Without memory for the queue the buffer rests until the list ends.
    void giveBack(Entry* entry) noexcept
    {
        try {
            m_free.push(entry);
        } catch (const std::bad_alloc&) {
        }
    }

    Pages m_pages;
    tbb::concurrent_queue<Entry*, PageAllocator<Entry*>> m_free{PageAllocator<Entry*>(&m_pages)};
    // Beside the queue, whose memory leak checkers do not see.
    std::atomic<Entry*> m_made{nullptr};
};

// Never destroyed: detached threads return their buffers even while the process ends.
kyNetBufferPool& kyNetBufferPool::s_instance = *new kyNetBufferPool;

kyNetBufferPool::kyNetBufferPool() : m_freeList(std::make_shared<FreeList>()) {}

std::shared_ptr<kyNetBuffer> kyNetBufferPool::get()
{
    std::shared_ptr<kyNetBuffer> buffer = FreeList::tryTake(m_freeList);
    while (!buffer) {
        // Another thread may take the new one first; then this one makes another.
        addBuffer();
        buffer = FreeList::tryTake(m_freeList);
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
