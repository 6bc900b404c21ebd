#include <apps/common/KeyExchange.h>

#include <array>
#include <cstdint>
#include <future>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sodium.h>

#include <NetBase/buffers/kyConnectionClosed.h>
#include <NetBase/buffers/kyConnectionTimeout.h>
#include <NetBase/buffers/kyNetError.h>
#include <NetBase/links/kySocketLink.h>
#include <NetBase/serialization/kyNetStream.h>
#include <apps/common/LinkCipher.h>
#include <tests/apps/kyTestKey.h>
#include <tests/support/kyTestChains.h>

namespace {

using kyTest::Buffer;
using kyTest::dataOf;
using kyTest::makeBuffer;
using kyTest::makeKey;
using kyTest::messageOf;

using Key = std::shared_ptr<const SharedKey>;
using Link = std::shared_ptr<kySocketLink>;
using Marker = std::array<char, 8>;
using Bytes = SharedKey::Bytes;

constexpr Marker s_marker{'t', 'a', 'l', 'o', 'K', 'e', 'y', '1'};
constexpr const char* s_success = "";
constexpr const char* s_stranger = "The other side does not hold this key";
constexpr const char* s_keyNeeded = "This connection needs a key, and none was offered";
constexpr const char* s_noKeyHere = "A key was offered to a side that has none";

/// Two ends of a connection that wait for as long as a test does.
struct Ends
{
    Ends()
    {
        std::tie(client, server) = kyTest::makeLinks();
        client->setRecvTimeout(30.0);
        server->setRecvTimeout(30.0);
    }

    Link client;
    Link server;
};

/// What becomes of an offer, on a thread of its own.
std::future<std::string> offer(const Link& link, const Key& key)
{
    return std::async(std::launch::async,
                      [link, key] { return messageOf([&] { KeyExchange::offer(link, key); }); });
}

/// What becomes of the answer to the first words on a link.
std::string answer(const Link& link, const Key& key)
{
    EXPECT_TRUE(link->pollReadable(30.0));
    return messageOf([&] { KeyExchange::answer(link, key); });
}

std::future<std::string> answerMeanwhile(const Link& link, const Key& key)
{
    return std::async(std::launch::async, [link, key] { return answer(link, key); });
}

/// The failure that the other side has sent.
std::string receivedFailure(const Link& link)
{
    kyNetStream stream(link);
    return messageOf([&] { stream.recvResult(); });
}

void agree(Ends& ends, const Key& key)
{
    auto offered = offer(ends.client, key);
    EXPECT_EQ(answer(ends.server, key), s_success);
    EXPECT_EQ(offered.get(), s_success);
}

/// The data that arrives when the other side sends a text.
std::string transfer(const Link& from, const Link& to, const std::string& text)
{
    from->send(makeBuffer(text));
    Buffer buffer;
    to->recv(buffer);
    return dataOf(*buffer);
}

/// The same without the receiver's cipher: what somebody on the way sees.
std::string observe(const Link& from, const Link& to, const std::string& text)
{
    to->setCipher(nullptr);
    return transfer(from, to, text);
}

/// Passes one buffer on as it is, and gives it.
Buffer pass(kySocketLink& from, kySocketLink& to)
{
    Buffer buffer;
    from.recv(buffer);
    to.send(buffer);
    return buffer;
}

/// An exchange as somebody on the way records it.
struct Recording
{
    explicit Recording(const Key& key)
    {
        Ends client; // its server is the one who records
        Ends server;
        auto offered = offer(client.client, key);
        auto answered = answerMeanwhile(server.server, key);
        hello = pass(*client.server, *server.client);
        challenge = pass(*server.client, *client.server);
        proof = pass(*client.server, *server.client);
        EXPECT_EQ(offered.get(), s_success);
        EXPECT_EQ(answered.get(), s_success);

        const Buffer zeros = makeBuffer(std::string(100, '\0'));
        client.client->send(zeros);
        client.server->recv(toServer);
        server.server->send(zeros);
        server.client->recv(toClient);
    }

