#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <benchmarks/core/Ledger.h>
#include <tests/apps/kyTestFolder.h>

namespace {

using bench::Content;
using bench::Ledger;
using bench::Phase;

constexpr std::uint64_t s_size = 10000;

std::vector<char> write(const Content& content, std::uint64_t number, Phase phase,
                        std::uint64_t size = s_size)
{
    std::vector<char> message(size);
    content.write(message.data(), number, phase);
    return message;
}

void enter(Ledger& ledger, const std::vector<char>& message)
{
    ledger.enter({message.data(), message.size()});
}

std::string failureOf(Ledger& ledger, const std::vector<char>& message)
{
    try {
        enter(ledger, message);
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "";
}

} // namespace

TEST(Ledger, isCompleteWithTheLastOfAllMessagesInAnyOrder)
{
    const Content content(s_size, "");
    Ledger ledger(content);
    enter(ledger, write(content, 0, Phase::WarmUp));
    enter(ledger, write(content, 3, Phase::Last));
    enter(ledger, write(content, 1, Phase::Measured));
    EXPECT_FALSE(ledger.isComplete());
    enter(ledger, write(content, 2, Phase::Measured));
    EXPECT_TRUE(ledger.isComplete());
    EXPECT_EQ(ledger.getCount(), 4U);
    EXPECT_EQ(ledger.getMeasured(), 2U); // Behind the first of them.
    EXPECT_GT(ledger.getSeconds(), 0.0);
}

TEST(Ledger, messageThatComesTwiceIsRefused)
{
    const Content content(s_size, "");
    Ledger ledger(content);
    enter(ledger, write(content, 7, Phase::WarmUp));
    EXPECT_EQ(failureOf(ledger, write(content, 7, Phase::WarmUp)), "received number 7 twice");
}

TEST(Ledger, messageOfAnotherSizeIsRefused)
{
    const Content content(s_size, "");
    Ledger ledger(content);
    auto message = write(content, 0, Phase::Measured);
    message.pop_back();
    EXPECT_EQ(failureOf(ledger, message), "received a message of 9999 bytes instead of 10000");
}

TEST(Ledger, changedWordInAnyPageIsRefused)
{
    const Content content(s_size, "");
    for (const std::size_t place : {8U, 8U + 4096U, 8U + 2U * 4096U, 9999U}) {
        Ledger ledger(content);
        auto message = write(content, 5, Phase::Measured);
        message[place] = static_cast<char>(message[place] + 1);
        EXPECT_EQ(failureOf(ledger, message),
                  "received a message whose contents are not those of number 5")
            << place;
    }
}

TEST(Ledger, messageWithTheNumberOfAnotherIsRefused)
{
    const Content content(s_size, "");
    Ledger ledger(content);
    auto message = write(content, 5, Phase::Measured);
    message[0] = 6;
    EXPECT_EQ(failureOf(ledger, message),
              "received a message whose contents are not those of number 6");
}

TEST(Ledger, smallestMessagesAreChecked)
{
    const Content content(32, "");
    Ledger ledger(content);
    auto message = write(content, 1, Phase::Measured, 32);
    message[31] = static_cast<char>(message[31] + 1);
    EXPECT_EQ(failureOf(ledger, message),
              "received a message whose contents are not those of number 1");
}

TEST(Ledger, piecesOfAFileAreComparedAsAWhole)
{
    const kyTest::Folder folder;
    const std::string path = folder.write("data", std::string(250, 'a') + std::string(250, 'b'));
    const Content content(100, path);
    auto message = write(content, 8, Phase::Measured, 100); // The fourth of five pieces.
    EXPECT_EQ(std::string(message.begin() + 8, message.end()), std::string(92, 'b'));
    Ledger ledger(content);
    enter(ledger, message);
    message = write(content, 9, Phase::Measured, 100);
    message[50] = 'c';
    EXPECT_EQ(failureOf(ledger, message),
              "received a message whose contents are not those of number 9");
}

TEST(Ledger, fileOfLessThanAMessageIsRefused)
{
    const kyTest::Folder folder;
    const std::string path = folder.write("data", std::string(99, 'a'));
    EXPECT_THROW(Content(100, path), std::runtime_error);
}
