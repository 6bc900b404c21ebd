#include <NetBase/serialization/kyNetStreamBuf.h>

#include <cstdint>
#include <future>
#include <ios>
#include <limits>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include <NetBase/serialization/kyNetMessage.h>
#include <tests/serialization/kyTestMemoryStream.h>

using kyTest::chunkOf;
using kyTest::endOfText;
using kyTest::makeText;
using kyTest::MemoryStream;
using kyTest::messageOf;
using kyTest::toHex;
using kyTest::wordOf;

namespace {

constexpr std::size_t s_capacity = 1048576;
constexpr int s_eof = std::char_traits<char>::eof();

/// A buffer whose inner operations a test may call.
class OpenStreamBuf : public kyNetStreamBuf
{
public:
    using kyNetStreamBuf::kyNetStreamBuf;
    using kyNetStreamBuf::overflow;
    using kyNetStreamBuf::seekoff;
    using kyNetStreamBuf::sync;
    using kyNetStreamBuf::underflow;

    void put(const std::string& text)
    {
        ASSERT_EQ(sputn(text.data(), static_cast<std::streamsize>(text.size())),
                  static_cast<std::streamsize>(text.size()));
    }
    std::string get(std::size_t size)
    {
        std::string text(size, '\0');
        text.resize(static_cast<std::size_t>(
            sgetn(text.data(), static_cast<std::streamsize>(text.size()))));
        return text;
    }
    std::streamoff seek(std::streamoff offset, std::ios::seekdir direction,
                        std::ios::openmode sides = std::ios::in | std::ios::out)
    {
        return seekoff(offset, direction, sides);
    }
    std::streamoff tell() { return seek(0, std::ios::cur); }
};

struct Fixture
{
    MemoryStream stream;
    std::unique_ptr<OpenStreamBuf> buffer = std::make_unique<OpenStreamBuf>(&stream);
};

} // namespace

// Writing.

TEST(kyNetStreamBuf, textAndItsEnd)
{
    Fixture f;
    f.buffer->put("abc");
    f.buffer->writeEOF();
    const std::string written = f.stream.takeWritten();
    EXPECT_EQ(toHex(written.data(), written.size()), "03 00 00 00 61 62 63 00 00 00 00");
}

TEST(kyNetStreamBuf, capacityIsOneMebibyte)
{
    EXPECT_EQ(kyNetStreamBuf::getCapacity(), s_capacity);
}

TEST(kyNetStreamBuf, charactersGatherUntilTheyAreSynced)
{
    Fixture f;
    EXPECT_EQ(f.buffer->overflow('a'), 'a');
    f.buffer->put("bc");
    EXPECT_EQ(f.stream.takeWritten(), "");
    EXPECT_EQ(f.buffer->sync(), 0);
    EXPECT_EQ(f.stream.takeWritten(), chunkOf("abc"));
}

TEST(kyNetStreamBuf, everySyncWritesAChunk)
{
    Fixture f;
    for (const char* word : {"one", "2", "three"}) {
        f.buffer->put(word);
        f.buffer->sync();
    }
    EXPECT_EQ(f.stream.takeWritten(), chunkOf("one") + chunkOf("2") + chunkOf("three"));
}

TEST(kyNetStreamBuf, syncOfNothingWritesNothing)
{
    Fixture f;
    EXPECT_EQ(f.buffer->sync(), 0);
    EXPECT_EQ(f.buffer->overflow(s_eof), 0);
    f.buffer->put("a");
    f.buffer->sync();
    EXPECT_EQ(f.buffer->sync(), 0);
    EXPECT_EQ(f.stream.takeWritten(), chunkOf("a"));
}

TEST(kyNetStreamBuf, overflowOfEndOfFileIsNoFailure)
{
    Fixture f;
    f.buffer->put("ab");
    EXPECT_EQ(f.buffer->overflow(s_eof), 0);
    EXPECT_EQ(f.stream.takeWritten(), chunkOf("ab"));
}

TEST(kyNetStreamBuf, overflowWritesAndKeepsItsCharacter)
{
    Fixture f;
    f.buffer->put("ab");
    EXPECT_EQ(f.buffer->overflow('c'), 'c');
    EXPECT_EQ(f.stream.takeWritten(), chunkOf("ab"));
    f.buffer->sync();
    EXPECT_EQ(f.stream.takeWritten(), chunkOf("c"));
}

