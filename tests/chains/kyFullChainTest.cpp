// Whole chains over real connections: what the single parts promise must hold of all of them
// together.

#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <future>
#include <iostream>
#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <NetBase/links/kyBoundSocketLink.h>
#include <NetBase/senders/kyNetLinkSender.h>
#include <NetBase/senders/kyNetLockedSender.h>
#include <NetBase/senders/kyNetMultiSender.h>
#include <NetBase/senders/kyNetSwitchSender.h>
#include <NetBase/serialization/kyNetStdIStream.h>
#include <NetBase/serialization/kyNetStdOStream.h>
#include <tests/chains/kyChainFixtures.h>
#include <tests/links/kyLinkFixtures.h>
#include <tests/support/kyTestBlocked.h>
#include <tests/support/kyTestChildSystem.h>
#include <tests/support/kyTestProgram.h>
#include <tests/support/kyTestSlowness.h>

using kyTest::Blocked;
using kyTest::Buffer;
using kyTest::bytesOf;
using kyTest::Channels;
using kyTest::hasContentOf;
using kyTest::isFull;
using kyTest::Links;
using kyTest::makeFullReceiver;
using kyTest::makeFullSender;
using kyTest::messageOf;
using kyTest::Program;
using kyTest::RawSocket;
using kyTest::s_isSlow;
using kyTest::sendMulticasts;
using kyTest::sendNumbered;

namespace {

using Seconds = std::chrono::duration<double>;
using namespace std::chrono_literals;

constexpr const char* s_closed = "Connection closed";

/// How many seconds letting go of a chain may take.
constexpr double s_soon = s_isSlow ? 30.0 : 1.0;

/// Rank 1 sends to rank 2 over a full chain. The first connection carries the answers.
struct Conversation
{
    explicit Conversation(int links, bool isEncrypted = false) : channels(links)
    {
        for (Links* ends : {&channels.near, &channels.far}) {
            for (const auto& link : *ends) {
                link->setCipher(isEncrypted ? std::make_shared<kyTest::XorCipher>() : nullptr);
            }
        }
        first.setRank(1);
        first.setSender(makeFullSender(channels.near, {2}));
        first.setReceiver(kyNetLinkReceiver::create(channels.near.front()));
        second.setRank(2);
        second.setSender(kyNetLinkSender::create(channels.far.front(), {1}));
        second.setReceiver(makeFullReceiver(channels.far));
    }

    Channels channels;
    kyNetStream first;
    kyNetStream second;
};

/// Receives so many multicasts and answers each window. Gives how many came intact and in order,
/// and ends the conversation at the first that did not.
std::uint32_t receiveMulticasts(kyNetStream& stream, std::uint32_t count)
{
    Buffer buffer;
    for (std::uint32_t number = 0; number < count; ++number) {
        stream.getReceiver()->recv(buffer);
        if (!hasContentOf(number, *buffer)) {
            stream.shutdown();
            return number;
        }
        kyTest::answerMulticast(stream, number);
    }
    return count;
}

void expectAllArrive(Conversation& conversation, std::uint32_t count)
{
    const auto start = std::chrono::steady_clock::now();
    auto sending =
        std::async(std::launch::async, [&] { sendMulticasts(conversation.first, count); });
    EXPECT_EQ(receiveMulticasts(conversation.second, count), count);
    sending.get();
    const Seconds elapsed = std::chrono::steady_clock::now() - start;
    const double megabytes = static_cast<double>(conversation.first.getSentBytes()) / 1e6;
    std::cout << count << " multicasts, " << megabytes << " MB as "
              << static_cast<double>(conversation.first.getCompressedBytes()) / 1e6 << " MB, in "
              << elapsed.count() << " s" << std::endl;
}

/// Receives multicasts, intact and in order from this number on, until that fails, and gives the
/// text.
std::string receiveUntilFailure(kyNetReceiver& receiver, std::uint32_t number)
{
    return messageOf([&] {
        for (Buffer buffer;; ++number) {
            receiver.recv(buffer);
            if (!hasContentOf(number, *buffer)) {
                throw kyNetError("Wrong content at " + std::to_string(number));
            }
        }
    });
}

/// Sends without end until that fails, and gives the text.
std::string sendUntilFailure(kyNetStream& stream)
{
    return messageOf([&] {
        for (std::uint32_t number = 0;; ++number) {
            sendNumbered(stream, number);
        }
    });
}

/// Seconds that letting go takes.
double secondsOf(const std::function<void()>& action)
{
    const auto start = std::chrono::steady_clock::now();
    action();
    return Seconds(std::chrono::steady_clock::now() - start).count();
}

/// A stream of rank 1 over a full chain of these links.
std::unique_ptr<kyNetStream> makeSendingStream(const Links& links)
{
    auto stream = std::make_unique<kyNetStream>();
    stream->setRank(1);
    stream->setSender(makeFullSender(links, {2}));
    return stream;
}

} // namespace