    Buffer hello;
    Buffer challenge;
    Buffer proof;
    Buffer toServer; ///< the first encrypted one, 100 bytes of zeros
    Buffer toClient; ///< the same of the other direction
};

/// The keyed hash of a text and both sides' random bytes.
std::string hashOf(const std::string& text, const std::string& client, const std::string& server)
{
    const std::string input = text + client + server;
    const Key key = makeKey(1);
    std::string hash(crypto_auth_BYTES, '\0');
    crypto_auth(reinterpret_cast<unsigned char*>(hash.data()),
                reinterpret_cast<const unsigned char*>(input.data()), input.size(),
                key->getBytes().data());
    return hash;
}

/// What the first buffer of a direction, 100 bytes of zeros, is encrypted to: behind its size the
/// header has 16 bytes more.
std::string keyStreamOf(const std::string& key)
{
    const std::string nonce(crypto_stream_chacha20_NONCEBYTES, '\0');
    std::string stream(116, '\0');
    crypto_stream_chacha20(reinterpret_cast<unsigned char*>(stream.data()), stream.size(),
                           reinterpret_cast<const unsigned char*>(nonce.data()),
                           reinterpret_cast<const unsigned char*>(key.data()));
    return stream.substr(16);
}

/// An end over which only so many buffers get through; then the other one is gone.
class LeftLink : public kySocketLink
{
public:
    LeftLink(kySocketHandle handle, int sends) : kySocketLink(handle), m_sends(sends) {}

    using kySocketLink::send;
    void send(const Buffer& buffer) override
    {
        if (m_sends-- == 0) {
            throw kyConnectionClosed();
        }
        kySocketLink::send(buffer);
    }

private:
    int m_sends;
};

/// What a client that was made by hand hears first, having sent its offer.
std::pair<Bytes, Bytes> getChallenge(const Link& link)
{
    kyNetStream stream(link);
    stream << s_marker << Bytes{};
    stream.flush();
    std::pair<Bytes, Bytes> challenge;
    stream.recvResult() >> challenge.first >> challenge.second;
    return challenge;
}

} // namespace

// --- Those who hold the key ---

TEST(KeyExchange, bothEndsGetACipherThatFits)
{
    Ends ends;
    agree(ends, makeKey(1));
    for (const std::size_t size : {0U, 1U, 100U, 131072U}) {
        const std::string text(size, 'x');
        EXPECT_EQ(transfer(ends.client, ends.server, text), text);
        EXPECT_EQ(transfer(ends.server, ends.client, text), text);
    }
    EXPECT_EQ(observe(ends.client, ends.server, "xxxxxxxxxxxxxxxx").find("xx"), std::string::npos);
}

TEST(KeyExchange, bytesAreTheDocumentedOnes)
{
    const Recording recording(makeKey(1));
    const std::string hello = dataOf(*recording.hello);
    const std::string challenge = dataOf(*recording.challenge);
    ASSERT_EQ(hello.size(), 40U);
    ASSERT_EQ(challenge.size(), 65U);
    EXPECT_EQ(hello.substr(0, 8), "taloKey1");
    EXPECT_EQ(challenge[0], 1);
    const std::string client = hello.substr(8);
    const std::string server = challenge.substr(1, 32);
    EXPECT_EQ(challenge.substr(33), hashOf("talo key 1: server's proof", client, server));
    EXPECT_EQ(dataOf(*recording.proof), hashOf("talo key 1: client's proof", client, server));
    EXPECT_EQ(dataOf(*recording.toServer),
              keyStreamOf(hashOf("talo key 1: from client to server", client, server)));
    EXPECT_EQ(dataOf(*recording.toClient),
              keyStreamOf(hashOf("talo key 1: from server to client", client, server)));
}

TEST(KeyExchange, serverMaySpeakFirstAfterwards)
{
    Ends ends;
    agree(ends, makeKey(1));
    EXPECT_EQ(transfer(ends.server, ends.client, "welcome"), "welcome");
}

TEST(KeyExchange, clientMaySpeakBeforeItsProofWasLookedAt)
{
    Ends ends;
    auto spoken = std::async(std::launch::async, [&] {
        KeyExchange::offer(ends.client, makeKey(1));
        ends.client->send(makeBuffer("at once"));
    });
    EXPECT_EQ(answer(ends.server, makeKey(1)), s_success);
    spoken.get();
    Buffer buffer;
    ends.server->recv(buffer);
    EXPECT_EQ(dataOf(*buffer), "at once");
}