TEST(kyNetStreamBuf, chunkIsFullAtTheCapacity)
{
    const std::string text = makeText(s_capacity + 1);
    Fixture f;
    f.buffer->put(text.substr(0, s_capacity));
    EXPECT_EQ(f.stream.takeWritten(), "");
    f.buffer->sputc(text.back());
    EXPECT_EQ(f.stream.takeWritten(), chunkOf(text.substr(0, s_capacity)));
    f.buffer->sync();
    EXPECT_EQ(f.stream.takeWritten(), chunkOf(text.substr(s_capacity)));
}

TEST(kyNetStreamBuf, textsAroundTheCapacity)
{
    const std::string text = makeText(2 * s_capacity + 1);
    const auto written = [&](std::size_t size) {
        Fixture f;
        f.buffer->put(text.substr(0, size));
        f.buffer->writeEOF();
        return f.stream.takeWritten();
    };
    const auto chunk = [&](std::size_t from, std::size_t size) {
        return chunkOf(text.substr(from, size));
    };
    EXPECT_EQ(written(s_capacity - 1), chunk(0, s_capacity - 1) + endOfText());
    EXPECT_EQ(written(s_capacity), chunk(0, s_capacity) + endOfText());
    EXPECT_EQ(written(s_capacity + 1), chunk(0, s_capacity) + chunk(s_capacity, 1) + endOfText());
    EXPECT_EQ(written(2 * s_capacity),
              chunk(0, s_capacity) + chunk(s_capacity, s_capacity) + endOfText());
    EXPECT_EQ(written(2 * s_capacity + 1), chunk(0, s_capacity) + chunk(s_capacity, s_capacity) +
                                               chunk(2 * s_capacity, 1) + endOfText());
}

TEST(kyNetStreamBuf, emptyTextIsItsEnd)
{
    Fixture f;
    f.buffer->writeEOF();
    EXPECT_EQ(f.stream.takeWritten(), endOfText());
}

TEST(kyNetStreamBuf, whatFollowsTheEndIsANewText)
{
    Fixture f;
    f.buffer->put("one");
    f.buffer->writeEOF();
    f.buffer->put("two");
    f.buffer->writeEOF();
    EXPECT_EQ(f.stream.takeWritten(), chunkOf("one") + endOfText() + chunkOf("two") + endOfText());
}

TEST(kyNetStreamBuf, destructionWritesTheLastChunkWithoutAnEnd)
{
    Fixture f;
    f.buffer->put("abc");
    f.buffer.reset();
    EXPECT_EQ(f.stream.takeWritten(), chunkOf("abc"));
}

TEST(kyNetStreamBuf, destructionWithNothingGatheredWritesNothing)
{
    Fixture f;
    f.buffer.reset();
    EXPECT_EQ(f.stream.takeWritten(), "");
}

TEST(kyNetStreamBuf, destructionSwallowsItsFailure)
{
    Fixture f;
    f.stream.setSendThreshold(4);
    f.buffer->put("abc");
    f.stream.setClosed(true);
    f.buffer.reset();
}

TEST(kyNetStreamBuf, chunkThatFailedIsNotWrittenAgain)
{
    Fixture f;
    f.stream.setSendThreshold(4); // The length fills a buffer, the first character sends it.
    f.buffer->put("lost");
    f.stream.setClosed(true);
    EXPECT_THROW(f.buffer->sync(), kyConnectionClosed);
    f.stream.setClosed(false);
    EXPECT_EQ(f.stream.takeWritten(), wordOf(4)); // What the stream still had.
    f.buffer->sync();
    EXPECT_EQ(f.stream.takeWritten(), "");
    f.buffer->put("new");
    f.buffer->writeEOF();
    f.buffer.reset();
    EXPECT_EQ(f.stream.takeWritten(), chunkOf("new") + endOfText());
}

TEST(kyNetStreamBuf, overflowThatFailsDropsItsCharacterToo)
{
    Fixture f;
    f.stream.setSendThreshold(4);
    f.buffer->put("lost");
    f.stream.setClosed(true);
    EXPECT_THROW(f.buffer->overflow('x'), kyConnectionClosed);
    f.stream.setClosed(false);
    EXPECT_EQ(f.stream.takeWritten(), wordOf(4));
    f.buffer->sync();
    EXPECT_EQ(f.stream.takeWritten(), "");
}

