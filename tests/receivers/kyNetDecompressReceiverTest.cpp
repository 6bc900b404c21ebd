#include <NetBase/receivers/kyNetDecompressReceiver.h>

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <new>
#include <string>
#include <system_error>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <NetBase/buffers/kyConnectionClosed.h>
#include <NetBase/platform/kyThreads.h>
#include <NetBase/receivers/kyNetLinkReceiver.h>
#include <NetBase/receivers/kyNetSortReceiver.h>
#include <NetBase/receivers/kyNetUnbundleReceiver.h>
#include <NetBase/senders/kyNetCompressSender.h>
#include <NetBase/senders/kyNetCompressorBase.h>
#include <tests/receivers/kyTestTap.h>
#include <tests/support/kyTestBlocked.h>
#include <tests/support/kyTestChains.h>
#include <tests/support/kyTestCompression.h>
#include <tests/support/kyTestMemory.h>
#include <tests/support/kyTestThreads.h>

using kyTest::Blocked;
using kyTest::Buffer;
using kyTest::CompressionSetting;
using kyTest::dataOf;
using kyTest::endsAtOnce;
using kyTest::failureOf;
using kyTest::makeBuffer;
using kyTest::messageOf;
using kyTest::recvAvailableFrom;
using kyTest::recvFrom;
using kyTest::Tap;
using kyTest::waitUntil;

static_assert(!std::is_copy_constructible_v<kyNetDecompressReceiver> &&
              !std::is_copy_assignable_v<kyNetDecompressReceiver>);

namespace {

using Children = std::vector<std::shared_ptr<kyNetReceiver>>;

/// Compresses by writing a "z" before the data.
class ZCompressor final : public kyNetCompressorBase
{
public:
    Buffer compress(const Buffer& buffer) override
    {
        ++compressed;
        if (onCompress) {
            onCompress();
        }
        return isEmptyHanded ? nullptr : remake(*buffer, "z" + dataOf(*buffer), 4);
    }
    Buffer decompress(const Buffer& buffer) override
    {
        ++decompressed;
        if (onDecompress) {
            onDecompress(dataOf(*buffer));
        }
        return isEmptyHanded ? nullptr : remake(*buffer, dataOf(*buffer).substr(1), 0);
    }
    bool shouldCompressLocal(const Buffer&) override
    {
        ++asked;
        return wantsLocal;
    }

    // Set before they are used by threads.
    std::function<void()> onCompress;
    std::function<void(const std::string&)> onDecompress;
    bool wantsLocal = true;

    std::atomic<bool> isEmptyHanded{false};
    std::atomic<int> compressed{0};
    std::atomic<int> decompressed{0};
    std::atomic<int> asked{0};

private:
    static Buffer remake(const kyNetBuffer& buffer, const std::string& data, int compression)
    {
        const Buffer made = makeBuffer(data);
        made->copyHeaderFrom(buffer);
        made->setDataSize(data.size());
        made->setCompression(static_cast<kyNetCompression>(compression),
                             compression == 0 ? data.size() : buffer.getDataSize());
        return made;
    }
};

Buffer makeCompressed(const std::string& data)
{
    Buffer buffer = makeBuffer(data);
    buffer->setCompression(kyNetCompression::Standard, data.size());
    return buffer;
}

/// A decompress receiver over children that do as they are told.
struct Fixture
{
    explicit Fixture(std::size_t count, std::function<void(const std::string&)> onDecompress = {})
    {
        compressor->onDecompress = std::move(onDecompress);
        for (std::size_t i = 0; i < count; ++i) {
            taps.push_back(std::make_shared<Tap>());
        }
        receiver = kyNetDecompressReceiver::create(compressor, {taps.begin(), taps.end()});
    }

    std::string recv() { return recvFrom(*receiver); }
    std::string failure() { return failureOf(*receiver); }

