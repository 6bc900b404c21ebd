#include <NetBase/buffers/kyConnectionClosed.h>

#include <stdexcept>
#include <type_traits>
#include <utility>

#include <gtest/gtest.h>

#include <NetBase/buffers/kyConnectionTimeout.h>

TEST(kyConnectionClosed, isToldFromOtherErrors)
{
    EXPECT_STREQ(kyConnectionClosed().what(), "Connection closed");
    EXPECT_THROW(throw kyConnectionClosed(), kyConnectionClosed);
    EXPECT_THROW(throw kyConnectionClosed(), kyNetError);
    EXPECT_THROW(throw kyConnectionClosed(), std::runtime_error);
    EXPECT_FALSE((std::is_base_of_v<kyConnectionTimeout, kyConnectionClosed>));
}

TEST(kyConnectionClosed, copiesAndMovesKeepTheText)
{
    kyConnectionClosed first;
    kyConnectionClosed second(first);
    second = first;
    const kyConnectionClosed third(std::move(first));
    EXPECT_STREQ(second.what(), "Connection closed");
    EXPECT_STREQ(third.what(), "Connection closed");
}
