#include <NetBase/serialization/kyNetSerializer.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <deque>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <NetBase/buffers/kyConnectionClosed.h>
#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/buffers/kyNetBufferPool.h>
#include <tests/support/kyTestChains.h>
#include <tests/support/kyTestLongText.h>

using kyTest::Buffer;
using kyTest::dataOf;
using kyTest::makeBuffer;
using kyTest::messageOf;
using kyTest::toHex;

namespace {

constexpr std::uint64_t s_capacity = 131602;

/// Keeps what it sends, and reads what it is given; then it is closed.
class Serializer : public kyNetSerializer
{
public:
    explicit Serializer(int sendThreshold = 0) : kyNetSerializer(sendThreshold) {}

    using kyNetSerializer::flushSendBuffer;
    using kyNetSerializer::isReadable;

    void give(const std::string& data) { m_incoming.push_back(makeBuffer(data)); }
    void giveNothing() { m_incoming.push_back(nullptr); }
    void giveCut(const std::string& data, std::size_t first, std::size_t second)
    {
        give(data.substr(0, first));
        give(data.substr(first, second - first));
        give(data.substr(second));
    }
    std::size_t getIncomingCount() const { return m_incoming.size(); }

    const std::vector<Buffer>& getSent() const { return m_sent; }
    std::string getSentData() const
    {
        std::string data;
        for (const Buffer& buffer : m_sent) {
            data += dataOf(*buffer);
        }
        return data;
    }

    int failingSends = 0;

protected:
    void recvBuffer(Buffer& buffer) override
    {
        if (m_incoming.empty()) {
            throw kyConnectionClosed();
        }
        buffer = std::move(m_incoming.front());
        m_incoming.pop_front();
    }
    void sendBuffer(const Buffer& buffer) override
    {
        if (failingSends > 0) {
            --failingSends;
            throw kyConnectionClosed();
        }
        m_sent.push_back(buffer);
    }

private:
    std::deque<Buffer> m_incoming;
    std::vector<Buffer> m_sent;
};

enum class Color : std::int32_t
{
    Red = 1,
    Blue = -2
};

/// A plain structure.
struct Point
{
    std::int16_t x;
    std::int16_t y;
};

/// A record that writes less than its memory holds.
struct Person
{
    void putValue(kyNetSerializer& out) const { out << name << age; }
    void getValue(kyNetSerializer& in) { in >> name >> age; }

    std::string name;
    std::uint8_t age = 0;
};

/// A record which could be taken for a plain structure.
struct Half
{
    void putValue(kyNetSerializer& out) const { out << static_cast<std::uint8_t>(value / 2); }
    void getValue(kyNetSerializer& in)
    {
        std::uint8_t half = 0;
        in >> half;
        value = half * 2;
    }

    std::int32_t value = 0;
};

/// A value of each kind.
struct Everything
{
    std::int8_t byte = -3;
    char character = 'q';
    bool yes = true;
    bool no = false;
    std::int16_t small = -1234;
    std::uint16_t port = 8889;
    std::int32_t number = -123456789;
    std::uint32_t count = 4000000000u;
    std::int64_t big = -1234567890123456789;
    std::uint64_t bigger = 12345678901234567890u;
    float single = 0.15625f;
    double real = -1.0 / 3;
    Color color = Color::Blue;
    Point point{-5, 7};
    std::array<std::uint8_t, 5> array{1, 2, 3, 4, 5};
    std::uint64_t size = 131072;
    std::string text = "some text";
    std::string empty;
    Person person{"Ada", 36};
    Half half{84};

    void putValue(kyNetSerializer& out) const
    {
        out << byte << character << yes << no << small << port << number << count << big << bigger
            << single << real << color << point << array;
        out.putValueSize(size);
        out << text << empty << person << half;
    }
    void getValue(kyNetSerializer& in)
    {
        in >> byte >> character >> yes >> no >> small >> port >> number >> count >> big >> bigger >>
            single >> real >> color >> point >> array;
        in.getValueSize(size);
        in >> text >> empty >> person >> half;
    }

    static Everything makeOther()
    {
        Everything other;
        Serializer zeros;
        zeros.give(std::string(200, '\0'));
        zeros >> other;
        return other;
    }
};

/// What a serializer with one large buffer makes of the values.
template <class... Values> std::string encode(const Values&... values)
{
    Serializer out;
    (out << ... << values);
    return dataOf(*out.takeSendBuffer());
}

template <class... Values> std::string encodeHex(const Values&... values)
{
    const std::string data = encode(values...);
    return toHex(data.data(), data.size());
}

template <class T, class = void> struct Put : std::false_type
{
};
template <class T>
struct Put<T, std::void_t<decltype(std::declval<Serializer&>().putValue(std::declval<T&>()))>>
    : std::true_type
{
};
template <class T, class = void> struct PutOperator : std::false_type
{
};
template <class T>
struct PutOperator<T, std::void_t<decltype(std::declval<Serializer&>() << std::declval<T&>())>>
    : std::true_type
{
};
template <class T, class = void> struct Get : std::false_type
{
};
template <class T>
struct Get<T, std::void_t<decltype(std::declval<Serializer&>().getValue(std::declval<T&>()))>>
    : std::true_type
{
};
template <class T, class = void> struct GetOperator : std::false_type
{
};
template <class T>
struct GetOperator<T, std::void_t<decltype(std::declval<Serializer&>() >> std::declval<T&>())>>
    : std::true_type
{
};

template <class T> constexpr bool canPut = Put<T>::value&& PutOperator<T>::value;
template <class T> constexpr bool cannotPut = !Put<T>::value && !PutOperator<T>::value;
template <class T> constexpr bool canGet = Get<T>::value&& GetOperator<T>::value;
template <class T> constexpr bool cannotGet = !Get<T>::value && !GetOperator<T>::value;

struct OnlyPuts
{
    void putValue(kyNetSerializer&) const {}
};
struct Empty
{
};
struct NotTrivial
{
    NotTrivial() = default;
    NotTrivial(const NotTrivial&) {}
};

} // namespace