    std::shared_ptr<ZCompressor> compressor = std::make_shared<ZCompressor>();
    std::vector<std::shared_ptr<Tap>> taps;
    std::shared_ptr<kyNetReceiver> receiver;
};

/// Keeps threads waiting until it is opened.
class Gate
{
public:
    void wait() { m_isOpen.wait(); }
    void open() { m_opening.set_value(); }

private:
    std::promise<void> m_opening;
    std::shared_future<void> m_isOpen = m_opening.get_future().share();
};

/// Says of a thread that has one that it has ended.
struct CountedEnd
{
    CountedEnd() = default;
    ~CountedEnd() { ++s_count; }

    CountedEnd(const CountedEnd&) = delete;
    CountedEnd& operator=(const CountedEnd&) = delete;

    static inline std::atomic<int> s_count{0};
};

/// A child that waits for something else than its link once that is shut down.
class LingeringTap final : public Tap
{
public:
    explicit LingeringTap(Gate& gate) : m_gate(gate) {}

    void recv(Buffer& buffer) override
    {
        try {
            Tap::recv(buffer);
        } catch (const kyConnectionClosed&) {
            m_gate.wait();
            throw;
        }
    }

private:
    Gate& m_gate;
};

void refuseBad(const std::string& data)
{
    if (data == "bad") {
        throw kyNetError("not compressed by us");
    }
}

} // namespace

TEST(kyNetDecompressReceiver, uncompressedBufferPassesWithoutTheCompressor)
{
    Fixture f(1);
    const Buffer given = makeBuffer("a");
    f.taps[0]->give(given);
    Buffer received;
    f.receiver->recv(received);
    EXPECT_EQ(received, given);
    EXPECT_EQ(f.compressor->compressed, 0);
    EXPECT_EQ(f.compressor->decompressed, 0);
    EXPECT_EQ(f.compressor->asked, 0);
}

TEST(kyNetDecompressReceiver, compressedBufferIsDecompressedOnce)
{
    Fixture f(1);
    f.taps[0]->give(makeCompressed("zabc"));
    Buffer received;
    f.receiver->recv(received);
    EXPECT_EQ(dataOf(*received), "abc");
    EXPECT_EQ(received->getCompression(), kyNetCompression::None);
    EXPECT_EQ(f.compressor->decompressed, 1);
}

TEST(kyNetDecompressReceiver, everyValueButNoneIsCompressed)
{
    Fixture f(1);
    for (const int value : {1, 2, 4, 128, 255}) {
        const Buffer buffer = makeBuffer("zx");
        buffer->setCompression(static_cast<kyNetCompression>(value), 2);
        f.taps[0]->give(buffer);
        EXPECT_EQ(f.recv(), "x");
    }
}

TEST(kyNetDecompressReceiver, uncompressedOvertakesCompressed)
{
    Gate gate;
    Fixture f(1, [&](const std::string&) { gate.wait(); });
    f.taps[0]->give(makeCompressed("zslow"));
    f.taps[0]->give("fast");
    EXPECT_EQ(f.recv(), "fast");
    gate.open();
    EXPECT_EQ(f.recv(), "slow");
}

TEST(kyNetDecompressReceiver, asManyDecompressAtOnceAsTheMachineHasThreads)
{
    const int threads = static_cast<int>(kyThreads::countHardwareThreads());
    Gate gate;
    std::atomic<int> inside{0};
    Fixture f(1, [&](const std::string&) {
        ++inside;
        gate.wait();
    });
    for (int i = 0; i <= threads; ++i) {
        f.taps[0]->give(makeCompressed("zx"));
    }
    ASSERT_TRUE(f.taps[0]->hasDelivered(threads + 1));
    EXPECT_TRUE(waitUntil([&] { return inside == threads; }));
    EXPECT_EQ(inside, threads);
    gate.open();
    for (int i = 0; i <= threads; ++i) {
        EXPECT_EQ(f.recv(), "x");
    }
}

TEST(kyNetDecompressReceiver, availableIsAllThatIsReady)
{
    Fixture f(1);
    for (const char* const data : {"a", "b", "c"}) {
        f.taps[0]->give(data);
    }
    ASSERT_TRUE(f.taps[0]->hasDelivered(3));
    EXPECT_EQ(recvAvailableFrom(*f.receiver), "a b c ");
}

