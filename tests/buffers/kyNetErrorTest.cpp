#include <NetBase/buffers/kyNetError.h>

#include <cerrno>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <type_traits>

#include <gtest/gtest.h>

#include <NetBase/platform/kyLastError.h>

TEST(kyNetError, keepsItsText)
{
    EXPECT_STREQ(kyNetError("disk on fire").what(), "disk on fire");
    EXPECT_STREQ(kyNetError(std::string(100000, 'x')).what(), std::string(100000, 'x').c_str());
    EXPECT_STREQ(kyNetError("").what(), "");
}

TEST(kyNetError, holdsWhatWasWrittenIntoAStreamBefore)
{
    std::ostringstream stream;
    stream << "port " << 8889;
    const kyNetError error(stream);
    stream << " is taken";
    EXPECT_STREQ(error.what(), "port 8889");
    EXPECT_EQ(stream.str(), "port 8889 is taken");
}

TEST(kyNetError, isThrownWithAStreamInOneExpression)
{
    try {
        throw kyNetError(std::ostringstream() << "size " << 7 << " exceeds " << 5);
    } catch (const kyNetError& error) {
        EXPECT_STREQ(error.what(), "size 7 exceeds 5");
    }
}

TEST(kyNetError, holdsTheWholeTextOfAStringStreamThatWasReadFrom)
{
    std::stringstream stream;
    stream << "one two";
    std::string word;
    stream >> word;
    EXPECT_STREQ(kyNetError(stream).what(), "one two");
}

TEST(kyNetError, streamOfAnotherKindGivesNoText)
{
    EXPECT_STREQ(kyNetError(std::cout).what(), "");
    EXPECT_STREQ(kyNetError(std::ofstream()).what(), "");
    EXPECT_STREQ(kyNetError(std::ostream(nullptr)).what(), "");
}

TEST(kyNetError, copiesAndMovesKeepTheText)
{
    const kyNetError first("first");
    kyNetError copy(first);
    EXPECT_STREQ(copy.what(), "first");
    kyNetError other("other");
    other = copy;
    EXPECT_STREQ(other.what(), "first");
    const kyNetError moved(std::move(copy));
    EXPECT_STREQ(moved.what(), "first");
    other = kyNetError("second");
    EXPECT_STREQ(other.what(), "second");
    EXPECT_TRUE(std::is_nothrow_copy_constructible_v<kyNetError>);
}

TEST(kyNetError, isARuntimeError)
{
    EXPECT_THROW(throw kyNetError("x"), std::runtime_error);
}

TEST(kyNetError, noLastErrorHasNoText)
{
    kyLastError::clear();
    EXPECT_EQ(kyNetError::getLastErrorString(), "");
    EXPECT_EQ(kyLastError::get(), 0);
}

TEST(kyNetError, lastErrorIsItsCodeAndTheTextOfTheSystem)
{
    kyLastError::set(ECONNREFUSED);
    const std::string text = kyNetError::getLastErrorString();
    EXPECT_EQ(text, std::to_string(ECONNREFUSED) + ":" + kyLastError::getText(ECONNREFUSED));
    EXPECT_GT(kyLastError::getText(ECONNREFUSED).size(), 5U);
}

TEST(kyNetError, lastErrorWithoutATextIsItsCode)
{
    for (const int code : {99999, 2147483647}) {
        kyLastError::set(code);
        EXPECT_EQ(kyNetError::getLastErrorString(), std::to_string(code) + ":");
    }
}

TEST(kyNetError, lastErrorThatFillsAllBitsIsNotNegative)
{
    kyLastError::set(static_cast<int>(0xfffffff0));
    EXPECT_EQ(kyNetError::getLastErrorString(), "4294967280:");
}

TEST(kyNetError, askingLeavesTheLastErrorAsItWas)
{
    for (const int code : {ECONNRESET, 99999}) {
        kyLastError::set(code);
        EXPECT_EQ(kyNetError::getLastErrorString(), kyNetError::getLastErrorString());
        EXPECT_EQ(kyLastError::get(), code);
    }
}
