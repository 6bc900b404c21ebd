#include <NetBase/senders/kyNetCompressSender.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <NetBase/buffers/kyConnectionClosed.h>
#include <NetBase/platform/kyThreads.h>
#include <NetBase/senders/kyNetCompressorBase.h>
#include <NetBase/senders/kyNetLockedSender.h>
#include <tests/support/kyTestBlocked.h>
#include <tests/support/kyTestChains.h>
#include <tests/support/kyTestCompression.h>
#include <tests/support/kyTestSlowness.h>
#include <tests/support/kyTestSystem.h>
#include <tests/support/kyTestThreads.h>
#include <tests/support/kyTestWait.h>
#include <tests/support/kyTestWorkerChild.h>

using kyTest::Blocked;
using kyTest::Buffer;
using kyTest::CompressionSetting;
using kyTest::dataOf;
using kyTest::makeBuffer;
using kyTest::WorkerChild;

static_assert(!std::is_copy_constructible_v<kyNetCompressSender>);
static_assert(!std::is_copy_assignable_v<kyNetCompressSender>);

namespace {

using namespace std::chrono_literals;

using Strings = std::vector<std::string>;

/// "Compresses" a text to its first half in brackets, after it was told to whom.
class Halving final : public kyNetCompressorBase
{
public:
    Buffer compress(const Buffer& buffer) override
    {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            threads.insert(std::this_thread::get_id());
        }
        if (onCompress) {
            onCompress(dataOf(*buffer));
        }
        const std::string data = dataOf(*buffer);
        const Buffer compressed = makeBuffer("[" + data.substr(0, data.size() / 2) + "]");
        const std::uint64_t size = compressed->getDataSize();
        compressed->copyHeaderFrom(*buffer);
        compressed->setDataSize(size);
        compressed->setCompression(getRequestedCompression(buffer), buffer->getDataSize());
        return compressed;
    }
    Buffer decompress(const Buffer& buffer) override { return buffer; }
    bool shouldCompressLocal(const Buffer&) override { return false; }

    std::function<void(const std::string&)> onCompress;
    std::set<std::thread::id> threads;

private:
    std::mutex m_mutex;
};

/// A compress sender with both its neighbours.
struct Chain
{
    std::shared_ptr<Halving> compressor = std::make_shared<Halving>();
    std::shared_ptr<WorkerChild> target = std::make_shared<WorkerChild>();
    std::shared_ptr<kyNetSender> sender = kyNetCompressSender::create(compressor, target);

    /// Keeps every worker busy with a buffer of its own inside the target.
    void occupyAll()
    {
        target->hold();
        for (int i = 0; i < s_workers; ++i) {
            sender->send(makeBuffer("held"));
        }
        ASSERT_TRUE(target->hasEntered(s_workers));
    }

    /// As many as the machine runs threads.
    static const int s_workers;
};

const int Chain::s_workers = static_cast<int>(kyThreads::countHardwareThreads());

Strings sorted(Strings texts)
{
    std::sort(texts.begin(), texts.end());
    return texts;
}

/// What the sender throws in the end when it is given more and more of the same.
template <class Error> const Error* thrownByLaterSends(kyNetSender& sender, const std::string& data)
{
    try {
        while (true) {
            sender.send(makeBuffer(data));
        }
    } catch (const Error& error) {
        return &error;
    }
}

template <class Error> const Error* thrownByWaiting(kyNetSender& sender)
{
    try {
        sender.waitAllDataTransfered();
    } catch (const Error& error) {
        return &error;
    }
    return nullptr;
}

/// Buffers that are passed on at once.
std::vector<Buffer> makeUncompressible()
{
    const Buffer compressed = makeBuffer(std::string(100, 'c'));
    compressed->setCompression(kyNetCompression::Standard, 5);
    const Buffer shortened = makeBuffer(std::string(200, 's'));
    shortened->setCompression(kyNetCompression::None, 201);
    return {compressed, makeBuffer(std::string(300, 'b'), 0, 0, kyNetMessageType::Bundle),
            makeBuffer(std::string(400, 'i'), 0, 0, kyNetMessageType::ImageData), shortened};
}

} // namespace

