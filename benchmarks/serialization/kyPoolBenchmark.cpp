// Taking a buffer and releasing it, beside what malloc and free need for one as large; by one
// thread and by up to twice as many as there are cores.

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>

#include <benchmark/benchmark.h>

#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/buffers/kyNetBufferPool.h>

namespace {

constexpr std::size_t s_bufferSize = kyNetBuffer::getHeaderSize() + kyNetBuffer::getCapacity();

/// Both write one byte and look at it again behind the compiler's back: a buffer that another
/// thread holds, too, would show.
template <class Bytes> bool isMine(Bytes* bytes, int thread)
{
    const auto mark = static_cast<char>(thread);
    *bytes = mark;
    benchmark::DoNotOptimize(bytes);
    benchmark::ClobberMemory();
    return *bytes == mark;
}

void takeFromPool(benchmark::State& state)
{
    bool isSound = true;
    for (auto _ : state) {
        const std::shared_ptr<kyNetBuffer> buffer = kyNetBufferPool::pop();
        isSound = isMine(buffer->getData(), state.thread_index()) && isSound;
    }
    if (!isSound) {
        state.SkipWithError("two threads hold one buffer");
    }
    state.SetItemsProcessed(state.iterations());
}

void allocate(benchmark::State& state)
{
    bool isSound = true;
    for (auto _ : state) {
        void* block = std::malloc(s_bufferSize);
        isSound = isMine(static_cast<char*>(block), state.thread_index()) && isSound;
        std::free(block);
    }
    if (!isSound) {
        state.SkipWithError("two threads hold one block");
    }
    state.SetItemsProcessed(state.iterations());
}

} // namespace

int main(int argc, char** argv)
{
    const int most = 2 * static_cast<int>(std::max(1U, std::thread::hardware_concurrency()));
    for (int threads = 1; threads <= most; threads *= 2) {
        const std::string workload = "pool" + std::to_string(threads) + '/';
        const auto add = [&](const char* who, void (*function)(benchmark::State&)) {
            benchmark::RegisterBenchmark((workload + who).c_str(), function)
                ->Threads(threads)
                ->UseRealTime();
        };
        add("library", takeFromPool);
        add("malloc", allocate);
    }

    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
