#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <NetBase/serialization/kyNetStream.h>
#include <tests/links/kyLinkFixtures.h>
#include <tests/support/kyTestChains.h>

namespace kyTest {

/// A stream without a network: keeps what is written and reads what it is given; then it is closed.
class MemoryStream : public kyNetStream
{
public:
    MemoryStream()
    {
        setSender(m_sender);
        setReceiver(m_receiver);
    }

    /// All bytes that were written, flushed or not, since this was last asked.
    std::string takeWritten()
    {
        flush();
        std::string bytes;
        for (const Buffer& buffer : m_sender->sent) {
            bytes += dataOf(*buffer);
        }
        m_sender->sent.clear();
        return bytes;
    }

    /// Delivers these bytes next, in buffers of `step` bytes.
    void give(const std::string& bytes, std::size_t step = 100000)
    {
        for (std::size_t from = 0; from < bytes.size(); from += step) {
            m_receiver->given.push(makeBuffer(bytes.substr(from, step)));
        }
    }

    /// Whether all buffers that were given have been received.
    bool hasReceivedAll() const { return m_receiver->given.empty(); }

    /// Sending fails, or works again.
    void setClosed(bool isClosed)
    {
        m_sender->onSend = isClosed ? [](kyNetBuffer&) { throw kyConnectionClosed(); }
                                    : std::function<void(kyNetBuffer&)>();
    }

private:
    std::shared_ptr<KeepingSender> m_sender = std::make_shared<KeepingSender>();
    std::shared_ptr<GivingReceiver> m_receiver = std::make_shared<GivingReceiver>();
};

/// A chunk as it travels.
inline std::string chunkOf(const std::string& characters)
{
    return wordOf(static_cast<std::uint32_t>(characters.size())) + characters;
}

/// What ends a text.
inline std::string endOfText()
{
    return wordOf(0);
}

/// A text in which a byte at a wrong place shows.
inline std::string makeText(std::size_t size)
{
    std::string text(size, '\0');
    std::uint32_t state = 1;
    for (char& character : text) {
        state = state * 1664525 + 1013904223;
        character = static_cast<char>(state >> 24);
    }
    return text;
}

} // namespace kyTest
