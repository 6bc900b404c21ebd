#include <NetBase/buffers/kyNetProgress.h>

#include <atomic>
#include <cmath>
#include <limits>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Events = std::vector<std::string>;

/// Writes down what it hears: "start name total", "progress percent wholePercent".
class Recorder : public kyNetProgress::Handler
{
public:
    void start(const std::string& name, double total) override
    {
        add("start " + name, total, nullptr);
    }

    void progress(double percent, double wholePercent) override
    {
        add("progress", percent, &wholePercent);
    }

    /// What was heard since the last call.
    Events take()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return std::exchange(m_events, {});
    }

private:
    void add(const std::string& what, double first, const double* second)
    {
        std::ostringstream text;
        text << what << ' ' << first;
        if (second != nullptr) {
            text << ' ' << *second;
        }
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_events.push_back(text.str());
    }

    std::mutex m_mutex;
    Events m_events;
};

class kyNetProgressTest : public testing::Test
{
protected:
    kyNetProgressTest() { kyNetProgress::set(&m_recorder); }
    ~kyNetProgressTest() override { kyNetProgress::reset(); }

    Recorder m_recorder;
};

} // namespace

TEST(kyNetProgress, withoutAHandlerNothingHappens)
{
    kyNetProgress::reset();
    kyNetProgress::start("x", 10);
    kyNetProgress::set(5);
    kyNetProgress::add(1);
    EXPECT_FALSE(kyNetProgress::isAborting());
}

TEST_F(kyNetProgressTest, measuredTaskCountsInPercent)
{
    kyNetProgress::start("render", 200);
    EXPECT_EQ(m_recorder.take(), (Events{"start render 100", "progress 0 0"}));
    kyNetProgress::set(0.5);
    EXPECT_EQ(m_recorder.take(), Events{});
    kyNetProgress::set(2.0);
    EXPECT_EQ(m_recorder.take(), Events{"progress 1 1"});
    kyNetProgress::set(3.9);
    EXPECT_EQ(m_recorder.take(), Events{});
    kyNetProgress::set(5.5);
    EXPECT_EQ(m_recorder.take(), Events{"progress 2.75 2"});
    kyNetProgress::set(200.0);
    EXPECT_EQ(m_recorder.take(), Events{"progress 100 100"});
}

TEST_F(kyNetProgressTest, everyWholePercentIsHeardOnce)
{
    kyNetProgress::start("render", 1000);
    m_recorder.take();
    for (int i = 0; i < 1000; ++i) {
        kyNetProgress::add(1);
    }
    const Events events = m_recorder.take();
    ASSERT_EQ(events.size(), 100U);
    EXPECT_EQ(events.front(), "progress 1 1");
    EXPECT_EQ(events.back(), "progress 100 100");
}

TEST_F(kyNetProgressTest, progressMayGoBackAndBeyond)
{
    kyNetProgress::start("render", 100);
    m_recorder.take();
    kyNetProgress::set(50.0);
    kyNetProgress::add(-20);
    kyNetProgress::set(150.0);
    kyNetProgress::set(-7.0);
    EXPECT_EQ(m_recorder.take(),
              (Events{"progress 50 50", "progress 30 30", "progress 150 150", "progress -7 -7"}));
}

TEST_F(kyNetProgressTest, taskOfUnknownLengthIsIndeterminate)
{
    for (const double total : {0.0, 0.99, -5.0}) {
        kyNetProgress::start("x", total);
        EXPECT_EQ(m_recorder.take(), (Events{"start x 0", "progress -1 0"})) << total;
    }
}

// Intended: nothing sets the scale of a task of unknown length.
TEST_F(kyNetProgressTest, taskOfUnknownLengthCountsInTheUnitsOfTheLast)
{
    kyNetProgress::start("measured", 50);
    kyNetProgress::start("x", 0);
    m_recorder.take();
    kyNetProgress::set(5);
    EXPECT_EQ(m_recorder.take(), Events{"progress 10 10"});
}