TEST(KeyExchange, noTwoLinksAndDirectionsHaveTheSameKeyStream)
{
    std::set<std::string> hidden;
    for (int i = 0; i < 3; ++i) {
        Ends ends;
        agree(ends, makeKey(1));
        const Buffer buffer = makeBuffer(std::string(64, 'x'));
        ends.client->send(buffer);
        ends.server->send(buffer);
        for (const Link& link : {ends.client, ends.server}) {
            Buffer received;
            link->setCipher(nullptr);
            link->recv(received);
            hidden.insert(dataOf(*received));
        }
    }
    EXPECT_EQ(hidden.size(), 6U);
}

TEST(KeyExchange, linkThatIsHandedOverStartsAfresh)
{
    Ends ends;
    agree(ends, makeKey(1));
    const std::string first = observe(ends.client, ends.server, std::string(64, 'x'));
    ends.client->setCipher(nullptr);
    agree(ends, makeKey(1));
    EXPECT_NE(observe(ends.client, ends.server, std::string(64, 'x')), first);
}

// --- Those who do not ---

TEST(KeyExchange, differentKeysAreToldToBothSides)
{
    Ends ends;
    auto offered = offer(ends.client, makeKey(1));
    EXPECT_EQ(answer(ends.server, makeKey(2)), s_stranger);
    EXPECT_EQ(offered.get(), s_stranger);
}

TEST(KeyExchange, keysThatDifferInOneBitAreDifferent)
{
    for (const std::size_t byte : {0U, 31U}) {
        Bytes bytes = makeKey(1)->getBytes();
        bytes[byte] ^= 0x80;
        Ends ends;
        auto offered = offer(ends.client, std::make_shared<SharedKey>(bytes));
        EXPECT_EQ(answer(ends.server, makeKey(1)), s_stranger);
        EXPECT_EQ(offered.get(), s_stranger);
    }
}

TEST(KeyExchange, clientWithoutKeyIsToldThatOneIsNeeded)
{
    Ends ends;
    KeyExchange::offer(ends.client, nullptr);
    kyNetStream stream(ends.client);
    stream << std::uint32_t{6};
    stream.flush();
    EXPECT_EQ(answer(ends.server, makeKey(1)), s_keyNeeded);
    EXPECT_EQ(receivedFailure(ends.client), s_keyNeeded);
}

TEST(KeyExchange, serverWithoutKeyTurnsAnOfferDown)
{
    Ends ends;
    auto offered = offer(ends.client, makeKey(1));
    EXPECT_EQ(answer(ends.server, nullptr), s_noKeyHere);
    EXPECT_EQ(offered.get(), s_noKeyHere);
}

TEST(KeyExchange, offerThatIsTurnedDownIsTakenFromTheLink)
{
    // What nobody has read when a connection is closed resets it, and may cost the reason.
    Ends ends;
    auto offered = offer(ends.client, makeKey(1));
    EXPECT_EQ(answer(ends.server, nullptr), s_noKeyHere);
    EXPECT_EQ(offered.get(), s_noKeyHere);
    char unread = 0;
    EXPECT_EQ(ends.server->peekAvailable(&unread, sizeof(unread)), 0U);
}

TEST(KeyExchange, withoutKeysNothingIsSentOrRead)
{
    for (const std::string& text : {std::string(), std::string(40, 'x'), std::string(1000, 'x')}) {
        Ends ends;
        KeyExchange::offer(ends.client, nullptr);
        ends.client->send(makeBuffer(text));
        EXPECT_EQ(answer(ends.server, nullptr), s_success);
        Buffer buffer;
        ends.server->recv(buffer);
        EXPECT_EQ(dataOf(*buffer), text);
        EXPECT_EQ(transfer(ends.server, ends.client, text), text);
    }
}

TEST(KeyExchange, serverWithoutKeyDoesNotWaitForTheRestOfAnOffer)
{
    const std::string offerData =
        std::string(s_marker.data(), s_marker.size()) + std::string(32, 'r');
    const Buffer whole = makeBuffer(offerData);
    for (const std::uint64_t size : {std::uint64_t{1}, std::uint64_t{20}, std::uint64_t{59}}) {
        Ends ends;
        ends.client->send(whole->getBuffer(), size);
        EXPECT_EQ(answer(ends.server, nullptr), s_success);
    }
}

