#include <apps/TALORender/OutputFile.h>

#include <cstdio>
#include <cstdlib>
#include <thread>

#include <gtest/gtest.h>

#include <tests/apps/kyTestFolder.h>
#include <tests/support/kyTestMessage.h>

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

TEST(OutputFile, leavesAFileOfTheUsersThatHasANameLikeItsOwnPart)
{
    const kyTest::Folder folder;
    const std::string others = folder.write("out.png.part", "mine");
    const OutputFile file(folder.path("out.png"));
    file.write(s_bytes);
    EXPECT_EQ(kyTest::readFile(others), "mine");
    EXPECT_EQ(folder.count(), 2);
}

TEST(OutputFile, twoThatWriteTheSameFileDoNotMix)
{
    const kyTest::Folder folder;
    const OutputFile file(folder.path("out.png"));
    const std::vector<std::uint8_t> ones(300'000, '1');
    const std::vector<std::uint8_t> twos(200'000, '2');
    std::thread other([&] {
        for (int i = 0; i < 50; ++i) {
            file.write(twos);
        }
    });
    for (int i = 0; i < 50; ++i) {
        file.write(ones);
    }
    other.join();
    const std::string written = kyTest::readFile(folder.path("out.png"));
    EXPECT_TRUE(written == std::string(ones.begin(), ones.end()) ||
                written == std::string(twos.begin(), twos.end()));
    EXPECT_EQ(folder.count(), 1);
}

TEST(OutputFileDeathTest, onceAbandonedNothingIsLeftAndNothingBegins)
{
    const kyTest::Folder folder;
    const std::string path = folder.write("out.png", "old");
    EXPECT_EXIT(
        {
            const OutputFile file(path);
            OutputFile::abandonAll();
            const std::string message = kyTest::messageOf([&] { file.write(s_bytes); });
            std::fprintf(stderr, "%s", message.c_str());
            std::_Exit(0);
        },
        testing::ExitedWithCode(0), "Unable to write '.*out.png': Interrupted system call");
    EXPECT_EQ(kyTest::readFile(path), "old");
    EXPECT_EQ(folder.count(), 1);
}

TEST(OutputFile, thePicturesOfASequenceAreNumberedBeforeTheEnding)
{
    EXPECT_EQ(sequencePath("out.png", 1), "out-0001.png");
    EXPECT_EQ(sequencePath("out.png", 9999), "out-9999.png");
    EXPECT_EQ(sequencePath("out.png", 10000), "out-10000.png");
    EXPECT_EQ(sequencePath("a.b/out", 2), "a.b/out-0002");
    EXPECT_EQ(sequencePath("/tmp/a.b.png", 30), "/tmp/a.b-0030.png");
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