TEST(kyNetSerializer, valuesTravelAsTheirBytesLittleEndian)
{
    EXPECT_EQ(encodeHex(std::int8_t{-2}), "fe");
    EXPECT_EQ(encodeHex('A'), "41");
    EXPECT_EQ(encodeHex(std::int16_t{0x0102}), "02 01");
    EXPECT_EQ(encodeHex(0x01020304), "04 03 02 01");
    EXPECT_EQ(encodeHex(0xfffefdfcu), "fc fd fe ff");
    EXPECT_EQ(encodeHex(std::uint64_t{0x0102030405060708}), "08 07 06 05 04 03 02 01");
    EXPECT_EQ(encodeHex(true, false), "01 00");
    EXPECT_EQ(encodeHex(1.5), "00 00 00 00 00 00 f8 3f");
    EXPECT_EQ(encodeHex(1.5f), "00 00 c0 3f");
    EXPECT_EQ(encodeHex(Color::Blue), "fe ff ff ff");
    EXPECT_EQ(encodeHex(Point{1, -1}), "01 00 ff ff");
    EXPECT_EQ(encodeHex(std::array<std::uint8_t, 3>{7, 8, 9}), "07 08 09");
}

TEST(kyNetSerializer, valuesFollowEachOtherWithoutPadding)
{
    EXPECT_EQ(encodeHex(std::uint8_t{1}, 2, std::uint8_t{3}, 1.5),
              "01 02 00 00 00 03 00 00 00 00 00 00 f8 3f");
}

TEST(kyNetSerializer, sizesTakeEightBytes)
{
    Serializer out;
    out.putValueSize(0x0102030405060708);
    EXPECT_EQ(toHex(*out.takeSendBuffer()), "08 07 06 05 04 03 02 01");

    out.give(std::string("\1\0\0\0\0\0\0\0\0\0\0\0\0\0\0\1", 16));
    EXPECT_EQ(out.getValueSize(), 1u);
    std::uint64_t size = 0;
    out.getValueSize(size);
    EXPECT_EQ(size, std::uint64_t{1} << 56);
}

TEST(kyNetSerializer, everyKindOfTextIsLengthCharactersAndZero)
{
    const std::string expected = "05 00 00 00 74 69 6c 65 00";
    const char* pointer = "tile";
    char array[] = "tile";
    char* changeable = array;
    const char longer[9] = "tile";

    EXPECT_EQ(encodeHex("tile"), expected);
    EXPECT_EQ(encodeHex(pointer), expected);
    EXPECT_EQ(encodeHex(array), expected);
    EXPECT_EQ(encodeHex(changeable), expected);
    EXPECT_EQ(encodeHex(longer), expected);
    EXPECT_EQ(encodeHex(std::string("tile")), expected);

    Serializer out;
    out.putValue("tile");
    out.putValue(pointer);
    out.putValue(array);
    out.putValue(changeable);
    out.putValue(longer);
    out.putValue(std::string("tile"));
    std::string all = expected;
    for (int i = 1; i < 6; ++i) {
        all += " " + expected;
    }
    EXPECT_EQ(toHex(*out.takeSendBuffer()), all);
}

TEST(kyNetSerializer, emptyTextIsLengthOneAndZero)
{
    EXPECT_EQ(encodeHex(""), "01 00 00 00 00");
    EXPECT_EQ(encodeHex(std::string()), "01 00 00 00 00");
}

TEST(kyNetSerializer, nullTextIsEmpty)
{
    EXPECT_EQ(encodeHex(static_cast<const char*>(nullptr)), "01 00 00 00 00");
    EXPECT_EQ(encodeHex(static_cast<char*>(nullptr)), "01 00 00 00 00");
}

TEST(kyNetSerializer, textEndsAtItsFirstZero)
{
    EXPECT_EQ(encodeHex(std::string("ab\0cd", 5)), "03 00 00 00 61 62 00");
}

TEST(kyNetSerializer, recordsWriteAndReadThemselves)
{
    const std::string expected = "04 00 00 00 41 64 61 00 24";
    EXPECT_EQ(encodeHex(Person{"Ada", 36}), expected);
    Serializer serializer;
    serializer.putValue(Person{"Ada", 36});
    EXPECT_EQ(toHex(*serializer.takeSendBuffer()), expected);

    serializer.give(encode(Person{"Ada", 36}, Person{"Grace", 85}));
    Person person;
    serializer.getValue(person);
    EXPECT_EQ(person.name, "Ada");
    EXPECT_EQ(person.age, 36);
    serializer >> person;
    EXPECT_EQ(person.name, "Grace");
    EXPECT_EQ(person.age, 85);
}

