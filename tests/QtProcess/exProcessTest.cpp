#include <QtProcess/exProcess.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <Utils/kyPlatform.h>
#include <tests/support/kyTestChildSystem.h>
#include <tests/support/kyTestSystem.h>
#include <tests/support/kyTestThreads.h>
#include <tests/support/kyTestWait.h>

using kyTest::waitUntil;
using testing::HasSubstr;
using testing::Not;

namespace {

constexpr int s_both = exProcess::StandardOutput | exProcess::StandardError;

/// A child of the tests' own program, and what it has written so far.
class Child
{
public:
    explicit Child(const std::string& act, int communication = s_both)
    {
        process.addArgument(QString::fromStdString(kyTest::childProgram()));
        process.addArgument(QString::fromStdString(act));
        process.setCommunication(communication);
        QObject::connect(&process, &exProcess::readyReadStandardOutput, [this] {
            add(m_output, process.readStandardOutput());
            ++outputSignals;
        });
        QObject::connect(&process, &exProcess::readyReadStandardError, [this] {
            add(m_error, process.readStandardError());
            ++errorSignals;
        });
    }

    std::string output() { return get(m_output); }
    std::string error() { return get(m_error); }
    bool hasWritten(const std::string& text)
    {
        return waitUntil([&] { return output().find(text) != std::string::npos; });
    }
    bool hasEnded()
    {
        return waitUntil([this] { return !process.isRunning(); });
    }
    /// All that the child has written to its standard output in its life. The end of a process and
    /// the arrival of its last words are two events.
    std::string lastWords(const std::string& expectedEnd)
    {
        EXPECT_TRUE(hasWritten(expectedEnd)) << output();
        EXPECT_TRUE(hasEnded());
        return output();
    }

private:
    void add(std::string& text, const QByteArray& piece)
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        text.append(piece.constData(), static_cast<std::size_t>(piece.size()));
    }
    std::string get(const std::string& text)
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        return text;
    }

    std::mutex m_mutex;
    std::string m_output;
    std::string m_error;

public:
    std::atomic<int> outputSignals{0};
    std::atomic<int> errorSignals{0};
    /// The last member: its threads end before what they use.
    exProcess process;
};

} // namespace

TEST(exProcess, runsUntilItsChildEnds)
{
    Child child("wait");
    EXPECT_FALSE(child.process.isRunning());
    EXPECT_EQ(child.process.processId(), 0u);
    ASSERT_TRUE(child.process.start());
    EXPECT_TRUE(child.process.isRunning());
    EXPECT_NE(child.process.processId(), 0u);
    EXPECT_NE(child.process.processId(), kyPlatform::getProcessId());

    child.process.kill();
    EXPECT_TRUE(child.hasEnded());
    EXPECT_FALSE(child.process.isRunning());
}

TEST(exProcess, noticesAnEndOfTheChildsOwn)
{
    for (const char* act : {"exit:0", "exit:3"}) {
        Child child(act, exProcess::NoCommunication);
        ASSERT_TRUE(child.process.start());
        EXPECT_TRUE(child.hasEnded()) << act;
    }
}

TEST(exProcess, collectsAnEndedChildThatNobodyAsksFor)
{
    Child child("exit:0");
    ASSERT_TRUE(child.process.start());
    EXPECT_TRUE(waitUntil([] { return kyTest::countChildren() == 0; }));
    EXPECT_FALSE(child.process.isRunning());
}

TEST(exProcess, tellsWhatCouldNotBeStarted)
{
    const std::filesystem::path folder =
        std::filesystem::temp_directory_path() /
        ("exProcessTest-" + std::to_string(kyPlatform::getProcessId()));
    std::filesystem::create_directory(folder);
    const std::filesystem::path plainFile = folder / "plain";
    std::ofstream(plainFile) << "no program";
    const std::filesystem::path executableFile = folder / "executable";
    std::ofstream(executableFile) << "no program";
    std::filesystem::permissions(executableFile, std::filesystem::perms::owner_all);

    for (const std::string& path : {std::string("/does/not/exist"), std::string(), folder.string(),
                                    plainFile.string(), executableFile.string()}) {
        exProcess process;
        process.addArgument(QString::fromStdString(path));
        process.setCommunication(s_both);
        EXPECT_FALSE(process.start()) << path;
        EXPECT_FALSE(process.isRunning()) << path;
        EXPECT_EQ(process.processId(), 0u) << path;
    }
    std::filesystem::remove_all(folder);
}

