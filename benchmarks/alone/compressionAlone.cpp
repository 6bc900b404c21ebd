// What one processor compresses and decompresses without a network: the limit of the workload
// "compressed". The variant is lz4 or zstd.

#include <stdexcept>

#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/buffers/kyNetBufferPool.h>
#include <NetBase/buffers/kyNetOptions.h>
#include <apps/common/MethodCompressor.h>
#include <benchmarks/alone/Alone.h>
#include <benchmarks/core/Content.h>

int main(int argc, char** argv)
{
    const bench::Terms terms = bench::Terms::parse(argc, argv);
    const bench::Content content(terms.size, terms.dataFile);
    kyNetOptions::setDataCompression(terms.variant == "zstd" ? ZstdCompressor::s_method
                                                             : Lz4Compressor::s_method);
    MethodCompressor compressor;
    double compressedBytes = 0;
    bench::Report report = bench::workAlone(terms, [&](std::uint64_t number) {
        const std::shared_ptr<kyNetBuffer> clear = kyNetBufferPool::pop();
        clear->setType(kyNetMessageType::StreamData);
        clear->setDataSize(terms.size);
        clear->setCompression(kyNetCompression::None, terms.size);
        content.write(clear->getData(), number, bench::Phase::Measured);
        const auto compressed = compressor.compress(clear);
        compressedBytes += static_cast<double>(compressed->getBufferSize());
        const auto restored = compressor.decompress(compressed);
        bench::Phase phase{};
        if (content.check({restored->getData(), restored->getDataSize()}, phase) != number) {
            throw std::runtime_error("compression has changed a message");
        }
    });
    report["compressedBytes"] = compressedBytes;
    bench::Meeting(terms.folder, terms.rank).report(report);
    return 0;
}
