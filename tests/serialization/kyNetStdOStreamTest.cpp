#include <NetBase/serialization/kyNetStdOStream.h>

#include <algorithm>
#include <future>
#include <ios>
#include <memory>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include <NetBase/serialization/kyNetStdIStream.h>
#include <tests/serialization/kyTestMemoryStream.h>
#include <tests/support/kyTestSlowness.h>

using kyTest::chunkOf;
using kyTest::endOfText;
using kyTest::makeText;
using kyTest::MemoryStream;
using kyTest::messageOf;

namespace {

/// Writes the text in pieces and flushes between some of them.
void writeInPieces(std::ostream& out, const std::string& text, unsigned seed)
{
    std::minstd_rand random(seed);
    for (std::size_t from = 0; from < text.size();) {
        // Mostly words, now and then more than a chunk.
        const std::size_t limit = random() % 50 == 0 ? 1500000 : random() % 2000 + 1;
        const std::size_t size = std::min(random() % limit + 1, text.size() - from);
        out << text.substr(from, size);
        from += size;
        if (random() % 3 == 0) {
            out << std::flush;
        }
    }
}

/// All of the text that comes next.
std::string readText(std::istream& in)
{
    in.clear();
    return {std::istreambuf_iterator<char>(in), {}};
}

} // namespace

TEST(kyNetStdOStream, closedTextIsChunksAndAnEnd)
{
    MemoryStream stream;
    kyNetStdOStream out(stream);
    out << "abc";
    EXPECT_EQ(stream.takeWritten(), "");
    out.close();
    EXPECT_EQ(stream.takeWritten(), chunkOf("abc") + endOfText());
    EXPECT_TRUE(out.good());
}

TEST(kyNetStdOStream, formatsLikeEveryStream)
{
    MemoryStream stream;
    kyNetStdOStream out(stream);
    out << 42 << ' ' << 1.5 << ' ' << std::hex << 255 << std::endl;
    EXPECT_EQ(stream.takeWritten(), chunkOf("42 1.5 ff\n"));
}

TEST(kyNetStdOStream, flushWritesAChunk)
{
    MemoryStream stream;
    kyNetStdOStream out(stream);
    out << std::flush;
    EXPECT_EQ(stream.takeWritten(), "");
    out << "a" << std::flush << "b" << std::flush << std::flush;
    EXPECT_EQ(stream.takeWritten(), chunkOf("a") + chunkOf("b"));
    EXPECT_TRUE(out.good());
}

TEST(kyNetStdOStream, emptyTextIsItsEnd)
{
    MemoryStream stream;
    kyNetStdOStream out(stream);
    out.close();
    EXPECT_EQ(stream.takeWritten(), endOfText());
}

TEST(kyNetStdOStream, secondCloseIsAnEmptyText)
{
    MemoryStream stream;
    kyNetStdOStream out(stream);
    out << "a";
    out.close();
    out.close();
    EXPECT_EQ(stream.takeWritten(), chunkOf("a") + endOfText() + endOfText());
}

TEST(kyNetStdOStream, destructionWritesWithoutAnEnd)
{
    MemoryStream stream;
    {
        kyNetStdOStream out(stream);
        out << "abc";
    }
    EXPECT_EQ(stream.takeWritten(), chunkOf("abc"));
}

TEST(kyNetStdOStream, destructionByABasePointer)
{
    MemoryStream stream;
    std::unique_ptr<std::ostream> out = std::make_unique<kyNetStdOStream>(stream);
    *out << "abc";
    out.reset();
    EXPECT_EQ(stream.takeWritten(), chunkOf("abc"));
}

TEST(kyNetStdOStream, valuesStandAroundTheText)
{
    MemoryStream stream;
    stream << 1;
    kyNetStdOStream out(stream);
    out << "ab";
    out.close();
    stream << 2;
    EXPECT_EQ(stream.takeWritten(),
              kyTest::wordOf(1) + chunkOf("ab") + endOfText() + kyTest::wordOf(2));
}

TEST(kyNetStdOStream, neitherFlushNorCloseSends)
{
    const auto sender = std::make_shared<kyTest::KeepingSender>();
    kyNetStream stream;
    stream.setSender(sender);
    kyNetStdOStream out(stream);
    out << "abc" << std::flush;
    out.close();
    EXPECT_TRUE(sender->sent.empty());
    stream.flush();
    ASSERT_EQ(sender->sent.size(), 1u);
    EXPECT_EQ(kyTest::dataOf(*sender->sent[0]), chunkOf("abc") + endOfText());
}

TEST(kyNetStdOStream, failureIsBadAndClears)
{
    MemoryStream stream;
    stream.setSendThreshold(4);
    kyNetStdOStream out(stream);
    stream.setClosed(true);
    out << "lost" << std::flush;
    EXPECT_TRUE(out.bad());
    stream.setClosed(false);
    stream.clearSendBuffer();
    out << "ignored";
    out.clear();
    out << "new" << std::flush;
    EXPECT_EQ(stream.takeWritten(), chunkOf("new"));
}

