#include <NetBase/platform/kyThreads.h>

#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <tests/support/kyTestThreads.h>

namespace {

using Processors = std::vector<int>;

} // namespace

TEST(kyThreads, countsAtLeastOneHardwareThread)
{
    EXPECT_GE(kyThreads::countHardwareThreads(), 1U);
}

TEST(kyThreads, threadOfAPinnedThreadGetsAllProcessorsBack)
{
    const Processors ofProcess = kyTest::getProcessors();
    Processors inherited;
    Processors reset;
    Processors pinned;
    std::thread([&] {
        EXPECT_TRUE(kyThreads::pinToFirstProcessor());
        std::thread([&] {
            inherited = kyTest::getProcessors();
            kyThreads::resetProcessors();
            reset = kyTest::getProcessors();
        }).join();
        pinned = kyTest::getProcessors();
    }).join();
    // Some systems let a thread begin where its creator may run.
    EXPECT_TRUE(inherited == Processors{0} || inherited == ofProcess);
    EXPECT_EQ(reset, ofProcess);
    EXPECT_EQ(pinned, Processors{0});
    EXPECT_EQ(kyTest::getProcessors(), ofProcess);
}

TEST(kyThreads, refusalLeavesTheThreadWhereItMayRun)
{
    const Processors ofProcess = kyTest::getProcessors();
    Processors refused;
    std::thread([&] {
        kyTest::forbidPinning();
        EXPECT_FALSE(kyThreads::pinToFirstProcessor());
        kyThreads::resetProcessors();
        refused = kyTest::getProcessors();
    }).join();
    EXPECT_EQ(refused, ofProcess);
}