// --- Foreign bytes ---

TEST(KeyExchange, firstWordsThatAreNoOfferAreRefused)
{
    const std::string marker(s_marker.data(), s_marker.size());
    std::string wrongMarker = marker;
    wrongMarker.back() = '2';
    for (const std::string& text :
         {std::string(), std::string(4, '\0'), marker, marker + std::string(31, 'r'),
          marker + std::string(33, 'r'), wrongMarker + std::string(32, 'r'),
          std::string(40, '\xff'), std::string(131072, 'x')}) {
        Ends ends;
        ends.client->send(makeBuffer(text));
        EXPECT_EQ(answer(ends.server, makeKey(1)), s_keyNeeded);
        EXPECT_EQ(receivedFailure(ends.client), s_keyNeeded);
    }
}

TEST(KeyExchange, garbageIsRefused)
{
    Ends ends;
    const std::string garbage(100, '\xee');
    ends.client->send(garbage.data(), garbage.size());
    EXPECT_EQ(answer(ends.server, makeKey(1)),
              "Received invalid buffer size. Possibly stream is out of sync.");
}

TEST(KeyExchange, proofOfAnyOtherBitsIsRefused)
{
    const Key key = makeKey(1);
    for (const std::size_t bit : {0U, 7U, 128U, 255U}) {
        Ends client;
        Ends server;
        auto offered = offer(client.client, key);
        auto answered = answerMeanwhile(server.server, key);
        pass(*client.server, *server.client);
        pass(*server.client, *client.server);
        Buffer proof;
        client.server->recv(proof);
        proof->getData()[bit / 8] = static_cast<char>(proof->getData()[bit / 8] ^ (1 << bit % 8));
        server.client->send(proof);
        EXPECT_EQ(answered.get(), s_stranger);
        EXPECT_EQ(offered.get(), s_success); // it has no way to know
    }
}

TEST(KeyExchange, proofOfAnotherSizeIsRefused)
{
    for (const std::size_t size : {0U, 1U, 31U, 33U, 131072U}) {
        Ends ends;
        auto answered = answerMeanwhile(ends.server, makeKey(1));
        getChallenge(ends.client);
        ends.client->send(makeBuffer(std::string(size, '\0')));
        EXPECT_EQ(answered.get(), s_stranger);
    }
}

TEST(KeyExchange, serversAnswerWithAnyOtherBitIsRefused)
{
    const Key key = makeKey(1);
    // The server's random bytes begin after the result, its proof 32 bytes later.
    for (const std::size_t byte : {1U, 32U, 33U, 64U}) {
        Ends client;
        Ends server;
        auto offered = offer(client.client, key);
        auto answered = answerMeanwhile(server.server, key);
        pass(*client.server, *server.client);
        Buffer challenge;
        server.client->recv(challenge);
        ASSERT_EQ(challenge->getDataSize(), 65U);
        challenge->getData()[byte] = static_cast<char>(challenge->getData()[byte] ^ 1);
        client.server->send(challenge);
        EXPECT_EQ(offered.get(), s_stranger);
        pass(*client.server, *server.client);
        EXPECT_EQ(answered.get(), s_stranger);
    }
}

TEST(KeyExchange, failureOfTheServerIsPassedOn)
{
    Ends ends;
    auto offered = offer(ends.client, makeKey(1));
    kyNetStream stream(ends.server);
    stream.sendException(kyNetError("Unknown service command")).flush();
    EXPECT_EQ(offered.get(), "Unknown service command");
}

// --- Attacks ---

TEST(KeyExchange, recordedClientIsOfNoUse)
{
    const Recording recording(makeKey(1));
    Ends ends;
    auto answered = answerMeanwhile(ends.server, makeKey(1));
    ends.client->send(recording.hello);
    ends.client->send(recording.proof);
    EXPECT_EQ(answered.get(), s_stranger);
    Buffer challenge;
    ends.client->recv(challenge);
    EXPECT_NE(dataOf(*challenge), dataOf(*recording.challenge));
}

