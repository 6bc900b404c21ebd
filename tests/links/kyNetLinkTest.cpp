#include <NetBase/links/kyNetLink.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <queue>
#include <vector>

#include <gtest/gtest.h>

#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/buffers/kyNetError.h>
#include <NetBase/links/kyNetCipherBase.h>
#include <NetBase/links/kyNetLinkPin.h>
#include <tests/links/kyLinkFixtures.h>

namespace {

using kyTest::bytesOf;
using kyTest::makeBuffer;

/// Notes what it is asked for; encrypts by adding one to each byte.
class CountingCipher final : public kyNetCipherBase
{
public:
    void encrypt(std::uint8_t* out, const std::uint8_t* in, std::uint64_t length) override
    {
        m_lengths.push_back(length);
        m_in = in;
        std::transform(in, in + length, out,
                       [](std::uint8_t byte) { return static_cast<std::uint8_t>(byte + 1); });
    }

    void decrypt(std::uint8_t* out, const std::uint8_t* in, std::uint64_t length) override
    {
        m_lengths.push_back(length);
        m_isInPlace = out == in;
        std::transform(in, in + length, out,
                       [](std::uint8_t byte) { return static_cast<std::uint8_t>(byte - 1); });
    }

    std::vector<std::uint64_t> m_lengths;
    const std::uint8_t* m_in = nullptr;
    bool m_isInPlace = false;
};

/// A link with nothing but what every link has.
class PlainLink : public kyNetLink
{
public:
    using kyNetLink::decryptBuffer;
    using kyNetLink::encryptBuffer;

    void send(const std::shared_ptr<kyNetBuffer>& buffer) override { m_queue.push(buffer); }
    void recv(std::shared_ptr<kyNetBuffer>& buffer) override
    {
        buffer = m_queue.front();
        m_queue.pop();
    }
    void shutdown() override {}
    std::uint32_t getRecvHandle() override { return 77; }
    void checkAlive() override {}

private:
    std::queue<std::shared_ptr<kyNetBuffer>> m_queue;
};

} // namespace

TEST(kyNetLink, startsWithoutIdsAndAffinity)
{
    const PlainLink link;
    EXPECT_EQ(link.getId(), 0u);
    EXPECT_EQ(link.getRemoteId(), 0u);
    EXPECT_EQ(link.getNodeAffinity(), -1);
}

TEST(kyNetLink, keepsIdsAndAffinity)
{
    PlainLink link;
    link.setId(4294967295u);
    link.setRemoteId(7);
    link.setNodeAffinity(2);
    EXPECT_EQ(link.getId(), 4294967295u);
    EXPECT_EQ(link.getRemoteId(), 7u);
    EXPECT_EQ(link.getNodeAffinity(), 2);
}

TEST(kyNetLink, isNamedUnknown)
{
    EXPECT_EQ(PlainLink().getLinkName(), "unknown");
}

TEST(kyNetLink, refusesAReceiveTimeout)
{
    PlainLink link;
    try {
        link.setRecvTimeout(1.0);
        FAIL();
    } catch (const kyNetError& error) {
        EXPECT_STREQ(error.what(), "Unable to set recv timeout");
    }
}

TEST(kyNetLink, appendsOneReceivedBufferToTheQueue)
{
    PlainLink link;
    const auto first = makeBuffer(1);
    const auto second = makeBuffer(2);
    link.send(second);
    link.send(makeBuffer(3));
    std::queue<std::shared_ptr<kyNetBuffer>> queue;
    queue.push(first);
    link.recvAvailable(queue);
    ASSERT_EQ(queue.size(), 2u);
    EXPECT_EQ(queue.front(), first);
    EXPECT_EQ(queue.back(), second);
}

TEST(kyNetLink, sendsManyOneAfterTheOther)
{
    PlainLink link;
    const std::vector<std::shared_ptr<kyNetBuffer>> buffers{makeBuffer(1), makeBuffer(2)};
    link.sendMany(buffers);
    link.sendMany({});
    std::shared_ptr<kyNetBuffer> received;
    for (const auto& buffer : buffers) {
        link.recv(received);
        EXPECT_EQ(received, buffer);
    }
}

TEST(kyNetLink, encryptsNothingWithoutACipher)
{
    PlainLink link;
    auto buffer = makeBuffer(100);
    const std::string before = bytesOf(*buffer);
    EXPECT_EQ(link.encryptBuffer(buffer), buffer);
    link.decryptBuffer(buffer);
    EXPECT_EQ(bytesOf(*buffer), before);
}

TEST(kyNetLink, encryptsACopyOfEverythingBehindTheSize)
{
    PlainLink link;
    const auto cipher = std::make_shared<CountingCipher>();
    link.setCipher(cipher);
    const auto buffer = makeBuffer(100);
    const std::string before = bytesOf(*buffer);

    const auto encrypted = link.encryptBuffer(buffer);
    EXPECT_NE(encrypted, buffer);
    EXPECT_EQ(bytesOf(*buffer), before);
    EXPECT_EQ(cipher->m_lengths, std::vector<std::uint64_t>{116});
    EXPECT_EQ(cipher->m_in, reinterpret_cast<const std::uint8_t*>(buffer->getBuffer()) + 4);

    std::string expected = before;
    for (std::size_t i = 4; i < expected.size(); ++i) {
        expected[i] = static_cast<char>(expected[i] + 1);
    }
    EXPECT_EQ(bytesOf(*encrypted), expected);
}

