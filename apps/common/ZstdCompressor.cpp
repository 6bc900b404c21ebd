#include <apps/common/ZstdCompressor.h>

#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include <zstd.h>
#include <zstd_errors.h>

#include <NetBase/buffers/kyNetError.h>

namespace {

/// Higher levels take ever longer for ever less.
constexpr int s_level = 3;

struct Free
{
    void operator()(ZSTD_CCtx* context) const { ZSTD_freeCCtx(context); }
    void operator()(ZSTD_DCtx* context) const { ZSTD_freeDCtx(context); }
};

/// Contexts, which keep their memory from one buffer to the next, for one thread each at a time.
///
/// Not the thread's own: with the cross compiler's runtime a thread frees the memory of what it
/// owns before that is destroyed.
template <class Context> class Pool
{
public:
    explicit Pool(Context* (*create)()) : m_create(create) {}

    struct GiveBack
    {
        Pool* pool;
        void operator()(Context* context) const { pool->giveBack(context); }
    };
    using Taken = std::unique_ptr<Context, GiveBack>;

    Taken take()
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        if (m_free.empty()) {
            // There is room for all that are taken.
            m_free.reserve(++m_count);
            Taken made(m_create(), {this});
            if (!made) {
                throw std::bad_alloc();
            }
            return made;
        }
        Taken taken(m_free.back().release(), {this});
        m_free.pop_back();
        return taken;
    }

private:
    void giveBack(Context* context)
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        m_free.emplace_back(context);
    }

    Context* (*m_create)();
    std::mutex m_lock;
    std::vector<std::unique_ptr<Context, Free>> m_free;
    std::size_t m_count = 0;
};

/// Whether the data is one frame, of the present format and of that original size. The library
/// takes several frames as well, gaps between them, and all formats that there have been.
bool isFrame(const char* data, std::uint64_t size, std::uint64_t originalSize)
{
    std::uint32_t magic = 0;
    if (size < sizeof(magic)) {
        return false;
    }
    std::memcpy(&magic, data, sizeof(magic));
    return magic == ZSTD_MAGICNUMBER && ZSTD_getFrameContentSize(data, size) == originalSize &&
           ZSTD_findFrameCompressedSize(data, size) == size;
}

} // namespace

struct ZstdCompressor::Contexts
{
    Pool<ZSTD_CCtx> compressing{&ZSTD_createCCtx};
    Pool<ZSTD_DCtx> decompressing{&ZSTD_createDCtx};
};

ZstdCompressor::ZstdCompressor()
    : BlockCompressor(s_method), m_contexts(std::make_unique<Contexts>())
{
}

ZstdCompressor::~ZstdCompressor() = default;

std::uint64_t ZstdCompressor::shorten(char* out, std::uint64_t room, const char* in,
                                      std::uint64_t size) const
{
    const std::size_t shortened =
        ZSTD_compressCCtx(m_contexts->compressing.take().get(), out, room, in, size, s_level);
    if (ZSTD_isError(shortened) == 0) {
        return shortened;
    }
    if (ZSTD_getErrorCode(shortened) == ZSTD_error_dstSize_tooSmall) {
        return 0;
    }
    throw kyNetError(std::string("Unable to compress buffer. ") + ZSTD_getErrorName(shortened));
}

bool ZstdCompressor::restore(char* out, std::uint64_t expected, const char* in,
                             std::uint64_t size) const
{
    // An error is a number beyond every size.
    return isFrame(in, size, expected) &&
           ZSTD_decompressDCtx(m_contexts->decompressing.take().get(), out, expected, in, size) ==
               expected;
}
