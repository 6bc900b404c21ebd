#include <NetBase/platform/kyLastError.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <system_error>
#include <thread>

#include <gtest/gtest.h>

TEST(kyLastError, isWhatACallLeftBehind)
{
    kyLastError::set(EACCES);
    EXPECT_EQ(kyLastError::get(), EACCES);
    kyLastError::clear();
    EXPECT_EQ(kyLastError::get(), 0);
}

TEST(kyLastError, codesHaveTextsOfTheirOwn)
{
    const std::string expected = std::system_category().message(EACCES);
    EXPECT_EQ(kyLastError::getText(EACCES).substr(0, expected.size()), expected);
    EXPECT_NE(kyLastError::getText(EACCES), kyLastError::getText(ENOENT));
    EXPECT_EQ(kyLastError::getText(99999), "");
}

TEST(kyLastError, belongsToItsThread)
{
    std::atomic<bool> isSet{false};
    std::atomic<bool> isDone{false};
    std::thread other([&] {
        while (!isSet) {
            std::this_thread::yield();
        }
        kyLastError::set(EBADF);
        kyLastError::clear();
        EXPECT_EQ(kyLastError::get(), 0);
        isDone = true;
    });
    kyLastError::set(EPIPE);
    isSet = true;
    // Nothing is called meanwhile that could change the code by itself.
    while (!isDone) {
    }
    EXPECT_EQ(kyLastError::get(), EPIPE);
    other.join();
}
