#include <NetBase/buffers/kyNetOptions.h>

#include <algorithm>

std::atomic<std::int32_t> kyNetOptions::m_dataCompression{-1};
std::atomic<std::int32_t> kyNetOptions::m_imageCompression{-1};
std::atomic<std::int32_t> kyNetOptions::m_streamBufferSize{-1};
std::atomic<std::int32_t> kyNetOptions::m_receivePolling{-1};

kyNetCompression kyNetOptions::getDataCompression()
{
    const std::int32_t set = m_dataCompression;
    return set >= 0 ? static_cast<kyNetCompression>(set) : getDefaultDataCompression();
}

void kyNetOptions::setDataCompression(kyNetCompression compression)
{
    m_dataCompression = static_cast<std::int32_t>(compression);
}

kyNetCompression kyNetOptions::getImageCompression()
{
    const std::int32_t set = m_imageCompression;
    return set >= 0 ? static_cast<kyNetCompression>(set) : getDefaultImageCompression();
}

void kyNetOptions::setImageCompression(kyNetCompression compression)
{
    m_imageCompression = static_cast<std::int32_t>(compression);
}

int kyNetOptions::getStreamBufferSize()
{
    const std::int32_t set = m_streamBufferSize;
    return set > 0 ? set : getMaxStreamBufferSize();
}

void kyNetOptions::setStreamBufferSize(int size)
{
    m_streamBufferSize = std::min(size, getMaxStreamBufferSize());
}

int kyNetOptions::getReceivePolling()
{
    const std::int32_t set = m_receivePolling;
    return set >= 0 ? set : getDefaultReceivePolling();
}

void kyNetOptions::setReceivePolling(int microseconds)
{
    m_receivePolling = std::min(microseconds, getMaxReceivePolling());
}