TEST(kyNetDecompressReceiver, isReadableAsSoonAsSomethingIsReady)
{
    Gate gate;
    Fixture f(1, [&](const std::string&) { gate.wait(); });
    EXPECT_FALSE(f.receiver->isReadable());
    f.taps[0]->give(makeCompressed("za"));
    ASSERT_TRUE(f.taps[0]->hasDelivered(1));
    EXPECT_FALSE(f.receiver->isReadable());
    gate.open();
    EXPECT_TRUE(waitUntil([&] { return f.receiver->isReadable(); }));
    EXPECT_TRUE(f.receiver->isReadable());
    EXPECT_EQ(f.recv(), "a");
    EXPECT_FALSE(f.receiver->isReadable());
}

TEST(kyNetDecompressReceiver, localBufferIsCompressedIfTheSettingAndTheCompressorSaySo)
{
    Fixture f(1);
    const CompressionSetting setting(kyNetCompression::None, kyNetCompression::LocalImage);
    f.receiver->addToRecvQueue(makeBuffer("a"));
    Buffer received;
    f.receiver->recv(received);
    EXPECT_EQ(dataOf(*received), "za");
    EXPECT_EQ(received->getCompression(), kyNetCompression::LocalImage);
    EXPECT_EQ(f.compressor->decompressed, 0);

    f.compressor->wantsLocal = false;
    f.receiver->addToRecvQueue(makeBuffer("b"));
    EXPECT_EQ(f.recv(), "b");
    EXPECT_EQ(f.compressor->asked, 2);
}

TEST(kyNetDecompressReceiver, localBufferPassesWithEveryOtherSetting)
{
    Fixture f(1);
    for (const int value : {0, 1, 2, 3, 5}) {
        const CompressionSetting setting(kyNetCompression::LocalImage,
                                         static_cast<kyNetCompression>(value));
        const Buffer given = makeBuffer("a", 0, 0, kyNetMessageType::ImageData);
        f.receiver->addToRecvQueue(given);
        Buffer received;
        f.receiver->recv(received);
        EXPECT_EQ(received, given);
    }
    EXPECT_EQ(f.compressor->asked, 0);
    EXPECT_EQ(f.compressor->compressed, 0);
}

TEST(kyNetDecompressReceiver, localBufferThatIsCompressedIsNotDecompressed)
{
    Fixture f(1);
    f.receiver->addToRecvQueue(makeCompressed("za"));
    EXPECT_EQ(f.recv(), "za");
}

TEST(kyNetDecompressReceiver, localBufferWakesTheReader)
{
    Fixture f(1);
    Blocked receiving([&] { EXPECT_EQ(f.recv(), "a"); });
    EXPECT_TRUE(receiving.isBlocked());
    f.receiver->addToRecvQueue(makeBuffer("a"));
    receiving.finish();
}

TEST(kyNetDecompressReceiver, failureToCompressIsTheCallersOwn)
{
    Fixture f(1);
    const CompressionSetting setting(kyNetCompression::None, kyNetCompression::LocalImage);
    f.compressor->isEmptyHanded = true;
    EXPECT_EQ(messageOf([&] { f.receiver->addToRecvQueue(makeBuffer("a")); }),
              "The compressor has returned no buffer.");
    f.compressor->onCompress = [] { throw kyNetError("too small"); };
    EXPECT_EQ(messageOf([&] { f.receiver->addToRecvQueue(makeBuffer("a")); }), "too small");
    EXPECT_FALSE(f.receiver->isReadable());
    f.taps[0]->give("still works");
    EXPECT_EQ(f.recv(), "still works");
}

TEST(kyNetDecompressReceiver, emptyBuffersPassWhateverTheirCompression)
{
    Fixture f(1);
    const unsigned count = kyThreads::countHardwareThreads() + 2;
    for (unsigned i = 0; i < count; ++i) {
        f.taps[0]->give(makeCompressed(""));
        EXPECT_EQ(f.recv(), "");
    }
    EXPECT_EQ(f.compressor->decompressed, 0);
    f.taps[0]->give(makeCompressed("zx")); // All threads are still there.
    EXPECT_EQ(f.recv(), "x");
}

