#include <NetBase/serialization/kyNetStdIStream.h>

#include <functional>
#include <future>
#include <ios>
#include <iterator>
#include <limits>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <NetBase/serialization/kyNetStdOStream.h>
#include <tests/serialization/kyTestMemoryStream.h>
#include <tests/support/kyTestBlocked.h>

using kyTest::Blocked;
using kyTest::chunkOf;
using kyTest::endOfText;
using kyTest::MemoryStream;
using kyTest::messageOf;
using kyTest::RawSocket;
using kyTest::wordOf;

namespace {

/// A stream over a link, and the plain socket at its other end.
struct Connection
{
    kyTest::LinkAndPeer ends;
    kyNetStream stream{ends.link};
    kyNetStdIStream in{stream};

    /// Sends a buffer of stream data as it travels.
    void send(const std::string& data)
    {
        ends.peer.send(kyTest::bytesOf(*kyTest::makeBuffer(data)));
    }
};

} // namespace

TEST(kyNetStdIStream, textEndsWithEndOfFile)
{
    MemoryStream stream;
    stream.give(chunkOf("abc") + endOfText());
    kyNetStdIStream in(stream);
    std::string word;
    in >> word;
    EXPECT_EQ(word, "abc");
    EXPECT_TRUE(in.eof());
    EXPECT_FALSE(in.bad());
    in >> word;
    EXPECT_TRUE(in.fail());
}

TEST(kyNetStdIStream, wordsAndNumbersAcrossChunks)
{
    MemoryStream stream;
    stream.give(chunkOf("12") + chunkOf("34 1") + chunkOf(".5\nli") + chunkOf("ne one\nt") +
                chunkOf("wo\n") + endOfText());
    kyNetStdIStream in(stream);
    int integer = 0;
    double fraction = 0;
    in >> integer >> fraction;
    EXPECT_EQ(integer, 1234);
    EXPECT_EQ(fraction, 1.5);
    std::string line;
    std::getline(in, line);
    std::getline(in, line);
    EXPECT_EQ(line, "line one");
    std::getline(in, line);
    EXPECT_EQ(line, "two");
    EXPECT_TRUE(in.good());
    EXPECT_FALSE(std::getline(in, line));
    EXPECT_TRUE(in.eof());
}

TEST(kyNetStdIStream, twoTextsOneAfterTheOther)
{
    MemoryStream stream;
    stream.give(chunkOf("first") + endOfText() + chunkOf("second") + endOfText());
    kyNetStdIStream in(stream);
    std::string word;
    in >> word;
    EXPECT_EQ(word, "first");
    EXPECT_FALSE(in >> word); // Nothing is read beyond the end before clear.
    in.clear();
    in >> word;
    EXPECT_EQ(word, "second");
    EXPECT_TRUE(stream.hasReceivedAll());
}

TEST(kyNetStdIStream, emptyText)
{
    MemoryStream stream;
    stream.give(endOfText() + chunkOf("a") + endOfText());
    kyNetStdIStream in(stream);
    EXPECT_EQ(in.get(), std::char_traits<char>::eof());
    in.clear();
    EXPECT_EQ(in.get(), 'a');
}

TEST(kyNetStdIStream, valuesFollowATextThatWasReadToItsEnd)
{
    MemoryStream stream;
    stream.give(wordOf(1) + chunkOf("ab") + endOfText() + wordOf(2));
    int number = 0;
    stream >> number;
    EXPECT_EQ(number, 1);
    std::string word;
    kyNetStdIStream(stream) >> word;
    EXPECT_EQ(word, "ab");
    stream >> number;
    EXPECT_EQ(number, 2);
}

