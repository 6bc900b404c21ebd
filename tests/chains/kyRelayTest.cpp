// Jobs of seven ranks in processes of their own, which hand on what they receive. Rank 1 is the
// test.

#include <cstdint>
#include <future>
#include <map>
#include <memory>
#include <queue>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <NetBase/links/kyBoundSocketLink.h>
#include <NetBase/receivers/kyNetBufferedReceiver.h>
#include <NetBase/receivers/kyNetForwardReceiver.h>
#include <NetBase/senders/kyNetLinkSender.h>
#include <NetBase/senders/kyNetLockedSender.h>
#include <NetBase/senders/kyNetMultiSender.h>
#include <tests/chains/kyChainFixtures.h>
#include <tests/support/kyTestChildSystem.h>
#include <tests/support/kyTestProgram.h>
#include <tests/support/kyTestSlowness.h>

using kyTest::Buffer;
using kyTest::Channels;
using kyTest::CountingReceiver;
using kyTest::makeBuffer;
using kyTest::messageOf;
using kyTest::Program;
using kyTest::Ranks;
using kyTest::s_isSlow;
using kyTest::sendNumbered;

namespace {

constexpr const char* s_closed = "Connection closed";

/// The children of each rank that has some.
using Tree = std::map<unsigned int, std::vector<unsigned int>>;

const Tree s_chain{{1, {2}}, {2, {3}}, {3, {4}}, {4, {5}}, {5, {6}}, {6, {7}}};
const Tree s_binaryTree{{1, {2, 3}}, {2, {4, 5}}, {3, {6, 7}}};

std::vector<unsigned int> childrenOf(const Tree& tree, unsigned int rank)
{
    const auto found = tree.find(rank);
    return found == tree.end() ? std::vector<unsigned int>{} : found->second;
}

/// The rank and all below it.
Ranks subtreeOf(const Tree& tree, unsigned int rank)
{
    Ranks ranks{rank};
    for (const unsigned int child : childrenOf(tree, rank)) {
        ranks.merge(subtreeOf(tree, child));
    }
    return ranks;
}

/// Seven ranks, connected as the tree says.
class Job
{
public:
    explicit Job(const Tree& tree) : m_tree(tree)
    {
        kyBoundSocketLink listener(0);
        std::vector<std::shared_ptr<kyNetSender>> senders;
        for (const unsigned int child : childrenOf(tree, 1)) {
            start(child, listener.getAddress().getPort());
            const auto link = std::make_shared<kySocketLink>(listener);
            std::uint32_t rank = 0;
            link->recv(&rank, sizeof rank);
            EXPECT_EQ(rank, child);
            senders.push_back(kyNetSender::createBundle({link}, true, subtreeOf(tree, child)));
        }
        stream.setRank(1);
        stream.setSender(kyNetCompressSender::create(
            std::make_shared<kyTest::TrimCompressor>(),
            kyNetLockedSender::create(kyNetMultiSender::create(senders))));
    }

    /// Ends a process without giving it a chance to notice.
    void kill(unsigned int rank) { m_programs.erase(rank); }

    /// Waits for the end of a rank and gives what it says.
    std::string reportOf(unsigned int rank)
    {
        const kyTest::ProgramResult result = m_programs.at(rank)->wait();
        EXPECT_EQ(result.exitCode, 0) << result.errors;
        return result.output;
    }

    kyNetStream stream;

private:
    void start(unsigned int rank, int parentPort)
    {
        std::vector<std::string> arguments{"relay", std::to_string(parentPort),
                                           std::to_string(rank)};
        for (const unsigned int child : childrenOf(m_tree, rank)) {
            std::string argument = std::to_string(child);
            for (const unsigned int reached : subtreeOf(m_tree, child)) {
                argument +=
                    (argument.find('=') == std::string::npos ? "=" : ",") + std::to_string(reached);
            }
            arguments.push_back(argument);
        }
        auto& program = m_programs[rank];
        program = std::make_unique<Program>(kyTest::childProgram("kyTestRank"), arguments);
        const int port = std::stoi(program->readLine());
        for (const unsigned int child : childrenOf(m_tree, rank)) {
            start(child, port);
        }
    }