TEST(kyNetDecompressReceiver, decompressorMayMakeAnEmptyBuffer)
{
    Fixture f(1);
    f.taps[0]->give(makeCompressed("z"));
    EXPECT_EQ(f.recv(), "");
}

TEST(kyNetDecompressReceiver, failureToDecompressCostsThatBufferOnly)
{
    Fixture f(1, refuseBad);
    const unsigned count = kyThreads::countHardwareThreads() + 2;
    for (unsigned i = 0; i < count; ++i) {
        f.taps[0]->give(makeCompressed("bad"));
        EXPECT_EQ(f.failure(), "not compressed by us");
        f.taps[0]->give(makeCompressed("zgood"));
        EXPECT_EQ(f.recv(), "good");
    }
    EXPECT_TRUE(endsAtOnce(f.receiver));
}

TEST(kyNetDecompressReceiver, emptyBuffersDoNotRepeatAFailureToDecompress)
{
    Fixture f(1, refuseBad);
    f.taps[0]->give(makeCompressed("bad"));
    EXPECT_EQ(f.failure(), "not compressed by us");
    f.taps[0]->give(""); // A multicast: a sort receiver above would wait for it for ever.
    f.taps[0]->give(makeCompressed(""));
    f.taps[0]->give(makeCompressed("z"));
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(f.recv(), "");
    }
    EXPECT_FALSE(f.receiver->isReadable());
}

TEST(kyNetDecompressReceiver, failureToDecompressWakesTheReader)
{
    Fixture f(1, refuseBad);
    Blocked receiving([&] { f.recv(); });
    EXPECT_TRUE(receiving.isBlocked());
    f.taps[0]->give(makeCompressed("bad"));
    EXPECT_EQ(messageOf([&] { receiving.finish(); }), "not compressed by us");
}

TEST(kyNetDecompressReceiver, noBufferFromTheCompressorIsAFailure)
{
    Fixture f(1);
    f.compressor->isEmptyHanded = true;
    f.taps[0]->give(makeCompressed("za"));
    EXPECT_EQ(f.failure(), "The compressor has returned no buffer.");
    f.taps[0]->give("b");
    EXPECT_EQ(f.recv(), "b");
}

TEST(kyNetDecompressReceiver, whateverTheCompressorThrowsArrivesAsItIs)
{
    Fixture f(1, [](const std::string&) { throw 42; });
    f.taps[0]->give(makeCompressed("za"));
    EXPECT_THROW(f.recv(), int);
}

TEST(kyNetDecompressReceiver, whatCameBeforeAFailureIsDeliveredFirst)
{
    Fixture f(1);
    f.taps[0]->give("a");
    f.taps[0]->give(makeCompressed("zb"));
    f.taps[0]->fail("broken");
    const std::string both = f.recv() + f.recv();
    EXPECT_TRUE(both == "ab" || both == "ba") << both;
    for (int i = 0; i < 1000; ++i) {
        EXPECT_EQ(f.failure(), "broken");
        EXPECT_TRUE(f.receiver->isReadable());
    }
    EXPECT_EQ(messageOf([&] { recvAvailableFrom(*f.receiver); }), "broken");
    EXPECT_TRUE(endsAtOnce(f.receiver));
}

TEST(kyNetDecompressReceiver, whatIsInTheWorksWhenTheLastChildFailsIsDeliveredFirst)
{
    const int count = static_cast<int>(kyThreads::countHardwareThreads()) + 3;
    Gate gate;
    Fixture f(1, [&](const std::string&) { gate.wait(); });
    for (int i = 0; i < count; ++i) {
        f.taps[0]->give(makeCompressed("zx"));
    }
    ASSERT_TRUE(f.taps[0]->hasDelivered(count));
    f.taps[0]->fail("broken");
    Blocked receiving([&] {
        for (int i = 0; i < count; ++i) {
            EXPECT_EQ(f.recv(), "x");
        }
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(f.failure(), "broken");
        }
    });
    EXPECT_TRUE(receiving.isBlocked());
    gate.open();
    receiving.finish();
}