TEST(exProcess, doesNotSearchForAProgramWithoutAPath)
{
    exProcess process;
    process.addArgument("true");
    EXPECT_FALSE(process.start());
}

TEST(exProcess, needsAProgram)
{
    exProcess process;
    EXPECT_FALSE(process.start());
}

TEST(exProcess, refusesArgumentsThatTheSystemCannotPass)
{
    exProcess process;
    process.addArgument(QString::fromStdString(kyTest::childProgram()));
    process.addArgument(QString(64 << 20, 'x'));
    EXPECT_FALSE(process.start());
    EXPECT_FALSE(process.isRunning());
}

TEST(exProcess, passesItsArgumentsAsTheyAre)
{
    Child child("arguments");
    child.process.clearArguments();
    EXPECT_TRUE(child.process.arguments().isEmpty());
    const QStringList arguments{QString::fromStdString(kyTest::childProgram()),
                                "",
                                "two words",
                                "\"quoted\" $HOME *",
                                QString::fromUtf8("Fl\xc3\xa4"
                                                  "che"),
                                ""};
    for (const QString& argument : arguments) {
        child.process.addArgument(argument);
    }
    EXPECT_EQ(child.process.arguments(), arguments);
    ASSERT_TRUE(child.process.start());
    EXPECT_TRUE(child.hasEnded());
    const std::string expected = "[" + kyTest::childProgram() +
                                 "]\n[]\n[two words]\n[\"quoted\" $HOME *]\n[Fl\xc3\xa4"
                                 "che]\n[]\n";
    EXPECT_TRUE(waitUntil([&] { return child.output() == expected; })) << child.output();
}

TEST(exProcess, deliversOutputWhileTheChildRuns)
{
    Child child("print-and-wait:some words");
    ASSERT_TRUE(child.process.start());
    EXPECT_TRUE(waitUntil([&] {
        return child.output() == "some words\nready\n" && child.error() == "some words error\n";
    })) << child.output()
        << child.error();
    EXPECT_TRUE(child.process.isRunning());
    EXPECT_GE(child.outputSignals, 1);
    EXPECT_GE(child.errorSignals, 1);
}

TEST(exProcess, handlerOfTheFirstOutputFindsAChildThatRuns)
{
    for (int round = 0; round < 20; ++round) {
        std::promise<bool> seen;
        std::once_flag once;
        Child child("print-and-wait:x");
        QObject::connect(&child.process, &exProcess::readyReadStandardOutput, [&] {
            std::call_once(once, [&] { seen.set_value(child.process.isRunning()); });
        });
        ASSERT_TRUE(child.process.start());
        EXPECT_TRUE(seen.get_future().get());
    }
}

TEST(exProcess, deliversTheLastWordsOfAChild)
{
    for (int round = 0; round < 20; ++round) {
        Child child("print:last words");
        ASSERT_TRUE(child.process.start());
        EXPECT_EQ(child.lastWords("last words"), "last words");
    }
}

TEST(exProcess, capturesOnlyWhatItIsToldTo)
{
    Child output("print-and-wait:x", exProcess::StandardOutput);
    Child error("print-and-wait:x", exProcess::StandardError);
    Child nothing("print-and-wait:x", exProcess::NoCommunication);
    ASSERT_TRUE(output.process.start());
    ASSERT_TRUE(error.process.start());
    ASSERT_TRUE(nothing.process.start());
    EXPECT_TRUE(output.hasWritten("ready"));
    EXPECT_TRUE(waitUntil([&] { return error.error() == "x error\n"; }));

    EXPECT_EQ(output.errorSignals, 0);
    EXPECT_EQ(error.outputSignals, 0);
    EXPECT_EQ(nothing.outputSignals + nothing.errorSignals, 0);
    EXPECT_TRUE(nothing.process.isRunning());
}

TEST(exProcess, keepsTheEndOfOutputThatNobodyReads)
{
    // One output may arrive, and be told, in several pieces.
    std::atomic<bool> isWritten{false};
    exProcess process;
    process.addArgument(QString::fromStdString(kyTest::childProgram()));
    process.addArgument("much");
    process.setCommunication(s_both);
    QObject::connect(&process, &exProcess::readyReadStandardError, [&] { isWritten = true; });
    ASSERT_TRUE(process.start());
    ASSERT_TRUE(waitUntil([&] { return isWritten.load(); }));

    // What comes after the "a" alone is more than is kept, whatever part of it is still to arrive.
    const QByteArray output = process.readStandardOutput();
    EXPECT_EQ(output.size(), 16 << 20);
    EXPECT_EQ(output.count('b'), 16 << 20);
}

