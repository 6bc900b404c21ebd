#pragma once

#include <memory>
#include <vector>

#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/kyNetBaseExport.h>

/// Where every buffer comes from, and where it goes back to when its last holder lets go.
///
/// One pool serves the process:
///
///     std::shared_ptr<kyNetBuffer> buffer = kyNetBufferPool::pop();
///
/// It makes a buffer each time a request finds it empty, hands returned ones out in the order in
/// which they came back, and never shrinks: its size is the largest number of buffers that were
/// ever held at once. A buffer comes as it was returned, with the header, data and send mode of
/// its last use: whoever takes one sets all that it relies on. Nothing is allocated for taking and
/// releasing those that are there, what a shared pointer keeps beside a buffer included.
///
/// Threads: any number at once, without a mutex unless the pool grows; who takes waits a few
/// instructions for others that take, and for the one whose released buffer comes next, and lets
/// them have the processor. Releasing waits for nobody: it may happen at any time, also after the
/// pool is gone and while the process ends.
class KY_NETBASE_EXPORT kyNetBufferPool
{
public:
    /// An empty pool. The library itself only ever uses the one behind pop().
    kyNetBufferPool();

    /// Copies share the other's buffers: what one hands out, no other does.
    kyNetBufferPool(const kyNetBufferPool&) = default;
    kyNetBufferPool& operator=(const kyNetBufferPool&) = default;

    /// One buffer, in which nothing is reset. Throws std::bad_alloc.
    std::shared_ptr<kyNetBuffer> get();

    /// Appends n buffers to `out`, none if n is 0 or less. Throws std::bad_alloc.
    void getMany(int n, std::vector<std::shared_ptr<kyNetBuffer>>& out);

    /// One buffer of the process's pool, as get().
    static std::shared_ptr<kyNetBuffer> pop();

    /// Appends n buffers of the process's pool to `out`, as getMany().
    static void popMany(int n, std::vector<std::shared_ptr<kyNetBuffer>>& out);

private:
    class FreeList;

    void addBuffer();

    static kyNetBufferPool& s_instance;

    std::shared_ptr<FreeList> m_freeList;
};
