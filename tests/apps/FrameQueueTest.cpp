#include <apps/TALORender/FrameQueue.h>

#include <atomic>
#include <future>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <tests/support/kyTestBlocked.h>
#include <tests/support/kyTestWait.h>

using namespace render;

namespace {

constexpr std::uint32_t s_edge = 32;

std::vector<Frame> frames(std::size_t count, std::uint32_t width, std::uint32_t height)
{
    Frame frame;
    frame.width = width;
    frame.height = height;
    return std::vector<Frame>(count, frame);
}

/// A queue of which the first frame's tiles are handed out to servers that have begun it.
class Released : public FrameQueue
{
public:
    Released(std::size_t count, std::uint32_t width, std::uint32_t height)
        : FrameQueue(frames(count, width, height), 1, s_edge)
    {
        announce(1);
        release(1);
    }

    std::int32_t begun = 1;
};

} // namespace

TEST(FrameQueue, theTilesCoverEveryPixelOnce)
{
    for (const auto& [width, height] :
         {std::pair<std::uint32_t, std::uint32_t>{1, 1}, {32, 32}, {33, 31}, {100, 70}}) {
        Released queue(1, width, height);
        std::vector<int> visits(std::size_t{width} * height, 0);
        std::size_t count = 0;
        while (const auto task = queue.tryTake(queue.begun)) {
            ++count;
            const Tile& tile = task->tile.value();
            for (std::uint32_t y = tile.y; y < tile.y + tile.height; ++y) {
                for (std::uint32_t x = tile.x; x < tile.x + tile.width; ++x) {
                    ++visits.at(std::size_t{y} * width + x);
                }
            }
        }
        EXPECT_EQ(count, queue.countTiles());
        EXPECT_EQ(visits, std::vector<int>(visits.size(), 1));
    }
}

TEST(FrameQueue, countsTheTilesOfAllFrames)
{
    EXPECT_EQ(FrameQueue(frames(3, 65, 32), 1, s_edge).countTiles(), 9U);
}

TEST(FrameQueue, aFrameIsKnownByItsNumber)
{
    std::vector<Frame> two = frames(2, 10, 10);
    two[1].samples = 7;
    const FrameQueue queue(two, 5, s_edge);
    EXPECT_EQ(queue.getFrame(6).samples, 7U);
    EXPECT_THROW(queue.getFrame(4), std::out_of_range);
    EXPECT_THROW(queue.getFrame(7), std::out_of_range);
}

TEST(FrameQueue, eachServerIsToldOnceToBeginEachFrame)
{
    FrameQueue queue(frames(2, 32, 32), 5, s_edge);
    std::int32_t one = 0;
    std::int32_t other = 0;
    EXPECT_FALSE(queue.tryTake(one));
    queue.announce(5);
    for (std::int32_t* begun : {&one, &other}) {
        const auto task = queue.tryTake(*begun);
        ASSERT_TRUE(task);
        EXPECT_EQ(task->frame, 5);
        EXPECT_FALSE(task->tile);
        EXPECT_FALSE(queue.tryTake(*begun));
    }
}

TEST(FrameQueue, aServerThatWasBusyBeginsTheFramesInOrder)
{
    FrameQueue queue(frames(2, 32, 32), 1, s_edge);
    queue.announce(1);
    queue.announce(2);
    std::int32_t begun = 0;
    EXPECT_EQ(queue.tryTake(begun)->frame, 1);
    EXPECT_EQ(queue.tryTake(begun)->frame, 2);
    EXPECT_EQ(begun, 2);
}

TEST(FrameQueue, noTileIsHandedOutBeforeItsFrameIsReleased)
{
    FrameQueue queue(frames(1, 32, 32), 1, s_edge);
    queue.announce(1);
    std::int32_t begun = 0;
    queue.tryTake(begun);
    EXPECT_FALSE(queue.tryTake(begun));
    queue.release(1);
    EXPECT_TRUE(queue.tryTake(begun)->tile);
}

TEST(FrameQueue, aFrameIsBegunBeforeTilesOfFormerOnesAreTaken)
{
    Released queue(2, 64, 32);
    queue.announce(2);
    EXPECT_FALSE(queue.tryTake(queue.begun)->tile);
    EXPECT_TRUE(queue.tryTake(queue.begun)->tile);
}

TEST(FrameQueue, whatIsGivenBackIsTakenNext)
{
    Released queue(1, 96, 32);
    const auto first = queue.tryTake(queue.begun);
    queue.tryTake(queue.begun);
    queue.giveBack(*first);
    EXPECT_EQ(queue.tryTake(queue.begun)->tile, first->tile);
}

TEST(FrameQueue, whatIsGivenBackOfAnOldFrameComesBeforeANewOne)
{
    Released queue(2, 32, 32);
    const auto old = queue.tryTake(queue.begun);
    queue.announce(2);
    queue.tryTake(queue.begun);
    queue.release(2);
    queue.giveBack(*old);
    EXPECT_EQ(queue.tryTake(queue.begun)->frame, 1);
    EXPECT_EQ(queue.tryTake(queue.begun)->frame, 2);
}