TEST_F(kyNetProgressTest, totalsThatAreNoWholeNumbersAreClamped)
{
    constexpr double infinity = std::numeric_limits<double>::infinity();
    const Events measured = {"start x 100", "progress 0 0"};
    const Events unknown = {"start x 0", "progress -1 0"};

    kyNetProgress::start("x", 1e300);
    EXPECT_EQ(m_recorder.take(), measured);
    kyNetProgress::start("x", infinity);
    EXPECT_EQ(m_recorder.take(), measured);
    kyNetProgress::start("x", 2147483648.0);
    EXPECT_EQ(m_recorder.take(), measured);
    kyNetProgress::start("x", 1.0);
    EXPECT_EQ(m_recorder.take(), measured);
    kyNetProgress::start("x", -1e300);
    EXPECT_EQ(m_recorder.take(), unknown);
    kyNetProgress::start("x", -infinity);
    EXPECT_EQ(m_recorder.take(), unknown);
    kyNetProgress::start("x", std::nan(""));
    EXPECT_EQ(m_recorder.take(), unknown);
}

TEST_F(kyNetProgressTest, percentsThatAreNoWholeNumbersAreClamped)
{
    kyNetProgress::start("x", 100);
    m_recorder.take();
    kyNetProgress::set(1e300);
    EXPECT_EQ(m_recorder.take(), Events{"progress 1e+300 2.14748e+09"});
    kyNetProgress::set(-1e300);
    EXPECT_EQ(m_recorder.take(), Events{"progress -1e+300 -2.14748e+09"});
    kyNetProgress::set(std::nan(""));
    EXPECT_EQ(m_recorder.take(), Events{"progress nan 0"});
    kyNetProgress::set(0.25);
    EXPECT_EQ(m_recorder.take(), Events{});
}

TEST_F(kyNetProgressTest, newTaskBeginsAtNothing)
{
    kyNetProgress::start("first", 10);
    kyNetProgress::set(9.0);
    kyNetProgress::start("second", 10);
    m_recorder.take();
    kyNetProgress::add(1);
    EXPECT_EQ(m_recorder.take(), Events{"progress 10 10"});
}

TEST_F(kyNetProgressTest, newTaskIsHeardAtThePercentThatTheLastEndedAt)
{
    kyNetProgress::start("first", 10);
    kyNetProgress::set(10.0);
    kyNetProgress::start("second", 5);
    m_recorder.take();
    kyNetProgress::set(5.0);
    EXPECT_EQ(m_recorder.take(), Events{"progress 100 100"});
}

TEST_F(kyNetProgressTest, abortIsSeenUntilTheNextHandler)
{
    EXPECT_FALSE(kyNetProgress::isAborting());
    kyNetProgress::abort();
    EXPECT_TRUE(kyNetProgress::isAborting());
    kyNetProgress::start("x", 10);
    EXPECT_TRUE(kyNetProgress::isAborting());
    kyNetProgress::set(&m_recorder);
    EXPECT_FALSE(kyNetProgress::isAborting());

    kyNetProgress::abort();
    kyNetProgress::reset();
    EXPECT_FALSE(kyNetProgress::isAborting());
}

TEST_F(kyNetProgressTest, newHandlerBeginsAtNothing)
{
    kyNetProgress::start("x", 100);
    kyNetProgress::set(40.0);
    kyNetProgress::set(&m_recorder);
    m_recorder.take();
    kyNetProgress::add(1);
    EXPECT_EQ(m_recorder.take(), Events{"progress 1 1"});
}

TEST_F(kyNetProgressTest, handlerThatWasRemovedHearsNothing)
{
    kyNetProgress::start("x", 10);
    m_recorder.take();
    kyNetProgress::reset();
    kyNetProgress::add(5);
    kyNetProgress::start("y", 10);
    EXPECT_EQ(m_recorder.take(), Events{});
}

TEST_F(kyNetProgressTest, nothingAddedByManyThreadsIsLost)
{
    constexpr int threads = 4;
    constexpr int steps = 819200;
    kyNetProgress::start("x", 2 * threads * steps);
    std::atomic<int> ready{0};
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&] {
            for (++ready; ready < threads;) {
                std::this_thread::yield();
            }
            for (int i = 0; i < steps; ++i) {
                kyNetProgress::add(1);
            }
        });
    }
    for (std::thread& worker : workers) {
        worker.join();
    }
    m_recorder.take();
    // Half of it is done: one more percent is heard as the 51st.
    kyNetProgress::add(threads * steps / 50.0);
    EXPECT_EQ(m_recorder.take(), Events{"progress 51 51"});
}

TEST_F(kyNetProgressTest, abortReachesAWorkingThread)
{
    std::thread worker([] {
        while (!kyNetProgress::isAborting()) {
            std::this_thread::yield();
        }
    });
    kyNetProgress::abort();
    worker.join();
}