TEST(kyNetSerializer, recordsThatLookPlainStillWriteThemselves)
{
    EXPECT_EQ(encodeHex(Half{84}), "2a");
    Serializer in;
    in.give("\x2a");
    Half half;
    in >> half;
    EXPECT_EQ(half.value, 84);
}

TEST(kyNetSerializer, refusesWhatMeansNothingElsewhere)
{
    EXPECT_TRUE(cannotPut<int*>);
    EXPECT_TRUE(cannotPut<const void*>);
    EXPECT_TRUE(cannotPut<char**>);
    EXPECT_TRUE(cannotPut<const unsigned char*>);
    EXPECT_TRUE(cannotPut<const wchar_t*>);
    EXPECT_TRUE(cannotPut<int (*)(int)>);
    EXPECT_TRUE(cannotPut<int Person::*>);
    EXPECT_TRUE(cannotPut<wchar_t>);
    EXPECT_TRUE(cannotPut<long double>);
    EXPECT_TRUE(cannotPut<std::string_view>);
    EXPECT_TRUE(cannotPut<int[3]>);
    EXPECT_TRUE(cannotPut<wchar_t[3]>);
    EXPECT_TRUE(cannotPut<std::vector<int>>);
    EXPECT_TRUE(cannotPut<std::unique_ptr<int>>);
    EXPECT_TRUE(cannotPut<std::shared_ptr<int>>);
    EXPECT_TRUE(cannotPut<NotTrivial>);
    EXPECT_TRUE(cannotPut<Serializer>);
    EXPECT_TRUE(cannotPut<Empty>);

    EXPECT_TRUE(cannotGet<int*>);
    EXPECT_TRUE(cannotGet<char*>);
    EXPECT_TRUE(cannotGet<const char*>);
    EXPECT_TRUE(cannotGet<char[9]>);
    EXPECT_TRUE(cannotGet<int Person::*>);
    EXPECT_TRUE(cannotGet<std::nullptr_t>);
    EXPECT_TRUE(cannotGet<wchar_t>);
    EXPECT_TRUE(cannotGet<long double>);
    EXPECT_TRUE(cannotGet<std::string_view>);
    EXPECT_TRUE(cannotGet<std::vector<int>>);
    EXPECT_TRUE(cannotGet<NotTrivial>);
    EXPECT_TRUE(cannotGet<Serializer>);
    EXPECT_TRUE(cannotGet<const int>);
    EXPECT_TRUE(cannotGet<const std::string>);
    EXPECT_TRUE(cannotGet<OnlyPuts>);
    EXPECT_TRUE(cannotGet<Empty>);
}

TEST(kyNetSerializer, takesWhatTravels)
{
    // Beside the refusals: they would pass as well if nothing were taken at all.
    EXPECT_TRUE(canPut<int> && canGet<int>);
    EXPECT_TRUE(canPut<const int>);
    EXPECT_TRUE(canPut<bool> && canGet<bool>);
    EXPECT_TRUE(canPut<double> && canGet<double>);
    EXPECT_TRUE(canPut<Color> && canGet<Color>);
    EXPECT_TRUE(canPut<Point> && canGet<Point>);
    EXPECT_TRUE((canPut<std::array<int, 3>> && canGet<std::array<int, 3>>));
    EXPECT_TRUE(canPut<std::string> && canGet<std::string>);
    EXPECT_TRUE(canPut<const char*> && canPut<char*> && canPut<char[9]>);
    EXPECT_TRUE(canPut<Person> && canGet<Person>);
    EXPECT_TRUE(canPut<OnlyPuts>);
}

TEST(kyNetSerializer, manipulatorIsCalledOnTheSerializer)
{
    static kyNetSerializer* s_called = nullptr;
    Serializer serializer;
    kyNetSerializer& result = serializer << [](kyNetSerializer& s) -> kyNetSerializer& {
        s_called = &s;
        static Serializer s_other;
        return s_other;
    };
    EXPECT_EQ(s_called, &serializer);
    EXPECT_EQ(&result, &serializer);
}

TEST(kyNetSerializer, writesTheSameBytesWhereverABufferEnds)
{
    const std::string expected = encode(Everything());
    const int longest = static_cast<int>(expected.size()) + 2;
    for (int threshold = 1; threshold <= longest; ++threshold) {
        for (int prefix = 0; prefix < threshold; ++prefix) {
            Serializer out(threshold);
            for (int i = 0; i < prefix; ++i) {
                out << '.';
            }
            out << Everything();
            out.flushSendBuffer();

            ASSERT_EQ(out.getSentData(),
                      std::string(static_cast<std::size_t>(prefix), '.') + expected)
                << "threshold " << threshold << " prefix " << prefix;
            for (std::size_t i = 0; i + 1 < out.getSent().size(); ++i) {
                ASSERT_EQ(out.getSent()[i]->getDataSize(), static_cast<std::uint64_t>(threshold));
            }
        }
    }
}

