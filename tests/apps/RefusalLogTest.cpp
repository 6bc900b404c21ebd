#include <apps/TALOClusterService/RefusalLog.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tests/support/kyTestLog.h>

namespace {

using namespace std::chrono_literals;
using kyTest::LogCapture;
using testing::ElementsAre;

} // namespace

TEST(RefusalLog, eachAddressIsLoggedOnce)
{
    const LogCapture log;
    RefusalLog refusals(1h, 10);
    refusals.report("10.0.0.1", "why");
    refusals.report("10.0.0.2", "100% wrong");
    refusals.report("10.0.0.1", "why not");
    EXPECT_THAT(log.texts(), ElementsAre("Refused client 10.0.0.1: why\n",
                                         "Refused client 10.0.0.2: 100% wrong\n"));
}

TEST(RefusalLog, addressIsLoggedAgainAfterThePause)
{
    const LogCapture log;
    RefusalLog refusals(0ms, 1);
    for (int i = 0; i < 3; ++i) {
        refusals.report("10.0.0.1", "why");
    }
    EXPECT_EQ(log.texts().size(), 3U);
}

TEST(RefusalLog, manyAddressesDoNotFillTheLog)
{
    const LogCapture log;
    RefusalLog refusals(1h, 2);
    for (int i = 0; i < 100; ++i) {
        refusals.report("10.0.0." + std::to_string(i), "why");
    }
    EXPECT_THAT(log.texts(),
                ElementsAre("Refused client 10.0.0.0: why\n", "Refused client 10.0.0.1: why\n"));
}

TEST(RefusalLog, threadsReportAtOnce)
{
    const LogCapture log;
    RefusalLog refusals(1h, 10);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int k = 0; k < 100; ++k) {
                refusals.report("10.0.0." + std::to_string(k % 5), "why");
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(log.texts().size(), 5U);
}
