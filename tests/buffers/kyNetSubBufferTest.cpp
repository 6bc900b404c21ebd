#include <NetBase/buffers/kyNetSubBuffer.h>

#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include <gtest/gtest.h>

namespace {

/// A buffer whose data holds one message of three bytes, at an odd address.
std::shared_ptr<kyNetBuffer> makeOwner()
{
    auto owner = std::make_shared<kyNetBuffer>();
    *owner->getBuffer() = kyNetHeader{24, 25, 26, 3, 0, 27, 28};
    const kyNetHeader header = {3, 9, 65000, 2, 0, 77, 88};
    std::memcpy(owner->getData() + 1, &header, sizeof header);
    std::memcpy(owner->getData() + 21, "abc", 3);
    return owner;
}

kyNetHeader* headerIn(const std::shared_ptr<kyNetBuffer>& owner)
{
    return reinterpret_cast<kyNetHeader*>(owner->getData() + 1);
}

kyNetSubBuffer viewOf(const std::shared_ptr<kyNetBuffer>& owner)
{
    return {owner, headerIn(owner), owner->getData() + 21};
}

} // namespace

TEST(kyNetSubBuffer, readsItsOwnHeader)
{
    const std::shared_ptr<kyNetBuffer> owner = makeOwner();
    kyNetSubBuffer view = viewOf(owner);
    EXPECT_EQ(std::string(view.getData(), 3), "abc");
    EXPECT_EQ(view.getDataSize(), 3U);
    EXPECT_EQ(view.getOriginalDataSize(), 9U);
    EXPECT_EQ(view.getSequence(), 65000);
    EXPECT_EQ(view.getType(), kyNetMessageType::ImageData);
    EXPECT_EQ(view.getCompression(), kyNetCompression::None);
    EXPECT_EQ(view.getSource(), 77U);
    EXPECT_EQ(view.getDestination(), 88U);
    EXPECT_FALSE(view.isMulticast());
    EXPECT_EQ(view.getCompressedDataSize(), 9U);

    headerIn(owner)->destination = 0;
    headerIn(owner)->compression = 2;
    EXPECT_TRUE(view.isMulticast());
    EXPECT_EQ(view.getCompression(), kyNetCompression::Standard);
    EXPECT_EQ(view.getCompressedDataSize(), 3U);
}

TEST(kyNetSubBuffer, writesItsOwnHeader)
{
    const std::shared_ptr<kyNetBuffer> owner = makeOwner();
    kyNetSubBuffer view = viewOf(owner);
    view.setDataSize(0x500000002);
    view.getData()[0] = 'x';
    EXPECT_EQ(view.getDataSize(), 2U);
    const std::uint32_t written = headerIn(owner)->dataSize;
    EXPECT_EQ(written, 2U);
    EXPECT_EQ(owner->getData()[21], 'x');
    EXPECT_EQ(owner->getDataSize(), 24U);
}

TEST(kyNetSubBuffer, keepsItsBufferAlive)
{
    std::shared_ptr<kyNetBuffer> owner = makeOwner();
    const std::weak_ptr<kyNetBuffer> observed = owner;
    {
        kyNetSubBuffer view = viewOf(owner);
        owner.reset();
        const kyNetSubBuffer copy = view;
        kyNetSubBuffer moved = std::move(view);
        kyNetSubBuffer assigned = copy;
        assigned = std::move(moved);
        EXPECT_EQ(std::string(assigned.getData(), 3), "abc");
        EXPECT_EQ(copy.getData(), assigned.getData());
        EXPECT_EQ(observed.use_count(), 2);
    }
    EXPECT_TRUE(observed.expired());
}

TEST(kyNetSubBuffer, copiesLookAtTheSameMessage)
{
    const std::shared_ptr<kyNetBuffer> owner = makeOwner();
    kyNetSubBuffer view = viewOf(owner);
    kyNetSubBuffer copy = viewOf(makeOwner());
    copy = view;
    copy.setDataSize(1);
    EXPECT_EQ(view.getDataSize(), 1U);
}
