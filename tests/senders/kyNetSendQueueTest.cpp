#include <NetBase/senders/kyNetSendQueue.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/buffers/kyNetBufferPool.h>
#include <tests/support/kyTestSlowness.h>
#include <tests/support/kyTestWait.h>

using kyTest::s_isSlow;
using kyTest::waitUntil;

namespace {

using Buffer = kyNetSendQueue::Buffer;

Buffer makeBuffer(std::uint32_t dataSize)
{
    Buffer buffer = kyNetBufferPool::pop();
    buffer->setDataSize(dataSize);
    return buffer;
}

/// Passes everything on at once.
void startPassingOn(kyNetSendQueue& queue, std::atomic<std::uint64_t>& passed)
{
    queue.startWorker([&] {
        for (Buffer buffer; queue.pop(buffer);) {
            ++passed;
            queue.release(1);
        }
    });
}

/// Long enough for a worker without work to fall asleep, on the whole.
void letWorkersFallAsleep()
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::microseconds(300);
    while (std::chrono::steady_clock::now() < end) {
        std::this_thread::yield();
    }
}

} // namespace

TEST(kyNetSendQueue, waitIsNotOverWhileABufferIsHeldWhateverOthersPassOn)
{
    kyNetSendQueue queue(16);
    Buffer held;
    queue.push(makeBuffer(1));
    ASSERT_TRUE(queue.pop(held));

    std::atomic<bool> isOver{false};
    std::thread waiting([&] {
        queue.waitUntilReleased();
        isOver = true;
    });
    const Buffer other = makeBuffer(1);
    for (int i = 0; i < (s_isSlow ? 200000 : 2000000) && !isOver; ++i) {
        Buffer taken;
        queue.push(other);
        EXPECT_TRUE(queue.pop(taken));
        queue.release(1);
    }
    EXPECT_FALSE(isOver);

    queue.release(1);
    waiting.join();
}

TEST(kyNetSendQueue, worksOnAfterASizeWasChangedWhileItWaited)
{
    for (const std::uint32_t difference : {+100U, 0U - 100U}) {
        for (int round = 0; round < 50; ++round) {
            kyNetSendQueue queue(4);
            std::atomic<std::uint64_t> passed{0};
            const Buffer changed = makeBuffer(200);
            queue.push(changed);
            changed->setDataSize(200 + difference);
            startPassingOn(queue, passed);
            ASSERT_TRUE(waitUntil([&] { return passed == 1; }));
            letWorkersFallAsleep();

            // As many bytes as the other one had more than the queue knows.
            queue.push(makeBuffer(100 - kyNetBuffer::getHeaderSize()));
            ASSERT_TRUE(waitUntil([&] { return passed == 2; }));
        }
    }
}

TEST(kyNetSendQueue, everyCallerGetsRoomInTheEnd)
{
    constexpr std::uint64_t s_callers = 16;
    constexpr std::uint64_t s_each = 500;
    std::atomic<std::uint64_t> passed{0};
    kyNetSendQueue queue(1);
    startPassingOn(queue, passed);
    startPassingOn(queue, passed);

    std::vector<std::thread> callers;
    for (std::uint64_t i = 0; i < s_callers; ++i) {
        callers.emplace_back([&] {
            const Buffer buffer = makeBuffer(1);
            for (std::uint64_t sent = 0; sent < s_each; ++sent) {
                queue.push(buffer);
            }
        });
    }
    for (std::thread& caller : callers) {
        caller.join();
    }
    queue.waitUntilReleased();
    EXPECT_EQ(passed, s_callers * s_each);
}
