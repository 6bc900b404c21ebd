#include <algorithm>
#include <cstdio>
#include <exception>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <benchmarks/core/Channel.h>
#include <benchmarks/core/Content.h>
#include <benchmarks/core/Ledger.h>
#include <benchmarks/core/Meeting.h>
#include <benchmarks/core/Statistics.h>
#include <benchmarks/core/Stopwatch.h>
#include <benchmarks/core/Terms.h>
#include <benchmarks/core/platform/SharedNumber.h>

namespace bench {

namespace {

/// The part of a run before the measured one, as a share of that.
constexpr double s_warmUp = 0.25;

/// How long an idle connection has been so before its cost is measured.
constexpr std::chrono::milliseconds s_pollingWindow{50};

/// How long a sender that is too far ahead waits before it looks again.
constexpr std::chrono::microseconds s_windowPause{50};

/// Bytes between two looks at the clock.
constexpr std::uint64_t s_bytesBetweenLooks = 65536;

void waitForAll(const Terms& terms, const Meeting& meeting)
{
    for (int rank = 1; rank <= terms.receivers; ++rank) {
        meeting.await(rank);
    }
}

std::string pathOfReceived(const Terms& terms)
{
    return terms.folder + "/received";
}

/// Numbers the messages of a run and sends them.
class Source
{
public:
    Source(const Terms& terms, const Content& content, Channel& channel)
        : m_content(content),
          m_channel(channel),
          m_window(terms.window),
          m_received(pathOfReceived(terms))
    {
    }

    void send(Phase phase)
    {
        while (m_window > 0 && m_number >= m_received.get() + m_window) {
            std::this_thread::sleep_for(s_windowPause);
        }
        m_content.write(m_channel.prepare(), m_number++, phase);
        m_channel.send();
    }

