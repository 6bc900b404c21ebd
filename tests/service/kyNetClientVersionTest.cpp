#include <NetBase/service/kyNetClientVersion.h>

#include <string>

#include <gtest/gtest.h>

TEST(kyNetClientVersion, decimalVersionStaysAsItIs)
{
    EXPECT_EQ(kyNetClientVersion("9.5").getText(), "9.5");
    EXPECT_EQ(kyNetClientVersion("").getText(), "");
    EXPECT_EQ(kyNetClientVersion("new").getText(), "new");
}

TEST(kyNetClientVersion, serviceReleaseIsDecimal)
{
    EXPECT_EQ(kyNetClientVersion("SR1").getText(), "8.5");
    EXPECT_EQ(kyNetClientVersion("SR17").getText(), "8.57");
    EXPECT_EQ(kyNetClientVersion("SR1.SP").getText(), "8.5");
    EXPECT_EQ(kyNetClientVersion("SR1.SP2").getText(), "8.52");
    EXPECT_EQ(kyNetClientVersion("SR1.SP004").getText(), "8.5004");
    EXPECT_EQ(kyNetClientVersion("SR1_SP2").getText(), "8.52");
    EXPECT_EQ(kyNetClientVersion("SR1 SP2").getText(), "8.52");
    EXPECT_EQ(kyNetClientVersion("SR13SP2").getText(), "8.52");
}

TEST(kyNetClientVersion, whatIsNoServiceReleaseStaysAsItIs)
{
    for (const char* text :
         {"SR", "SR2", " SR1", "SR1 ", "SR1.", "SR1.S", "SR1SP2", "SR1.SP2a", "SR1..SP2", "SR1.sp2",
          "sr1", "SR1.SP-2", "SR1\nSP2", "SR1\rSP2", "SR1.SP2\n", "SR1.SP2.SP3", "SR11.SP2"}) {
        EXPECT_EQ(kyNetClientVersion(text).getText(), text);
    }
    const std::string withZero("SR1\0", 4);
    EXPECT_EQ(kyNetClientVersion(withZero).getText(), withZero);
}

TEST(kyNetClientVersion, newerIsWhatIsGreaterAsANumber)
{
    EXPECT_TRUE(kyNetClientVersion("11.1").isNewerThan("11.0"));
    EXPECT_TRUE(kyNetClientVersion("11.00001").isNewerThan("11.0"));
    EXPECT_TRUE(kyNetClientVersion("11.10").isNewerThan("11.09"));
    EXPECT_FALSE(kyNetClientVersion("11.0").isNewerThan("11.0"));
    EXPECT_FALSE(kyNetClientVersion("11").isNewerThan("11.0"));
    EXPECT_FALSE(kyNetClientVersion("9.9").isNewerThan("11.0"));
    EXPECT_FALSE(kyNetClientVersion("SR1.SP2").isNewerThan("11.0"));
    EXPECT_FALSE(kyNetClientVersion("-12").isNewerThan("11.0"));
    EXPECT_TRUE(kyNetClientVersion(" 12 and more").isNewerThan("11.0"));
    EXPECT_TRUE(kyNetClientVersion("0x10").isNewerThan("11.0"));
}

TEST(kyNetClientVersion, textWithoutANumberIsOlderThanEverything)
{
    for (const char* text : {"", "new", "/usr/bin", "../../12.0", "SR1SP2", "nan"}) {
        const kyNetClientVersion version(text);
        EXPECT_FALSE(version.isNewerThan("11.0")) << text;
        EXPECT_FALSE(version.tellsDisplay()) << text;
        EXPECT_FALSE(version.tellsBookingId()) << text;
        EXPECT_FALSE(version.tellsStereo()) << text;
    }
}

TEST(kyNetClientVersion, megabyteOfDigitsIsInfinite)
{
    EXPECT_TRUE(kyNetClientVersion(std::string(1 << 20, '9')).isNewerThan("11.0"));
    EXPECT_FALSE(kyNetClientVersion("SR1" + std::string(1 << 20, '9')).isNewerThan("11.0"));
    EXPECT_FALSE(kyNetClientVersion("0." + std::string(1 << 20, '9')).isNewerThan("11.0"));
    EXPECT_EQ(kyNetClientVersion("SR1.SP" + std::string(1 << 20, '7')).getText(),
              "8.5" + std::string(1 << 20, '7'));
}

TEST(kyNetClientVersion, eachSwitchHasItsFirstVersion)
{
    EXPECT_FALSE(kyNetClientVersion("8.5").tellsDisplay());
    EXPECT_FALSE(kyNetClientVersion("8.9998").tellsDisplay());
    EXPECT_TRUE(kyNetClientVersion("8.99995").tellsDisplay()); // within the tolerance
    EXPECT_TRUE(kyNetClientVersion("9.0").tellsDisplay());

    EXPECT_FALSE(kyNetClientVersion("9.1").tellsBookingId());
    EXPECT_FALSE(kyNetClientVersion("9.1998").tellsBookingId());
    EXPECT_TRUE(kyNetClientVersion("9.2").tellsBookingId());

    EXPECT_FALSE(kyNetClientVersion("9.2").tellsStereo());
    EXPECT_FALSE(kyNetClientVersion("9.9998").tellsStereo());
    EXPECT_TRUE(kyNetClientVersion("10.0").tellsStereo());
    EXPECT_TRUE(kyNetClientVersion("10").tellsStereo());
}