TEST(kyFullChain, aMillionMulticastsOverFourLinksArriveInOrder)
{
    Conversation conversation(4);
    expectAllArrive(conversation, s_isSlow ? 150000 : 1000000);
}

TEST(kyFullChain, encryptedMulticastsOverFourLinksArriveInOrder)
{
    Conversation conversation(4, true);
    expectAllArrive(conversation, s_isSlow ? 70000 : 200000);
}

TEST(kyFullChain, multicastsOverOneLinkArriveInOrder)
{
    Conversation conversation(1);
    expectAllArrive(conversation, s_isSlow ? 70000 : 200000);
}

TEST(kyFullChain, everyContentIsCompressedThatCanBe)
{
    Conversation conversation(2);
    expectAllArrive(conversation, 30000);
    EXPECT_LT(conversation.first.getCompressedBytes(), conversation.first.getSentBytes());
    EXPECT_GT(conversation.first.getCompressedBytes(), conversation.first.getSentBytes() / 3);
}

TEST(kyFullChain, contentsOfEverySizeAroundTheLimits)
{
    constexpr std::size_t s_capacity = 131602;
    std::vector<std::size_t> sizes{1, 2, 3, 4095, 4096, 65535 - 20, 65536 - 20, 65537 - 20, 131072};
    for (std::size_t less = 0; less < 45; ++less) { // A bundle's own limit lies among these.
        sizes.push_back(s_capacity - less);
        sizes.push_back((s_capacity - less) / 2);
    }
    Conversation conversation(3);
    for (const char filling : {'x', '\0'}) { // Does not compress, and compresses to one byte.
        for (const std::size_t size : sizes) {
            kyNetMessage message;
            const std::string content(size, filling);
            message.putBytes(content.data(), content.size());
            conversation.first.sendMessage(message, 0, kyNetBufferSendMode::Automatic);
        }
    }
    Buffer buffer;
    for (const char filling : {'x', '\0'}) {
        for (const std::size_t size : sizes) {
            conversation.second.getReceiver()->recv(buffer);
            ASSERT_EQ(buffer->getDataSize(), size);
            ASSERT_TRUE(kyTest::dataOf(*buffer) == std::string(size, filling)) << size;
            ASSERT_EQ(buffer->getCompression(), kyNetCompression::None);
        }
    }
}

TEST(kyFullChain, unicastsOvertakeAndAllArriveOnce)
{
    constexpr std::uint32_t s_count = 5000;
    Conversation conversation(4);
    auto sending = std::async(std::launch::async, [&] {
        for (std::uint32_t number = 0; number < s_count; ++number) {
            sendNumbered(conversation.first, number);
            sendNumbered(conversation.first, s_count + number, 2);
        }
    });
    std::set<std::uint32_t> unicasts;
    std::uint32_t multicasts = 0;
    Buffer buffer;
    for (std::uint32_t i = 0; i < 2 * s_count; ++i) {
        conversation.second.getReceiver()->recv(buffer);
        std::uint32_t number = 0;
        std::memcpy(&number, buffer->getData(), sizeof number);
        ASSERT_TRUE(hasContentOf(number, *buffer));
        if (buffer->isMulticast()) {
            ASSERT_EQ(number, multicasts++);
        } else {
            ASSERT_GE(number, s_count);
            ASSERT_TRUE(unicasts.insert(number).second) << number;
        }
    }
    EXPECT_EQ(multicasts, s_count);
    sending.get();
}

