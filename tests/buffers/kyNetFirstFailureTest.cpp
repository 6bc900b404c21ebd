#include <NetBase/buffers/kyNetFirstFailure.h>

#include <atomic>
#include <exception>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include <NetBase/buffers/kyConnectionClosed.h>

static_assert(!std::is_copy_constructible_v<kyNetFirstFailure>);

namespace {

std::exception_ptr makeFailure(const std::string& text)
{
    return std::make_exception_ptr(std::runtime_error(text));
}

std::string textOf(const kyNetFirstFailure& failure)
{
    try {
        failure.rethrowIfSet();
    } catch (const std::exception& error) {
        return error.what();
    }
    return "none";
}

} // namespace

TEST(kyNetFirstFailure, nothingIsSetAtFirst)
{
    const kyNetFirstFailure failure;
    EXPECT_FALSE(failure.isSet());
    failure.rethrowIfSet();
}

TEST(kyNetFirstFailure, isThrownEveryTime)
{
    kyNetFirstFailure failure;
    failure.store(makeFailure("lost"));
    EXPECT_TRUE(failure.isSet());
    EXPECT_EQ(textOf(failure), "lost");
    EXPECT_EQ(textOf(failure), "lost");
    EXPECT_TRUE(failure.isSet());
}

TEST(kyNetFirstFailure, laterOnesAreDropped)
{
    kyNetFirstFailure failure;
    failure.store(makeFailure("first"));
    failure.store(makeFailure("second"));
    failure.store(std::make_exception_ptr(7));
    EXPECT_EQ(textOf(failure), "first");
}

TEST(kyNetFirstFailure, isTheVeryObjectThatWasThrown)
{
    kyNetFirstFailure failure;
    const kyConnectionClosed* thrown = nullptr;
    try {
        throw kyConnectionClosed();
    } catch (const kyConnectionClosed& error) {
        thrown = &error;
        failure.store(std::current_exception());
    }
    for (int i = 0; i < 2; ++i) {
        try {
            failure.rethrowIfSet();
            ADD_FAILURE() << "nothing was thrown";
        } catch (const kyConnectionClosed& error) {
            EXPECT_EQ(&error, thrown);
        }
    }
}

TEST(kyNetFirstFailure, mayBeAnything)
{
    kyNetFirstFailure failure;
    failure.store(std::make_exception_ptr(42));
    try {
        failure.rethrowIfSet();
        ADD_FAILURE() << "nothing was thrown";
    } catch (int value) {
        EXPECT_EQ(value, 42);
    }
}

TEST(kyNetFirstFailure, dropsWhatItHeldAtItsEnd)
{
    struct Counted
    {
        explicit Counted(const std::shared_ptr<int>& use) : m_use(use) {}
        std::shared_ptr<int> m_use;
    };
    const auto use = std::make_shared<int>();
    {
        kyNetFirstFailure failure;
        failure.store(std::make_exception_ptr(Counted(use)));
        failure.store(std::make_exception_ptr(Counted(use)));
        EXPECT_EQ(use.use_count(), 2);
    }
    EXPECT_EQ(use.use_count(), 1);
}

TEST(kyNetFirstFailure, attemptStoresWhatItsStepThrows)
{
    kyNetFirstFailure failure;
    int steps = 0;
    EXPECT_TRUE(failure.attempt([&] { ++steps; }));
    EXPECT_FALSE(failure.isSet());
    EXPECT_FALSE(failure.attempt([&] {
        ++steps;
        throw std::runtime_error("lost");
    }));
    EXPECT_FALSE(failure.attempt([] { throw 42; }));
    EXPECT_TRUE(failure.attempt([&] { ++steps; }));
    EXPECT_EQ(steps, 3);
    EXPECT_EQ(textOf(failure), "lost");
}

// Some store at the same moment, others ask: all of them are thrown the same one, and who has
// stored sees it at once.
TEST(kyNetFirstFailure, oneOfManyAtOnceWins)
{
    for (int round = 0; round < 100; ++round) {
        kyNetFirstFailure failure;
        std::atomic<bool> isSeenByItsStorer{true};
        std::vector<std::future<void>> storing;
        std::vector<std::future<std::string>> asking;
        for (int t = 0; t < 3; ++t) {
            storing.push_back(std::async(std::launch::async, [&, t] {
                failure.store(makeFailure(std::to_string(t)));
                isSeenByItsStorer = isSeenByItsStorer && failure.isSet();
            }));
            asking.push_back(std::async(std::launch::async, [&] {
                while (!failure.isSet()) {
                    std::this_thread::yield();
                }
                return textOf(failure);
            }));
        }
        for (auto& one : storing) {
            one.get();
        }
        const std::string winner = textOf(failure);
        ASSERT_NE(winner, "none");
        for (auto& one : asking) {
            ASSERT_EQ(one.get(), winner);
        }
        ASSERT_TRUE(isSeenByItsStorer);
    }
}
