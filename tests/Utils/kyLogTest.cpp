#include <Utils/kyLog.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tests/support/kyTestRegex.h>

using kyTest::matchesRegex;
using testing::ElementsAre;

namespace {

struct Entry
{
    kyLog::Severity severity;
    int level;
    std::string text;

    bool operator==(const Entry& other) const
    {
        return severity == other.severity && level == other.level && text == other.text;
    }
};

/// Collects the messages of a test.
class Collector
{
public:
    Collector()
    {
        kyLog::setSink([this](kyLog::Severity severity, int level, const std::string& text) {
            entries.push_back({severity, level, text});
        });
    }
    ~Collector() { kyLog::setSink(nullptr); }

    std::vector<Entry> entries;
};

constexpr const char* s_prefix = "[0-9][0-9][0-9][0-9]-[0-9][0-9]-[0-9][0-9] "
                                 "[0-9][0-9]:[0-9][0-9]:[0-9][0-9]\\.[0-9][0-9][0-9] ";

std::string written(const std::function<void()>& act)
{
    testing::internal::CaptureStderr();
    act();
    return testing::internal::GetCapturedStderr();
}

} // namespace

TEST(kyLog, sinkGetsSeverityLevelAndText)
{
    const Collector collector;
    kyLog::infoI("some", 6, false);
    kyLog::infoI("words", 3, true);
    kyLog::errorI("more\n", 6, false);
    kyLog::error("%s is %d", "this", 5);
    EXPECT_THAT(collector.entries, ElementsAre(Entry{kyLog::Severity::Info, 6, "some"},
                                               Entry{kyLog::Severity::Info, 3, "words\n"},
                                               Entry{kyLog::Severity::Error, 6, "more\n"},
                                               Entry{kyLog::Severity::Error, 0, "this is 5\n"}));
}

TEST(kyLog, errorEndsItsLineOnce)
{
    const Collector collector;
    kyLog::error("with\n");
    kyLog::error("without");
    kyLog::error("%s", "");
    EXPECT_THAT(collector.entries, ElementsAre(Entry{kyLog::Severity::Error, 0, "with\n"},
                                               Entry{kyLog::Severity::Error, 0, "without\n"},
                                               Entry{kyLog::Severity::Error, 0, "\n"}));
}

TEST(kyLog, errorFormatsTextsOfAnyLength)
{
    const Collector collector;
    const std::string text(1 << 20, 'x');
    kyLog::error("%s!", text.c_str());
    ASSERT_EQ(collector.entries.size(), 1u);
    EXPECT_EQ(collector.entries[0].text, text + "!\n");
}

TEST(kyLog, lineHasTimeSeverityAndLevel)
{
    EXPECT_THAT(written([] { kyLog::infoI("hello", 6, true); }),
                matchesRegex(std::string(s_prefix) + "info  \\[6\\] hello\n"));
    EXPECT_THAT(written([] { kyLog::error("hello"); }),
                matchesRegex(std::string(s_prefix) + "error \\[0\\] hello\n"));
}

TEST(kyLog, piecesContinueTheOpenLine)
{
    EXPECT_THAT(written([] {
                    kyLog::infoI("one ", 6, false);
                    kyLog::infoI("line\nand a", 6, false);
                    kyLog::infoI("nother\r\n", 6, false);
                    kyLog::infoI("", 6, false);
                }),
                matchesRegex(std::string(s_prefix) + "info  \\[6\\] one line\n" + s_prefix +
                             "info  \\[6\\] and another\n"));
}

TEST(kyLog, anotherSeverityOrLevelBeginsALineOfItsOwn)
{
    EXPECT_THAT(written([] {
                    kyLog::infoI("no end", 6, false);
                    kyLog::error("broken");
                    kyLog::infoI("still", 6, false);
                    kyLog::infoI("", 3, false);
                    kyLog::infoI(" here", 6, true);
                    kyLog::infoI("six", 6, false);
                    kyLog::infoI("three", 3, true);
                }),
                matchesRegex(std::string(s_prefix) + "info  \\[6\\] no end\n" + s_prefix +
                             "error \\[0\\] broken\n" + s_prefix + "info  \\[6\\] still here\n" +
                             s_prefix + "info  \\[6\\] six\n" + s_prefix +
                             "info  \\[3\\] three\n"));
}

TEST(kyLog, controlCharactersAreShownNotSent)
{
    EXPECT_THAT(
        written([] { kyLog::infoI("\x1b[2J\ttab\x7f\x01", 6, true); }),
        matchesRegex(std::string(s_prefix) + "info  \\[6\\] \\\\x1b\\[2J\ttab\\\\x7f\\\\x01\n"));
}

TEST(kyLog, charactersOfOtherLanguagesStay)
{
    EXPECT_THAT(written([] {
                    kyLog::infoI("Fl\xc3\xa4"
                                 "che",
                                 6, true);
                }),
                matchesRegex(std::string(s_prefix) + "info  \\[6\\] Fl\xc3\xa4"
                                                     "che\n"));
}

TEST(kyLog, sinkThatThrowsStopsNobody)
{
    kyLog::setSink(
        [](kyLog::Severity, int, const std::string&) { throw std::runtime_error("no room"); });
    EXPECT_NO_THROW(kyLog::error("lost"));
    EXPECT_NO_THROW(kyLog::infoI("lost", 1, true));
    kyLog::setSink(nullptr);
}

TEST(kyLog, sinkIsCalledByOneThreadAtATime)
{
    int count = 0; // Not atomic: the sanitizer would tell.
    kyLog::setSink([&](kyLog::Severity, int, const std::string&) { ++count; });
    std::vector<std::thread> threads;
    for (int index = 0; index < 4; ++index) {
        threads.emplace_back([] {
            for (int round = 0; round < 1000; ++round) {
                kyLog::infoI("x", 1, true);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    kyLog::setSink(nullptr);
    EXPECT_EQ(count, 4000);
}