TEST(kyFullChain, valuesAndTextsOfAStream)
{
    Conversation conversation(4);
    const std::string text(s_isSlow ? 600000 : 3000000, 'x');
    auto writing = std::async(std::launch::async, [&] {
        kyNetStream& stream = conversation.first;
        for (int i = 0; i < 5; ++i) {
            stream << i << text;
            kyNetStdOStream out(stream);
            out << text << i;
            out.close();
            stream.flush();
        }
    });
    for (int i = 0; i < 5; ++i) {
        int number = -1;
        std::string value;
        conversation.second >> number >> value;
        ASSERT_EQ(number, i);
        ASSERT_TRUE(value == text);
        kyNetStdIStream in(conversation.second);
        const std::string read(std::istreambuf_iterator<char>(in), {});
        ASSERT_TRUE(read == text + std::to_string(i));
    }
    writing.get();
}

// The chains of docs/chains.md: large buffers are compressed and queued, small ones leave at once.
TEST(kyFullChain, largeAndSmallOverTwoKindsOfChannels)
{
    constexpr std::uint32_t s_count = 10000;
    const Channels channels(6);
    const Links image(channels.near.begin(), channels.near.begin() + 4);
    const Links lowLatency(channels.near.begin() + 4, channels.near.end());
    kyNetStream stream;
    stream.setRank(1);
    stream.setSender(kyNetSwitchSender::create(
        makeFullSender(image, {2}),
        kyNetLockedSender::create(kyNetSender::createBundle(lowLatency, false, {2})), 200));
    const auto receiver = makeFullReceiver(channels.far);
    auto sending = std::async(std::launch::async, [&] {
        for (std::uint32_t number = 0; number < s_count; ++number) {
            sendNumbered(stream, number);
        }
        stream.waitAllDataTransfered();
        stream.shutdown();
    });
    Buffer buffer;
    for (std::uint32_t number = 0; number < s_count;) {
        try {
            receiver->recv(buffer);
            ASSERT_TRUE(hasContentOf(number++, *buffer));
        } catch (const kyConnectionClosed&) {
            // One of the links has ended.
        }
    }
    sending.get();
}

// The same document's: one compression for several ranks, each with two kinds of channels.
TEST(kyFullChain, severalThreadsSendToSeveralRanksOverSeveralChannels)
{
    constexpr std::uint32_t s_count = 3000;
    constexpr std::uint32_t s_threads = 3;
    constexpr std::uint64_t s_threshold = 200;
    Channels channels[2]{Channels(6), Channels(6)};
    std::vector<std::shared_ptr<kyNetSender>> servers;
    for (unsigned int i = 0; i < 2; ++i) {
        const auto& near = channels[i].near;
        const kyTest::Ranks ranks{i + 2};
        servers.push_back(kyNetSwitchSender::create(
            kyNetSender::createBundle({near.begin(), near.begin() + 4}, true, ranks),
            kyNetSender::createBundle({near.begin() + 4, near.end()}, true, ranks), s_threshold));
    }
    const auto sender =
        kyNetCompressSender::create(std::make_shared<kyTest::TrimCompressor>(),
                                    kyNetLockedSender::create(kyNetMultiSender::create(servers)));

    // One thread's stream sends multicasts; the others', a message in turn to each rank.
    std::vector<std::future<void>> threads;
    for (std::uint32_t thread = 0; thread < s_threads; ++thread) {
        threads.push_back(std::async(std::launch::async, [&sender, thread] {
            kyNetStream stream;
            stream.setRank(1);
            stream.setSender(sender);
            for (std::uint32_t i = 0; i < s_count; ++i) {
                sendNumbered(stream, thread * s_count + i,
                             thread == 0 ? 0 : static_cast<int>(2 + i % 2));
            }
            stream.waitAllDataTransfered();
        }));
    }
    const auto receiveAll = [](const Links& links, std::uint32_t parity) {
        const auto receiver = makeFullReceiver(links);
        std::set<std::uint32_t> numbers;
        Buffer buffer;
        for (std::uint32_t i = 0; i < s_count + (s_threads - 1) * s_count / 2; ++i) {
            receiver->recv(buffer);
            std::uint32_t number = 0;
            std::memcpy(&number, buffer->getData(), sizeof number);
            EXPECT_TRUE(hasContentOf(number, *buffer));
            EXPECT_TRUE(numbers.insert(number).second) << number;
            EXPECT_TRUE(buffer->isMulticast() ? number < s_count : number % 2 == parity);
        }
    };
    auto second = std::async(std::launch::async, [&] { receiveAll(channels[1].far, 1); });
    receiveAll(channels[0].far, 0);
    second.get();
    for (auto& thread : threads) {
        thread.get();
    }
}