TEST(kyNetSerializer, readsTheSameValuesWhereverTwoBuffersEnd)
{
    const std::string data = encode(Everything(), std::uint8_t{0x5a});
    const Everything other = Everything::makeOther();
    for (std::size_t first = 0; first <= data.size(); ++first) {
        for (std::size_t second = first; second <= data.size(); ++second) {
            Serializer in;
            in.giveCut(data, first, second);
            Everything values = other;
            std::uint8_t last = 0;
            in >> values >> last;
            ASSERT_EQ(encode(values, last), data) << "cut at " << first << " and " << second;
        }
    }
}

TEST(kyNetSerializer, readsFromBuffersOfOneByte)
{
    const std::string data = encode(Everything());
    Serializer in;
    for (const char byte : data) {
        in.give(std::string(1, byte));
    }
    Everything values = Everything::makeOther();
    in >> values;
    EXPECT_EQ(encode(values), data);
}

TEST(kyNetSerializer, splitsAValueOverThreeLeftBytes)
{
    Serializer out(10);
    out.putBytes("1234567", 7);
    out << std::uint64_t{0x0102030405060708};
    out.flushSendBuffer();
    ASSERT_EQ(out.getSent().size(), 2u);
    EXPECT_EQ(toHex(*out.getSent()[0]), "31 32 33 34 35 36 37 08 07 06");
    EXPECT_EQ(toHex(*out.getSent()[1]), "05 04 03 02 01");
}

TEST(kyNetSerializer, anythingButZeroIsTrue)
{
    Serializer in;
    in.give(std::string("\0\1\2\x80\xff", 5));
    bool values[5] = {true, false, false, false, false};
    for (bool& value : values) {
        in >> value;
    }
    EXPECT_FALSE(values[0]);
    EXPECT_TRUE(values[1] && values[2] && values[3] && values[4]);
    unsigned char byte = 0;
    std::memcpy(&byte, &values[3], 1);
    EXPECT_EQ(byte, 1);
}

TEST(kyNetSerializer, textOfLengthZeroIsEmpty)
{
    Serializer in;
    in.give(std::string(4, '\0'));
    std::string text = "before";
    in >> text;
    EXPECT_EQ(text, "");
}

TEST(kyNetSerializer, lastByteOfATextIsDroppedUnseen)
{
    Serializer in;
    in.give(std::string("\4\0\0\0abcX\1\0\0\0Y", 13));
    std::string text;
    in >> text;
    EXPECT_EQ(text, "abc");
    in >> text;
    EXPECT_EQ(text, "");
}

TEST(kyNetSerializer, receivedTextKeepsZeroesInside)
{
    Serializer in;
    in.give(std::string("\4\0\0\0a\0b\0", 8));
    std::string text;
    in >> text;
    EXPECT_EQ(text, std::string("a\0b", 3));
}

TEST(kyNetSerializer, textsOfEveryLengthAndRoomKeepTheirBytes)
{
    const std::string letters =
        "Short texts are copied in other ways than long ones, each up to a length of its own; and "
        "all of them again in another way where a buffer ends.";
    for (std::size_t length = 0; length <= 70; ++length) {
        const std::string text = letters.substr(letters.size() - length);
        for (std::size_t left = 1; left <= length + 8; ++left) {
            Serializer serializer(200);
            serializer.putBytes(std::string(200 - left, '.').data(), 200 - left);
            serializer << text << 'X';
            serializer.flushSendBuffer();

            std::string expected(200 - left, '.');
            expected += static_cast<char>(length + 1);
            expected += std::string(3, '\0') + text + '\0' + 'X';
            ASSERT_EQ(serializer.getSentData(), expected) << length << " bytes into " << left;

            for (const Buffer& buffer : serializer.getSent()) {
                serializer.give(dataOf(*buffer));
            }
            serializer.getBytes(expected.data(), 200 - left);
            std::string again = "before";
            char behind = 0;
            serializer >> again >> behind;
            ASSERT_EQ(again, text) << "at " << left << " bytes before the end";
            ASSERT_EQ(behind, 'X');
        }
    }
}

TEST(kyNetSerializer, longTextCrossesManyBuffers)
{
    for (const std::size_t length : {65534u, 65535u, 65536u, 65537u, 131071u, 131072u, 400000u}) {
        std::string text(length, '\0');
        for (std::size_t i = 0; i < length; ++i) {
            text[i] = static_cast<char>('a' + i % 23);
        }
        Serializer serializer(1000);
        serializer << text;
        serializer.flushSendBuffer();
        EXPECT_EQ(serializer.getSent().size(), (length + 5 + 999) / 1000);
        for (const Buffer& buffer : serializer.getSent()) {
            serializer.give(dataOf(*buffer));
        }
        std::string received;
        serializer >> received;
        EXPECT_TRUE(received == text) << length;
    }
}

TEST(kyNetSerializer, claimedLengthCostsNothingUntilItArrives)
{
    Serializer in;
    in.give(std::string("\xff\xff\xff\xff", 4) + std::string(100000, 'x'));
    std::string text;
    EXPECT_THROW(in >> text, kyConnectionClosed);
    EXPECT_TRUE(text == std::string(100000, 'x')); // What has come, and nothing for what has not.
    EXPECT_LE(text.capacity(), 2 * 100000u);
}