TEST(kyNetStreamBuf, endThatFailsThrows)
{
    Fixture f;
    f.stream.setSendThreshold(4);
    f.stream << 1;
    f.stream.setClosed(true);
    EXPECT_THROW(f.buffer->writeEOF(), kyConnectionClosed);
}

TEST(kyNetStreamBuf, messageTakesWhatABufferHolds)
{
    constexpr std::size_t s_room = 131602;
    kyNetMessage message;
    auto buffer = std::make_unique<OpenStreamBuf>(&message);
    const std::string text = makeText(s_room - 8);
    buffer->put(text);
    buffer->writeEOF();
    const kyTest::Buffer whole = message.takeSendBuffer();
    EXPECT_EQ(kyTest::dataOf(*whole), chunkOf(text) + endOfText());

    buffer->put(text + "12345");
    EXPECT_EQ(messageOf([&] { buffer->writeEOF(); }), "Send buffer size exceeded");
}

// Reading.

TEST(kyNetStreamBuf, chunkIsReadAndThenTheEnd)
{
    Fixture f;
    f.stream.give(chunkOf("abc") + endOfText());
    EXPECT_EQ(f.buffer->underflow(), 'a');
    EXPECT_EQ(f.buffer->get(3), "abc");
    EXPECT_EQ(f.buffer->sgetc(), s_eof);
    EXPECT_TRUE(f.stream.hasReceivedAll());
}

TEST(kyNetStreamBuf, chunksFollowEachOther)
{
    Fixture f;
    f.stream.give(chunkOf("ab") + chunkOf("c") + chunkOf("defg") + endOfText());
    EXPECT_EQ(f.buffer->get(100), "abcdefg");
}

TEST(kyNetStreamBuf, everyCharacterIsOneAndNoneIsTheEnd)
{
    Fixture f;
    for (int value = 0; value < 256; ++value) {
        f.buffer->sync(); // So that each goes through overflow and comes from underflow.
        EXPECT_EQ(f.buffer->overflow(value), value);
    }
    f.buffer->writeEOF();
    f.stream.give(f.stream.takeWritten());
    for (int value = 0; value < 256; ++value) {
        EXPECT_EQ(f.buffer->sbumpc(), value);
    }
    EXPECT_EQ(f.buffer->sbumpc(), s_eof);
}

TEST(kyNetStreamBuf, everyUnderflowReadsOneLength)
{
    Fixture f;
    f.stream.give(endOfText() + endOfText() + chunkOf("a") + endOfText() + chunkOf("bc"));
    EXPECT_EQ(f.buffer->underflow(), s_eof);
    EXPECT_EQ(f.buffer->underflow(), s_eof);
    EXPECT_EQ(f.buffer->underflow(), 'a');
    EXPECT_EQ(f.buffer->underflow(), s_eof);
    EXPECT_EQ(f.buffer->underflow(), 'b');
}

TEST(kyNetStreamBuf, chunksCutAtEveryByte)
{
    Fixture f;
    f.stream.give(chunkOf("abc") + chunkOf("de") + endOfText() + chunkOf("f") + endOfText(), 1);
    EXPECT_EQ(f.buffer->get(100), "abcde");
    EXPECT_EQ(f.buffer->get(100), "f");
}

TEST(kyNetStreamBuf, lengthsAroundTheCapacity)
{
    for (const std::size_t size : {std::size_t{1}, s_capacity - 1, s_capacity}) {
        const std::string text = makeText(size);
        Fixture f;
        f.stream.give(chunkOf(text) + endOfText());
        EXPECT_EQ(f.buffer->get(s_capacity + 1), text);
    }
    for (const std::uint32_t length :
         {0x100001u, 0x100002u, 0x7fffffffu, 0x80000000u, 0x80000001u, 0xffffffffu}) {
        Fixture f;
        f.stream.give(wordOf(length) + chunkOf("next"));
        EXPECT_EQ(messageOf([&] { f.buffer->underflow(); }), "Datastream out of sync");
        EXPECT_EQ(f.buffer->get(4), "next"); // Nothing but the length was consumed.
    }
}

TEST(kyNetStreamBuf, refusedLengthIsNotTheChunks)
{
    Fixture f;
    f.stream.give(chunkOf("abc") + wordOf(0xffffffff) + chunkOf("de"));
    EXPECT_EQ(f.buffer->get(3), "abc");
    EXPECT_EQ(messageOf([&] { f.buffer->sgetc(); }), "Datastream out of sync");
    EXPECT_EQ(f.buffer->seek(0, std::ios::beg), 0);
    EXPECT_EQ(f.buffer->in_avail(), 3);
    EXPECT_EQ(f.buffer->get(5), "abcde");
}

