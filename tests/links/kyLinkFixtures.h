#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <typeinfo>
#include <utility>

#include <gtest/gtest.h>

#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/buffers/kyNetBufferPool.h>
#include <NetBase/links/kyNetCipherBase.h>
#include <NetBase/links/kySocketLink.h>
#include <NetBase/platform/kyLastError.h>
#include <tests/support/kyTestBlocked.h>
#include <tests/support/kyTestSocket.h>
#include <tests/support/kyTestSystem.h>
#include <tests/support/kyTestWait.h>

/// What the tests of links share.
namespace kyTest {

/// A link whose protected operations can be called.
class OpenLink : public kySocketLink
{
public:
    using kySocketLink::getAvailable;
    using kySocketLink::getLastError;
    using kySocketLink::kySocketLink;
    using kySocketLink::setIPv6Only;
    using kySocketLink::setKeepAlive;
    using kySocketLink::setLinger;
    using kySocketLink::setReusePort;
};

/// A cipher that every byte of a wrong place or a wrong length would give away.
class XorCipher final : public kyNetCipherBase
{
public:
    void encrypt(std::uint8_t* out, const std::uint8_t* in, std::uint64_t length) override
    {
        for (std::uint64_t i = 0; i < length; ++i) {
            out[i] = static_cast<std::uint8_t>(in[i] ^ (0x5a + i * 31));
        }
    }
    void decrypt(std::uint8_t* out, const std::uint8_t* in, std::uint64_t length) override
    {
        encrypt(out, in, length);
    }
};

/// A buffer of random bytes; the same seed gives the same bytes.
inline std::shared_ptr<kyNetBuffer> makeBuffer(std::uint64_t size, unsigned seed = 1)
{
    auto buffer = kyNetBufferPool::pop();
    std::minstd_rand random(seed + 1);
    buffer->setDataSize(size);
    buffer->setCompression(kyNetCompression::None, size);
    buffer->setSequence(static_cast<int>(seed));
    buffer->setType(kyNetMessageType::Message);
    buffer->setSource(seed * 3);
    buffer->setDestination(seed * 5);
    buffer->setSendMode(kyNetBufferSendMode::Automatic);
    for (std::uint64_t i = 0; i < size; ++i) {
        buffer->getData()[i] = static_cast<char>(random());
    }
    return buffer;
}

/// The bytes that go on the wire.
inline std::string bytesOf(const kyNetBuffer& buffer)
{
    return {reinterpret_cast<const char*>(buffer.getBuffer()),
            static_cast<std::size_t>(buffer.getBufferSize())};
}

/// A code as it stands at the end of messages.
inline std::string describeCode(int code)
{
    return std::to_string(code) + ":" + kyLastError::getText(code);
}

/// Expects of a connection what every link sets that is not adopted.
inline void expectPrepared(kySocketHandle handle)
{
    const SocketOptions options = getSocketOptions(handle);
    EXPECT_TRUE(options.noDelay);
    EXPECT_TRUE(options.lingers);
    EXPECT_EQ(options.lingerSeconds, 1);
    EXPECT_TRUE(options.keepsAlive);
    EXPECT_EQ(options.keepAliveIdleSeconds, 120);
    EXPECT_EQ(options.keepAliveIntervalSeconds, 1);
    EXPECT_TRUE(options.isBlocking);
    EXPECT_FALSE(options.isInherited);
    EXPECT_EQ(options.receiveTimeoutMilliseconds, 0);
}

/// A value as the four bytes that travel.
inline std::string wordOf(std::uint32_t value)
{
    std::string bytes;
    for (int shift = 0; shift < 32; shift += 8) {
        bytes += static_cast<char>(value >> shift);
    }
    return bytes;
}

/// A link and the plain socket at its other end.
struct LinkAndPeer
{
    std::shared_ptr<OpenLink> link;
    RawSocket peer;

    LinkAndPeer() : LinkAndPeer(makeConnection()) {}
    explicit LinkAndPeer(std::pair<kySocketHandle, kySocketHandle> handles)
        : link(std::make_shared<OpenLink>(handles.first)), peer(handles.second)
    {
    }
};

/// Two links, connected.
struct LinkPair
{
    std::shared_ptr<OpenLink> first;
    std::shared_ptr<OpenLink> second;

    LinkPair() : LinkPair(makeConnection()) {}
    explicit LinkPair(std::pair<kySocketHandle, kySocketHandle> handles)
        : first(std::make_shared<OpenLink>(handles.first)),
          second(std::make_shared<OpenLink>(handles.second))
    {
    }
};

/// The text of the error of that type, and of no subclass, that the action throws.
template <class Error> std::string failureOf(const std::function<void()>& action)
{
    try {
        action();
    } catch (const Error& error) {
        return typeid(error) == typeid(Error) ? error.what() : "a subclass was thrown";
    }
    return "nothing was thrown";
}

/// The same for an action that has room for descriptors below the limit only. The failure is looked
/// at when there is room again, since sanitizers need some to look.
template <class Error>
std::string failureWithin(std::size_t limit, const std::function<void()>& action)
{
    std::exception_ptr failure;
    {
        const DescriptorLimit lowered(limit);
        try {
            action();
        } catch (...) {
            failure = std::current_exception();
        }
    }
    return failureOf<Error>([&] {
        if (failure) {
            std::rethrow_exception(failure);
        }
    });
}

} // namespace kyTest