TEST(KeyExchange, recordedServerIsOfNoUse)
{
    const Recording recording(makeKey(1));
    Ends ends;
    auto offered = offer(ends.client, makeKey(1));
    ends.server->send(recording.challenge);
    EXPECT_EQ(offered.get(), s_stranger);
}

TEST(KeyExchange, serversProofIsNoProofOfAClient)
{
    Ends ends;
    auto answered = answerMeanwhile(ends.server, makeKey(1));
    const auto [random, proof] = getChallenge(ends.client);
    kyNetStream stream(ends.client);
    stream << proof;
    stream.flush();
    EXPECT_EQ(answered.get(), s_stranger);
}

TEST(KeyExchange, offerIsNoAnswerToItself)
{
    // A server that has no key, and has another one's client prove what it is asked for.
    Ends victim;
    auto offered = offer(victim.client, makeKey(1));
    Buffer hello;
    victim.server->recv(hello);
    Bytes random{};
    dataOf(*hello).copy(reinterpret_cast<char*>(random.data()), random.size(), s_marker.size());
    kyNetStream stream(victim.server);
    stream.sendSuccess() << random << random;
    stream.flush();
    EXPECT_EQ(offered.get(), s_stranger);
}

// --- Sides that stop ---

TEST(KeyExchange, clientThatLeavesAnywhereIsClosed)
{
    const Recording recording(makeKey(1));
    for (const std::uint64_t size : {1U, 20U, 59U, 60U}) {
        Ends ends;
        auto answered = answerMeanwhile(ends.server, makeKey(1));
        ends.client->send(recording.hello->getBuffer(), size);
        ends.client->shutdown();
        EXPECT_EQ(answered.get(), "Connection closed") << size;
    }
}

TEST(KeyExchange, serverThatLeavesIsClosed)
{
    Ends ends;
    auto offered = offer(ends.client, makeKey(1));
    Buffer hello;
    ends.server->recv(hello);
    ends.server->shutdown();
    EXPECT_EQ(offered.get(), "Connection closed");
}

TEST(KeyExchange, reasonIsKnownHereAlsoWhenTheOtherSideHasLeft)
{
    const Buffer noOffer = makeBuffer("request");
    const Buffer hello = Recording(makeKey(1)).hello;
    const auto answerToGone = [](const Buffer& word, const Key& key) {
        const auto [near, far] = kyTest::makeConnection();
        kySocketLink(near).send(word);
        return answer(std::make_shared<LeftLink>(far, 0), key);
    };
    EXPECT_EQ(answerToGone(noOffer, makeKey(1)), s_keyNeeded);
    EXPECT_EQ(answerToGone(hello, nullptr), s_noKeyHere);

    const auto [near, far] = kyTest::makeConnection();
    const auto server = std::make_shared<kySocketLink>(far);
    kyNetStream stream(server);
    stream.sendSuccess() << Bytes{} << Bytes{};
    stream.flush();
    EXPECT_EQ(offer(std::make_shared<LeftLink>(near, 1), makeKey(1)).get(), s_stranger);
}

TEST(KeyExchange, silentSidesAreWaitedForAsTheLinkSays)
{
    Ends ends;
    ends.client->setRecvTimeout(0.05);
    EXPECT_THROW(KeyExchange::offer(ends.client, makeKey(1)), kyConnectionTimeout);

    Ends others;
    others.server->setRecvTimeout(0.05);
    EXPECT_THROW(KeyExchange::answer(others.server, makeKey(1)), kyConnectionTimeout);
    others.client->send(Recording(makeKey(1)).hello);
    EXPECT_THROW(KeyExchange::answer(others.server, makeKey(1)), kyConnectionTimeout);
}

TEST(KeyExchange, manyAtOnce)
{
    std::vector<std::future<std::string>> results;
    std::vector<Ends> ends(8);
    for (Ends& pair : ends) {
        results.push_back(offer(pair.client, makeKey(1)));
        results.push_back(answerMeanwhile(pair.server, makeKey(1)));
    }
    for (auto& result : results) {
        EXPECT_EQ(result.get(), s_success);
    }
}