TEST(kyNetStreamBuf, refusedFirstLengthLeavesNothingToSeekIn)
{
    Fixture f;
    f.stream.give(wordOf(0x100001) + chunkOf("ab"));
    EXPECT_EQ(messageOf([&] { f.buffer->sgetc(); }), "Datastream out of sync");
    EXPECT_EQ(f.buffer->seek(0, std::ios::beg), 0);
    EXPECT_EQ(f.buffer->in_avail(), 0);
    EXPECT_EQ(f.buffer->get(2), "ab");
}

TEST(kyNetStreamBuf, chunkThatStopsHalfWayIsNeverRead)
{
    Fixture f;
    f.stream.give(chunkOf("abc") + wordOf(3) + "xy");
    EXPECT_EQ(f.buffer->get(3), "abc");
    EXPECT_THROW(f.buffer->sgetc(), kyConnectionClosed);
    EXPECT_EQ(f.buffer->sungetc(), s_eof);
    EXPECT_EQ(f.buffer->seek(0, std::ios::beg), 0);
    EXPECT_EQ(f.buffer->in_avail(), 0);
    f.stream.give(chunkOf("next"));
    EXPECT_EQ(f.buffer->get(4), "next");
}

TEST(kyNetStreamBuf, lengthThatStopsHalfWayLeavesTheChunk)
{
    Fixture f;
    f.stream.give(chunkOf("abc") + std::string("\3\0\0", 3));
    EXPECT_EQ(f.buffer->get(3), "abc");
    EXPECT_THROW(f.buffer->sgetc(), kyConnectionClosed);
    EXPECT_EQ(f.buffer->seek(0, std::ios::beg), 0);
    EXPECT_EQ(f.buffer->get(3), "abc");
}

TEST(kyNetStreamBuf, lastCharacterCanBePutBackAtTheEnd)
{
    Fixture f;
    f.stream.give(chunkOf("ab") + endOfText());
    EXPECT_EQ(f.buffer->get(100), "ab");
    EXPECT_EQ(f.buffer->sungetc(), 'b');
    EXPECT_EQ(f.buffer->sbumpc(), 'b');
}

TEST(kyNetStreamBuf, readingAndWritingKeepApart)
{
    Fixture f;
    f.buffer->put("out");
    f.stream.give(chunkOf("in"));
    EXPECT_EQ(f.buffer->get(2), "in");
    f.buffer->sync();
    EXPECT_EQ(f.stream.takeWritten(), chunkOf("out"));
}

// Positions.

TEST(kyNetStreamBuf, freshBufferHasNoPosition)
{
    EXPECT_EQ(Fixture().buffer->tell(), -1);
    EXPECT_EQ(Fixture().buffer->seek(5, std::ios::cur), -1);
}

TEST(kyNetStreamBuf, positionFromTheBeginningIsRecorded)
{
    Fixture f;
    for (const std::streamoff offset :
         {std::streamoff{7}, std::streamoff{-3}, std::streamoff{1},
          std::numeric_limits<std::streamoff>::max(), std::numeric_limits<std::streamoff>::min()}) {
        EXPECT_EQ(f.buffer->seek(offset, std::ios::beg), offset);
        EXPECT_EQ(f.buffer->tell(), offset);
    }
}

TEST(kyNetStreamBuf, offsetFromTheCurrentPositionChangesNothing)
{
    Fixture f;
    f.buffer->seek(7, std::ios::beg);
    EXPECT_EQ(f.buffer->seek(5, std::ios::cur), 7);
    EXPECT_EQ(f.buffer->seek(-7, std::ios::cur), 7);
    EXPECT_EQ(f.buffer->tell(), 7);
}

TEST(kyNetStreamBuf, positionFromTheEndIsNone)
{
    Fixture f;
    f.buffer->seek(7, std::ios::beg);
    EXPECT_EQ(f.buffer->seek(-2, std::ios::end), -1);
    EXPECT_EQ(f.buffer->tell(), -1);
}

TEST(kyNetStreamBuf, unknownDirectionChangesNothing)
{
    Fixture f;
    f.buffer->seek(7, std::ios::beg);
    EXPECT_EQ(f.buffer->seek(1, static_cast<std::ios::seekdir>(3)), -1);
    EXPECT_EQ(f.buffer->tell(), 7);
}

