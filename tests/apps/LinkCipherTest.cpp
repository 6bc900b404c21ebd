#include <apps/common/LinkCipher.h>

#include <algorithm>
#include <cstdint>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/links/kySocketLink.h>
#include <tests/apps/kyTestKey.h>
#include <tests/support/kyTestChains.h>

namespace {

using Bytes = std::vector<std::uint8_t>;

/// Two ends of a link.
struct Ends
{
    LinkCipher near{kyTest::makeKey(1)->getBytes(), kyTest::makeKey(2)->getBytes()};
    LinkCipher far{kyTest::makeKey(2)->getBytes(), kyTest::makeKey(1)->getBytes()};
};

Bytes encrypt(LinkCipher& cipher, const Bytes& clear)
{
    Bytes result(clear.size());
    cipher.encrypt(result.data(), clear.data(), clear.size());
    return result;
}

Bytes decrypt(LinkCipher& cipher, Bytes bytes)
{
    cipher.decrypt(bytes.data(), bytes.data(), bytes.size());
    return bytes;
}

/// The first bytes of the key stream of a direction.
Bytes keyStream(std::size_t size)
{
    Ends ends;
    return encrypt(ends.near, Bytes(size));
}

} // namespace

TEST(LinkCipher, keyStreamIsChaCha20)
{
    // The first block of the cipher for a key and a nonce of zeros, as published with it.
    LinkCipher cipher(kyTest::makeKey(0)->getBytes(), kyTest::makeKey(1)->getBytes());
    const Bytes stream = encrypt(cipher, Bytes(16));
    EXPECT_EQ(kyTest::toHex(stream.data(), stream.size()),
              "76 b8 e0 ad a0 f1 3d 90 40 5d 6a e5 53 86 bd 28");
}

TEST(LinkCipher, whatOneEndEncryptsTheOtherDecrypts)
{
    Ends ends;
    for (const std::size_t size : {0U, 1U, 16U, 63U, 64U, 65U, 127U, 128U, 131602U}) {
        Bytes clear(size, 7);
        const Bytes hidden = encrypt(ends.near, clear);
        EXPECT_TRUE(size < 16 || hidden != clear);
        EXPECT_EQ(decrypt(ends.far, hidden), clear);
        EXPECT_EQ(decrypt(ends.near, encrypt(ends.far, clear)), clear);
    }
}

TEST(LinkCipher, streamDoesNotDependOnHowItIsCut)
{
    const Bytes whole = keyStream(1000);
    for (std::size_t step = 1; step <= 200; ++step) {
        Ends ends;
        Bytes pieces;
        while (pieces.size() < whole.size()) {
            const Bytes piece =
                encrypt(ends.near, Bytes(std::min(step, whole.size() - pieces.size())));
            pieces.insert(pieces.end(), piece.begin(), piece.end());
        }
        EXPECT_EQ(pieces, whole) << step;
    }
}

TEST(LinkCipher, noPartOfTheStreamComesTwice)
{
    const Bytes stream = keyStream(64 * 100);
    for (std::size_t block = 64; block < stream.size(); block += 64) {
        EXPECT_FALSE(std::equal(stream.begin(), stream.begin() + 64,
                                stream.begin() + static_cast<std::ptrdiff_t>(block)));
    }
}

TEST(LinkCipher, directionsHaveDifferentStreams)
{
    Ends ends;
    EXPECT_NE(encrypt(ends.near, Bytes(32)), encrypt(ends.far, Bytes(32)));
}

TEST(LinkCipher, directionsRunAtOnce)
{
    // The sanitizer sees what the two share.
    Ends ends;
    Ends expected;
    const Bytes clear(1000, 1);
    auto sent = std::async(std::launch::async, [&] {
        Bytes last;
        for (int i = 0; i < 100; ++i) {
            last = encrypt(ends.near, clear);
        }
        return last;
    });
    Bytes received;
    for (int i = 0; i < 100; ++i) {
        received = decrypt(ends.near, encrypt(ends.far, clear));
    }
    EXPECT_EQ(received, clear);
    Bytes last;
    for (int i = 0; i < 100; ++i) {
        last = encrypt(expected.near, clear);
    }
    EXPECT_EQ(sent.get(), last);
}

TEST(LinkCipher, buffersOfALinkTravelHidden)
{
    const auto [near, far] = kyTest::makeLinks();
    near->setCipher(std::make_shared<LinkCipher>(kyTest::makeKey(1)->getBytes(),
                                                 kyTest::makeKey(2)->getBytes()));
    const auto cipher = std::make_shared<LinkCipher>(kyTest::makeKey(2)->getBytes(),
                                                     kyTest::makeKey(1)->getBytes());
    const std::string text(1000, 'x');
    near->send(kyTest::makeBuffer(text));
    near->send(kyTest::makeBuffer(text));
    near->send(kyTest::makeBuffer(text));

    // The first one as somebody on the way sees it; then the other end's place in the stream is
    // that of the second.
    kyTest::Buffer buffer;
    far->recv(buffer);
    EXPECT_EQ(buffer->getDataSize(), text.size());
    EXPECT_EQ(kyTest::dataOf(*buffer).find("xxx"), std::string::npos);
    Bytes passed(text.size() + 16);
    cipher->decrypt(passed.data(), passed.data(), passed.size());

    far->setCipher(cipher);
    for (int i = 0; i < 2; ++i) {
        far->recv(buffer);
        EXPECT_EQ(kyTest::dataOf(*buffer), text);
        EXPECT_EQ(buffer->getType(), kyNetMessageType::StreamData);
    }
}
