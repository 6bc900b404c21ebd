#include <apps/common/SharedKey.h>

#include <filesystem>
#include <string>

#include <QByteArray>
#include <QProcess>
#include <gtest/gtest.h>

#include <tests/apps/kyTestFolder.h>
#include <tests/apps/kyTestKey.h>
#include <tests/support/kyTestMessage.h>

namespace {

using kyTest::keyText;
using kyTest::messageOf;

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
    for (const std::string& rights : kyTest::rightsOfOthers()) {
        kyTest::setRights(path, rights);
        EXPECT_EQ(failureOf(path), "Key file '" + path +
                                       "' is open to other users; take their rights away: " +
                                       kyTest::adviceAgainstOthers())
            << rights;
    }
    for (const std::string& rights : kyTest::rightsOfTheOwner()) {
        kyTest::setRights(path, rights);
        EXPECT_EQ(failureOf(path), "") << rights;
    }
}

TEST(SharedKey, missingFileIsAFailure)
{
    const kyTest::Folder folder;
    const std::string path = folder.path("none");
    EXPECT_EQ(failureOf(path),
              "Key file '" + path + "' cannot be read. " + kyTest::missingFileText());
    EXPECT_EQ(failureOf("").rfind("Key file '' cannot be read. ", 0), 0U);
}

TEST(SharedKey, whatIsNoFileIsRefused)
{
    const kyTest::Folder folder;
    EXPECT_EQ(failureOf(folder.path("")), "Key file '" + folder.path("") + "' is no regular file");
    const std::string device = QProcess::nullDevice().toStdString();
    EXPECT_EQ(failureOf(device), "Key file '" + device + "' is no regular file");
}

TEST(SharedKey, linkLeadsToTheFileWhoseRightsCount)
{
    const kyTest::Folder folder;
    const std::string path = folder.writeSecret("key", keyText("ab"));
    std::filesystem::create_symlink(path, folder.path("link"));
    EXPECT_EQ(failureOf(folder.path("link")), "");
    kyTest::setRights(path, kyTest::rightsOfOthers().front());
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
              "Key file '" + folder.path("none") + "' cannot be read. " +
                  kyTest::missingFileText());
    qunsetenv(SharedKey::s_fileVariable);
}
