#include <NetBase/buffers/kyNetBufferPool.h>

#include <atomic>
#include <new>
#include <utility>

#include <tbb/concurrent_queue.h>

/// Owns every buffer of a pool and queues those that nobody holds. Who holds a buffer shares it,
/// so it outlives its pool while buffers are held.
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

    bool tryTake(kyNetBuffer*& buffer) { return m_free.try_pop(buffer); }

    void makeOne()
    {
        auto* entry = new Entry;
        entry->next = m_made;
        while (!m_made.compare_exchange_weak(entry->next, entry)) {
        }
        m_free.push(&entry->buffer);
    }

    /// Without memory for the queue the buffer rests until the list ends.
    void giveBack(kyNetBuffer* buffer) noexcept
    {
        try {
            m_free.push(buffer);
        } catch (const std::bad_alloc&) {
        }
    }

private:
    struct Entry
    {
        kyNetBuffer buffer;
        Entry* next = nullptr;
    };

    // Beside the queue, whose memory leak checkers do not see.
    std::atomic<Entry*> m_made{nullptr};
    tbb::concurrent_queue<kyNetBuffer*> m_free;
};

// Never destroyed: detached threads return their buffers even while the process ends.
kyNetBufferPool& kyNetBufferPool::s_instance = *new kyNetBufferPool;

kyNetBufferPool::kyNetBufferPool() : m_freeList(std::make_shared<FreeList>()) {}

std::shared_ptr<kyNetBuffer> kyNetBufferPool::get()
{
    kyNetBuffer* buffer = nullptr;
    while (!m_freeList->tryTake(buffer)) {
        // Another thread may take the new one first; then this one makes another.
        addBuffer();
    }
    return {buffer,
            [freeList = m_freeList](kyNetBuffer* released) { freeList->giveBack(released); }};
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