TEST(kyNetDecompressReceiver, bothKindsOfFailureAreToldAsTheFirst)
{
    Fixture f(1, refuseBad);
    f.taps[0]->give(makeCompressed("bad"));
    EXPECT_EQ(f.failure(), "not compressed by us");
    f.taps[0]->fail("broken");
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(f.failure(), "not compressed by us");
    }
}

TEST(kyNetDecompressReceiver, othersGoOnWhenOneFails)
{
    Fixture f(3);
    f.taps[1]->fail("broken");
    EXPECT_EQ(f.failure(), "broken");
    for (int i = 0; i < 100; ++i) {
        f.taps[0]->give(makeCompressed("za"));
        EXPECT_EQ(f.recv(), "a");
        f.taps[2]->give("c");
        EXPECT_EQ(f.recv(), "c");
    }
    EXPECT_FALSE(f.receiver->isReadable());
    EXPECT_TRUE(endsAtOnce(f.receiver));
}

TEST(kyNetDecompressReceiver, whenAllHaveFailedOnlyLocalBuffersCome)
{
    Fixture f(2);
    f.taps[0]->fail("broken");
    EXPECT_EQ(f.failure(), "broken");
    f.taps[1]->fail("too");
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(f.failure(), "broken");
    }
    f.receiver->addToRecvQueue(makeBuffer("local"));
    EXPECT_EQ(f.recv(), "local");
    EXPECT_EQ(f.failure(), "broken");
}

TEST(kyNetDecompressReceiver, withoutChildrenOnlyLocalBuffersCome)
{
    Fixture f(0);
    EXPECT_FALSE(f.receiver->isReadable());
    EXPECT_EQ(f.failure(), "Connection closed");
    f.receiver->addToRecvQueue(makeBuffer("local"));
    EXPECT_TRUE(f.receiver->isReadable());
    EXPECT_EQ(f.recv(), "local");
    EXPECT_TRUE(endsAtOnce(f.receiver));
}

TEST(kyNetDecompressReceiver, endDropsWhatWaitsAndFinishesWhatIsInTheWorks)
{
    const int threads = static_cast<int>(kyThreads::countHardwareThreads());
    Gate gate;
    std::atomic<int> inside{0};
    Fixture f(1, [&](const std::string&) {
        ++inside;
        gate.wait();
    });
    for (int i = 0; i < threads + 99; ++i) {
        f.taps[0]->give(makeCompressed("zx"));
    }
    Buffer last = makeCompressed("zx");
    const std::weak_ptr<kyNetBuffer> waiting = last;
    f.taps[0]->give(std::exchange(last, nullptr));
    ASSERT_TRUE(f.taps[0]->hasDelivered(threads + 100));
    ASSERT_TRUE(waitUntil([&] { return inside == threads; }));

    Blocked ending([&] { f.receiver.reset(); });
    EXPECT_TRUE(waitUntil([&] { return waiting.expired(); }));
    EXPECT_TRUE(ending.isBlocked());
    gate.open();
    ending.finish();
    EXPECT_EQ(f.compressor->decompressed, threads);
    EXPECT_TRUE(f.taps[0]->isShutDown());
}

TEST(kyNetDecompressReceiver, endDecompressesNothingMoreThoughAChildDelaysIt)
{
    const int decompressing = static_cast<int>(kyThreads::countHardwareThreads());
    Gate gate;
    Gate childGate;
    const auto compressor = std::make_shared<ZCompressor>();
    compressor->onDecompress = [&](const std::string&) {
        thread_local const CountedEnd counted;
        gate.wait();
    };
    const auto tap = std::make_shared<LingeringTap>(childGate);
    auto receiver = kyNetDecompressReceiver::create(compressor, {tap});
    for (int i = 0; i < decompressing + 100; ++i) {
        tap->give(makeCompressed("zx"));
    }
    ASSERT_TRUE(tap->hasDelivered(decompressing + 100));
    ASSERT_TRUE(waitUntil([&] { return compressor->decompressed == decompressing; }));

    Blocked ending([&] { receiver.reset(); });
    EXPECT_TRUE(waitUntil([&] { return tap->isShutDown(); }));
    const int ended = CountedEnd::s_count;
    gate.open();
    EXPECT_TRUE(waitUntil([&] { return CountedEnd::s_count == ended + decompressing; }));
    EXPECT_EQ(compressor->decompressed, decompressing);
    EXPECT_TRUE(ending.isBlocked());
    childGate.open();
    ending.finish();
    EXPECT_EQ(compressor->decompressed, decompressing);
}