TEST(kyNetSerializer, readsOnOverEmptyAndMissingBuffersInsideAText)
{
    Serializer in;
    in.give(std::string("\4\0\0\0a", 5));
    in.giveNothing();
    in.give("");
    in.give("bc");
    in.give("");
    in.giveNothing();
    in.give(std::string("\0x", 2));
    std::string text;
    char next = 0;
    in >> text >> next;
    EXPECT_EQ(text, "abc");
    EXPECT_EQ(next, 'x');
}

TEST(kyNetSerializer, textWhoseLengthDoesNotFitIsRefused)
{
    const kyTest::LongText longest(0xffffffff);
    Serializer out(100);
    EXPECT_EQ(messageOf([&] { out << longest.get(); }),
              "Unable to send a text of 4294967295 bytes");
    EXPECT_EQ(out.takeSendBuffer(), nullptr);

    // One character less is 2^32 - 1 bytes with its zero: taken, until the buffer is full.
    Serializer full(0);
    EXPECT_EQ(messageOf([&] { full << longest.get() + 1; }), "Send buffer size exceeded");
    EXPECT_EQ(toHex(full.takeSendBuffer()->getData(), 5), "ff ff ff ff 78");
}

TEST(kyNetSerializer, thresholdZeroIsOneBufferOfFullCapacity)
{
    Serializer out(0);
    const std::string bytes(s_capacity, 'x');
    out.putBytes(bytes.data(), bytes.size());
    EXPECT_EQ(messageOf([&] { out.putBytes("y", 1); }), "Send buffer size exceeded");
    EXPECT_TRUE(out.getSent().empty());

    const Buffer buffer = out.takeSendBuffer();
    EXPECT_EQ(buffer->getDataSize(), s_capacity);
    EXPECT_EQ(buffer->getOriginalDataSize(), s_capacity);
    EXPECT_TRUE(dataOf(*buffer) == bytes);
}

TEST(kyNetSerializer, whatFittedStaysWhenTheBufferIsExceeded)
{
    Serializer out(0);
    const std::string bytes(s_capacity - 3, 'x');
    out.putBytes(bytes.data(), bytes.size());
    EXPECT_EQ(messageOf([&] { out << std::uint64_t{0x0102030405060708}; }),
              "Send buffer size exceeded");
    EXPECT_TRUE(dataOf(*out.takeSendBuffer()) == bytes + "\x08\x07\x06");
}

TEST(kyNetSerializer, sendsABufferOnlyWhenMoreIsWritten)
{
    Serializer out(1000);
    const std::string bytes(2500, 'x');
    out.putBytes(bytes.data(), 1000);
    EXPECT_TRUE(out.getSent().empty());
    out.putBytes(bytes.data(), 1500);
    ASSERT_EQ(out.getSent().size(), 2u);
    EXPECT_EQ(out.getSent()[0]->getDataSize(), 1000u);
    EXPECT_EQ(out.getSent()[1]->getDataSize(), 1000u);

    out.flushSendBuffer();
    ASSERT_EQ(out.getSent().size(), 3u);
    EXPECT_EQ(out.getSent()[2]->getDataSize(), 500u);
    out.flushSendBuffer();
    EXPECT_EQ(out.getSent().size(), 3u);
}

TEST(kyNetSerializer, aValueThatFillsTheBufferExactlyStaysInIt)
{
    for (int threshold = 7; threshold <= 9; ++threshold) {
        Serializer out(threshold);
        out << std::uint64_t{1};
        EXPECT_EQ(out.getSent().size(), threshold == 7 ? 1u : 0u) << threshold;
    }
}

TEST(kyNetSerializer, thresholdsOutOfRangeBecomeTheNearest)
{
    const std::string bytes(s_capacity + 1, 'x');

    Serializer low(-5);
    EXPECT_EQ(messageOf([&] { low.putBytes(bytes.data(), bytes.size()); }),
              "Send buffer size exceeded");

    Serializer high(std::numeric_limits<int>::max());
    high.putBytes(bytes.data(), bytes.size());
    ASSERT_EQ(high.getSent().size(), 1u);
    EXPECT_EQ(high.getSent()[0]->getDataSize(), s_capacity);
    EXPECT_EQ(high.takeSendBuffer()->getDataSize(), 1u);

    Serializer changed(10);
    changed.setSendThreshold(-1);
    EXPECT_EQ(messageOf([&] { changed.putBytes(bytes.data(), bytes.size()); }),
              "Send buffer size exceeded");
}

TEST(kyNetSerializer, thresholdHoldsFromTheNextBufferOn)
{
    Serializer out(10);
    out << 'a';
    out.setSendThreshold(4);
    out.putBytes("bcdefghijklmnopq", 16);
    out.flushSendBuffer();
    ASSERT_EQ(out.getSent().size(), 3u);
    EXPECT_EQ(dataOf(*out.getSent()[0]), "abcdefghij");
    EXPECT_EQ(dataOf(*out.getSent()[1]), "klmn");
    EXPECT_EQ(dataOf(*out.getSent()[2]), "opq");
}

TEST(kyNetSerializer, sentBufferHasACleanHeader)
{
    kyTest::soilPool();
    Serializer out(100);
    out << 1;
    out.flushSendBuffer();
    const Buffer buffer = out.getSent().at(0);
    EXPECT_EQ(toHex(buffer->getBuffer(), kyNetBuffer::getHeaderSize()),
              "04 00 00 00 04 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00");
    EXPECT_EQ(buffer->getSendMode(), kyNetBufferSendMode::Automatic);
}

