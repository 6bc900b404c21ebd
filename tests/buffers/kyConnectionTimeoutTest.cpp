#include <NetBase/buffers/kyConnectionTimeout.h>

#include <exception>
#include <stdexcept>
#include <thread>
#include <type_traits>
#include <utility>

#include <gtest/gtest.h>

#include <NetBase/buffers/kyConnectionClosed.h>

namespace {

constexpr const char* s_timeout =
    "recv error: Connected party did not properly respond after a period of time.";

} // namespace

TEST(kyConnectionTimeout, isToldFromOtherErrors)
{
    EXPECT_STREQ(kyConnectionTimeout().what(), s_timeout);
    EXPECT_THROW(throw kyConnectionTimeout(), kyConnectionTimeout);
    EXPECT_THROW(throw kyConnectionTimeout(), kyNetError);
    EXPECT_THROW(throw kyConnectionTimeout(), std::runtime_error);
    EXPECT_FALSE((std::is_base_of_v<kyConnectionClosed, kyConnectionTimeout>));
}

TEST(kyConnectionTimeout, copiesAndMovesKeepTheText)
{
    kyConnectionTimeout first;
    kyConnectionTimeout second(first);
    second = first;
    const kyConnectionTimeout third(std::move(first));
    EXPECT_STREQ(second.what(), s_timeout);
    EXPECT_STREQ(third.what(), s_timeout);
}

TEST(kyConnectionTimeout, crossesThreadsAsTheSameType)
{
    std::exception_ptr failure;
    std::thread([&] {
        try {
            throw kyConnectionTimeout();
        } catch (...) {
            failure = std::current_exception();
        }
    }).join();
    EXPECT_THROW(std::rethrow_exception(failure), kyConnectionTimeout);
}