TEST(exProcess, readsNothingTwice)
{
    exProcess process;
    process.addArgument(QString::fromStdString(kyTest::childProgram()));
    process.addArgument("print:once");
    process.setCommunication(s_both);
    ASSERT_TRUE(process.start());
    QByteArray output;
    EXPECT_TRUE(waitUntil([&] { return (output += process.readStandardOutput()) == "once"; }));
    EXPECT_EQ(process.readStandardOutput(), QByteArray());
    EXPECT_EQ(process.readStandardError(), QByteArray());
}

TEST(exProcess, endsAChildOnRequest)
{
    Child child("wait");
    ASSERT_TRUE(child.process.start());
    ASSERT_TRUE(child.hasWritten("ready"));
    child.process.tryTerminate();
    EXPECT_TRUE(child.hasEnded());
}

TEST(exProcess, killsAChildThatIgnoresRequests)
{
    Child child("ignore-termination");
    ASSERT_TRUE(child.process.start());
    ASSERT_TRUE(child.hasWritten("ready"));
    child.process.tryTerminate();
    EXPECT_FALSE(
        waitUntil([&] { return !child.process.isRunning(); }, std::chrono::milliseconds(300)));
    child.process.kill();
    EXPECT_TRUE(child.hasEnded());
}

TEST(exProcess, signalsNobodyOnceTheChildHasEnded)
{
    Child child("exit:0");
    child.process.tryTerminate();
    child.process.kill();
    ASSERT_TRUE(child.process.start());
    ASSERT_TRUE(child.hasEnded());
    child.process.tryTerminate();
    child.process.kill();
    EXPECT_FALSE(child.process.isRunning());
}

TEST(exProcess, destructionKillsAChildThatStillRuns)
{
    const auto begin = std::chrono::steady_clock::now();
    {
        Child child("ignore-termination");
        ASSERT_TRUE(child.process.start());
        ASSERT_TRUE(child.hasWritten("ready"));
    }
    EXPECT_EQ(kyTest::countChildren(), 0u);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, kyTest::s_patience);
}

TEST(exProcess, destructionDuringAFloodOfOutput)
{
    Child child("flood");
    ASSERT_TRUE(child.process.start());
    EXPECT_TRUE(waitUntil([&] { return child.outputSignals > 3; }));
}

TEST(exProcess, orphanThatHoldsTheOutputDoesNotDelayTheEnd)
{
    const auto begin = std::chrono::steady_clock::now();
    {
        Child child("orphan");
        ASSERT_TRUE(child.process.start());
        EXPECT_TRUE(child.hasEnded());
        EXPECT_TRUE(child.hasWritten("."));
    }
    EXPECT_LT(std::chrono::steady_clock::now() - begin, kyTest::s_patience);
}

TEST(exProcess, startsAgainOnceTheChildHasEnded)
{
    Child child("wait");
    ASSERT_TRUE(child.process.start());
    const std::uint32_t first = child.process.processId();
    EXPECT_FALSE(child.process.start());
    EXPECT_TRUE(child.process.isRunning());
    EXPECT_EQ(child.process.processId(), first);

    child.process.kill();
    ASSERT_TRUE(child.hasEnded());
    ASSERT_TRUE(child.process.start());
    EXPECT_TRUE(child.process.isRunning());
    EXPECT_NE(child.process.processId(), first);
}

TEST(exProcess, failedStartAfterAnEndIsNotRunning)
{
    Child child("exit:0");
    ASSERT_TRUE(child.process.start());
    ASSERT_TRUE(child.hasEnded());
    child.process.clearArguments();
    child.process.addArgument("/does/not/exist");
    EXPECT_FALSE(child.process.start());
    EXPECT_FALSE(child.process.isRunning());
}

TEST(exProcess, givesItsEnvironmentOrAnotherOne)
{
    qputenv("EX_PROCESS_TEST", "inherited");
    Child inheriting("variable:EX_PROCESS_TEST");
    ASSERT_TRUE(inheriting.process.start());
    EXPECT_EQ(inheriting.lastWords("\n"), "inherited\n");

    Child replaced("variable:EX_PROCESS_TEST");
    const QStringList environment{"OTHER=1", "EX_PROCESS_TEST=replaced"};
    ASSERT_TRUE(replaced.process.start(&environment));
    EXPECT_EQ(replaced.lastWords("\n"), "replaced\n");

    Child without("variable:EX_PROCESS_TEST");
    const QStringList other{"OTHER=1"};
    ASSERT_TRUE(without.process.start(&other));
    EXPECT_EQ(without.lastWords("\n"), "(none)\n");

    Child empty("variable:EX_PROCESS_TEST");
    const QStringList nothing;
    ASSERT_TRUE(empty.process.start(&nothing));
    EXPECT_EQ(empty.lastWords("\n"), "(none)\n");
    qunsetenv("EX_PROCESS_TEST");
}

