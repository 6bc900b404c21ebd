#include <NetBase/senders/kyNetLockedSender.h>

#include <atomic>
#include <future>
#include <memory>
#include <set>
#include <thread>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include <NetBase/buffers/kyConnectionClosed.h>
#include <NetBase/senders/kyNetLinkSender.h>
#include <tests/support/kyTestChains.h>

using kyTest::Buffer;
using kyTest::KeepingSender;
using kyTest::makeBuffer;

static_assert(!std::is_constructible_v<kyNetLockedSender, std::shared_ptr<kyNetSender>>);
static_assert(!std::is_copy_constructible_v<kyNetLockedSender>);

TEST(kyNetLockedSender, handsEachBufferToItsChild)
{
    const auto child = std::make_shared<KeepingSender>(std::set<unsigned int>{2, 3});
    child->affinity = 1;
    child->compressedBytes = 7;
    const auto sender = kyNetLockedSender::create(child);
    const Buffer buffer = makeBuffer("x");
    sender->send(buffer);
    ASSERT_EQ(child->sent.size(), 1u);
    EXPECT_EQ(child->sent[0], buffer);
    EXPECT_EQ(sender->getDestinations(), (std::set<unsigned int>{2, 3}));
    EXPECT_EQ(sender->getChildren().size(), 1u);
    EXPECT_EQ(sender->getNodeAffinity(), 1);
    EXPECT_EQ(sender->getCompressedBytes(), 7u);
}

TEST(kyNetLockedSender, oneThreadAtATimeSends)
{
    const auto child = std::make_shared<KeepingSender>();
    std::atomic<int> inside{0};
    std::atomic<int> most{0};
    child->onSend = [&](kyNetBuffer&) {
        most = std::max(most.load(), ++inside);
        std::this_thread::yield();
        --inside;
    };
    const auto sender = kyNetLockedSender::create(child);
    std::vector<std::future<void>> threads;
    for (int t = 0; t < 4; ++t) {
        threads.push_back(std::async(std::launch::async, [&] {
            for (int i = 0; i < 500; ++i) {
                sender->send(makeBuffer("x"));
            }
        }));
    }
    for (auto& thread : threads) {
        thread.get();
    }
    EXPECT_EQ(most, 1);
    EXPECT_EQ(child->sent.size(), 2000u);
}

TEST(kyNetLockedSender, buffersOfManyThreadsArriveWhole)
{
    const auto [near, far] = kyTest::makeLinks();
    const auto sender = kyNetLockedSender::create(kyNetLinkSender::create(near));
    constexpr int s_threads = 3;
    constexpr int s_buffers = 200;
    std::vector<std::future<void>> threads;
    for (int t = 0; t < s_threads; ++t) {
        threads.push_back(std::async(std::launch::async, [&, t] {
            for (int i = 0; i < s_buffers; ++i) {
                const auto size = static_cast<std::size_t>(1 + i * 97 % 5000);
                sender->send(makeBuffer(std::string(size, static_cast<char>('a' + t)),
                                        static_cast<std::uint32_t>(t)));
            }
        }));
    }
    int received[s_threads] = {};
    for (int i = 0; i < s_threads * s_buffers; ++i) {
        Buffer buffer;
        far->recv(buffer);
        ASSERT_LT(buffer->getSource(), static_cast<std::uint32_t>(s_threads));
        int& count = received[buffer->getSource()];
        const auto size = static_cast<std::size_t>(1 + count * 97 % 5000);
        ASSERT_EQ(
            kyTest::dataOf(*buffer),
            std::string(size, static_cast<char>('a' + static_cast<int>(buffer->getSource()))));
        ++count;
    }
    for (auto& thread : threads) {
        thread.get();
    }
}

TEST(kyNetLockedSender, failureUnlocks)
{
    const auto child = std::make_shared<KeepingSender>();
    child->onSend = [](kyNetBuffer&) { throw kyConnectionClosed(); };
    const auto sender = kyNetLockedSender::create(child);
    EXPECT_THROW(sender->send(makeBuffer("x")), kyConnectionClosed);
    child->onSend = nullptr;
    auto other = std::async(std::launch::async, [&] { sender->send(makeBuffer("y")); });
    ASSERT_EQ(other.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    EXPECT_EQ(child->sent.size(), 1u);
}