    Tree m_tree;
    std::map<unsigned int, std::unique_ptr<Program>> m_programs;
};

/// Sends multicasts, and unicasts to every rank among them.
void sendTraffic(kyNetStream& stream, std::uint32_t multicasts, std::uint32_t unicasts)
{
    for (std::uint32_t number = 0; number < multicasts; ++number) {
        sendNumbered(stream, number);
        for (int rank = 2; number < unicasts && rank <= 7; ++rank) {
            sendNumbered(stream, static_cast<std::uint32_t>(rank) * kyTest::s_unicastStep + number,
                         rank);
        }
    }
    stream.waitAllDataTransfered();
}

void expectAllReached(const Tree& tree)
{
    const std::uint32_t multicasts = s_isSlow ? 5000 : 30000;
    const std::uint32_t unicasts = 500;
    Job job(tree);
    EXPECT_EQ(job.stream.getDestinationCount(), 6);
    sendTraffic(job.stream, multicasts, unicasts);
    job.stream.shutdown();
    const std::string report =
        std::to_string(multicasts) + " multicasts, " + std::to_string(unicasts) + " unicasts, " +
        std::to_string(multicasts + unicasts) + " in all, " + s_closed + "\n";
    for (unsigned int rank = 2; rank <= 7; ++rank) {
        EXPECT_EQ(job.reportOf(rank), report) << "rank " << rank;
    }
}

/// Sends multicasts until that fails, and gives the text.
std::string sendUntilFailure(kyNetStream& stream, std::uint32_t from)
{
    return messageOf([&] {
        for (std::uint32_t number = from;; ++number) {
            sendNumbered(stream, number);
        }
    });
}

void expectClosed(const std::string& report)
{
    const std::string end = std::string("in all, ") + s_closed + "\n";
    EXPECT_NE(report.find(end), std::string::npos) << report;
}

} // namespace

TEST(kyRelay, chainReachesEveryRankOnce)
{
    expectAllReached(s_chain);
}

TEST(kyRelay, binaryTreeReachesEveryRankOnce)
{
    expectAllReached(s_binaryTree);
}

TEST(kyRelay, killedRelayInAChainEndsAllOthers)
{
    constexpr std::uint32_t s_before = 1000;
    Job job(s_chain);
    sendTraffic(job.stream, s_before, 10);
    job.kill(4);
    // Those below lose their parent; those above, one after the other, somebody to send to.
    EXPECT_EQ(sendUntilFailure(job.stream, s_before), s_closed);
    for (const unsigned int rank : {2u, 3u, 5u, 6u, 7u}) {
        expectClosed(job.reportOf(rank));
    }
}

TEST(kyRelay, killedRelayInATreeEndsItsSubtree)
{
    constexpr std::uint32_t s_before = 1000;
    Job job(s_binaryTree);
    sendTraffic(job.stream, s_before, 10);
    job.kill(2);
    for (const unsigned int rank : {4u, 5u}) {
        expectClosed(job.reportOf(rank));
    }
    EXPECT_EQ(sendUntilFailure(job.stream, s_before), s_closed);
    EXPECT_THROW(job.stream.waitAllDataTransfered(), kyConnectionClosed);
    job.stream.setSender(nullptr); // Closes the connection to the other half, too.
    for (const unsigned int rank : {3u, 6u, 7u}) {
        expectClosed(job.reportOf(rank));
    }
}

TEST(kyRelay, killedLeafIsNoticedByTheRoot)
{
    constexpr std::uint32_t s_before = 1000;
    Job job(s_binaryTree);
    sendTraffic(job.stream, s_before, 10);
    job.kill(7);
    EXPECT_EQ(sendUntilFailure(job.stream, s_before), s_closed);
    expectClosed(job.reportOf(3));
    expectClosed(job.reportOf(6));
    job.stream.setSender(nullptr);
    for (const unsigned int rank : {2u, 4u, 5u}) {
        expectClosed(job.reportOf(rank));
    }
}

