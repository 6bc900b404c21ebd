#include <apps/common/NodeAddress.h>

#include <string>

#include <gtest/gtest.h>

#include <NetBase/buffers/kyNetError.h>

TEST(NodeAddress, readsHostAndPort)
{
    EXPECT_EQ(NodeAddress::parse("node7:4000").toString(), "node7:4000");
    EXPECT_EQ(NodeAddress::parse("node7").toString(), "node7:8889");
    EXPECT_EQ(NodeAddress::parse("node7:").toString(), "node7:8889");
    EXPECT_EQ(NodeAddress::parse("10.0.0.5:1").toString(), "10.0.0.5:1");
    EXPECT_EQ(NodeAddress::parse("10.0.0.5:65535").toString(), "10.0.0.5:65535");
}

TEST(NodeAddress, readsIPv6WithAndWithoutBrackets)
{
    EXPECT_EQ(NodeAddress::parse("[::1]:4000").toString(), "[::1]:4000");
    EXPECT_EQ(NodeAddress::parse("[::1]").host, "::1");
    EXPECT_EQ(NodeAddress::parse("fe80::1").toString(), "[fe80::1]:8889");
}

TEST(NodeAddress, textThatIsNoAddressIsRefusedByName)
{
    for (const std::string text :
         {"", " ", ":", ":4000", "node7:0", "node7:65536", "[::1", "[]",
          "node7:99999999999999999999", "node 7", "[::1]x", "::x", "a:b:c"}) {
        try {
            NodeAddress::parse(text);
            ADD_FAILURE() << text;
        } catch (const kyNetError& e) {
            EXPECT_EQ(std::string(e.what()), "'" + text + "' is no HOST[:PORT]");
        }
    }
}