TEST(kyNetStdOStream, failureThrowsWhenToldTo)
{
    MemoryStream stream;
    stream.setSendThreshold(4);
    kyNetStdOStream out(stream);
    out.exceptions(std::ios::badbit);
    stream.setClosed(true);
    out << "lost";
    EXPECT_THROW(out << std::flush, kyConnectionClosed);
}

TEST(kyNetStdOStream, closeThrowsWhateverItIsTold)
{
    MemoryStream stream;
    stream.setSendThreshold(4);
    kyNetStdOStream out(stream);
    stream.setClosed(true);
    out << "lost";
    EXPECT_THROW(out.close(), kyConnectionClosed);
}

TEST(kyNetStdOStream, flushAfterEveryOperationWritesAChunkForEach)
{
    MemoryStream stream;
    kyNetStdOStream out(stream);
    out << std::unitbuf << "ab" << 12 << std::nounitbuf << "cd";
    EXPECT_EQ(stream.takeWritten(), chunkOf("ab") + chunkOf("12"));
    EXPECT_TRUE(out.good());
}

TEST(kyNetStdOStream, flushAfterEveryOperationThatFailsIsBad)
{
    MemoryStream stream;
    stream.setSendThreshold(4);
    kyNetStdOStream out(stream);
    out << std::unitbuf;
    stream.setClosed(true);
    out << "lost";
    EXPECT_TRUE(out.bad());
    stream.setClosed(false);
    stream.clearSendBuffer();
    out.clear();
    out << "new";
    EXPECT_TRUE(out.good());
    EXPECT_EQ(stream.takeWritten(), chunkOf("new"));
}

TEST(kyNetStdOStream, flushAfterEveryOperationThatFailsIsThrownByTheNext)
{
    MemoryStream stream;
    stream.setSendThreshold(4);
    kyNetStdOStream out(stream);
    out << std::unitbuf;
    out.exceptions(std::ios::badbit);
    stream.setClosed(true);
    EXPECT_NO_THROW(out << "lost"); // Flushed by a destructor, which throws nothing.
    EXPECT_TRUE(out.bad());
    EXPECT_THROW(out << "next", std::ios::failure);
}

TEST(kyNetStdOStream, closeThrowsAfterFlushesOfEveryOperation)
{
    MemoryStream stream;
    stream.setSendThreshold(4);
    kyNetStdOStream out(stream);
    out.rdbuf()->sputc('x'); // Beside the stream: nothing flushes it.
    out << std::unitbuf;
    stream.setClosed(true);
    EXPECT_THROW(out.close(), kyConnectionClosed);
}

TEST(kyNetStdOStream, destructionSwallowsItsFailure)
{
    MemoryStream stream;
    stream.setSendThreshold(4);
    kyNetStdOStream out(stream);
    out << "lost";
    stream.setClosed(true);
}

TEST(kyNetStdOStream, positionsAreThoseOfTheBuffer)
{
    MemoryStream stream;
    kyNetStdOStream out(stream);
    EXPECT_EQ(std::streamoff(out.tellp()), -1);
    out.seekp(7, std::ios::beg);
    EXPECT_EQ(std::streamoff(out.tellp()), 7);
    EXPECT_TRUE(out.good());
    out.seekp(0, std::ios::end);
    EXPECT_EQ(std::streamoff(out.tellp()), -1);
    EXPECT_TRUE(out.fail());
}

TEST(kyNetStdOStream, megabytesWithFlushesAtRandomPlaces)
{
    const std::string text = makeText(5000000);
    MemoryStream stream;
    kyNetStdOStream out(stream);
    writeInPieces(out, text, 1);
    out.close();
    EXPECT_TRUE(out.good());

    stream.give(stream.takeWritten());
    kyNetStdIStream in(stream);
    EXPECT_TRUE(readText(in) == text);
    EXPECT_TRUE(stream.hasReceivedAll());
}

TEST(kyNetStdOStream, textsOverAConnectionBetweenValues)
{
    constexpr int s_texts = 5;
    const std::string text = makeText(kyTest::s_isSlow ? 600000 : 3000000);
    const auto [near, far] = kyTest::makeLinks();
    auto writing = std::async(std::launch::async, [&, link = near] {
        kyNetStream stream(link);
        kyNetStdOStream out(stream);
        for (int i = 0; i < s_texts; ++i) {
            stream << i;
            writeInPieces(out, text, static_cast<unsigned>(i));
            out.close();
        }
        stream << s_texts << kyNetStream::flush;
    });
    kyNetStream stream(far);
    kyNetStdIStream in(stream);
    int number = 0;
    for (int i = 0; i < s_texts; ++i) {
        stream >> number;
        ASSERT_EQ(number, i);
        ASSERT_TRUE(readText(in) == text);
    }
    stream >> number;
    EXPECT_EQ(number, s_texts);
    writing.get();
}
