#include <NetBase/receivers/kyNetUnbundleReceiver.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <queue>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <NetBase/receivers/kyNetLinkReceiver.h>
#include <tests/receivers/kyTestTap.h>
#include <tests/support/kyTestChains.h>

using kyTest::Buffer;
using kyTest::failureOf;
using kyTest::GivingReceiver;
using kyTest::makeBuffer;
using kyTest::messageOf;
using kyTest::recvFrom;

static_assert(std::is_copy_constructible_v<kyNetUnbundleReceiver> &&
              std::is_move_constructible_v<kyNetUnbundleReceiver> &&
              std::is_copy_assignable_v<kyNetUnbundleReceiver> &&
              std::is_move_assignable_v<kyNetUnbundleReceiver>);

namespace {

const char* const s_invalid = "Received invalid bundle. Possibly stream is out of sync.";

/// An entry as it stands in a bundle; the header may lie about the size.
std::string makeEntry(const std::string& data, std::uint32_t claimed,
                      kyNetMessageType type = kyNetMessageType::StreamData)
{
    const kyNetHeader header{claimed, claimed, 7, static_cast<std::uint8_t>(type), 0, 1, 2};
    return std::string(reinterpret_cast<const char*>(&header), sizeof header) + data;
}
std::string makeEntry(const std::string& data)
{
    return makeEntry(data, static_cast<std::uint32_t>(data.size()));
}

Buffer makeBundle(const std::string& entries)
{
    return makeBuffer(entries, 1, 2, kyNetMessageType::Bundle);
}

struct Fixture
{
    std::string recv() { return recvFrom(*receiver); }

    std::shared_ptr<GivingReceiver> source = std::make_shared<GivingReceiver>();
    std::shared_ptr<kyNetReceiver> receiver = kyNetUnbundleReceiver::create(source);
};

} // namespace

TEST(kyNetUnbundleReceiver, bundleOfThreeIsThreeMessagesFromOneRead)
{
    Fixture f;
    f.source->given.push(makeBundle(makeEntry("a") + makeEntry("bb") + makeEntry("ccc")));
    f.source->given.push(makeBuffer("next"));
    EXPECT_EQ(f.recv(), "a");
    EXPECT_EQ(f.source->given.size(), 1u);
    EXPECT_EQ(f.recv(), "bb");
    EXPECT_EQ(f.recv(), "ccc");
    EXPECT_EQ(f.source->given.size(), 1u);
    EXPECT_EQ(f.recv(), "next");
}

TEST(kyNetUnbundleReceiver, otherBuffersPassAsTheyAre)
{
    Fixture f;
    for (const int type : {0, 1, 2, 4, 255}) {
        const Buffer given = makeBuffer(makeEntry("x"), 0, 0, static_cast<kyNetMessageType>(type));
        f.source->given.push(given);
        Buffer received;
        f.receiver->recv(received);
        EXPECT_EQ(received, given);
    }
}

TEST(kyNetUnbundleReceiver, messagesHaveTheirOwnHeaders)
{
    Fixture f;
    kyTest::soilPool();
    std::queue<Buffer> queue;
    for (int i = 0; i < 2; ++i) {
        Buffer message = makeBuffer("m", 3, 4, kyNetMessageType::Message);
        message->setSequence(65535 + i);
        message->setCompression(static_cast<kyNetCompression>(i), 99);
        queue.push(message);
    }
    Buffer bundle;
    ASSERT_TRUE(kyNetBuffer::tryBundle(queue, bundle));
    f.source->given.push(bundle);
    for (int i = 0; i < 2; ++i) {
        Buffer message;
        f.receiver->recv(message);
        EXPECT_EQ(message->getSource(), 3u);
        EXPECT_EQ(message->getDestination(), 4u);
        EXPECT_EQ(message->getType(), kyNetMessageType::Message);
        EXPECT_EQ(message->getSequence(), i == 0 ? 65535 : 0);
        EXPECT_EQ(message->getCompression(), static_cast<kyNetCompression>(i));
        EXPECT_EQ(message->getOriginalDataSize(), 99u);
        EXPECT_EQ(message->getSendMode(), kyNetBufferSendMode::Automatic);
    }
}

