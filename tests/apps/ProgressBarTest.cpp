#include <apps/TALORender/ProgressBar.h>

#include <gtest/gtest.h>

#include <NetBase/buffers/kyNetProgress.h>

using render::ProgressBar;

TEST(ProgressBar, showsTheProcessProgressOnOneLine)
{
    testing::internal::CaptureStderr();
    {
        const ProgressBar bar(true);
        kyNetProgress::start("Rendering", 200.0);
        kyNetProgress::add(50.0);
        kyNetProgress::add(0.5);
        kyNetProgress::add(149.5);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "\rRendering [........................................]   0%"
              "\rRendering [##########..............................]  25%"
              "\rRendering [########################################] 100%\n");
}

TEST(ProgressBar, isSilentWhereStandardErrorIsNoTerminal)
{
    testing::internal::CaptureStderr();
    {
        const ProgressBar bar;
        kyNetProgress::start("Rendering", 200.0);
        kyNetProgress::add(50.0);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(ProgressBar, anUnknownAmountStaysAtTheBeginning)
{
    testing::internal::CaptureStderr();
    {
        const ProgressBar bar(true);
        kyNetProgress::start("Rendering", 0.0);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "\rRendering [........................................]   0%\n");
}

TEST(ProgressBar, hearsNothingAfterItsEnd)
{
    testing::internal::CaptureStderr();
    {
        const ProgressBar bar(true);
    }
    kyNetProgress::start("Rendering", 200.0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}
