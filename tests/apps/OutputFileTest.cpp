#include <apps/TALORender/OutputFile.h>

#include <gtest/gtest.h>

#include <tests/apps/kyTestFolder.h>

using namespace render;

namespace {
const std::vector<std::uint8_t> s_bytes{'n', 'e', 'w'};
}

TEST(OutputFile, makesTheFile)
{
    const kyTest::Folder folder;
    const std::string path = folder.path("out.png");
    const OutputFile file(path);
    EXPECT_EQ(folder.count(), 0);
    file.write(s_bytes);
    EXPECT_EQ(kyTest::readFile(path), "new");
    EXPECT_EQ(folder.count(), 1);
}

TEST(OutputFile, keepsTheFormerFileUntilTheNewOneIsWhole)
{
    const kyTest::Folder folder;
    const std::string path = folder.write("out.png", "old");
    const OutputFile file(path);
    EXPECT_EQ(kyTest::readFile(path), "old");
    file.write(s_bytes);
    EXPECT_EQ(kyTest::readFile(path), "new");
    EXPECT_EQ(folder.count(), 1);
}

TEST(OutputFile, findsOutAtOnceThatAFolderIsMissing)
{
    const kyTest::Folder folder;
    const std::string path = folder.path("missing/out.png");
    EXPECT_EQ(kyTest::messageOf([&] { OutputFile file(path); }),
              "Unable to write '" + path + "': No such file or directory");
}

TEST(OutputFile, findsOutAtOnceThatTheNameIsAFolder)
{
    const kyTest::Folder folder;
    const std::string path = folder.path("");
    EXPECT_EQ(kyTest::messageOf([&] { OutputFile file(path); }),
              "Unable to write '" + path + "': Is a directory");
}

TEST(OutputFile, leavesNothingWhenTheNameIsTakenMeanwhile)
{
    const kyTest::Folder folder;
    const std::string path = folder.path("out.png");
    const OutputFile file(path);
    std::filesystem::create_directories(folder.path("out.png/sub"));
    EXPECT_NE(kyTest::messageOf([&] { file.write(s_bytes); }), "");
    EXPECT_EQ(folder.count(), 1);
}

TEST(OutputFile, reportsAFullDisk)
{
    if (!std::filesystem::exists("/dev/full")) {
        GTEST_SKIP() << "this system has no /dev/full";
    }
    const OutputFile file("/dev/full");
    EXPECT_EQ(kyTest::messageOf([&] { file.write(s_bytes); }),
              "Unable to write '/dev/full': No space left on device");
    EXPECT_FALSE(std::filesystem::exists("/dev/full.part"));
    EXPECT_TRUE(std::filesystem::exists("/dev/full"));
}

TEST(OutputFile, reportsAFullDiskForAFileLargerThanItsBuffer)
{
    if (!std::filesystem::exists("/dev/full")) {
        GTEST_SKIP() << "this system has no /dev/full";
    }
    const OutputFile file("/dev/full");
    EXPECT_EQ(kyTest::messageOf([&] { file.write(std::vector<std::uint8_t>(1'000'000)); }),
              "Unable to write '/dev/full': No space left on device");
}