TEST(kyNetUnbundleReceiver, emptyBundlesAreSkipped)
{
    Fixture f;
    f.source->given.push(makeBundle(""));
    f.source->given.push(makeBundle(""));
    f.source->given.push(makeBundle(makeEntry("a")));
    f.source->given.push(makeBundle(""));
    f.source->given.push(makeBuffer("b"));
    f.source->given.push(makeBundle(""));
    EXPECT_EQ(f.recv(), "a");
    EXPECT_EQ(f.recv(), "b");
    EXPECT_THROW(f.recv(), kyConnectionClosed);
}

TEST(kyNetUnbundleReceiver, emptyEntriesAreMessages)
{
    Fixture f;
    f.source->given.push(makeBundle(makeEntry("") + makeEntry("x") + makeEntry("")));
    EXPECT_EQ(f.recv(), "");
    EXPECT_EQ(f.recv(), "x");
    EXPECT_EQ(f.recv(), "");
}

TEST(kyNetUnbundleReceiver, nothingOfAnInvalidBundleIsDeliveredAndTheNextBufferIs)
{
    Fixture f;
    const std::string good = makeEntry("good");
    const std::vector<std::string> bundles{
        good + makeEntry("", 1),               // one byte past the end
        good + makeEntry("abc", 4),            // the same with data
        good + makeEntry("", 0xffffffff),      // the largest size
        good + makeEntry("", 0xffffffff - 19), // with its header zero in 32 bits
        good + makeEntry("").substr(0, 19),    // half a header
        good + "x",                            // one byte of a header
        makeEntry("", 131602),                 // more than there is
        makeEntry("abc", 2),                   // one byte left over
        makeEntry("", static_cast<std::uint32_t>(good.size()) + 1) + good, // swallows its neighbour
    };
    for (const std::string& bundle : bundles) {
        f.source->given.push(makeBundle(bundle));
        f.source->given.push(makeBuffer("next"));
        EXPECT_EQ(failureOf(*f.receiver), s_invalid);
        EXPECT_EQ(f.recv(), "next");
    }
}

TEST(kyNetUnbundleReceiver, everySizeOfAnEntryButTheRightOneIsRefused)
{
    constexpr std::uint32_t s_capacity = 131602;
    Fixture f;
    const std::vector<std::uint32_t> offsets{0, 21, 62}; // Of the entries' sizes.
    for (const std::uint32_t size : {0u, 1u, 2u, 19u, 20u, 21u, 22u, 61u, 62u, 63u, s_capacity - 20,
                                     s_capacity - 19, s_capacity, s_capacity + 1, 0x7fffffffu,
                                     0x80000000u, 0xffffffebu, 0xffffffecu, 0xffffffffu}) {
        for (const std::uint32_t offset : offsets) {
            const Buffer bundle =
                makeBundle(makeEntry("a") + makeEntry(std::string(21, 'b')) + makeEntry("cc"));
            std::uint32_t right = 0;
            std::memcpy(&right, bundle->getData() + offset, sizeof right);
            if (size == right) {
                continue;
            }
            std::memcpy(bundle->getData() + offset, &size, sizeof size);
            f.source->given.push(bundle);
            EXPECT_EQ(failureOf(*f.receiver), s_invalid) << offset << ": " << size;
        }
    }
    f.source->given.push(makeBundle(makeEntry("good")));
    EXPECT_EQ(f.recv(), "good");
}

TEST(kyNetUnbundleReceiver, bundleBeyondTheCapacityIsRefused)
{
    Fixture f;
    const Buffer bundle = makeBundle(makeEntry("a"));
    bundle->setDataSize(kyNetBuffer::getCapacity() + 1);
    f.source->given.push(bundle);
    EXPECT_EQ(failureOf(*f.receiver), s_invalid);
}