// Waiting.

TEST(kyFullChain, waitReturnsWhenTheSocketHasTheLastByte)
{
    constexpr std::uint32_t s_count = 400;
    const Channels channels(1);
    kyNetStream stream;
    stream.setRank(1);
    stream.setSender(kyNetLockedSender::create(makeFullSender(channels.near, {2})));
    const std::string content(131602, 'x');
    auto waiting = std::async(std::launch::async, [&] {
        for (std::uint32_t i = 0; i < s_count; ++i) {
            kyNetMessage message;
            message.putBytes(content.data(), content.size());
            stream.sendMessage(message, 0, kyNetBufferSendMode::Automatic);
        }
        stream.waitAllDataTransfered();
    });
    ASSERT_TRUE(isFull(channels.near.front()));
    EXPECT_EQ(waiting.wait_for(0s), std::future_status::timeout);

    Buffer buffer;
    const auto receiver = kyNetLinkReceiver::create(channels.far.front());
    std::uint32_t received = 0;
    while (received < s_count && waiting.wait_for(0s) == std::future_status::timeout) {
        receiver->recv(buffer);
        ++received;
    }
    waiting.get();
    stream.setSender(nullptr); // Drops whatever was not given to the socket.
    channels.near.front()->shutdown();
    for (; received < s_count; ++received) {
        receiver->recv(buffer);
        ASSERT_TRUE(kyTest::dataOf(*buffer) == content);
    }
    EXPECT_EQ(messageOf([&] { receiver->recv(buffer); }), s_closed);
}

TEST(kyFullChain, waitThrowsWhenThePeerNeverReadsAndGoes)
{
    Channels channels(1);
    const auto stream = makeSendingStream(channels.near);
    auto waiting = std::async(std::launch::async, [&] {
        for (std::uint32_t i = 0; i < 200; ++i) {
            sendNumbered(*stream, 10006 + i * 10007);
        }
        stream->waitAllDataTransfered();
    });
    ASSERT_TRUE(isFull(channels.near.front()));
    channels.far.front()->shutdown();
    EXPECT_THROW(waiting.get(), kyConnectionClosed);
    EXPECT_THROW(stream->waitAllDataTransfered(), kyConnectionClosed);
    EXPECT_THROW(sendNumbered(*stream, 0), kyConnectionClosed);
}

// A link that is cut.

namespace {

/// Three links and one whose other end is a plain socket.
struct CutChannels : Channels
{
    CutChannels() : Channels(3)
    {
        auto [handle, peerHandle] = kyTest::makeConnection();
        near.insert(near.begin() + 1, std::make_shared<kySocketLink>(handle));
        peer = std::make_unique<RawSocket>(peerHandle);
    }

    std::unique_ptr<RawSocket> peer;
};

struct Cut
{
    const char* name;
    std::function<void(CutChannels&)> make;
};

void PrintTo(const Cut& cut, std::ostream* out)
{
    *out << cut.name;
}

class kyFullChainCut : public testing::TestWithParam<Cut>
{
};

INSTANTIATE_TEST_SUITE_P(
    , kyFullChainCut,
    testing::Values(Cut{"ownShutdown", [](CutChannels& c) { c.near[1]->shutdown(); }},
                    Cut{"peerCloses", [](CutChannels& c) { c.peer->close(); }},
                    Cut{"peerResets", [](CutChannels& c) { c.peer->reset(); }}),
    [](const auto& cut) { return std::string(cut.param.name); });

} // namespace

TEST_P(kyFullChainCut, nextSendAndWaitThrow)
{
    CutChannels channels;
    auto stream = makeSendingStream(channels.near);
    std::vector<std::future<std::string>> peers;
    for (const auto& link : channels.far) {
        peers.push_back(std::async(std::launch::async, [link] {
            Buffer buffer;
            return messageOf([&] {
                for (;;) {
                    link->recv(buffer);
                }
            });
        }));
    }
    auto sending = std::async(std::launch::async, [&] { return sendUntilFailure(*stream); });
    channels.peer->receive(100000); // In mid-stream.
    GetParam().make(channels);
    EXPECT_EQ(sending.get(), s_closed);
    EXPECT_THROW(stream->waitAllDataTransfered(), kyConnectionClosed);
    EXPECT_THROW(sendNumbered(*stream, 0), kyConnectionClosed);

    EXPECT_LT(secondsOf([&] { stream.reset(); }), s_soon);
    EXPECT_LT(secondsOf([&] { channels.near.clear(); }), s_soon);
    for (auto& peer : peers) {
        EXPECT_EQ(peer.get(), s_closed);
    }
}

