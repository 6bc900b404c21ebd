#include <apps/common/ZstdCompressor.h>

#include <cstring>
#include <memory>
#include <new>
#include <string>

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

/// The calling thread's context, which keeps its memory from one buffer to the next.
template <class Context> Context* getContext(Context* (*create)())
{
    thread_local std::unique_ptr<Context, Free> s_context;
    if (!s_context) {
        s_context.reset(create());
        if (!s_context) {
            throw std::bad_alloc();
        }
    }
    return s_context.get();
}

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

std::uint64_t ZstdCompressor::shorten(char* out, std::uint64_t room, const char* in,
                                      std::uint64_t size) const
{
    const std::size_t shortened =
        ZSTD_compressCCtx(getContext(&ZSTD_createCCtx), out, room, in, size, s_level);
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
           ZSTD_decompressDCtx(getContext(&ZSTD_createDCtx), out, expected, in, size) == expected;
}
