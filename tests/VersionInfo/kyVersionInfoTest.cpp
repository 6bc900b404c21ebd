#include <gtest/gtest.h>

#include <Utils/kyNumber.h>
#include <VersionInfo/kyVersionInfo.h>

TEST(kyVersionInfo, isTheVersionOfTheProject)
{
    EXPECT_EQ(kyVersionInfo::the().getVersionString(), KY_TEST_VERSION);
}

TEST(kyVersionInfo, isANumberThatServesEveryFieldOfARequest)
{
    EXPECT_GE(kyNumber::toDouble(kyVersionInfo::the().getVersionString()), 11.0);
}

TEST(kyVersionInfo, isOneForTheProcess)
{
    EXPECT_EQ(&kyVersionInfo::the(), &kyVersionInfo::the());
}