TEST_P(kyFullChainCut, blockedSendThrows)
{
    CutChannels channels;
    auto stream = makeSendingStream(channels.near);
    std::string text;
    Blocked sending([&] { text = sendUntilFailure(*stream); });
    for (const auto& link : channels.near) {
        ASSERT_TRUE(isFull(link));
    }
    ASSERT_TRUE(sending.isBlocked());
    GetParam().make(channels);
    sending.finish();
    EXPECT_EQ(text, s_closed);
    EXPECT_THROW(stream->waitAllDataTransfered(), kyConnectionClosed);

    // Nobody reads the others: their threads wait in the system until they are shut down, and
    // each of them then lingers for a second, side by side.
    EXPECT_LT(secondsOf([&] { stream->shutdown(); }), s_soon);
    EXPECT_LT(secondsOf([&] { stream.reset(); }), 2 * s_soon);
}

TEST(kyFullChain, receiverDeliversAllThatWasSentAndThenThrows)
{
    constexpr std::uint32_t s_count = 10000;
    Channels channels(4);
    const auto stream = makeSendingStream(channels.near);
    auto sending = std::async(std::launch::async, [&] {
        for (std::uint32_t number = 0; number < s_count; ++number) {
            sendNumbered(*stream, number);
        }
        stream->waitAllDataTransfered();
        stream->shutdown();
    });
    auto receiver = makeFullReceiver(channels.far);
    // Each link tells of its end, perhaps while there is more from others.
    std::uint32_t received = 0;
    int failures = 0;
    for (Buffer buffer; received < s_count;) {
        const std::string text = messageOf([&] {
            receiver->recv(buffer);
            ASSERT_TRUE(hasContentOf(received++, *buffer));
            throw kyNetError("one more");
        });
        if (text != "one more") {
            ASSERT_EQ(text, s_closed);
            ASSERT_LE(++failures, 4);
        }
    }
    sending.get();
    for (int i = 0; i < 6; ++i) {
        Buffer buffer;
        EXPECT_EQ(messageOf([&] { receiver->recv(buffer); }), s_closed);
    }
    EXPECT_LT(secondsOf([&] { receiver.reset(); }), s_soon);
}

TEST(kyFullChain, receiverDeliversWhatWasCompleteAndThenThrows)
{
    // One of four connections is reset inside a buffer; the others stay open.
    Channels channels(3);
    const auto [handle, peerHandle] = kyTest::makeConnection();
    channels.far.push_back(std::make_shared<kySocketLink>(handle));
    RawSocket peer(peerHandle);
    auto receiver = makeFullReceiver(channels.far);

    const auto makeNumbered = [](std::uint32_t number) {
        const Buffer buffer = kyTest::makeBuffer(kyTest::contentOf(number), 1);
        buffer->setSequence(static_cast<int>(number));
        return buffer;
    };
    for (const std::uint32_t number : {0u, 1u, 2u, 4u}) { // 3 is lost with the connection.
        channels.near[number % 3]->send(makeNumbered(number));
    }
    Buffer buffer;
    for (std::uint32_t number = 0; number < 3; ++number) {
        receiver->recv(buffer);
        EXPECT_TRUE(hasContentOf(number, *buffer));
    }
    Blocked receiving([&] { receiver->recv(buffer); });
    EXPECT_TRUE(receiving.isBlocked());
    const std::string bytes = bytesOf(*makeNumbered(3));
    peer.send(bytes.substr(0, bytes.size() - 1));
    peer.reset();
    EXPECT_THROW(receiving.finish(), kyConnectionClosed);
    EXPECT_LT(secondsOf([&] { receiver.reset(); }), s_soon);
}

TEST(kyFullChain, ownShutdownWakesTheReceiver)
{
    Conversation conversation(4);
    Buffer buffer;
    Blocked receiving([&] { conversation.second.getReceiver()->recv(buffer); });
    EXPECT_TRUE(receiving.isBlocked());
    conversation.second.shutdown();
    EXPECT_THROW(receiving.finish(), kyConnectionClosed);
}