TEST(kyNetStdIStream, everyWayToTheEndStopsThere)
{
    using End = std::istreambuf_iterator<char>;
    const std::vector<std::function<void(std::istream&)>> ways{
        [](std::istream& in) { in.ignore(1000); },
        [](std::istream& in) { in.ignore(std::numeric_limits<std::streamsize>::max()); },
        [](std::istream& in) { in.ignore(1000, 'x'); },
        [](std::istream& in) { in.get(), in.get(), in.get(), in.peek(), in.peek(), in.get(); },
        [](std::istream& in) {
            std::vector<char> bytes(1000);
            in.read(bytes.data(), 1000);
        },
        [](std::istream& in) {
            std::vector<char> bytes(1000);
            in.getline(bytes.data(), 1000);
        },
        [](std::istream& in) {
            std::string line, other;
            std::getline(std::getline(in, line), other);
        },
        [](std::istream& in) {
            std::string word;
            while (in >> word) {
            }
        },
        [](std::istream& in) {
            while (in.get() != std::char_traits<char>::eof()) {
            }
        },
        [](std::istream& in) { EXPECT_EQ(std::string(End(in), End()), "a c"); },
        [](std::istream& in) {
            std::ostringstream out;
            out << in.rdbuf();
            EXPECT_EQ(out.str(), "a c");
        },
    };
    for (const auto& way : ways) {
        MemoryStream stream;
        stream.give(chunkOf("a ") + chunkOf("c") + endOfText() + wordOf(7));
        kyNetStdIStream in(stream);
        way(in);
        EXPECT_FALSE(in.bad());
        int number = 0;
        stream >> number;
        EXPECT_EQ(number, 7);
    }
}

TEST(kyNetStdIStream, syncOfInputWritesNothing)
{
    MemoryStream stream;
    stream.give(chunkOf("ab"));
    kyNetStdIStream in(stream);
    EXPECT_EQ(in.get(), 'a');
    EXPECT_EQ(in.sync(), 0);
    EXPECT_EQ(in.get(), 'b');
    EXPECT_EQ(stream.takeWritten(), "");
}

TEST(kyNetStdIStream, nothingIsPutBackBeforeAChunk)
{
    MemoryStream stream;
    stream.give(chunkOf("a") + chunkOf("b"));
    kyNetStdIStream in(stream);
    EXPECT_EQ(in.get(), 'a');
    EXPECT_EQ(in.get(), 'b');
    in.unget();
    EXPECT_TRUE(in.good());
    in.unget();
    EXPECT_TRUE(in.bad());
}

TEST(kyNetStdIStream, outputThatIsTiedIsFlushedBeforeTheInputIsAwaited)
{
    MemoryStream stream;
    stream.give(chunkOf("answer") + endOfText());
    kyNetStdOStream out(stream);
    kyNetStdIStream in(stream);
    in.tie(&out);
    out << "question";
    std::string word;
    in >> word;
    EXPECT_EQ(word, "answer");
    EXPECT_EQ(stream.takeWritten(), chunkOf("question"));
}

TEST(kyNetStdIStream, destructionReadsNothing)
{
    MemoryStream stream;
    stream.give(chunkOf("ab"));
    std::unique_ptr<std::istream> in = std::make_unique<kyNetStdIStream>(stream);
    in.reset();
    EXPECT_FALSE(stream.hasReceivedAll());
}

TEST(kyNetStdIStream, closedConnectionIsBad)
{
    MemoryStream stream;
    stream.give(chunkOf("ab"));
    kyNetStdIStream in(stream);
    std::string word;
    in >> word;
    EXPECT_EQ(word, "ab");
    EXPECT_TRUE(in.bad());
    EXPECT_FALSE(in.eof());
}

TEST(kyNetStdIStream, chunkThatIsTooLongIsBad)
{
    MemoryStream stream;
    stream.give(chunkOf("ab") + wordOf(1048577));
    kyNetStdIStream in(stream);
    std::string word;
    in >> word;
    EXPECT_EQ(word, "ab");
    EXPECT_TRUE(in.bad());
}

TEST(kyNetStdIStream, failuresAreThrownWhenToldTo)
{
    MemoryStream stream;
    kyNetStdIStream in(stream);
    in.exceptions(std::ios::badbit);
    EXPECT_THROW(in.get(), kyConnectionClosed);
    in.clear();
    stream.give(wordOf(1048577));
    EXPECT_EQ(messageOf([&] { in.get(); }), "Datastream out of sync");
}