TEST(kyNetDecompressReceiver, endRightAfterTheBeginning)
{
    for (int i = 0; i < 100; ++i) {
        Fixture f(3);
        EXPECT_TRUE(endsAtOnce(f.receiver));
    }
}

TEST(kyNetDecompressReceiver, threadThatCannotBeStartedIsToldAndLeavesNothing)
{
    const auto compressor = std::make_shared<ZCompressor>();
    const auto tap = std::make_shared<Tap>();
    const Children children{tap};
    {
        const kyTest::NoNewThreads noNewThreads;
        EXPECT_THROW(kyNetDecompressReceiver::create(compressor, children), std::system_error);
        // Here it is a decompressing one.
        EXPECT_THROW(kyNetDecompressReceiver::create(compressor, {}), std::system_error);
    }
    EXPECT_TRUE(tap->isShutDown());
    EXPECT_EQ(tap.use_count(), 2);
    EXPECT_EQ(compressor.use_count(), 1);
}

TEST(kyNetDecompressReceiver, beginningThatFailsHalfWayEndsWhatIsRunning)
{
    const auto compressor = std::make_shared<ZCompressor>();
    for (int count = 0;; ++count) {
        const std::vector<std::shared_ptr<Tap>> taps{std::make_shared<Tap>(),
                                                     std::make_shared<Tap>()};
        for (const auto& tap : taps) {
            tap->give(makeCompressed("zx"));
        }
        const Children children{taps.begin(), taps.end()};
        std::shared_ptr<kyNetReceiver> receiver;
        try {
            const kyTest::NoMemoryAfter noMemory(count);
            receiver = kyNetDecompressReceiver::create(compressor, children);
        } catch (const std::bad_alloc&) {
        }
        if (receiver) {
            EXPECT_GT(count, 9); // Several failed for each child.
            break;
        }
        for (const auto& tap : taps) {
            EXPECT_EQ(tap.use_count(), 2); // Ours and that among the children.
        }
        EXPECT_EQ(compressor.use_count(), 1);
    }
}

TEST(kyNetDecompressReceiver, restIsThatOfAnyReceiverOverItsChildren)
{
    Fixture f(2);
    EXPECT_EQ(f.receiver->getLinkName(), "unknown");
    EXPECT_EQ(f.receiver->getNodeAffinity(), -1);
    EXPECT_EQ(f.receiver->getLinks().size(), 2u);
}

TEST(kyNetDecompressReceiver, endWakesThreadsThatWaitInRealLinks)
{
    const auto [near, far] = kyTest::makeLinks();
    const auto [otherNear, otherFar] = kyTest::makeLinks();
    auto receiver = kyNetDecompressReceiver::create(
        std::make_shared<ZCompressor>(),
        Children{kyNetLinkReceiver::create(near), kyNetLinkReceiver::create(otherNear)});
    far->send(makeCompressed("za"));
    EXPECT_EQ(recvFrom(*receiver), "a");
    otherFar->shutdown();
    EXPECT_EQ(failureOf(*receiver), "Connection closed");
    EXPECT_TRUE(endsAtOnce(receiver));
    EXPECT_THROW(near->checkAlive(), kyConnectionClosed);
}