TEST(kyFullChain, destructionInMidStreamHangsNobody)
{
    for (int round = 0; round < (s_isSlow ? 5 : 20); ++round) {
        auto conversation = std::make_unique<Conversation>(4);
        auto sending =
            std::async(std::launch::async, [&] { return sendUntilFailure(conversation->first); });
        Buffer buffer;
        for (std::uint32_t number = 0; number < 1000; ++number) {
            conversation->second.getReceiver()->recv(buffer);
        }
        EXPECT_LT(secondsOf([&] { conversation->second.setReceiver(nullptr); }), s_soon);
        EXPECT_EQ(sending.get(), s_closed);
        EXPECT_LT(secondsOf([&] { conversation.reset(); }), s_soon);
    }
}

// A peer that lies on one of several links.

namespace {

/// What the receiver says to bytes that arrive on one of its links.
std::string sayingTo(const std::string& bytes)
{
    Channels channels(3);
    const auto [handle, peerHandle] = kyTest::makeConnection();
    channels.far.push_back(std::make_shared<kySocketLink>(handle));
    RawSocket peer(peerHandle);
    const auto receiver = makeFullReceiver(channels.far);
    peer.send(bytes);
    return receiveUntilFailure(*receiver, 0);
}

} // namespace

TEST(kyFullChain, foreignBytesAreRefused)
{
    const std::string rubbish(kyNetBuffer::getHeaderSize(), '\xff');
    EXPECT_EQ(sayingTo(rubbish), "Received invalid buffer size. Possibly stream is out of sync.");

    const Buffer bundle = kyTest::makeBuffer(rubbish, 1, 0, kyNetMessageType::Bundle);
    EXPECT_EQ(sayingTo(bytesOf(*bundle)),
              "Received invalid bundle. Possibly stream is out of sync.");

    const Buffer compressed = kyTest::makeBuffer("abc", 1);
    compressed->setCompression(kyNetCompression::Standard, 131603);
    EXPECT_EQ(sayingTo(bytesOf(*compressed)), "Unable to decompress");
}

// A peer that dies.

namespace {

/// A process that connects so many times and then sends, or receives, without end.
class Peer
{
public:
    Peer(const std::string& what, int links)
    {
        kyBoundSocketLink listener(0);
        m_program = std::make_unique<Program>(
            kyTest::childProgram("kyTestRank"),
            std::vector<std::string>{what, std::to_string(listener.getAddress().getPort()),
                                     std::to_string(links)});
        for (int i = 0; i < links; ++i) {
            m_links.push_back(std::make_shared<kySocketLink>(listener));
        }
    }

    const Links& getLinks() const { return m_links; }
    void kill() { m_program.reset(); }

private:
    std::unique_ptr<Program> m_program;
    Links m_links;
};

} // namespace

TEST(kyFullChain, killedReceiverIsNoticedByTheSender)
{
    Peer peer("sink", 4);
    auto stream = makeSendingStream(peer.getLinks());
    for (std::uint32_t number = 0; number < 2000; ++number) {
        sendNumbered(*stream, number);
    }
    auto sending = std::async(std::launch::async, [&] { return sendUntilFailure(*stream); });
    peer.kill();
    EXPECT_EQ(sending.get(), s_closed);
    EXPECT_THROW(stream->waitAllDataTransfered(), kyConnectionClosed);
    EXPECT_LT(secondsOf([&] { stream.reset(); }), s_soon);
}

TEST(kyFullChain, killedSenderIsNoticedByTheReceiver)
{
    constexpr std::uint32_t s_count = 50000; // In mid-stream: answered, so that more comes.
    Peer peer("source", 4);
    kyNetStream stream;
    stream.setRank(2);
    stream.setSender(kyNetLinkSender::create(peer.getLinks().front(), {1}));
    stream.setReceiver(makeFullReceiver(peer.getLinks()));
    ASSERT_EQ(receiveMulticasts(stream, s_count), s_count);
    peer.kill();
    EXPECT_EQ(receiveUntilFailure(*stream.getReceiver(), s_count), s_closed);
    EXPECT_LT(secondsOf([&] { stream.setReceiver(nullptr); }), s_soon);
}
