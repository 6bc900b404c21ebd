#include <NetBase/links/kySocketAddress.h>

#include <chrono>
#include <functional>
#include <random>
#include <regex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <NetBase/buffers/kyNetError.h>
#include <NetBase/platform/kyAddresses.h>
#include <tests/support/kyTestSocket.h>

namespace {

struct Split
{
    std::string server;
    int port = 0;

    bool operator==(const Split& other) const
    {
        return server == other.server && port == other.port;
    }
};

std::ostream& operator<<(std::ostream& stream, const Split& split)
{
    return stream << '\'' << split.server << "' port " << split.port;
}

constexpr int s_default = -7;

Split split(const std::string& text)
{
    Split result;
    kySocketAddress::splitServerAndPort(text, result.server, result.port, s_default);
    return result;
}

/// What the two expressions that define the split say.
Split splitByExpressions(const std::string& text)
{
    static const std::regex bracketed(R"(^\s*\[(.+)\](?::(\d*))?\s*$)");
    static const std::regex plain(R"(^\s*([^:\[\]]+)(?::(\d*))?\s*$)");
    Split result{text, s_default};
    std::smatch match;
    if (!std::regex_match(text, match, bracketed) && !std::regex_match(text, match, plain)) {
        return result;
    }
    result.server = match[1];
    if (match[2].matched && match[2].length() > 0) {
        result.port = std::stoi(match[2]);
    }
    return result;
}

kySocketAddress fromRecord(const std::string& record)
{
    std::vector<char> aligned(record.begin(), record.end());
    return kySocketAddress(reinterpret_cast<const sockaddr*>(aligned.data()));
}

std::string failureOf(const std::function<void()>& action)
{
    try {
        action();
    } catch (const kyNetError& error) {
        return error.what();
    }
    return "no failure";
}

using kyTest::makeForeignRecord;
using kyTest::makeIPv4Record;
using kyTest::makeIPv6Record;

} // namespace

TEST(kySocketAddress, splitsNameAndPortWithBlanksAround)
{
    EXPECT_EQ(split("node7:8080"), (Split{"node7", 8080}));
    EXPECT_EQ(split("  node7:8080\t "), (Split{"node7", 8080}));
}

TEST(kySocketAddress, splitsBracketedAddresses)
{
    EXPECT_EQ(split("[::1]:4000"), (Split{"::1", 4000}));
    EXPECT_EQ(split("[::1]"), (Split{"::1", s_default}));
    EXPECT_EQ(split(" [::1]:\n"), (Split{"::1", s_default}));
    EXPECT_EQ(split("[a]b]:1"), (Split{"a]b", 1}));
}

TEST(kySocketAddress, keepsTheDefaultAfterABareColon)
{
    EXPECT_EQ(split("node7:"), (Split{"node7", s_default}));
}

TEST(kySocketAddress, takesABareIPv6AddressWhole)
{
    EXPECT_EQ(split("fe80::1"), (Split{"fe80::1", s_default}));
}

TEST(kySocketAddress, takesTextsOfAnotherFormWhole)
{
    for (const std::string text :
         {"", ":", ":80", "[]", "[]:80", "[", "]", "node7:80x", "node7:-1", "[::1]80", "x[::1]",
          "[::1]x", "node7:8 0", "[a\nb]", "[a\rb]:1"}) {
        EXPECT_EQ(split(text), (Split{text, s_default}));
    }
}

// The blanks in front are skipped, those behind are part of the name: intended.
TEST(kySocketAddress, keepsTrailingBlanksOfAName)
{
    EXPECT_EQ(split(" node7 "), (Split{"node7 ", s_default}));
    EXPECT_EQ(split(" node7 :80 "), (Split{"node7 ", 80}));
    EXPECT_EQ(split("  "), (Split{" ", s_default}));
    EXPECT_EQ(split(" \n:80"), (Split{"\n", 80}));
}