TEST(kyNetCompressSender, uncompressibleBuffersArePassedOnByTheCaller)
{
    const std::size_t threads = kyTest::countThreads();
    Chain chain;
    std::vector<Buffer> sent;
    std::uint64_t bytes = 0;
    for (const Buffer& buffer : makeUncompressible()) {
        sent.push_back(buffer);
        bytes += buffer->getDataSize() + 20;
        chain.sender->send(buffer);
        EXPECT_EQ(chain.target->sent(), sent);
        EXPECT_EQ(chain.sender->getCompressedBytes(), bytes);
    }
    EXPECT_EQ(chain.target->threads(), std::set<std::thread::id>{std::this_thread::get_id()});
    EXPECT_EQ(kyTest::countThreads(), threads);
}

TEST(kyNetCompressSender, withoutCompressionNoThreadIsEverStarted)
{
    const CompressionSetting setting(kyNetCompression::None, kyNetCompression::None);
    const std::size_t threads = kyTest::countThreads();
    Chain chain;
    for (const auto type : {kyNetMessageType::StreamData, kyNetMessageType::Message,
                            kyNetMessageType::ImageData, kyNetMessageType::Bundle}) {
        for (int i = 0; i < 300; ++i) {
            chain.sender->send(makeBuffer("x", 0, 0, type));
        }
    }
    chain.sender->waitAllDataTransfered();
    EXPECT_EQ(chain.target->sent().size(), 1200u);
    EXPECT_EQ(kyTest::countThreads(), threads);
}

TEST(kyNetCompressSender, firstCompressibleBufferStartsAThreadPerProcessor)
{
    const std::size_t threads = kyTest::countThreads();
    {
        Chain chain;
        EXPECT_EQ(kyTest::countThreads(), threads);
        for (int i = 0; i < 3; ++i) {
            chain.sender->send(makeBuffer("x"));
            EXPECT_EQ(kyTest::countThreads(), threads + kyThreads::countHardwareThreads());
        }
    }
    EXPECT_TRUE(kyTest::waitUntil([&] { return kyTest::countThreads() == threads; }));
}

TEST(kyNetCompressSender, firstBuffersOfManyThreadsStartThemOnce)
{
    const std::size_t threads = kyTest::countThreads();
    for (int round = 0; round < 50; ++round) {
        Chain chain;
        std::vector<std::thread> callers;
        for (int t = 0; t < 4; ++t) {
            callers.emplace_back([&] { chain.sender->send(makeBuffer("x")); });
        }
        for (std::thread& caller : callers) {
            caller.join();
        }
        const std::size_t expected = threads + kyThreads::countHardwareThreads();
        ASSERT_TRUE(kyTest::waitUntil([&] { return kyTest::countThreads() == expected; }));
    }
}

TEST(kyNetCompressSender, compressedBuffersReachTheTarget)
{
    Chain chain;
    const Buffer buffer = makeBuffer("abcdefgh", 3, 4, kyNetMessageType::Message);
    buffer->setSequence(1234);
    chain.sender->send(buffer);
    chain.sender->waitAllDataTransfered();
    ASSERT_EQ(chain.target->sent().size(), 1u);
    const Buffer sent = chain.target->sent()[0];
    EXPECT_EQ(dataOf(*sent), "[abcd]");
    EXPECT_EQ(sent->getSequence(), 1234);
    EXPECT_EQ(sent->getSource(), 3u);
    EXPECT_EQ(sent->getDestination(), 4u);
    EXPECT_EQ(sent->getCompression(), kyNetCompression::Standard);
    EXPECT_EQ(sent->getOriginalDataSize(), 8u);
    EXPECT_EQ(chain.compressor->threads.count(std::this_thread::get_id()), 0u);
    EXPECT_EQ(dataOf(*buffer), "abcdefgh");
}

TEST(kyNetCompressSender, imagesAreCompressedByTheirOwnSetting)
{
    const CompressionSetting setting(kyNetCompression::None, static_cast<kyNetCompression>(3));
    Chain chain;
    chain.sender->send(makeBuffer("data"));
    EXPECT_EQ(chain.target->messages(), Strings{"data"});
    chain.sender->send(makeBuffer("pixels", 0, 0, kyNetMessageType::ImageData));
    chain.sender->waitAllDataTransfered();
    EXPECT_EQ(chain.target->messages(), (Strings{"data", "[pix]"}));
}

