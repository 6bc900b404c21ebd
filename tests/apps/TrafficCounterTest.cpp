#include <apps/common/TrafficCounter.h>

#include <gtest/gtest.h>

#include <tests/support/kyTestChains.h>

using render::TrafficCounter;

TEST(TrafficCounter, countsWhatItPassesOnWithHeaders)
{
    const auto kept = std::make_shared<kyTest::KeepingSender>();
    TrafficCounter counter(kept);
    EXPECT_EQ(counter.getCompressedBytes(), 0U);
    const kyTest::Buffer buffer = kyTest::makeBuffer("seven..");
    counter.send(buffer);
    ASSERT_EQ(kept->sent.size(), 1U);
    EXPECT_EQ(kept->sent.front(), buffer);
    EXPECT_EQ(counter.getCompressedBytes(), 27U);
    counter.send(kyTest::makeBuffer(""));
    EXPECT_EQ(counter.getCompressedBytes(), 47U);
}

TEST(TrafficCounter, countsTheSizeBeforeTheChildChangesIt)
{
    const auto kept = std::make_shared<kyTest::KeepingSender>();
    kept->onSend = [](kyNetBuffer& buffer) { buffer.setDataSize(0); };
    TrafficCounter counter(kept);
    counter.send(kyTest::makeBuffer("seven.."));
    EXPECT_EQ(counter.getCompressedBytes(), 27U);
}

TEST(TrafficCounter, doesNotCountWhatTheChildRefuses)
{
    const auto kept = std::make_shared<kyTest::KeepingSender>();
    kept->onSend = [](kyNetBuffer&) { throw kyConnectionClosed(); };
    TrafficCounter counter(kept);
    EXPECT_THROW(counter.send(kyTest::makeBuffer("seven..")), kyConnectionClosed);
    EXPECT_EQ(counter.getCompressedBytes(), 0U);
}

TEST(TrafficCounter, beginsAgainAfterAReset)
{
    TrafficCounter counter(std::make_shared<kyTest::KeepingSender>());
    counter.send(kyTest::makeBuffer("seven.."));
    counter.resetStatistics();
    EXPECT_EQ(counter.getCompressedBytes(), 0U);
    counter.send(kyTest::makeBuffer("1"));
    EXPECT_EQ(counter.getCompressedBytes(), 21U);
}

TEST(TrafficCounter, reachesWhatItsChildReaches)
{
    const auto kept = std::make_shared<kyTest::KeepingSender>(std::set<unsigned int>{2U, 3U});
    TrafficCounter counter(kept);
    EXPECT_TRUE(counter.hasDestination(2));
    EXPECT_TRUE(counter.hasDestination(3));
    EXPECT_FALSE(counter.hasDestination(4));
    counter.waitAllDataTransfered();
    EXPECT_EQ(kept->waits, 1);
}
