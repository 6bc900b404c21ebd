// Values into a buffer and back, without a network: how long one takes the library, a loop that
// checks the room and copies, and two serialization libraries.

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include <benchmark/benchmark.h>

#include <benchmarks/serialization/kyBlock.h>
#include <benchmarks/serialization/kyFlatbuffersPeer.h>
#include <benchmarks/serialization/kyLibraryPeer.h>
#include <benchmarks/serialization/kyMemcpyPeer.h>
#include <benchmarks/serialization/kyProtobufPeer.h>

namespace {

/// Bytes of values that one pass moves; with what some peers add it fits into one buffer.
constexpr std::size_t s_size = 65536;

template <class T> std::size_t sizeOf()
{
    return std::is_same_v<T, std::string> ? 16 : sizeof(T);
}

template <class T> void fill(std::mt19937& random, T& value)
{
    value = static_cast<T>(random());
}
void fill(std::mt19937& random, std::uint64_t& value)
{
    value = std::uint64_t{random()} << 32 | random();
}
void fill(std::mt19937& random, std::string& text)
{
    text.resize(16);
    for (char& letter : text) {
        letter = static_cast<char>('a' + random() % 26);
    }
}
void fill(std::mt19937& random, kyBlock& block)
{
    for (std::uint8_t& byte : block) {
        fill(random, byte);
    }
}

template <class T> std::vector<T> makeValues()
{
    std::mt19937 random;
    std::vector<T> values(s_size / sizeOf<T>());
    for (T& value : values) {
        fill(random, value);
    }
    return values;
}

template <class T> void report(benchmark::State& state)
{
    const auto passes = static_cast<std::int64_t>(state.iterations());
    state.SetItemsProcessed(passes * static_cast<std::int64_t>(s_size / sizeOf<T>()));
}

template <class Peer, class T> void write(benchmark::State& state)
{
    const std::vector<T> values = makeValues<T>();
    Peer peer;
    benchmark::DoNotOptimize(&peer);
    for (auto _ : state) {
        peer.write(values);
        benchmark::ClobberMemory();
    }

    std::vector<T> copy(values.size());
    peer.read(copy);
    if (copy != values) {
        state.SkipWithError("reads other values than were written");
    }
    report<T>(state);
}

template <class Peer, class T> void read(benchmark::State& state)
{
    const std::vector<T> values = makeValues<T>();
    Peer peer;
    peer.write(values);
    std::vector<T> copy(values.size());
    benchmark::DoNotOptimize(copy.data());
    for (auto _ : state) {
        peer.read(copy);
        benchmark::ClobberMemory();
    }

    if (copy != values) {
        state.SkipWithError("reads other values than were written");
    }
    report<T>(state);
}

template <class Peer> void addPeer(const std::string& peer)
{
    const auto add = [&peer](const std::string& workload, void (*function)(benchmark::State&)) {
        benchmark::RegisterBenchmark((workload + '/' + peer).c_str(), function);
    };
    add("write1", write<Peer, std::uint8_t>);
    add("write4", write<Peer, std::uint32_t>);
    add("write8", write<Peer, std::uint64_t>);
    add("writeString", write<Peer, std::string>);
    add("writeBlock", write<Peer, kyBlock>);
    add("read1", read<Peer, std::uint8_t>);
    add("read4", read<Peer, std::uint32_t>);
    add("read8", read<Peer, std::uint64_t>);
    add("readString", read<Peer, std::string>);
    add("readBlock", read<Peer, kyBlock>);
}

} // namespace

int main(int argc, char** argv)
{
    addPeer<kyLibraryPeer>("library");
    addPeer<kyMemcpyPeer>("memcpy");
    addPeer<kyFlatbuffersPeer>("flatbuffers");
    addPeer<kyProtobufPeer>("protobuf");

    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