    std::uint64_t getCount() const { return m_number; }

private:
    const Content& m_content;
    Channel& m_channel;
    const std::uint64_t m_window;
    const SharedNumber m_received;
    std::uint64_t m_number = 0;
};

/// Sends for so many seconds. With a window each message may take long.
void sendFor(Source& source, Phase phase, double seconds, const Terms& terms)
{
    const Moment begin = Moment::now();
    const std::uint64_t bytes = terms.window > 0 ? 0 : s_bytesBetweenLooks;
    const std::uint64_t untilLook = std::max<std::uint64_t>(1, bytes / terms.size);
    do {
        for (std::uint64_t i = 0; i < untilLook; ++i) {
            source.send(phase);
        }
    } while (Moment::now().secondsSince(begin) < seconds);
}

void sendOneWay(const Terms& terms, const Content& content, Channel& channel, Meeting& meeting)
{
    Source source(terms, content, channel);
    sendFor(source, Phase::WarmUp, terms.seconds * s_warmUp, terms);
    const Moment begin = Moment::now();
    sendFor(source, Phase::Measured, terms.seconds, terms);
    source.send(Phase::Last);
    channel.flush();
    const double processorSeconds = Moment::now().processorSecondsSince(begin);
    waitForAll(terms, meeting);
    Report report = channel.getStatistics();
    report["processorSeconds"] = processorSeconds;
    report["sentMessages"] = static_cast<double>(source.getCount());
    meeting.report(report);
}

void receiveOneWay(const Terms& terms, const Content& content, Channel& channel, Meeting& meeting)
{
    SharedNumber received(pathOfReceived(terms));
    Ledger ledger(content);
    while (!ledger.isComplete()) {
        ledger.enter(channel.receive());
        received.set(ledger.getCount());
    }
    channel.flush(); // A relay may have something to pass on.
    meeting.report({{"messages", static_cast<double>(ledger.getMeasured())},
                    {"seconds", ledger.getSeconds()},
                    {"processorSeconds", ledger.getProcessorSeconds()}});
}

/// Sends one request and waits for its reply.
void ask(const Content& content, Channel& channel, std::uint64_t number, Phase phase)
{
    content.write(channel.prepare(), number, phase);
    channel.send();
    channel.flush();
    Phase answered{};
    if (content.check(channel.receive(), answered) != number || answered != phase) {
        throw std::runtime_error("received the reply to another request");
    }
}

void askRoundTrip(const Terms& terms, const Content& content, Channel& channel, Meeting& meeting)
{
    std::uint64_t number = 0;
    const Moment start = Moment::now();
    while (Moment::now().secondsSince(start) < terms.seconds * s_warmUp) {
        ask(content, channel, number++, Phase::WarmUp);
    }
    std::vector<double> microseconds;
    const Moment begin = Moment::now();
    Moment last = begin;
    while (last.secondsSince(begin) < terms.seconds) {
        ask(content, channel, number++, Phase::Measured);
        const auto now = Moment{std::chrono::steady_clock::now(), 0};
        microseconds.push_back(now.secondsSince(last) * 1e6);
        last = now;
    }
    const double processorSeconds = Moment::now().processorSecondsSince(begin);
    ask(content, channel, number, Phase::Last);
    waitForAll(terms, meeting);
    meeting.report({{"messages", static_cast<double>(microseconds.size())},
                    {"median", percentile(microseconds, 50)},
                    {"99th", percentile(microseconds, 99)},
                    {"processorSeconds", processorSeconds}});
}

void answerRoundTrip(const Content& content, Channel& channel, Meeting& meeting)
{
    Moment begin{};
    Phase phase = Phase::WarmUp;
    while (phase != Phase::Last) {
        const Phase before = phase;
        const std::uint64_t number = content.check(channel.receive(), phase);
        if (before == Phase::WarmUp && phase == Phase::Measured) {
            begin = Moment::now();
        }
        content.write(channel.prepare(), number, phase);
        channel.send();
        channel.flush();
    }
    meeting.report({{"processorSeconds", Moment::now().processorSecondsSince(begin)}});
}

/// The processor time that this process takes while nothing travels.
double measureIdleness(const Terms& terms)
{
    std::this_thread::sleep_for(s_pollingWindow);
    const Moment begin = Moment::now();
    std::this_thread::sleep_for(std::chrono::duration<double>(terms.seconds));
    return Moment::now().processorSecondsSince(begin);
}

void beIdleSender(const Terms& terms, const Content& content, Channel& channel, Meeting& meeting)
{
    Source source(terms, content, channel);
    source.send(Phase::Measured);
    channel.flush();
    const double processorSeconds = measureIdleness(terms);
    std::this_thread::sleep_for(2 * s_pollingWindow); // The receiver is measuring still.
    source.send(Phase::Last);
    channel.flush();
    waitForAll(terms, meeting);
    meeting.report({{"processorSeconds", processorSeconds}});
}

void beIdleReceiver(const Terms& terms, const Content& content, Channel& channel, Meeting& meeting)
{
    Ledger ledger(content);
    ledger.enter(channel.receive());
    auto processorSeconds = std::async(std::launch::async, measureIdleness, terms);
    ledger.enter(channel.receive());
    meeting.report({{"seconds", terms.seconds}, {"processorSeconds", processorSeconds.get()}});
}

void run(const Terms& terms)
{
    Meeting meeting(terms.folder, terms.rank);
    const Content content(terms.size, terms.dataFile);
    const std::unique_ptr<Channel> channel = openChannel(terms, meeting);
    const bool isFirst = terms.rank == 0;
    if (terms.pattern == "roundTrip") {
        isFirst ? askRoundTrip(terms, content, *channel, meeting)
                : answerRoundTrip(content, *channel, meeting);
    } else if (terms.pattern == "idle") {
        isFirst ? beIdleSender(terms, content, *channel, meeting)
                : beIdleReceiver(terms, content, *channel, meeting);
    } else {
        isFirst ? sendOneWay(terms, content, *channel, meeting)
                : receiveOneWay(terms, content, *channel, meeting);
    }
}

} // namespace

} // namespace bench

/// The main function of every program that holds a transport: opens its channel as the command line
/// says, runs this rank's side of the pattern, and reports to the meeting.
int main(int argc, char** argv)
{
    const bench::Terms terms = bench::Terms::parse(argc, argv);
    try {
        bench::run(terms);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "rank %d: %s\n", terms.rank, e.what());
        return 1;
    }
    return 0;
}