TEST(kyNetSerializer, takenBufferKeepsSourceAndSequence)
{
    kyTest::soilPool();
    Serializer out(100);
    out << 1;
    const Buffer buffer = out.takeSendBuffer();
    EXPECT_EQ(toHex(buffer->getBuffer(), kyNetBuffer::getHeaderSize()),
              "04 00 00 00 04 00 00 00 63 00 00 00 42 00 00 00 00 00 00 00");
    EXPECT_EQ(buffer->getSendMode(), kyNetBufferSendMode::Automatic);
    EXPECT_TRUE(out.getSent().empty());
}

TEST(kyNetSerializer, nothingWrittenGivesNothingToTake)
{
    Serializer out;
    EXPECT_EQ(out.takeSendBuffer(), nullptr);
    out.putBytes("", 0);
    out.putBytes(nullptr, 0);
    EXPECT_EQ(out.takeSendBuffer(), nullptr);
    out << 1;
    EXPECT_NE(out.takeSendBuffer(), nullptr);
    EXPECT_EQ(out.takeSendBuffer(), nullptr);
}

TEST(kyNetSerializer, writesIntoANewBufferAfterTakingOne)
{
    Serializer out;
    out << 1;
    const Buffer first = out.takeSendBuffer();
    out << 2;
    const Buffer second = out.takeSendBuffer();
    EXPECT_NE(first, second);
    EXPECT_EQ(toHex(*first), "01 00 00 00");
    EXPECT_EQ(toHex(*second), "02 00 00 00");
}

TEST(kyNetSerializer, clearedSendBufferIsNeverSent)
{
    Serializer out(4);
    out << 1;
    out.clearSendBuffer();
    out.flushSendBuffer();
    EXPECT_TRUE(out.getSent().empty());
    out << 2;
    out.flushSendBuffer();
    ASSERT_EQ(out.getSent().size(), 1u);
    EXPECT_EQ(toHex(*out.getSent()[0]), "02 00 00 00");
}

TEST(kyNetSerializer, destructionSendsNothing)
{
    std::weak_ptr<kyNetBuffer> written;
    {
        Serializer out(100);
        out << 1;
        const Buffer buffer = out.takeSendBuffer();
        out << 2;
        Serializer copy = out;
        written = copy.takeSendBuffer();
        EXPECT_FALSE(written.expired());
    }
    EXPECT_TRUE(written.expired());
}

TEST(kyNetSerializer, flushSendsABufferWithoutData)
{
    Serializer out(100);
    EXPECT_NE(out.getOutputReference(0), nullptr);
    out.flushSendBuffer();
    ASSERT_EQ(out.getSent().size(), 1u);
    EXPECT_EQ(out.getSent()[0]->getDataSize(), 0u);
    EXPECT_EQ(out.getSent()[0]->getOriginalDataSize(), 0u);
}

TEST(kyNetSerializer, failedSendKeepsTheBufferForTheNextOne)
{
    Serializer out(4);
    out << 1;
    out.failingSends = 2;
    EXPECT_THROW(out << 2, kyConnectionClosed);
    EXPECT_THROW(out.flushSendBuffer(), kyConnectionClosed);
    out << 3;
    out.flushSendBuffer();
    EXPECT_EQ(out.getSentData(), encode(1, 3));
}

TEST(kyNetSerializer, outputReferenceIsFilledInPlace)
{
    Serializer out(8);
    out << 'a';
    char* reference = static_cast<char*>(out.getOutputReference(7));
    std::copy_n("bcdefgh", 7, reference);
    EXPECT_TRUE(out.getSent().empty());
    out << 'i';
    ASSERT_EQ(out.getSent().size(), 1u);
    EXPECT_EQ(dataOf(*out.getSent()[0]), "abcdefgh");
}

TEST(kyNetSerializer, outputReferenceNeverFlushesToMakeRoom)
{
    Serializer out(8);
    out << 'a';
    EXPECT_EQ(messageOf([&] { out.getOutputReference(8); }),
              "Unable to get 8 bytes in buffer. Max accessible bytes 7");
    EXPECT_EQ(messageOf([&] { out.getOutputReference(std::numeric_limits<std::uint64_t>::max()); }),
              "Unable to get 18446744073709551615 bytes in buffer. Max accessible bytes 7");
    EXPECT_TRUE(out.getSent().empty());
    out.getOutputReference(7);
    EXPECT_EQ(messageOf([&] { out.getOutputReference(1); }),
              "Unable to get 1 bytes in buffer. Max accessible bytes 0");
    EXPECT_NE(out.getOutputReference(0), nullptr);
}

TEST(kyNetSerializer, outputReferenceTakesAWholeBuffer)
{
    Serializer out(0);
    EXPECT_EQ(messageOf([&] { out.getOutputReference(s_capacity + 1); }),
              "Unable to get 131603 bytes in buffer. Max accessible bytes 131602");
    EXPECT_NE(out.getOutputReference(s_capacity), nullptr);
    EXPECT_EQ(out.takeSendBuffer()->getDataSize(), s_capacity);
}