TEST(kyNetCompressSender, everyBufferIsCompressedOnce)
{
    Chain chain;
    Strings expected;
    for (int i = 0; i < 2000; ++i) {
        const std::string text = std::to_string(1000 + i);
        expected.push_back("[" + text + "]");
        chain.sender->send(makeBuffer(text + text));
    }
    chain.sender->waitAllDataTransfered();
    EXPECT_EQ(sorted(chain.target->messages()), expected);
    EXPECT_EQ(chain.sender->getCompressedBytes(), 2000u * 26u);
}

TEST(kyNetCompressSender, allProcessorsCompressAtOnce)
{
    Chain chain;
    std::atomic<int> inside{0};
    chain.compressor->onCompress = [&](const std::string&) {
        ++inside;
        EXPECT_TRUE(kyTest::waitUntil([&] { return inside == Chain::s_workers; }));
    };
    for (int i = 0; i < Chain::s_workers; ++i) {
        chain.sender->send(makeBuffer("x"));
    }
    chain.sender->waitAllDataTransfered();
    EXPECT_EQ(chain.compressor->threads.size(), static_cast<std::size_t>(Chain::s_workers));
}

// As a mark of the end it would stop a worker.
TEST(kyNetCompressSender, emptyBufferIsPassedOnByTheCaller)
{
    const std::size_t threads = kyTest::countThreads();
    Chain chain;
    const Buffer empty = makeBuffer("");
    chain.sender->send(makeBuffer("before"));
    chain.sender->waitAllDataTransfered();
    for (int i = 0; i < Chain::s_workers + 1; ++i) {
        chain.sender->send(empty);
        EXPECT_EQ(chain.target->sent().back(), empty);
    }
    EXPECT_EQ(kyTest::countThreads(), threads + kyThreads::countHardwareThreads());
    for (int i = 0; i < 10; ++i) {
        chain.sender->send(makeBuffer("after"));
    }
    chain.sender->waitAllDataTransfered();
    EXPECT_EQ(chain.target->messages().size(), static_cast<std::size_t>(Chain::s_workers + 12));
}

TEST(kyNetCompressSender, queueIsFullAt256)
{
    Chain chain;
    chain.occupyAll();
    for (int i = 0; i < 256; ++i) {
        chain.sender->send(makeBuffer("x"));
    }
    Blocked next([&] { chain.sender->send(makeBuffer("next")); });
    EXPECT_TRUE(next.isBlocked());
    chain.target->letGo();
    next.finish();
    chain.sender->waitAllDataTransfered();
    EXPECT_EQ(chain.target->messages().size(), static_cast<std::size_t>(Chain::s_workers + 257));
}

TEST(kyNetCompressSender, uncompressibleBuffersOvertakeQueuedOnes)
{
    Chain chain;
    std::promise<void> go;
    auto gone = go.get_future().share();
    chain.compressor->onCompress = [&](const std::string&) { gone.wait(); };
    chain.sender->send(makeBuffer("slow"));
    chain.sender->send(makeBuffer("image", 0, 0, kyNetMessageType::ImageData));
    EXPECT_EQ(chain.target->messages(), Strings{"image"});
    go.set_value();
    chain.sender->waitAllDataTransfered();
    EXPECT_EQ(chain.target->messages(), (Strings{"image", "[sl]"}));
}

TEST(kyNetCompressSender, countsBytesOnTheWire)
{
    const CompressionSetting setting(kyNetCompression::None, kyNetCompression::None);
    Chain chain;
    EXPECT_EQ(chain.sender->getCompressedBytes(), 0u);
    chain.sender->send(makeBuffer(std::string(100, 'x')));
    EXPECT_EQ(chain.sender->getCompressedBytes(), 120u);
    chain.sender->resetStatistics();
    EXPECT_EQ(chain.sender->getCompressedBytes(), 0u);
    EXPECT_EQ(chain.target->resets, 0);
}

TEST(kyNetCompressSender, countsCompressedBuffersByTheirCompressedSize)
{
    Chain chain;
    chain.sender->send(makeBuffer(std::string(100, 'x')));
    chain.sender->waitAllDataTransfered();
    EXPECT_EQ(chain.sender->getCompressedBytes(), 72u);
}

