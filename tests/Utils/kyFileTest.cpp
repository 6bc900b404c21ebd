#include <Utils/kyFile.h>

#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include <Utils/kyPlatform.h>

TEST(kyFile, existsOnlyWhatIsAFile)
{
    const std::filesystem::path folder =
        std::filesystem::temp_directory_path() /
        ("kyFileTest-" + std::to_string(kyPlatform::getProcessId()));
    std::filesystem::create_directory(folder);
    const std::filesystem::path file = folder / "file";
    EXPECT_FALSE(kyFile::exists(file.string()));
    std::ofstream(file) << "content";
    EXPECT_TRUE(kyFile::exists(file.string()));
    EXPECT_FALSE(kyFile::exists(folder.string()));
    EXPECT_FALSE(kyFile::exists((file / "below").string()));
    std::filesystem::remove_all(folder);
    EXPECT_FALSE(kyFile::exists(file.string()));
}

TEST(kyFile, impossiblePathsDoNotExist)
{
    EXPECT_FALSE(kyFile::exists(""));
    EXPECT_FALSE(kyFile::exists(std::string(1 << 20, 'x')));
    EXPECT_FALSE(kyFile::exists("\xff\xfe"));
}