TEST(kyNetSerializer, inputReferencePointsIntoTheBuffer)
{
    Serializer in;
    const Buffer buffer = makeBuffer("abcdefgh");
    in.setRecvBuffer(buffer);
    EXPECT_EQ(in.getInputReference(3), buffer->getData());
    EXPECT_EQ(in.getInputReference(5), buffer->getData() + 3);
    EXPECT_FALSE(in.isReadable());
    EXPECT_EQ(in.getDataSize(), 8u); // Still there: the caller looks at it.
}

TEST(kyNetSerializer, inputReferenceAtTheEndFailsOnceAndFetches)
{
    Serializer in;
    in.setRecvBuffer(makeBuffer("abcd"));
    in.getInputReference(4);
    in.give("12345678");
    EXPECT_EQ(messageOf([&] { in.getInputReference(4); }),
              "Unable to get 4 bytes in buffer. Max accessible bytes 8");
    EXPECT_EQ(in.getDataSize(), 8u);
    EXPECT_EQ(in.getIncomingCount(), 0u);
    const auto* reference = static_cast<const char*>(in.getInputReference(4));
    EXPECT_EQ(std::string(reference, 4), "1234");
}

TEST(kyNetSerializer, inputReferenceFailsOnceOnANewSerializerToo)
{
    Serializer in;
    in.give("1234");
    EXPECT_EQ(messageOf([&] { in.getInputReference(4); }),
              "Unable to get 4 bytes in buffer. Max accessible bytes 4");
    EXPECT_NE(in.getInputReference(4), nullptr);
}

TEST(kyNetSerializer, inputReferenceNeverSpansTwoBuffers)
{
    Serializer in;
    in.setRecvBuffer(makeBuffer("abc"));
    in.give("12345678");
    EXPECT_EQ(messageOf([&] { in.getInputReference(4); }),
              "Unable to get 4 bytes in buffer. Max accessible bytes 3");
    EXPECT_EQ(messageOf([&] { in.getInputReference(std::numeric_limits<std::uint64_t>::max()); }),
              "Unable to get 18446744073709551615 bytes in buffer. Max accessible bytes 3");
    EXPECT_EQ(in.getIncomingCount(), 1u);
    char bytes[11];
    in.getBytes(bytes, 11);
    EXPECT_EQ(std::string(bytes, 11), "abc12345678");
}

TEST(kyNetSerializer, inputReferenceOfZeroBytesFetchesNothing)
{
    Serializer in;
    in.give("1234");
    in.getInputReference(0);
    EXPECT_EQ(in.getIncomingCount(), 1u);
    const Buffer buffer = makeBuffer("abcd");
    in.setRecvBuffer(buffer);
    EXPECT_EQ(in.getInputReference(0), buffer->getData());
    in.getInputReference(4);
    EXPECT_EQ(in.getInputReference(0), buffer->getData() + 4);
    EXPECT_EQ(in.getIncomingCount(), 1u);
}

TEST(kyNetSerializer, inputReferencePassesAFailedReceiveOn)
{
    Serializer in;
    EXPECT_THROW(in.getInputReference(1), kyConnectionClosed);
    in.giveNothing();
    EXPECT_EQ(messageOf([&] { in.getInputReference(1); }),
              "Unable to get 1 bytes in buffer. Max accessible bytes 0");
}

TEST(kyNetSerializer, bufferGoesBackWithItsLastByte)
{
    for (const std::size_t left : {0u, 1u, 2u}) {
        Serializer in;
        std::weak_ptr<kyNetBuffer> buffer;
        {
            const Buffer held = makeBuffer(std::string(4 + left, 'x'));
            buffer = held;
            in.setRecvBuffer(held);
        }
        std::int32_t value = 0;
        in >> value;
        EXPECT_EQ(buffer.expired(), left == 0) << left;
        EXPECT_EQ(in.isReadable(), left != 0);
        EXPECT_EQ(in.getDataSize(), left == 0 ? 0 : 4 + left);
    }
}

TEST(kyNetSerializer, bufferGoesBackWithTheLastByteOfAText)
{
    Serializer in;
    std::weak_ptr<kyNetBuffer> buffer;
    {
        const Buffer held = makeBuffer(encode("text"));
        buffer = held;
        in.setRecvBuffer(held);
    }
    std::string text;
    in >> text;
    EXPECT_TRUE(buffer.expired());
}

TEST(kyNetSerializer, readingNothingReleasesABufferThatIsRead)
{
    Serializer in;
    in.setRecvBuffer(makeBuffer("abcd"));
    in.getInputReference(4);
    in.getBytes(nullptr, 0);
    EXPECT_EQ(in.getDataSize(), 0u);
}

TEST(kyNetSerializer, readingNothingFetchesNothing)
{
    Serializer in;
    in.give("a");
    in.getBytes(nullptr, 0);
    EXPECT_EQ(in.getIncomingCount(), 1u);
}

TEST(kyNetSerializer, readsOnOverEmptyAndMissingBuffers)
{
    Serializer in;
    in.give("");
    in.giveNothing();
    in.give("ab");
    in.giveNothing();
    in.give("");
    in.give("cd");
    std::array<char, 4> bytes{};
    in >> bytes;
    EXPECT_EQ(std::string(bytes.data(), 4), "abcd");
}