TEST(kySocketAddress, acceptsPortsBeyond65535)
{
    EXPECT_EQ(split("node7:70000"), (Split{"node7", 70000}));
    EXPECT_EQ(kySocketAddress::parsePort("node7:70000", 1), 70000);
    EXPECT_EQ(split("node7:2147483647"), (Split{"node7", 2147483647}));
}

TEST(kySocketAddress, passesOnThatAPortIsBeyondAnyNumber)
{
    EXPECT_THROW(split("node7:2147483648"), std::out_of_range);
    EXPECT_THROW(kySocketAddress::parsePort("[::1]:99999999999", 1), std::out_of_range);
    EXPECT_THROW(kySocketAddress("node7:99999999999", 1), std::out_of_range);
}

TEST(kySocketAddress, givesTheHalvesOfTheSplit)
{
    EXPECT_EQ(kySocketAddress::parseServer(" node7:8080"), "node7");
    EXPECT_EQ(kySocketAddress::parsePort(" node7:8080", 5), 8080);
    EXPECT_EQ(kySocketAddress::parseServer("fe80::1"), "fe80::1");
    EXPECT_EQ(kySocketAddress::parsePort("fe80::1", 5), 5);
}

TEST(kySocketAddress, splitsAsTheTwoExpressionsDo)
{
    const std::string alphabet = "[]::0 9a \t\n\v\f\r";
    std::mt19937 random(20250720);
    std::uniform_int_distribution<std::size_t> letter(0, alphabet.size() - 1);
    std::uniform_int_distribution<int> length(0, 9);
    for (int i = 0; i < 60000; ++i) {
        std::string text(static_cast<std::size_t>(length(random)), ' ');
        for (char& c : text) {
            c = alphabet[letter(random)];
        }
        ASSERT_EQ(split(text), splitByExpressions(text)) << '"' << text << '"';
    }
}

TEST(kySocketAddress, splitsEveryShortTextAsTheTwoExpressionsDo)
{
    const std::string alphabet = "[]:0a \n";
    for (std::size_t length = 0; length <= 5; ++length) {
        std::vector<std::size_t> letters(length, 0);
        for (bool isDone = false; !isDone;) {
            std::string text;
            for (const std::size_t letter : letters) {
                text += alphabet[letter];
            }
            ASSERT_EQ(split(text), splitByExpressions(text)) << '"' << text << '"';
            isDone = true;
            for (std::size_t& letter : letters) {
                letter = (letter + 1) % alphabet.size();
                if (letter != 0) {
                    isDone = false;
                    break;
                }
            }
        }
    }
}

TEST(kySocketAddress, splitsAMegabyteInNoTime)
{
    const std::size_t size = 1 << 20;
    const auto begin = std::chrono::steady_clock::now();
    for (const char letter : {'[', ']', ':', ' ', 'a'}) {
        const std::string text(size, letter);
        const Split whole = split(text);
        EXPECT_EQ(whole.port, s_default);
        EXPECT_EQ(whole.server, letter == ' ' ? " " : text);
    }
    EXPECT_EQ(split(std::string(size, '[') + "]").server, std::string(size - 1, '['));
    EXPECT_EQ(split("[" + std::string(size, ']')).server, std::string(size - 1, ']'));
    EXPECT_EQ(split("a:" + std::string(size, '0') + "7").port, 7);
    EXPECT_THROW(split("a:" + std::string(size, '9')), std::out_of_range);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
}

TEST(kySocketAddress, refusesToResolveAMegabyteOfBrackets)
{
    const std::string host(1 << 20, '[');
    const std::string failure = failureOf([&] { kySocketAddress address(host, 8889); });
    EXPECT_EQ(failure.substr(0, 33), "Unable to get address info for '[");
    EXPECT_GT(failure.size(), host.size());
}