TEST(kyNetStreamBuf, beginningOfTheInputReadsTheChunkAgain)
{
    Fixture f;
    f.stream.give(chunkOf("abc") + chunkOf("de"));
    f.buffer->seek(7, std::ios::beg);
    EXPECT_EQ(f.buffer->get(2), "ab");
    EXPECT_EQ(f.buffer->seek(0, std::ios::beg, std::ios::in), 0);
    EXPECT_EQ(f.buffer->tell(), -1);
    EXPECT_EQ(f.buffer->get(4), "abcd");
    EXPECT_EQ(f.buffer->seek(0, std::ios::beg), 0); // Both sides.
    EXPECT_EQ(f.buffer->get(2), "de");
}

TEST(kyNetStreamBuf, everythingElseLeavesTheChunkWhereItIs)
{
    Fixture f;
    f.stream.give(chunkOf("abc"));
    EXPECT_EQ(f.buffer->sbumpc(), 'a');
    EXPECT_EQ(f.buffer->seek(0, std::ios::beg, std::ios::out), 0);
    EXPECT_EQ(f.buffer->seek(1, std::ios::beg), 1);
    EXPECT_EQ(f.buffer->seek(0, std::ios::cur), 1);
    EXPECT_EQ(f.buffer->seek(0, std::ios::end), -1);
    EXPECT_EQ(f.buffer->get(2), "bc");
}

TEST(kyNetStreamBuf, beginningBeforeTheFirstChunkIsEmpty)
{
    Fixture f;
    EXPECT_EQ(f.buffer->seek(0, std::ios::beg), 0);
    f.stream.give(chunkOf("ab"));
    EXPECT_EQ(f.buffer->get(2), "ab");
}

TEST(kyNetStreamBuf, beginningAfterTheEndOfATextIsEmpty)
{
    Fixture f;
    f.stream.give(chunkOf("abc") + endOfText() + chunkOf("de"));
    EXPECT_EQ(f.buffer->get(3), "abc");
    EXPECT_EQ(f.buffer->sgetc(), s_eof);
    EXPECT_EQ(f.buffer->seek(0, std::ios::beg), 0);
    EXPECT_EQ(f.buffer->get(2), "de");
}

TEST(kyNetStreamBuf, seekingDoesNotTouchWhatIsWritten)
{
    Fixture f;
    f.buffer->put("ab");
    f.buffer->seek(0, std::ios::beg);
    f.buffer->put("c");
    f.buffer->sync();
    EXPECT_EQ(f.stream.takeWritten(), chunkOf("abc"));
}

TEST(kyNetStreamBuf, absolutePositionsAreNotSupported)
{
    Fixture f;
    EXPECT_EQ(std::streamoff(f.buffer->pubseekpos(0)), -1);
}

// Over a real connection.

TEST(kyNetStreamBuf, bothDirectionsAtOnceOverOneConnection)
{
    const auto [near, far] = kyTest::makeLinks();
    kyNetStream nearStream(near);
    kyNetStream farStream(far);
    const auto one = std::make_unique<OpenStreamBuf>(&nearStream);
    const auto two = std::make_unique<OpenStreamBuf>(&farStream);
    const std::string text = makeText(3 * s_capacity + 12345);

    const auto write = [&](OpenStreamBuf& buffer, kyNetStream& stream) {
        buffer.put(text);
        buffer.writeEOF();
        stream.flush();
    };
    auto writeOne = std::async(std::launch::async, [&] { write(*one, nearStream); });
    auto writeTwo = std::async(std::launch::async, [&] { write(*two, farStream); });
    auto readOne = std::async(std::launch::async, [&] { return one->get(text.size() + 1); });
    EXPECT_TRUE(two->get(text.size() + 1) == text);
    EXPECT_TRUE(readOne.get() == text);
    writeOne.get();
    writeTwo.get();
}

TEST(kyNetStreamBuf, closedLinkFailsTheChunkOnce)
{
    const auto [near, far] = kyTest::makeLinks();
    kyNetStream stream(near);
    auto buffer = std::make_unique<OpenStreamBuf>(&stream);
    buffer->put(makeText(s_capacity));
    near->shutdown();
    EXPECT_THROW(buffer->sync(), kyConnectionClosed);
    EXPECT_EQ(buffer->sync(), 0); // Nothing is left to write.
}