TEST(FrameQueue, tryTakeDoesNotWaitForTakenTiles)
{
    Released queue(1, 32, 32);
    EXPECT_TRUE(queue.tryTake(queue.begun));
    EXPECT_FALSE(queue.tryTake(queue.begun));
}

TEST(FrameQueue, takeWaitsForATileThatIsGivenBack)
{
    Released queue(1, 32, 32);
    const auto task = queue.take(queue.begun);
    std::optional<FrameQueue::Task> given;
    std::int32_t begun = 1;
    kyTest::Blocked other([&] { given = queue.take(begun); });
    EXPECT_TRUE(other.isBlocked());
    queue.giveBack(*task);
    other.finish();
    ASSERT_TRUE(given);
    EXPECT_EQ(given->tile, task->tile);
}

TEST(FrameQueue, takeWaitsForTheNextFrame)
{
    Released queue(2, 32, 32);
    queue.finish(*queue.take(queue.begun));
    std::optional<FrameQueue::Task> next;
    std::int32_t begun = 1;
    kyTest::Blocked other([&] { next = queue.take(begun); });
    EXPECT_TRUE(other.isBlocked());
    queue.announce(2);
    other.finish();
    ASSERT_TRUE(next);
    EXPECT_EQ(next->frame, 2);
}

TEST(FrameQueue, takeEndsWhenTheLastTileIsFinished)
{
    Released queue(1, 32, 32);
    const auto task = queue.take(queue.begun);
    std::optional<FrameQueue::Task> one = task;
    std::optional<FrameQueue::Task> two = task;
    std::int32_t begunOfTwo = 1;
    kyTest::Blocked first([&] { one = queue.take(queue.begun); });
    kyTest::Blocked second([&] { two = queue.take(begunOfTwo); });
    EXPECT_TRUE(first.isBlocked());
    EXPECT_TRUE(second.isBlocked());
    queue.finish(*task);
    first.finish();
    second.finish();
    EXPECT_FALSE(one);
    EXPECT_FALSE(two);
}

TEST(FrameQueue, tilesOfTheNextFrameFollowThoseOfTheLastThoughTheseAreNotFinished)
{
    Released queue(2, 64, 32);
    queue.announce(2);
    queue.release(2);
    EXPECT_FALSE(queue.tryTake(queue.begun)->tile);
    for (const std::int32_t frame : {1, 1, 2, 2}) {
        EXPECT_EQ(queue.tryTake(queue.begun)->frame, frame);
    }
}

TEST(FrameQueue, theLeaderIsToldWhenAllTilesAreFinished)
{
    Released queue(1, 64, 32);
    const auto one = queue.take(queue.begun);
    const auto other = queue.take(queue.begun);
    bool isFinished = false;
    kyTest::Blocked finished([&] { isFinished = queue.waitFinished(1); });
    queue.finish(*other);
    EXPECT_TRUE(finished.isBlocked());
    queue.finish(*one);
    finished.finish();
    EXPECT_TRUE(isFinished);
}

TEST(FrameQueue, closingEndsEveryWait)
{
    Released queue(2, 32, 32);
    const auto task = queue.take(queue.begun);
    std::optional<FrameQueue::Task> taken = task;
    bool isFinished = true;
    kyTest::Blocked server([&] { taken = queue.take(queue.begun); });
    kyTest::Blocked leader([&] { isFinished = queue.waitFinished(1); });
    EXPECT_TRUE(server.isBlocked());
    EXPECT_TRUE(leader.isBlocked());
    queue.close();
    server.finish();
    leader.finish();
    EXPECT_FALSE(taken);
    EXPECT_FALSE(isFinished);
    queue.giveBack(*task);
    EXPECT_FALSE(queue.tryTake(queue.begun));
}

TEST(FrameQueue, aFrameThatWasFinishedIsSoAfterTheQueueIsClosed)
{
    Released queue(1, 32, 32);
    queue.finish(*queue.take(queue.begun));
    queue.close();
    EXPECT_TRUE(queue.waitFinished(1));
}

TEST(FrameQueue, manyThreadsThatFailNowAndThenFinishEveryTileOfEveryFrameOnce)
{
    constexpr std::int32_t s_frames = 5;
    FrameQueue queue(frames(s_frames, 320, 160), 1, s_edge);
    std::atomic<std::size_t> finished{0};
    std::atomic<int> announcements{0};
    std::vector<std::thread> threads;
    for (unsigned int i = 0; i < 4; ++i) {
        threads.emplace_back([&, i] {
            std::int32_t begun = 0;
            for (unsigned int turn = i; const auto task = queue.take(begun); ++turn) {
                if (!task->tile) {
                    ++announcements;
                } else if (turn % 3 == 0) {
                    queue.giveBack(*task);
                } else {
                    ++finished;
                    queue.finish(*task);
                }
            }
        });
    }
    for (std::int32_t number = 1; number <= s_frames; ++number) {
        queue.announce(number);
        queue.release(number);
        EXPECT_TRUE(number == 1 || queue.waitFinished(number - 1));
    }
    EXPECT_TRUE(queue.waitFinished(s_frames));
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(finished, queue.countTiles());
    // A thread that finds all finished does not begin the last frames.
    EXPECT_LE(announcements, 4 * s_frames);
}
