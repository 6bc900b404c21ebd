#pragma once

#include <memory>
#include <vector>

#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/serialization/kyNetMessage.h>
#include <benchmarks/serialization/kyBlock.h>

/// The library itself: a message written into a buffer of the pool, and read from it.
class kyLibraryPeer
{
public:
    template <class T> void write(const std::vector<T>& values)
    {
        for (const T& value : values) {
            m_message << value;
        }
        m_written = m_message.takeSendBuffer();
    }
    void write(const std::vector<kyBlock>& blocks)
    {
        for (const kyBlock& block : blocks) {
            m_message.putBytes(block.data(), block.size());
        }
        m_written = m_message.takeSendBuffer();
    }

    template <class T> void read(std::vector<T>& values)
    {
        m_message.setRecvBuffer(m_written);
        for (T& value : values) {
            m_message >> value;
        }
    }
    void read(std::vector<kyBlock>& blocks)
    {
        m_message.setRecvBuffer(m_written);
        for (kyBlock& block : blocks) {
            m_message.getBytes(block.data(), block.size());
        }
    }

private:
    kyNetMessage m_message;
    std::shared_ptr<kyNetBuffer> m_written;
};