// What leaves a relay.

namespace {

/// A relay of rank 2 with a connection above and one below it.
struct Relay
{
    Relay()
        : incoming(std::make_shared<CountingReceiver>(kyNetLinkReceiver::create(above.far[0]))),
          receiver(kyNetForwardReceiver::create(kyNetBufferedReceiver::create({incoming}),
                                                kyNetLinkSender::create(below.near[0], {3}), 2))
    {
    }

    /// Waits until everything that was sent has arrived here, and nothing is relayed yet.
    bool hasReadAhead(std::uint32_t count) const
    {
        return kyTest::waitUntil([&] { return incoming->asked == count + 1; });
    }

    Channels above{1};
    Channels below{1};
    std::shared_ptr<CountingReceiver> incoming;
    std::shared_ptr<kyNetReceiver> receiver;
};

std::string textOf(std::uint32_t number)
{
    return "message " + std::to_string(number);
}

/// Expects a bundle of the messages from 0 on.
void expectBundle(const kyNetBuffer& buffer, std::uint32_t count)
{
    ASSERT_EQ(buffer.getType(), kyNetMessageType::Bundle);
    std::queue<Buffer> parts;
    buffer.split(parts);
    ASSERT_EQ(parts.size(), count);
    for (std::uint32_t number = 0; number < count; ++number, parts.pop()) {
        ASSERT_EQ(kyTest::dataOf(*parts.front()), textOf(number));
        ASSERT_EQ(parts.front()->getSource(), 1u);
    }
}

} // namespace

TEST(kyRelay, singleMessagesLeaveInABundle)
{
    constexpr std::uint32_t s_count = 1000;
    Relay relay;
    for (std::uint32_t number = 0; number < s_count; ++number) {
        relay.above.near[0]->send(makeBuffer(textOf(number), 1));
    }
    ASSERT_TRUE(relay.hasReadAhead(s_count));
    Buffer buffer;
    for (std::uint32_t number = 0; number < s_count; ++number) {
        relay.receiver->recv(buffer);
        EXPECT_EQ(kyTest::dataOf(*buffer), textOf(number));
    }
    relay.below.far[0]->recv(buffer);
    expectBundle(*buffer, s_count);
}

TEST(kyRelay, bundlesLeaveInOne)
{
    constexpr std::uint32_t s_bundles = 20;
    constexpr std::uint32_t s_each = 50;
    Relay relay;
    for (std::uint32_t i = 0; i < s_bundles; ++i) {
        std::queue<Buffer> messages;
        for (std::uint32_t number = i * s_each; number < (i + 1) * s_each; ++number) {
            messages.push(makeBuffer(textOf(number), 1));
        }
        Buffer bundle;
        ASSERT_TRUE(kyNetBuffer::tryBundle(messages, bundle));
        relay.above.near[0]->send(bundle);
    }
    ASSERT_TRUE(relay.hasReadAhead(s_bundles));
    Buffer buffer;
    relay.receiver->recv(buffer); // Relays all of them.
    relay.below.far[0]->recv(buffer);
    expectBundle(*buffer, s_bundles * s_each);
}

TEST(kyRelay, messagesForTheRelayItselfStayThere)
{
    Relay relay;
    for (std::uint32_t number = 0; number < 3; ++number) {
        relay.above.near[0]->send(makeBuffer(textOf(number), 1, 2));
    }
    relay.above.near[0]->send(makeBuffer(textOf(0), 1, 3));
    ASSERT_TRUE(relay.hasReadAhead(4));
    Buffer buffer;
    for (std::uint32_t number = 0; number < 3; ++number) {
        relay.receiver->recv(buffer);
        EXPECT_EQ(kyTest::dataOf(*buffer), textOf(number));
    }
    relay.below.far[0]->recv(buffer);
    EXPECT_EQ(kyTest::dataOf(*buffer), textOf(0));
    relay.below.near[0]->shutdown();
    EXPECT_EQ(messageOf([&] { relay.below.far[0]->recv(buffer); }), s_closed);
}