TEST(kyNetDecompressReceiver, endNeedsNoMemory)
{
    const auto [near, far] = kyTest::makeLinks();
    const auto [otherNear, otherFar] = kyTest::makeLinks();
    Gate gate;
    const auto compressor = std::make_shared<ZCompressor>();
    compressor->onDecompress = [&](const std::string&) { gate.wait(); };
    const Children children{kyNetLinkReceiver::create(near), kyNetLinkReceiver::create(otherNear)};
    auto receiver = kyNetDecompressReceiver::create(compressor, children);
    for (int i = 0; i < 100; ++i) {
        far->send(makeCompressed("za"));
    }
    far->send(makeBuffer("all have come"));
    EXPECT_EQ(recvFrom(*receiver), "all have come");
    gate.open();
    const kyTest::NoMemoryAfter noMemory(0);
    receiver.reset();
    EXPECT_FALSE(noMemory.hasFailed());
}

TEST(kyNetDecompressReceiver, endWithManyLinksWaitsForASlowCompressorOnly)
{
    constexpr int s_links = 8;
    Gate gate;
    std::atomic<int> inside{0};
    const auto compressor = std::make_shared<ZCompressor>();
    compressor->onDecompress = [&](const std::string&) {
        ++inside;
        gate.wait();
    };
    std::vector<std::shared_ptr<kySocketLink>> links;
    std::vector<std::shared_ptr<kySocketLink>> peers;
    Children children;
    for (int i = 0; i < s_links; ++i) {
        const auto [near, far] = kyTest::makeLinks();
        links.push_back(near);
        peers.push_back(far);
        children.push_back(kyNetUnbundleReceiver::create(kyNetLinkReceiver::create(near)));
    }
    auto receiver = kyNetDecompressReceiver::create(compressor, children);
    peers.front()->send(makeCompressed("zx"));
    ASSERT_TRUE(waitUntil([&] { return inside == 1; }));

    Blocked ending([&] { receiver.reset(); });
    for (const auto& link : links) {
        EXPECT_TRUE(waitUntil(
            [&] { return messageOf([&] { link->checkAlive(); }) == "Connection closed"; }));
    }
    EXPECT_TRUE(ending.isBlocked());
    gate.open();
    ending.finish();
    EXPECT_EQ(inside, 1);
}

TEST(kyNetDecompressReceiver, shutdownWakesABlockedReceive)
{
    const auto [near, far] = kyTest::makeLinks();
    auto receiver = kyNetDecompressReceiver::create(std::make_shared<ZCompressor>(),
                                                    Children{kyNetLinkReceiver::create(near)});
    Blocked receiving([&] { recvFrom(*receiver); });
    EXPECT_TRUE(receiving.isBlocked());
    receiver->shutdown();
    EXPECT_THROW(receiving.finish(), kyConnectionClosed);
    EXPECT_TRUE(endsAtOnce(receiver));
}

TEST(kyNetDecompressReceiver, wholeChainOverSeveralLinksKeepsTheOrderOfMulticasts)
{
    constexpr int s_count = 300;
    const CompressionSetting setting(kyNetCompression::Standard, kyNetCompression::None);
    const auto compressor = std::make_shared<ZCompressor>();
    std::vector<std::shared_ptr<kyNetLink>> peers;
    Children children;
    for (int i = 0; i < 4; ++i) {
        const auto [near, far] = kyTest::makeLinks();
        peers.push_back(far);
        children.push_back(kyNetUnbundleReceiver::create(kyNetLinkReceiver::create(near)));
    }
    auto sender =
        kyNetCompressSender::create(compressor, kyNetSender::createBundle(peers, true, {2}));
    auto receiver =
        kyNetSortReceiver::create(kyNetDecompressReceiver::create(compressor, children));

    Blocked sending([&] {
        for (int i = 0; i < s_count; ++i) {
            const Buffer buffer = makeBuffer(std::to_string(i), 1);
            buffer->setSequence(i);
            sender->send(buffer);
        }
        sender->waitAllDataTransfered();
    });
    for (int i = 0; i < s_count; ++i) {
        ASSERT_EQ(recvFrom(*receiver), std::to_string(i));
    }
    sending.finish();
    EXPECT_EQ(compressor->compressed, s_count);
    EXPECT_EQ(compressor->decompressed, s_count);
    EXPECT_TRUE(endsAtOnce(receiver));
}