TEST(kyNetLink, keepsTheHeaderThroughACipherThatChangesNothing)
{
    class Identity final : public kyNetCipherBase
    {
    public:
        void encrypt(std::uint8_t*, const std::uint8_t*, std::uint64_t) override {}
        void decrypt(std::uint8_t*, const std::uint8_t*, std::uint64_t) override {}
    };
    PlainLink link;
    link.setCipher(std::make_shared<Identity>());
    const auto buffer = makeBuffer(100);
    const auto encrypted = link.encryptBuffer(buffer);
    EXPECT_NE(encrypted, buffer);
    EXPECT_EQ(std::memcmp(encrypted->getBuffer(), buffer->getBuffer(), 20), 0);
}

TEST(kyNetLink, encryptsTheHeaderOfAnEmptyBuffer)
{
    PlainLink link;
    const auto cipher = std::make_shared<CountingCipher>();
    link.setCipher(cipher);
    auto encrypted = link.encryptBuffer(makeBuffer(0));
    EXPECT_EQ(encrypted->getDataSize(), 0u);
    link.decryptBuffer(encrypted);
    EXPECT_EQ(cipher->m_lengths, (std::vector<std::uint64_t>{16, 16}));
}

TEST(kyNetLink, decryptsInPlace)
{
    PlainLink link;
    const auto cipher = std::make_shared<CountingCipher>();
    link.setCipher(cipher);
    const auto buffer = makeBuffer(kyNetBuffer::getCapacity());
    auto received = link.encryptBuffer(buffer);
    const kyNetBuffer* place = received.get();
    link.decryptBuffer(received);
    EXPECT_EQ(received.get(), place);
    EXPECT_TRUE(cipher->m_isInPlace);
    EXPECT_EQ(bytesOf(*received), bytesOf(*buffer));
}

TEST(kyNetLink, givesAnEncryptedCopyTheAutomaticSendMode)
{
    PlainLink link;
    link.setCipher(std::make_shared<CountingCipher>());
    const auto buffer = makeBuffer(10);
    buffer->setSendMode(kyNetBufferSendMode::Second);
    for (int i = 0; i < 3; ++i) {
        const auto encrypted = link.encryptBuffer(buffer);
        EXPECT_EQ(encrypted->getSendMode(), kyNetBufferSendMode::Automatic);
        encrypted->setSendMode(kyNetBufferSendMode::First); // Goes back to the pool so.
    }
}

TEST(kyNetLink, stopsEncryptingWhenTheCipherIsTaken)
{
    PlainLink link;
    link.setCipher(std::make_shared<CountingCipher>());
    link.setCipher(nullptr);
    const auto buffer = makeBuffer(10);
    EXPECT_EQ(link.encryptBuffer(buffer), buffer);
}

TEST(kyNetLink, copiesIdsAffinityAndCipher)
{
    const auto cipher = std::make_shared<CountingCipher>();
    const auto link = std::make_shared<PlainLink>();
    link->setId(1);
    link->setRemoteId(2);
    link->setNodeAffinity(3);
    link->setCipher(cipher);

    PlainLink copy(*link);
    PlainLink assigned;
    assigned = *link;
    for (PlainLink* each : {&copy, &assigned}) {
        EXPECT_EQ(each->getId(), 1u);
        EXPECT_EQ(each->getRemoteId(), 2u);
        EXPECT_EQ(each->getNodeAffinity(), 3);
        each->encryptBuffer(makeBuffer(1));
    }
    EXPECT_EQ(cipher->m_lengths.size(), 2u);
    EXPECT_EQ(cipher.use_count(), 4);
}

TEST(kyNetLink, hasASharedPointerOnlyWhenOwnedByOne)
{
    const auto link = std::make_shared<PlainLink>();
    EXPECT_EQ(link->getSharedPtr(), link);

    PlainLink copy(*link);
    EXPECT_THROW(copy.getSharedPtr(), std::bad_weak_ptr);
    copy = *link;
    EXPECT_THROW(copy.getSharedPtr(), std::bad_weak_ptr);

    const auto owned = std::make_shared<PlainLink>(copy);
    EXPECT_EQ(owned->getSharedPtr(), owned);
    *owned = *link;
    EXPECT_EQ(owned->getSharedPtr(), owned);
}

TEST(kyNetLink, pinsItsHandleByDefault)
{
    PlainLink link;
    kyNetLinkPin pin(link);
    EXPECT_TRUE(pin.isPinned());
    EXPECT_EQ(pin.getHandle(), 77u);
    const kyNetLinkPin moved(std::move(pin));
    EXPECT_TRUE(moved.isPinned());
    EXPECT_FALSE(pin.isPinned());
    EXPECT_EQ(moved.getHandle(), 77u);
}
