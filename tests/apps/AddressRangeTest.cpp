#include <apps/TALOClusterService/AddressRange.h>

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <NetBase/buffers/kyNetError.h>

namespace {

bool isLoopback(const std::string& address)
{
    const std::vector<AddressRange> ranges = AddressRange::loopback();
    return std::any_of(ranges.begin(), ranges.end(),
                       [&](const AddressRange& range) { return range.contains(address); });
}

} // namespace

TEST(AddressRange, addressAloneIsARangeOfOne)
{
    const AddressRange range("10.0.0.5");
    EXPECT_TRUE(range.contains("10.0.0.5"));
    EXPECT_FALSE(range.contains("10.0.0.4"));
    EXPECT_FALSE(range.contains("10.0.0.6"));
    EXPECT_TRUE(AddressRange("fe80::1").contains("fe80:0:0::1"));
    EXPECT_FALSE(AddressRange("fe80::1").contains("fe80::2"));
}

TEST(AddressRange, rangeEndsAtEachBit)
{
    for (unsigned bits = 1; bits <= 32; ++bits) {
        const AddressRange range("255.255.255.255/" + std::to_string(bits));
        // The last bit of the range decides; what lies behind it does not.
        const unsigned last = 0xffffffffU ^ (1U << (32 - bits));
        const unsigned behind = 0xffffffffU << (32 - bits);
        const auto text = [](unsigned value) {
            return std::to_string(value >> 24) + "." + std::to_string((value >> 16) & 255) + "." +
                   std::to_string((value >> 8) & 255) + "." + std::to_string(value & 255);
        };
        EXPECT_FALSE(range.contains(text(last))) << bits;
        EXPECT_TRUE(range.contains(text(behind))) << bits;
    }
}

TEST(AddressRange, noBitsAreEveryAddressOfTheFamily)
{
    EXPECT_TRUE(AddressRange("0.0.0.0/0").contains("192.168.7.4"));
    EXPECT_FALSE(AddressRange("0.0.0.0/0").contains("::1"));
    EXPECT_TRUE(AddressRange("::/0").contains("fd00::7"));
    EXPECT_FALSE(AddressRange("::/0").contains("10.0.0.5"));
}

TEST(AddressRange, ipv6RangeEndsInsideAByte)
{
    const AddressRange range("fd00:abc0::/28");
    EXPECT_TRUE(range.contains("fd00:abcf::1"));
    EXPECT_FALSE(range.contains("fd00:abd0::1"));
    EXPECT_TRUE(AddressRange("::1/128").contains("::1"));
    EXPECT_FALSE(AddressRange("::1/128").contains("::2"));
}

TEST(AddressRange, bitsBehindTheRangeDoNotMatter)
{
    EXPECT_TRUE(AddressRange("10.1.2.3/8").contains("10.200.0.1"));
}

TEST(AddressRange, zoneIsLeftOut)
{
    EXPECT_TRUE(AddressRange("fe80::/10").contains("fe80::1%2"));
}

TEST(AddressRange, whatIsNoAddressIsInNoRange)
{
    for (const char* text : {"", "node7", "10.0.0", "10.0.0.5.6", "10.0.0.5/8", "%2"}) {
        EXPECT_FALSE(AddressRange("0.0.0.0/0").contains(text)) << text;
        EXPECT_FALSE(AddressRange("::/0").contains(text)) << text;
    }
}

TEST(AddressRange, loopbackIsTheMachineItself)
{
    EXPECT_TRUE(isLoopback("127.0.0.1"));
    EXPECT_TRUE(isLoopback("127.255.255.255"));
    EXPECT_TRUE(isLoopback("::1"));
    EXPECT_FALSE(isLoopback("126.255.255.255"));
    EXPECT_FALSE(isLoopback("128.0.0.0"));
    EXPECT_FALSE(isLoopback("0.0.0.0"));
    EXPECT_FALSE(isLoopback("::2"));
    EXPECT_FALSE(isLoopback("::"));
}

TEST(AddressRange, textThatIsNoRangeIsRefusedByName)
{
    for (const std::string text :
         {"", "/", "/8", "node7", "node7/8", "10.0.0.0/", "10.0.0.0/33", "10.0.0.0/-1",
          "10.0.0.0/8 ", "10.0.0.0/8/8", "10.0.0.0/99999999999999999999", "::/129", "10.0.0/8"}) {
        try {
            const AddressRange range(text);
            ADD_FAILURE() << text;
        } catch (const kyNetError& e) {
            EXPECT_EQ(std::string(e.what()), "'" + text + "' is no ADDRESS[/BITS]");
        }
    }
}