TEST(kyNetUnbundleReceiver, fullBundleIsOpened)
{
    Fixture f;
    const std::string data(kyNetBuffer::getCapacity() - 20, 'x');
    f.source->given.push(makeBundle(makeEntry(data)));
    EXPECT_EQ(f.recv(), data);
}

TEST(kyNetUnbundleReceiver, bundleOfEmptyEntriesIsOpened)
{
    Fixture f;
    std::string entries;
    for (int i = 0; i < 6580; ++i) { // As many as there is room for.
        entries += makeEntry("");
    }
    f.source->given.push(makeBundle(entries));
    for (int i = 0; i < 6580; ++i) {
        EXPECT_EQ(f.recv(), "");
    }
    EXPECT_THROW(f.recv(), kyConnectionClosed);
}

TEST(kyNetUnbundleReceiver, entryThatCallsItselfABundleIsNotOpened)
{
    Fixture f;
    const std::string inner = makeEntry("inner");
    f.source->given.push(makeBundle(
        makeEntry(inner, static_cast<std::uint32_t>(inner.size()), kyNetMessageType::Bundle)));
    EXPECT_EQ(f.recv(), inner);
}

TEST(kyNetUnbundleReceiver, failureOfTheSourcePassesThrough)
{
    Fixture f;
    EXPECT_THROW(f.recv(), kyConnectionClosed);
    f.source->given.push(makeBundle(makeEntry("a")));
    EXPECT_EQ(f.recv(), "a");
    EXPECT_THROW(f.recv(), kyConnectionClosed);
}

TEST(kyNetUnbundleReceiver, restIsThatOfAnyReceiverOverItsSource)
{
    Fixture f;
    f.source->affinity = 3;
    f.source->given.push(makeBundle(makeEntry("a") + makeEntry("b")));
    EXPECT_EQ(f.receiver->getNodeAffinity(), 3);
    EXPECT_EQ(f.receiver->getLinkName(), "unknown");
    EXPECT_TRUE(f.receiver->isReadable());
    EXPECT_EQ(kyTest::recvAvailableFrom(*f.receiver), "a ");
    EXPECT_EQ(messageOf([&] { f.receiver->addToRecvQueue(makeBuffer("x")); }),
              "Adding buffer to queue not supported by this receiver");
    const auto link = std::make_shared<kyTest::KeepingLink>();
    EXPECT_EQ(kyNetUnbundleReceiver::create(kyNetLinkReceiver::create(link))->getLinks(),
              std::vector<std::shared_ptr<kyNetLink>>{link});
}

TEST(kyNetUnbundleReceiver, copyAndMovedHaveTheirOwnQueueOfTheSameBuffers)
{
    Fixture f;
    f.source->given.push(makeBundle(makeEntry("a") + makeEntry("b")));
    EXPECT_EQ(f.recv(), "a");
    auto& original = dynamic_cast<kyNetUnbundleReceiver&>(*f.receiver);
    kyNetUnbundleReceiver copy = original;
    EXPECT_EQ(recvFrom(copy), "b");
    copy = original;
    EXPECT_EQ(recvFrom(copy), "b");
    kyNetUnbundleReceiver moved = std::move(original);
    EXPECT_EQ(recvFrom(moved), "b");
    f.source->given.push(makeBuffer("c"));
    copy = std::move(moved);
    EXPECT_EQ(recvFrom(copy), "c");
}

TEST(kyNetUnbundleReceiver, hostileBundleFromARealPeerIsRefused)
{
    const auto [near, far] = kyTest::makeLinks();
    const auto receiver = kyNetUnbundleReceiver::create(kyNetLinkReceiver::create(near));
    far->send(makeBundle(makeEntry("good") + makeEntry("", 0xffffffff)));
    far->send(makeBundle(makeEntry("a") + makeEntry("b")));
    EXPECT_EQ(failureOf(*receiver), s_invalid);
    EXPECT_EQ(recvFrom(*receiver), "a");
    EXPECT_EQ(recvFrom(*receiver), "b");
}
