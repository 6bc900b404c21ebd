#include <Utils/kyNumber.h>

#include <clocale>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <random>
#include <string>

#include <QByteArray>
#include <gtest/gtest.h>

TEST(kyNumber, toDoubleFollowsTheRulesOfTheCLibrary)
{
    for (const char* text : {"",
                             "0",
                             "9",
                             "9.0",
                             "8.52",
                             "10.25",
                             " 9.5",
                             "\t\n\v\f\r 9.5",
                             "+9.5",
                             "-9.5",
                             "+-9.5",
                             "-+9.5",
                             "--9.5",
                             "- 9.5",
                             ".5",
                             "5.",
                             ".",
                             "-.",
                             "1e3",
                             "1e+3",
                             "1E-3",
                             "1e",
                             "1e+",
                             "e5",
                             "9.5abc",
                             "abc",
                             "SR1",
                             "8.5.2",
                             "9,5",
                             "0x10",
                             "0X1p3",
                             "0x",
                             "0xg",
                             "-0x1.8p1",
                             "inf",
                             "-INFINITY",
                             "infinit",
                             "1e400",
                             "-1e400",
                             "1e-400",
                             "-1e-400",
                             "0.0000001e999",
                             "10000000e-999",
                             "0e999",
                             "0e-999",
                             "1e99999999999999999999",
                             "1e-99999999999999999999",
                             "0x1p5000",
                             "0x1p-5000",
                             "1.7976931348623157e308",
                             "4.9e-324",
                             "1_000",
                             "1 2"}) {
        // What atof is by the standard; some libraries have an atof that knows less.
        const double expected = std::strtod(text, nullptr);
        const double actual = kyNumber::toDouble(text);
        EXPECT_EQ(actual, expected) << '"' << text << '"';
    }
    EXPECT_TRUE(std::isnan(kyNumber::toDouble("nan")));
    EXPECT_TRUE(std::isnan(kyNumber::toDouble("-nan")));
}

TEST(kyNumber, toDoubleAgreesWithTheCLibraryOnAnyText)
{
    const std::string alphabet = "0123456789.eE+-xpnaif ";
    std::mt19937 random(1);
    for (int round = 0; round < 200000; ++round) {
        std::string text(random() % 10, ' ');
        for (char& character : text) {
            character = alphabet[random() % alphabet.size()];
        }
        const double expected = std::strtod(text.c_str(), nullptr);
        const double actual = kyNumber::toDouble(text);
        if (std::isnan(expected)) {
            EXPECT_TRUE(std::isnan(actual)) << '"' << text << '"';
        } else {
            EXPECT_EQ(actual, expected) << '"' << text << '"';
        }
    }
}

TEST(kyNumber, hugeTextsAreNumbersToo)
{
    const std::string digits(1 << 20, '9');
    EXPECT_EQ(kyNumber::toDouble(digits), std::numeric_limits<double>::infinity());
    EXPECT_EQ(kyNumber::toDouble("-" + digits), -std::numeric_limits<double>::infinity());
    EXPECT_EQ(kyNumber::toDouble("0." + std::string(1 << 20, '0') + "1"), 0.0);
    EXPECT_EQ(kyNumber::toDouble("9." + digits), 10.0);
    EXPECT_EQ(kyNumber::toDouble(std::string(1 << 20, ' ') + "7"), 7.0);
    EXPECT_EQ(kyNumber::toDouble(std::string(1 << 20, '0') + "7"), 7.0);
    EXPECT_EQ(kyNumber::toInt32(digits), std::numeric_limits<std::int32_t>::max());
    EXPECT_EQ(kyNumber::toInt32("-" + digits), std::numeric_limits<std::int32_t>::min());
    EXPECT_EQ(kyNumber::toInt32(std::string(1 << 20, '0') + "7"), 7);
}

TEST(kyNumber, aZeroByteEndsANumber)
{
    EXPECT_EQ(kyNumber::toDouble(std::string_view("1\0"
                                                  "2",
                                                  3)),
              1.0);
    EXPECT_EQ(kyNumber::toInt32(std::string_view("1\0"
                                                 "2",
                                                 3)),
              1);
}

TEST(kyNumber, toInt32FollowsTheRulesOfTheCLibrary)
{
    for (const char* text :
         {"",     "0",          "7",           "-7",  "+7",  " 7",  "\t\n\v\f\r 7", "7.9",
          "7abc", "abc",        "--7",         "+-7", "-+7", "- 7", "007",          "0x10",
          "1e3",  "2147483647", "-2147483648", "7 8", "+",   "-"}) {
        EXPECT_EQ(kyNumber::toInt32(text), std::atoi(text)) << '"' << text << '"';
    }
}

TEST(kyNumber, toInt32TakesTheNearestValueInRange)
{
    EXPECT_EQ(kyNumber::toInt32("2147483648"), 2147483647);
    EXPECT_EQ(kyNumber::toInt32("5000000000"), 2147483647);
    EXPECT_EQ(kyNumber::toInt32("99999999999999999999"), 2147483647);
    EXPECT_EQ(kyNumber::toInt32("-2147483649"), std::numeric_limits<std::int32_t>::min());
    EXPECT_EQ(kyNumber::toInt32("-99999999999999999999"), std::numeric_limits<std::int32_t>::min());
}

TEST(kyNumber, toFixedTextHasSixDecimals)
{
    EXPECT_EQ(kyNumber::toFixedText(12.5), "12.500000");
    EXPECT_EQ(kyNumber::toFixedText(0.5), "0.500000");
    EXPECT_EQ(kyNumber::toFixedText(0), "0.000000");
    for (const double value :
         {-0.0, -1.0, 0.0000004, 0.0000005, 0.0000015, 99.9999999, 1e15, 1e300, -1e-300,
          static_cast<double>(std::numeric_limits<float>::max()),
          std::numeric_limits<double>::max(), std::numeric_limits<double>::lowest(),
          std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity(),
          std::numeric_limits<double>::quiet_NaN()}) {
        char expected[400];
        std::snprintf(expected, sizeof(expected), "%f", value);
        EXPECT_EQ(kyNumber::toFixedText(value), expected);
    }
}

TEST(kyNumber, localeOfTheProcessChangesNothing)
{
    qputenv("LOCPATH", KY_TEST_LOCALES);
    ASSERT_TRUE(std::setlocale(LC_NUMERIC, "de_DE.UTF-8") != nullptr ||
                std::setlocale(LC_NUMERIC, "German_Germany") != nullptr);
    EXPECT_STREQ(std::localeconv()->decimal_point, ",");
    EXPECT_EQ(kyNumber::toDouble("9.5"), 9.5);
    EXPECT_EQ(kyNumber::toDouble("9,5"), 9.0);
    EXPECT_EQ(kyNumber::toFixedText(9.5), "9.500000");
    std::setlocale(LC_NUMERIC, "C");
    qunsetenv("LOCPATH");
}