TEST(kyNetStdIStream, positionsAreThoseOfTheBuffer)
{
    MemoryStream stream;
    stream.give(chunkOf("abc") + chunkOf("def") + endOfText());
    kyNetStdIStream in(stream);
    EXPECT_EQ(std::streamoff(in.tellg()), -1);
    std::string word(4, ' ');
    in.read(word.data(), 4);
    EXPECT_EQ(word, "abcd");
    in.seekg(0, std::ios::beg);
    in >> word;
    EXPECT_EQ(word, "def");
    in.clear();
    in.seekg(7, std::ios::beg);
    EXPECT_EQ(std::streamoff(in.tellg()), 7);
    in.seekg(0); // An absolute position.
    EXPECT_TRUE(in.fail());
}

TEST(kyNetStdIStream, characterCanBePutBackAtTheEnd)
{
    MemoryStream stream;
    stream.give(chunkOf("ab") + endOfText());
    kyNetStdIStream in(stream);
    std::string word;
    in >> word;
    EXPECT_TRUE(in.eof());
    in.clear();
    in.unget();
    EXPECT_EQ(in.get(), 'b');
}

// Over a real connection.

TEST(kyNetStdIStream, peerThatTricklesIsWaitedFor)
{
    Connection c;
    auto trickling = std::async(std::launch::async, [&] {
        for (const char byte : kyTest::bytesOf(*kyTest::makeBuffer(chunkOf("a b") + endOfText()))) {
            c.ends.peer.send(std::string(1, byte));
        }
    });
    std::string first;
    std::string second;
    c.in >> first >> second;
    EXPECT_EQ(first + second, "ab");
    EXPECT_TRUE(c.in.eof());
    trickling.get();
}

TEST(kyNetStdIStream, peerThatClaimsAllThereCouldBeIsRefused)
{
    Connection c;
    c.send(wordOf(0xffffffff) + "and more");
    EXPECT_EQ(c.in.get(), std::char_traits<char>::eof());
    EXPECT_TRUE(c.in.bad());
    EXPECT_FALSE(c.in.eof());
}

TEST(kyNetStdIStream, peerThatStopsInAChunkAndGoes)
{
    Connection c;
    c.in.exceptions(std::ios::badbit);
    c.send(chunkOf("whole") + wordOf(1048576) + "not the whole mebibyte");
    c.ends.peer.close();
    std::string word(5, ' ');
    c.in.read(word.data(), 5);
    EXPECT_EQ(word, "whole");
    EXPECT_THROW(c.in.get(), kyConnectionClosed);
}

TEST(kyNetStdIStream, peerThatResetsInAChunk)
{
    Connection c;
    c.in.exceptions(std::ios::badbit);
    c.send(chunkOf("whole") + wordOf(10) + "half");
    std::string word(5, ' ');
    c.in.read(word.data(), 5);
    EXPECT_EQ(word, "whole");
    c.ends.peer.reset();
    EXPECT_THROW(c.in.get(), kyConnectionClosed);
}

TEST(kyNetStdIStream, shutdownWakesAReader)
{
    Connection c;
    c.send(wordOf(10) + "half");
    Blocked reading([&] { c.in.get(); });
    EXPECT_TRUE(reading.isBlocked());
    c.stream.shutdown();
    reading.finish();
    EXPECT_TRUE(c.in.bad());
}

TEST(kyNetStdIStream, peerThatSendsAMessageInsteadIsOutOfSync)
{
    Connection c;
    c.in.exceptions(std::ios::badbit);
    c.ends.peer.send(kyTest::bytesOf(*kyTest::makeBuffer("abcd", 3, 9, kyNetMessageType::Message)));
    EXPECT_EQ(messageOf([&] { c.in.get(); }),
              "Stream out of sync. Stream expected at 0 from 3 to 9");
}