// Whoever is given a buffer may make it another.
TEST(kyNetCompressSender, countsWhatItHasPassedOnWhateverBecomesOfIt)
{
    const auto target = std::make_shared<kyTest::KeepingSender>();
    target->onSend = [](kyNetBuffer& buffer) { buffer.setDataSize(7); };
    const auto sender = kyNetCompressSender::create(std::make_shared<Halving>(), target);
    sender->send(makeBuffer(std::string(100, 'x'), 0, 0, kyNetMessageType::ImageData));
    EXPECT_EQ(sender->getCompressedBytes(), 120u);
    sender->send(makeBuffer(std::string(100, 'x')));
    sender->waitAllDataTransfered();
    EXPECT_EQ(sender->getCompressedBytes(), 120u + 72u);
}

TEST(kyNetCompressSender, countsWhatManyThreadsAdd)
{
    const CompressionSetting setting(kyNetCompression::None, kyNetCompression::None);
    kyNetCompressSender sender(std::make_shared<Halving>(), std::make_shared<WorkerChild>());
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            const Buffer buffer = makeBuffer(std::string(30, 'x'));
            for (int i = 0; i < 1000; ++i) {
                sender.addStatistics(buffer);
                sender.send(buffer);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(sender.getCompressedBytes(), 4u * 1000u * 2u * 50u);
}

TEST(kyNetCompressSender, workersOfAPinnedThreadGetAllProcessorsBack)
{
    const std::vector<int> ofProcess = kyTest::getProcessors();
    Chain chain;
    std::vector<int> ofWorker;
    chain.compressor->onCompress = [&](const std::string&) { ofWorker = kyTest::getProcessors(); };
    std::thread([&] {
        EXPECT_TRUE(kyThreads::pinToFirstProcessor());
        chain.sender->send(makeBuffer("x"));
        chain.sender->waitAllDataTransfered();
    }).join();
    EXPECT_EQ(ofWorker, ofProcess);
}

TEST(kyNetCompressSender, failureOfTheCompressorReachesALaterSend)
{
    struct Failure
    {
    };
    Chain chain;
    std::atomic<int> count{0};
    std::atomic<const Failure*> thrown{nullptr};
    chain.compressor->onCompress = [&](const std::string&) {
        if (++count == 3) {
            try {
                throw Failure();
            } catch (const Failure& failure) {
                thrown = &failure;
                throw;
            }
        }
    };
    const Failure* received = thrownByLaterSends<Failure>(*chain.sender, "x");
    EXPECT_EQ(received, thrown.load());
    EXPECT_NE(received, nullptr);
    EXPECT_EQ(thrownByLaterSends<Failure>(*chain.sender, ""), thrown.load());
    EXPECT_EQ(thrownByWaiting<Failure>(*chain.sender), thrown.load());
    EXPECT_EQ(thrownByWaiting<Failure>(*chain.sender), thrown.load());
}

TEST(kyNetCompressSender, failureMayBeAnything)
{
    const auto thrown = [](const std::function<void()>& fail) {
        Chain chain;
        chain.compressor->onCompress = [&](const std::string&) { fail(); };
        chain.sender->send(makeBuffer("x"));
        chain.sender->waitAllDataTransfered();
    };
    EXPECT_THROW(thrown([] { throw kyNetError("x"); }), kyNetError);
    EXPECT_THROW(thrown([] { throw std::logic_error("x"); }), std::logic_error);
    EXPECT_THROW(thrown([] { throw std::bad_alloc(); }), std::bad_alloc);
    EXPECT_THROW(thrown([] { throw 42; }), int);
    EXPECT_THROW(thrown([] { throw "text"; }), const char*);
}

TEST(kyNetCompressSender, failureOfTheTargetInAWorkerReachesTheCallers)
{
    Chain chain;
    chain.target->failAt(2, std::make_exception_ptr(kyConnectionClosed()));
    chain.sender->send(makeBuffer("1"));
    chain.sender->send(makeBuffer("2"));
    EXPECT_THROW(chain.sender->waitAllDataTransfered(), kyConnectionClosed);
    EXPECT_THROW(chain.sender->send(makeBuffer("3")), kyConnectionClosed);
    EXPECT_EQ(chain.target->waits, 0);
    // The other worker may still be about to count what it has passed on.
    EXPECT_TRUE(kyTest::waitUntil([&] { return chain.sender->getCompressedBytes() == 22; }));
}

// Not a worker's: the next send works again.
TEST(kyNetCompressSender, failureOfTheTargetOnTheCallersThreadIsItsOwn)
{
    Chain chain;
    chain.target->failAt(1, std::make_exception_ptr(kyConnectionClosed()));
    const Buffer image = makeBuffer("x", 0, 0, kyNetMessageType::ImageData);
    EXPECT_THROW(chain.sender->send(image), kyConnectionClosed);
    EXPECT_EQ(chain.sender->getCompressedBytes(), 0u);
    chain.sender->send(image);
    chain.sender->waitAllDataTransfered();
    EXPECT_EQ(chain.sender->getCompressedBytes(), 21u);
}

TEST(kyNetCompressSender, firstFailureIsKept)
{
    if (Chain::s_workers < 2) {
        GTEST_SKIP() << "two workers cannot fail";
    }
    Chain chain;
    std::promise<void> go;
    auto gone = go.get_future().share();
    auto use = std::make_shared<int>();
    const std::weak_ptr<int> second = use;
    struct Late
    {
        std::shared_ptr<int> use;
    };
    chain.compressor->onCompress = [&](const std::string& data) {
        if (data == "late") {
            gone.wait();
            throw Late{std::exchange(use, nullptr)};
        }
        throw kyConnectionClosed();
    };
    chain.sender->send(makeBuffer("late"));
    chain.sender->send(makeBuffer("early"));
    const auto* first = thrownByWaiting<kyConnectionClosed>(*chain.sender);
    EXPECT_NE(first, nullptr);
    go.set_value();
    EXPECT_TRUE(kyTest::waitUntil([&] { return second.expired(); }));
    EXPECT_EQ(thrownByWaiting<kyConnectionClosed>(*chain.sender), first);
    EXPECT_EQ(thrownByLaterSends<kyConnectionClosed>(*chain.sender, "x"), first);
}

TEST(kyNetCompressSender, workersThatHaveNotFailedGoOn)
{
    if (Chain::s_workers < 2) {
        GTEST_SKIP() << "one worker drops everything";
    }
    Chain chain;
    std::promise<void> go;
    auto gone = go.get_future().share();
    chain.compressor->onCompress = [&](const std::string& data) {
        if (data == "fail") {
            throw kyConnectionClosed();
        }
        gone.wait();
    };
    for (int i = 1; i < Chain::s_workers; ++i) {
        chain.sender->send(makeBuffer("good"));
    }
    chain.sender->send(makeBuffer("fail"));
    EXPECT_THROW(chain.sender->waitAllDataTransfered(), kyConnectionClosed);
    go.set_value();
    EXPECT_TRUE(chain.target->hasSent(static_cast<std::size_t>(Chain::s_workers - 1)));
}

TEST(kyNetCompressSender, workerThatHasFailedDropsAllItTakes)
{
    Chain chain;
    std::atomic<int> compressed{0};
    std::promise<void> go;
    auto gone = go.get_future().share();
    chain.compressor->onCompress = [&](const std::string&) {
        ++compressed;
        gone.wait();
        throw kyConnectionClosed();
    };
    std::vector<std::weak_ptr<kyNetBuffer>> queued;
    for (int i = 0; i < Chain::s_workers + 100; ++i) {
        const Buffer buffer = makeBuffer("x");
        queued.push_back(buffer);
        chain.sender->send(buffer);
    }
    ASSERT_TRUE(kyTest::waitUntil([&] { return compressed == Chain::s_workers; }));
    go.set_value();
    for (const auto& buffer : queued) {
        EXPECT_TRUE(kyTest::waitUntil([&] { return buffer.expired(); }));
    }
    EXPECT_EQ(compressed, Chain::s_workers);
    EXPECT_THROW(chain.sender->waitAllDataTransfered(), kyConnectionClosed);
}

TEST(kyNetCompressSender, failureWakesEverySendThatWaitsForRoom)
{
    Chain chain;
    chain.target->failAt(1, std::make_exception_ptr(kyConnectionClosed()));
    chain.occupyAll();
    for (int i = 0; i < 256; ++i) {
        chain.sender->send(makeBuffer("x"));
    }
    std::vector<std::unique_ptr<Blocked>> blocked;
    for (int i = 0; i < 6; ++i) {
        blocked.push_back(
            std::make_unique<Blocked>([&] { chain.sender->send(makeBuffer("next")); }));
        ASSERT_TRUE(blocked.back()->isBlocked());
    }
    // All fail: nobody but those that drop makes room.
    chain.compressor->onCompress = [](const std::string&) { throw kyConnectionClosed(); };
    chain.target->letGo();
    int thrown = 0;
    for (const auto& one : blocked) {
        try {
            one->finish();
        } catch (const kyConnectionClosed&) {
            ++thrown;
        }
    }
    // A worker that has sent its first one may have given room to others before.
    EXPECT_GE(thrown, 6 - (Chain::s_workers - 1));
    EXPECT_THROW(chain.sender->send(makeBuffer("x")), kyConnectionClosed);
}

TEST(kyNetCompressSender, failureWhileManySendBlocksNobody)
{
    for (int round = 1; round <= 10; ++round) {
        Chain chain;
        std::atomic<int> left{round * 50};
        chain.compressor->onCompress = [&](const std::string&) {
            if (--left < 0) {
                throw kyConnectionClosed();
            }
        };
        std::vector<std::future<bool>> threads;
        for (int t = 0; t < 4; ++t) {
            threads.push_back(std::async(std::launch::async, [&] {
                return thrownByLaterSends<kyConnectionClosed>(*chain.sender, "x") != nullptr;
            }));
        }
        for (auto& thread : threads) {
            ASSERT_EQ(thread.wait_for(kyTest::s_patience), std::future_status::ready);
            EXPECT_TRUE(thread.get());
        }
        auto end = std::async(std::launch::async, [&] { chain.sender.reset(); });
        ASSERT_EQ(end.wait_for(kyTest::s_patience), std::future_status::ready);
    }
}

TEST(kyNetCompressSender, endAfterAFailureTakesNoTime)
{
    Chain chain;
    chain.compressor->onCompress = [](const std::string&) { throw kyConnectionClosed(); };
    EXPECT_NE(thrownByLaterSends<kyConnectionClosed>(*chain.sender, "x"), nullptr);
    auto end = std::async(std::launch::async, [&] { chain.sender.reset(); });
    EXPECT_EQ(end.wait_for(kyTest::s_moment), std::future_status::ready);
}

TEST(kyNetCompressSender, destructionDropsWhatIsQueued)
{
    Chain chain;
    chain.occupyAll();
    std::vector<std::weak_ptr<kyNetBuffer>> queued;
    for (int i = 0; i < 5; ++i) {
        const Buffer buffer = makeBuffer("queued");
        queued.push_back(buffer);
        chain.sender->send(buffer);
    }
    Blocked end([&] { chain.sender.reset(); });
    for (const auto& buffer : queued) {
        EXPECT_TRUE(kyTest::waitUntil([&] { return buffer.expired(); }));
    }
    // The sends that are on their way are waited for.
    EXPECT_TRUE(end.isBlocked());
    chain.target->letGo();
    end.finish();
    EXPECT_EQ(chain.target->messages(),
              Strings(static_cast<std::size_t>(Chain::s_workers), "[he]"));
}

TEST(kyNetCompressSender, endAtAnyMomentReleasesEveryThread)
{
    for (int round = 0; round < 200; ++round) {
        Chain chain;
        std::atomic<int> left{round % 7};
        chain.compressor->onCompress = [&](const std::string&) {
            if (--left == 0) {
                throw kyConnectionClosed();
            }
        };
        try {
            for (int i = 0; i < round % 13; ++i) {
                chain.sender->send(makeBuffer("x"));
            }
        } catch (const kyConnectionClosed&) {
        }
        auto end = std::async(std::launch::async, [&] { chain.sender.reset(); });
        ASSERT_EQ(end.wait_for(kyTest::s_patience), std::future_status::ready) << round;
    }
}

TEST(kyNetCompressSender, sourcesAreReleasedWhenWaitingReturns)
{
    Chain chain;
    for (int i = 0; i < 200; ++i) {
        Buffer buffer = makeBuffer("x");
        const std::weak_ptr<kyNetBuffer> watched = buffer;
        chain.sender->send(buffer);
        buffer.reset();
        chain.sender->waitAllDataTransfered();
        ASSERT_TRUE(watched.expired()) << i;
    }
}

TEST(kyNetCompressSender, threadThatCannotBeStartedIsTriedAgain)
{
    const std::size_t threads = kyTest::countThreads();
    Chain chain;
    const Buffer buffer = makeBuffer("xy");
    {
        const kyTest::NoNewThreads noNewThreads;
        EXPECT_THROW(chain.sender->send(buffer), std::system_error);
        EXPECT_THROW(chain.sender->send(buffer), std::system_error);
        chain.sender->send(makeBuffer("image", 0, 0, kyNetMessageType::ImageData));
        chain.sender->waitAllDataTransfered();
    }
    EXPECT_EQ(buffer.use_count(), 1);
    EXPECT_EQ(chain.target->messages(), Strings{"image"});
    EXPECT_EQ(kyTest::countThreads(), threads);
    chain.sender->send(buffer);
    chain.sender->waitAllDataTransfered();
    EXPECT_EQ(chain.target->messages(), (Strings{"image", "[x]"}));
    EXPECT_EQ(kyTest::countThreads(), threads + kyThreads::countHardwareThreads());
}

// Locked, compress, buffered, link: all but the last give a buffer away before it is sent.
TEST(kyNetCompressSender, waitingDownAChainReturnsWithTheLastByteInTheSocket)
{
    const auto [near, far] = kyTest::makeLinks();
    const auto compressor = std::make_shared<Halving>();
    auto sender = kyNetLockedSender::create(
        kyNetCompressSender::create(compressor, kyNetSender::createBundle({near}, true, {2})));
    constexpr std::size_t s_count = 300;
    for (std::size_t i = 0; i < s_count; ++i) {
        sender->send(makeBuffer(std::string(100000 + i, 'x'), 1, 2));
    }
    // More than the system holds for a peer that does not read.
    auto waiting = std::async(std::launch::async, [&] { sender->waitAllDataTransfered(); });
    EXPECT_EQ(waiting.wait_for(50ms), std::future_status::timeout);

    auto reading = std::async(std::launch::async, [link = far] {
        std::multiset<std::size_t> sizes;
        try {
            while (true) {
                Buffer buffer;
                link->recv(buffer);
                for (const std::string& message : kyTest::messagesOf({buffer})) {
                    sizes.insert(message.size());
                }
            }
        } catch (const kyConnectionClosed&) {
        }
        return sizes;
    });
    ASSERT_EQ(waiting.wait_for(kyTest::s_patience), std::future_status::ready);
    waiting.get();
    near->shutdown(); // What is in the socket arrives all the same.
    std::multiset<std::size_t> expected;
    std::uint64_t bytes = 0;
    for (std::size_t i = 0; i < s_count; ++i) {
        expected.insert((100000 + i) / 2 + 2);
        bytes += (100000 + i) / 2 + 22;
    }
    EXPECT_EQ(reading.get(), expected);
    EXPECT_EQ(sender->getCompressedBytes(), bytes);
}

TEST(kyNetCompressSender, failureOfALinkRisesThroughTheChain)
{
    const auto [near, far] = kyTest::makeLinks();
    auto sender = kyNetLockedSender::create(kyNetCompressSender::create(
        std::make_shared<Halving>(), kyNetSender::createBundle({near}, true, {2})));
    Blocked blocked([&] {
        while (true) {
            sender->send(makeBuffer(std::string(130000, 'x'), 1, 2));
        }
    });
    ASSERT_TRUE(blocked.isBlocked());
    sender->shutdown();
    EXPECT_THROW(blocked.finish(), kyConnectionClosed);
    EXPECT_THROW(sender->waitAllDataTransfered(), kyConnectionClosed);
    auto end = std::async(std::launch::async, [&] { sender.reset(); });
    EXPECT_EQ(end.wait_for(kyTest::s_moment), std::future_status::ready);
}
