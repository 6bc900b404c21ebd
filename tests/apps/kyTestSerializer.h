#pragma once

#include <deque>
#include <memory>

#include <NetBase/buffers/kyConnectionClosed.h>
#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/serialization/kyNetSerializer.h>

namespace kyTest {

/// A serializer that reads back what was written to it, over buffers of a size of its own.
class Loop : public kyNetSerializer
{
public:
    explicit Loop(int threshold = 1000) : kyNetSerializer(threshold) {}

    void flush() { flushSendBuffer(); }

    /// Whether everything that was flushed has been read.
    bool isEmpty() { return m_buffers.empty() && !isReadable(); }

private:
    void recvBuffer(std::shared_ptr<kyNetBuffer>& buffer) override
    {
        if (m_buffers.empty()) {
            throw kyConnectionClosed();
        }
        buffer = m_buffers.front();
        m_buffers.pop_front();
    }
    void sendBuffer(const std::shared_ptr<kyNetBuffer>& buffer) override
    {
        m_buffers.push_back(buffer);
    }

    std::deque<std::shared_ptr<kyNetBuffer>> m_buffers;
};

} // namespace kyTest