TEST(exProcess, childInheritsNoDescriptor)
{
    const kyTest::InheritableDescriptor inheritable;
    Child child("descriptors");
    ASSERT_TRUE(child.process.start());
    EXPECT_TRUE(child.hasEnded());
    EXPECT_TRUE(child.hasWritten("2 -> "));
    EXPECT_THAT(child.output(), HasSubstr("0 -> /dev/null\n"));
    for (int number = 4; number < 16; ++number) {
        // 3 is the descriptor by which the child looks at itself.
        EXPECT_THAT("\n" + child.output(), Not(HasSubstr("\n" + std::to_string(number) + " -> ")));
    }
}

TEST(exProcess, childHoldsNothingOpenThatThisProcessCloses)
{
    kyTest::InheritableDescriptor inheritable;
    Child child("wait");
    ASSERT_TRUE(child.process.start());
    ASSERT_TRUE(child.hasWritten("ready"));
    EXPECT_TRUE(inheritable.closeLast());
    EXPECT_TRUE(child.process.isRunning());
}

TEST(exProcess, childNoticesEverySignal)
{
    const kyTest::DeafToSignals deaf;
    ASSERT_NE(kyTest::describeIgnoredSignals(), "");
    Child child("signals");
    ASSERT_TRUE(child.process.start());
    EXPECT_EQ(child.lastWords("]\n"), "[]\n");
}

TEST(exProcess, childOfAThreadThatBlocksTerminationCanBeTerminated)
{
    const kyTest::DeafToSignals deaf;
    Child child("wait");
    ASSERT_TRUE(child.process.start());
    ASSERT_TRUE(child.hasWritten("ready"));
    child.process.tryTerminate();
    EXPECT_TRUE(child.hasEnded());
}

TEST(exProcess, withoutDescriptorsNothingStartsAndNothingIsLost)
{
    Child child("print:fine");
    const std::size_t before = kyTest::countDescriptors();
    std::size_t spare = 0;
    for (bool isStarted = false; !isStarted && spare < 16; ++spare) {
        const kyTest::DescriptorLimit limit(before + spare);
        isStarted = child.process.start();
    }
    EXPECT_GT(spare, 1u);
    EXPECT_EQ(child.lastWords("fine"), "fine");

    Child after("print:fine");
    {
        const kyTest::DescriptorLimit limit(before);
        EXPECT_FALSE(after.process.start());
    }
    ASSERT_TRUE(after.process.start());
    EXPECT_EQ(after.lastWords("fine"), "fine");
}

TEST(exProcess, withoutThreadsNothingStartsAndNobodyIsLeftBehind)
{
    Child child("print:fine");
    {
        const kyTest::NoNewThreads noNewThreads;
        EXPECT_FALSE(child.process.start());
    }
    EXPECT_FALSE(child.process.isRunning());
    EXPECT_EQ(kyTest::countChildren(), 0u);
    ASSERT_TRUE(child.process.start());
    EXPECT_EQ(child.lastWords("fine"), "fine");
}

TEST(exProcess, isAskedAndEndedByManyThreadsAtOnce)
{
    Child child("wait");
    ASSERT_TRUE(child.process.start());
    std::vector<std::thread> threads;
    for (int index = 0; index < 4; ++index) {
        threads.emplace_back([&child, index] {
            while (child.process.isRunning()) {
                if (index == 0 && !child.output().empty()) {
                    child.process.tryTerminate();
                }
                child.process.readStandardError();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_FALSE(child.process.isRunning());
}

TEST(exProcess, manyChildrenComeAndGoAtOnce)
{
    std::vector<std::thread> threads;
    std::atomic<int> fine{0};
    for (int index = 0; index < 4; ++index) {
        threads.emplace_back([&fine] {
            for (int round = 0; round < 10; ++round) {
                Child child("print:fine");
                if (child.process.start() && child.hasWritten("fine") && child.hasEnded()) {
                    ++fine;
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(fine, 40);
}