TEST(kySocketAddress, resolvesNumbers)
{
    const kySocketAddress address("127.0.0.1:8080", 1);
    EXPECT_EQ(address.getFamily(), kyAddresses::s_familyIPv4);
    EXPECT_EQ(address.getPort(), 8080);
    EXPECT_EQ(address.getName(), "127.0.0.1");
    EXPECT_EQ(address.getSockAddrSize(), 16u);
    ASSERT_NE(address.getSockAddr(), nullptr);
    EXPECT_EQ(kyAddresses::getFamily(address.getSockAddr()), kyAddresses::s_familyIPv4);
    EXPECT_EQ(address.getSockType(), 1);
    EXPECT_EQ(address.getProtocol(), 0);
    EXPECT_EQ(kySocketAddress("10.0.0.5", 8889).getPort(), 8889);
    EXPECT_EQ(kySocketAddress(std::string("10.0.0.5"), std::string("77")).getPort(), 77);
}

TEST(kySocketAddress, resolvesTheIPv6Loopback)
{
    if (!kyTest::hasIPv6()) {
        GTEST_SKIP() << "no IPv6 here";
    }
    const kySocketAddress address("[::1]:4000", 1);
    EXPECT_EQ(address.getFamily(), kyAddresses::s_familyIPv6);
    EXPECT_EQ(address.getPort(), 4000);
    EXPECT_EQ(address.getName(), "::1");
    EXPECT_EQ(address.getSockAddrSize(), 28u);
}

TEST(kySocketAddress, prefersIPv4)
{
    const kySocketAddress address("localhost", 8889);
    EXPECT_EQ(address.getName(), "127.0.0.1");
    EXPECT_EQ(address.getPort(), 8889);
}

TEST(kySocketAddress, resolvesAnEmptyServerToTheAddressToListenOn)
{
    const kySocketAddress address{std::string(), std::string("8080")};
    EXPECT_EQ(address.getName(), "0.0.0.0");
    EXPECT_EQ(address.getPort(), 8080);
}

TEST(kySocketAddress, resolvesWithoutAPort)
{
    const kySocketAddress address{std::string("127.0.0.1"), std::string()};
    EXPECT_EQ(address.getName(), "127.0.0.1");
    EXPECT_EQ(address.getPort(), 0);
}

TEST(kySocketAddress, saysWhatCannotBeResolvedAndWhy)
{
    const std::string reason = kyAddresses::resolve(nullptr, nullptr).error;
    EXPECT_FALSE(reason.empty());
    EXPECT_EQ(failureOf([] {
                  kySocketAddress{std::string(), std::string()};
              }),
              "Unable to get address info for '' " + reason);

    const std::string unknown = kyAddresses::resolve("no such host", "1").error;
    EXPECT_FALSE(unknown.empty());
    EXPECT_EQ(failureOf([] { kySocketAddress address("no such host", 1); }),
              "Unable to get address info for 'no such host' " + unknown);
}

