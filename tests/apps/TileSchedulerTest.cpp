#include <apps/TALORender/TileScheduler.h>

#include <future>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <tests/support/kyTestWait.h>

using namespace render;

TEST(TileScheduler, theTilesCoverEveryPixelOnce)
{
    for (const auto& [width, height] :
         {std::pair<std::uint32_t, std::uint32_t>{1, 1}, {32, 32}, {33, 31}, {100, 70}}) {
        TileScheduler tiles(width, height, 32);
        std::vector<int> visits(std::size_t{width} * height, 0);
        std::size_t count = 0;
        while (const auto tile = tiles.tryTake()) {
            ++count;
            for (std::uint32_t y = tile->y; y < tile->y + tile->height; ++y) {
                for (std::uint32_t x = tile->x; x < tile->x + tile->width; ++x) {
                    ++visits.at(std::size_t{y} * width + x);
                }
            }
        }
        EXPECT_EQ(count, tiles.getCount());
        EXPECT_EQ(visits, std::vector<int>(visits.size(), 1));
    }
}

TEST(TileScheduler, whatIsGivenBackIsTakenNext)
{
    TileScheduler tiles(96, 32, 32);
    const Tile first = *tiles.tryTake();
    tiles.tryTake();
    tiles.giveBack(first);
    EXPECT_EQ(*tiles.tryTake(), first);
}

TEST(TileScheduler, tryTakeDoesNotWaitForTakenTiles)
{
    TileScheduler tiles(32, 32, 32);
    EXPECT_TRUE(tiles.tryTake());
    EXPECT_FALSE(tiles.tryTake());
    EXPECT_FALSE(tiles.isFinished());
}

TEST(TileScheduler, takeWaitsForATileThatIsGivenBack)
{
    TileScheduler tiles(32, 32, 32);
    const Tile tile = *tiles.take();
    auto other = std::async(std::launch::async, [&] { return tiles.take(); });
    EXPECT_EQ(other.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    tiles.giveBack(tile);
    ASSERT_EQ(other.wait_for(kyTest::s_patience), std::future_status::ready);
    EXPECT_EQ(other.get(), std::optional<Tile>(tile));
}

TEST(TileScheduler, takeEndsWhenTheLastTileIsFinished)
{
    TileScheduler tiles(32, 32, 32);
    tiles.take();
    auto one = std::async(std::launch::async, [&] { return tiles.take(); });
    auto other = std::async(std::launch::async, [&] { return tiles.take(); });
    tiles.finish();
    ASSERT_EQ(one.wait_for(kyTest::s_patience), std::future_status::ready);
    ASSERT_EQ(other.wait_for(kyTest::s_patience), std::future_status::ready);
    EXPECT_FALSE(one.get());
    EXPECT_FALSE(other.get());
    EXPECT_TRUE(tiles.isFinished());
}

TEST(TileScheduler, manyThreadsThatFailNowAndThenFinishEveryTileOnce)
{
    TileScheduler tiles(640, 320, 32);
    std::atomic<std::size_t> finished{0};
    std::vector<std::thread> threads;
    for (unsigned int i = 0; i < 4; ++i) {
        threads.emplace_back([&, i] {
            for (unsigned int turn = i; const auto tile = tiles.take(); ++turn) {
                if (turn % 3 == 0) {
                    tiles.giveBack(*tile);
                } else {
                    ++finished;
                    tiles.finish();
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(finished, tiles.getCount());
}
