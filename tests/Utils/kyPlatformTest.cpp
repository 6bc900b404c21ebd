#include <Utils/kyPlatform.h>

#include <filesystem>
#include <string>

#include <QCoreApplication>
#include <gtest/gtest.h>

#include <Utils/kyFile.h>

TEST(kyPlatform, binDirHoldsTheRunningProgram)
{
    const std::string folder = kyPlatform::getBinDir();
    EXPECT_EQ(folder, QCoreApplication::applicationDirPath().toStdString());
    EXPECT_TRUE(kyFile::exists(folder + "/kyPlatformTest" + kyPlatform::getProgramSuffix()));
}

TEST(kyPlatform, processIdIsThatOfThisProcess)
{
    EXPECT_EQ(kyPlatform::getProcessId(),
              static_cast<std::uint32_t>(QCoreApplication::applicationPid()));
}