TEST(kyNetSerializer, failedReadHasCopiedWhatWasThere)
{
    Serializer in;
    in.give("ab");
    char bytes[4] = {'-', '-', '-', '-'};
    EXPECT_THROW(in.getBytes(bytes, 4), kyConnectionClosed);
    EXPECT_EQ(std::string(bytes, 4), "ab--");
    in.give("cd");
    in.getBytes(bytes + 2, 2);
    EXPECT_EQ(std::string(bytes, 4), "abcd");
}

TEST(kyNetSerializer, tellsAboutItsRecvBuffer)
{
    Serializer in;
    EXPECT_EQ(in.getSource(), 0u);
    EXPECT_EQ(in.getType(), kyNetMessageType::StreamData);
    EXPECT_EQ(in.getDataSize(), 0u);
    EXPECT_EQ(in.getOriginalDataSize(), 0u);
    EXPECT_FALSE(in.isReadable());

    in.setRecvBuffer(makeBuffer("abc", 7, 8, kyNetMessageType::ImageData));
    EXPECT_EQ(in.getSource(), 7u);
    EXPECT_EQ(in.getType(), kyNetMessageType::ImageData);
    EXPECT_EQ(in.getDataSize(), 3u);
    EXPECT_TRUE(in.isReadable());
}

TEST(kyNetSerializer, originalDataSizeIsTheDataSize)
{
    Serializer in;
    const Buffer buffer = makeBuffer("abc");
    buffer->setCompression(kyNetCompression::Standard, 1000);
    in.setRecvBuffer(buffer);
    EXPECT_EQ(in.getOriginalDataSize(), 3u);
}

TEST(kyNetSerializer, writesStreamDataByDefault)
{
    Serializer out;
    EXPECT_EQ(out.getMessageType(), kyNetMessageType::StreamData);
}

TEST(kyNetSerializer, replacedBufferIsReadFromItsStart)
{
    Serializer in;
    in.setRecvBuffer(makeBuffer("abcd"));
    char byte = 0;
    in >> byte;
    in.setRecvBuffer(makeBuffer("xyz"));
    in >> byte;
    EXPECT_EQ(byte, 'x');
}

TEST(kyNetSerializer, nothingIsReadFromAReleasedBuffer)
{
    Serializer cleared;
    cleared.setRecvBuffer(makeBuffer("abcd"));
    cleared.clearRecvBuffer();
    EXPECT_FALSE(cleared.isReadable());
    char byte = 0;
    EXPECT_THROW(cleared >> byte, kyConnectionClosed);

    Serializer replaced;
    replaced.setRecvBuffer(makeBuffer("abcd"));
    replaced.setRecvBuffer(nullptr);
    EXPECT_FALSE(replaced.isReadable());
    EXPECT_THROW(replaced >> byte, kyConnectionClosed);
    EXPECT_EQ(byte, 0);
}

TEST(kyNetSerializer, copyContinuesAtTheSamePlaces)
{
    Serializer original(100);
    original.setRecvBuffer(makeBuffer("abcd"));
    char byte = 0;
    original >> byte;
    original << 'x';

    Serializer copy = original;
    copy >> byte;
    EXPECT_EQ(byte, 'b');
    original >> byte;
    EXPECT_EQ(byte, 'b');
    copy << 'y';
    const Buffer buffer = copy.takeSendBuffer();
    EXPECT_EQ(dataOf(*buffer), "xy");
    EXPECT_EQ(original.takeSendBuffer(), buffer);

    Serializer assigned(5);
    assigned = original;
    assigned >> byte;
    EXPECT_EQ(byte, 'c');
    assigned.putBytes(std::string(100, 'z').data(), 100);
    EXPECT_TRUE(assigned.getSent().empty()); // The threshold came along.
}

TEST(kyNetSerializer, moveLeavesNothingBehind)
{
    Serializer original(100);
    original.setRecvBuffer(makeBuffer("abcd"));
    original << 'x';

    Serializer moved = std::move(original);
    EXPECT_FALSE(original.isReadable()); // NOLINT: that is the question.
    EXPECT_EQ(original.takeSendBuffer(), nullptr);
    char byte = 0;
    EXPECT_THROW(original >> byte, kyConnectionClosed);
    original << 'n';
    moved << 'y';
    moved >> byte;
    EXPECT_EQ(byte, 'a');
    EXPECT_EQ(dataOf(*original.takeSendBuffer()), "n");

    Serializer assigned(5);
    assigned << "dropped";
    assigned = std::move(moved);
    EXPECT_FALSE(moved.isReadable()); // NOLINT
    EXPECT_EQ(moved.takeSendBuffer(), nullptr);
    assigned >> byte;
    EXPECT_EQ(byte, 'b');
    EXPECT_EQ(dataOf(*assigned.takeSendBuffer()), "xy");
    assigned.putBytes(std::string(100, 'z').data(), 100);
    EXPECT_TRUE(assigned.getSent().empty()); // The threshold came along.
}

TEST(kyNetSerializer, movingIntoItselfChangesNothing)
{
    Serializer serializer(100);
    serializer.setRecvBuffer(makeBuffer("abcd"));
    serializer << 'x';
    kyNetSerializer* self = &serializer;
    serializer = std::move(*static_cast<Serializer*>(self));
    char byte = 0;
    serializer >> byte;
    EXPECT_EQ(byte, 'a');
    EXPECT_EQ(dataOf(*serializer.takeSendBuffer()), "x");
}
