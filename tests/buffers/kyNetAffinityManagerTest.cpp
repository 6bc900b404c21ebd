#include <NetBase/buffers/kyNetAffinityManager.h>

#include <limits>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <tests/support/kyTestThreads.h>

namespace {

using Processors = std::vector<int>;

/// What the calling thread printed and where it may run after setNodeAffinity; the thread is one
/// of its own, so that the others stay as they are.
struct Outcome
{
    std::string printed;
    Processors processors;
};

Outcome outcomeOf(int node, bool isForbidden = false)
{
    Outcome outcome;
    testing::internal::CaptureStdout();
    std::thread([&] {
        if (isForbidden) {
            kyTest::forbidPinning();
        }
        kyNetAffinityManager::setNodeAffinity(node);
        outcome.processors = kyTest::getProcessors();
    }).join();
    outcome.printed = testing::internal::GetCapturedStdout();
    return outcome;
}

} // namespace

TEST(kyNetAffinityManager, negativeNodeDoesNothing)
{
    const Processors before = kyTest::getProcessors();
    for (const int node : {-1, -2, std::numeric_limits<int>::min()}) {
        const Outcome outcome = outcomeOf(node);
        EXPECT_EQ(outcome.printed, "");
        EXPECT_EQ(outcome.processors, before);
    }
}

// Intended: every node is the first processor, and the text says 1.
TEST(kyNetAffinityManager, everyNodeIsTheFirstProcessor)
{
    for (const int node : {0, 1, 3, std::numeric_limits<int>::max()}) {
        const Outcome outcome = outcomeOf(node);
        EXPECT_EQ(outcome.printed, "setaffinity 1\n");
        EXPECT_EQ(outcome.processors, Processors{0});
    }
}

TEST(kyNetAffinityManager, refusedProcessorIsPrintedAllTheSame)
{
    const Processors before = kyTest::getProcessors();
    const Outcome outcome = outcomeOf(0, true);
    EXPECT_EQ(outcome.printed, "setaffinity 1\n");
    EXPECT_EQ(outcome.processors, before);
}

TEST(kyNetAffinityManager, noProcessorsOfANodeAreKnown)
{
    for (const int node : {-1, 0, 1, 100}) {
        EXPECT_TRUE(kyNetAffinityManager::getCPUs(node).empty());
    }
}
