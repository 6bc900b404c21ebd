#include <apps/common/SharedKey.h>

#include <filesystem>
#include <string>

#include <QByteArray>

#include <gtest/gtest.h>

#include <tests/apps/kyTestFolder.h>
#include <tests/apps/kyTestKey.h>
#include <tests/support/kyTestMessage.h>

namespace {

using kyTest::keyText;
using kyTest::messageOf;
using std::filesystem::perms;

std::string failureOf(const std::string& path)
{
    return messageOf([&] { SharedKey::read(path); });
}

} // namespace

TEST(SharedKey, digitsAreTheBytesOfTheKey)
{
    const kyTest::Folder folder;
    const std::string digits = "000102030405060708090a0B0c0D0e0f"
                               "f0f1f2f3f4f5f6f7f8f9fAfbFcfdfeff";
    for (const std::string& text : {digits, digits + "\n"}) {
        const auto key = SharedKey::read(folder.writeSecret("key", text));
        for (std::size_t i = 0; i < 16; ++i) {
            EXPECT_EQ(key->getBytes()[i], i);
            EXPECT_EQ(key->getBytes()[16 + i], 0xf0 + i);
        }
    }
}

TEST(SharedKey, fileOfAnythingElseIsRefused)
{
    const kyTest::Folder folder;
    const std::string key = keyText("ab");
    const std::string texts[] = {"",
                                 "\n",
                                 key.substr(1),
                                 key.substr(2),
                                 key.substr(1) + "\n",
                                 key + "a",
                                 key + "\n\n",
                                 key + "\r\n",
                                 key + " ",
                                 " " + key,
                                 key.substr(1) + " ",
                                 key.substr(2) + "0x",
                                 key.substr(1) + "g",
                                 "-" + key.substr(1),
                                 key.substr(1) + std::string(1, '\0'),
                                 std::string(64, '\0'),
                                 std::string(1 << 20, 'a')};
    for (const std::string& text : texts) {
        const std::string path = folder.writeSecret("key", text);
        EXPECT_EQ(failureOf(path), "Key file '" + path + "' does not hold 64 hexadecimal digits")
            << text.substr(0, 100);
    }
}

TEST(SharedKey, fileThatOthersHaveRightsToIsRefused)
{
    const kyTest::Folder folder;
    const std::string path = folder.writeSecret("key", keyText("ab"));
    for (const perms right : {perms::group_read, perms::group_write, perms::group_exec,
                              perms::others_read, perms::others_write, perms::others_exec}) {
        std::filesystem::permissions(path, perms::owner_read | right);
        EXPECT_EQ(failureOf(path),
                  "Key file '" + path +
                      "' is open to other users; take their rights away: chmod go=");
    }
    for (const perms rights : {perms::owner_read, perms::owner_all}) {
        std::filesystem::permissions(path, rights);
        EXPECT_EQ(failureOf(path), "");
    }
}

TEST(SharedKey, missingFileIsAFailure)
{
    const kyTest::Folder folder;
    const std::string path = folder.path("none");
    EXPECT_EQ(failureOf(path),
              "Key file '" + path + "' cannot be read. 2:No such file or directory");
    EXPECT_EQ(failureOf(""), "Key file '' cannot be read. 2:No such file or directory");
}

TEST(SharedKey, whatIsNoFileIsRefused)
{
    const kyTest::Folder folder;
    EXPECT_EQ(failureOf(folder.path("")), "Key file '" + folder.path("") + "' is no regular file");
    EXPECT_EQ(failureOf("/dev/zero"), "Key file '/dev/zero' is no regular file");
}

TEST(SharedKey, linkLeadsToTheFileWhoseRightsCount)
{
    const kyTest::Folder folder;
    const std::string path = folder.writeSecret("key", keyText("ab"));
    std::filesystem::create_symlink(path, folder.path("link"));
    EXPECT_EQ(failureOf(folder.path("link")), "");
    std::filesystem::permissions(path, perms::owner_read | perms::others_read);
    EXPECT_NE(failureOf(folder.path("link")), "");
}

TEST(SharedKey, environmentNamesTheFile)
{
    const kyTest::Folder folder;
    const std::string path = folder.writeSecret("key", keyText("ab"));
    qunsetenv(SharedKey::s_fileVariable);
    EXPECT_EQ(SharedKey::readFromEnvironment(), nullptr);
    qputenv(SharedKey::s_fileVariable, QByteArray::fromStdString(path));
    EXPECT_EQ(SharedKey::readFromEnvironment()->getBytes(), kyTest::makeKey(0xab)->getBytes());
    qputenv(SharedKey::s_fileVariable, QByteArray::fromStdString(folder.path("none")));
    EXPECT_EQ(messageOf([] { SharedKey::readFromEnvironment(); }),
              "Key file '" + folder.path("none") + "' cannot be read. 2:No such file or directory");
    qunsetenv(SharedKey::s_fileVariable);
}