TEST(kySocketAddress, resolvesOnManyThreadsAtOnce)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([i] {
            EXPECT_EQ(kySocketAddress("127.0.0.1", 1000 + i).getPort(), 1000 + i);
            EXPECT_NE(failureOf([] { kySocketAddress address("no such host", 1); }), "no failure");
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST(kySocketAddress, copiesRecordsOfTheSystem)
{
    const kySocketAddress four = fromRecord(makeIPv4Record("192.168.1.2", 4711));
    EXPECT_EQ(four.getName(), "192.168.1.2");
    EXPECT_EQ(four.getPort(), 4711);
    EXPECT_EQ(four.getSockAddrSize(), 16u);

    const kySocketAddress six = fromRecord(makeIPv6Record("fe80::1", 65535));
    EXPECT_EQ(six.getName(), "fe80::1");
    EXPECT_EQ(six.getPort(), 65535);
    EXPECT_EQ(six.getSockAddrSize(), 28u);
}

TEST(kySocketAddress, refusesRecordsOfAnotherFamily)
{
    EXPECT_EQ(failureOf([] { fromRecord(makeForeignRecord()); }), "Protocol not supported");
}

TEST(kySocketAddress, showsAMappedAddressAsIPv4)
{
    EXPECT_EQ(fromRecord(makeIPv6Record("::ffff:10.0.0.5", 1)).getName(), "10.0.0.5");
    EXPECT_EQ(fromRecord(makeIPv6Record("::1", 1)).getName(), "::1");
    EXPECT_EQ(fromRecord(makeIPv6Record("::", 1)).getName(), "::");
}

// Whatever begins so loses the prefix, also what maps no IPv4 address: intended.
TEST(kySocketAddress, removesTheMappedPrefixFromAnyName)
{
    EXPECT_EQ(fromRecord(makeIPv6Record("0:0:0:0:0:ffff:1:2", 1)).getName(), "0.1.0.2");
    EXPECT_EQ(fromRecord(makeIPv6Record("::ffff:1:2:3", 1)).getName(), "1:2:3");
}

TEST(kySocketAddress, knowsWhatIsOnOneMachine)
{
    const auto areOnOne = [](const char* one, const char* other) {
        const kySocketAddress first = fromRecord(makeIPv6Record(one, 1));
        const kySocketAddress second = fromRecord(makeIPv6Record(other, 2));
        EXPECT_EQ(first.isOnTheMachineOf(second), second.isOnTheMachineOf(first));
        return first.isOnTheMachineOf(second);
    };
    EXPECT_TRUE(areOnOne("::ffff:10.0.0.5", "::ffff:10.0.0.5"));
    EXPECT_FALSE(areOnOne("::ffff:10.0.0.5", "::ffff:10.0.0.50"));
    EXPECT_TRUE(areOnOne("::ffff:127.0.0.1", "::ffff:127.0.1.1"));
    EXPECT_FALSE(areOnOne("::ffff:127.0.0.1", "::ffff:10.0.0.5"));
    EXPECT_FALSE(areOnOne("::ffff:127.0.0.1", "::ffff:126.255.255.255"));
    EXPECT_FALSE(areOnOne("::ffff:12.7.0.1", "::ffff:12.7.0.2"));
    EXPECT_TRUE(areOnOne("::1", "::1"));
    EXPECT_FALSE(areOnOne("::1", "fd00::1"));
    EXPECT_FALSE(areOnOne("fd00::1", "fd00::2"));
}

TEST(kySocketAddress, showsAScopeAsANumber)
{
    EXPECT_EQ(fromRecord(makeIPv6Record("fe80::1", 1, 1)).getName(), "fe80::1%1");
    EXPECT_EQ(fromRecord(makeIPv6Record("fe80::1", 1, 4294967295u)).getName(),
              "fe80::1%4294967295");
}

TEST(kySocketAddress, copiesAndMovesAsAValue)
{
    const kySocketAddress original = fromRecord(makeIPv4Record("192.168.1.2", 4711));
    kySocketAddress copy(original);
    EXPECT_EQ(copy.getName(), original.getName());
    EXPECT_NE(copy.getSockAddr(), original.getSockAddr());

    kySocketAddress moved(std::move(copy));
    EXPECT_EQ(moved.getName(), "192.168.1.2");

    kySocketAddress assigned = fromRecord(makeIPv6Record("::1", 1));
    assigned = moved;
    EXPECT_EQ(assigned.getName(), "192.168.1.2");
    assigned = std::move(moved);
    EXPECT_EQ(assigned.getPort(), 4711);
}

TEST(kySocketAddress, hasNoFamilyAfterAMove)
{
    kySocketAddress address = fromRecord(makeIPv4Record("192.168.1.2", 4711));
    const kySocketAddress taken(std::move(address));
    EXPECT_EQ(address.getFamily(), 0);
    EXPECT_EQ(address.getSockAddr(), nullptr);
    EXPECT_EQ(failureOf([&] { address.getSockAddrSize(); }), "Unsupported protocol");
    EXPECT_EQ(failureOf([&] { address.getPort(); }), "Unsupported protocol");
    EXPECT_EQ(failureOf([&] { address.getName(); }), "Unsupported protocol");
}
