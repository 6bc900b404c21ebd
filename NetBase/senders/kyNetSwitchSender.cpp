#include <NetBase/senders/kyNetSwitchSender.h>

#include <NetBase/buffers/kyNetBuffer.h>

kyNetSwitchSender::kyNetSwitchSender(const std::shared_ptr<kyNetSender>& first,
                                     const std::shared_ptr<kyNetSender>& second,
                                     std::uint64_t threshold)
    : kyNetSender(first, second), m_first(first), m_second(second), m_threshold(threshold)
{
}

std::shared_ptr<kyNetSender> kyNetSwitchSender::create(const std::shared_ptr<kyNetSender>& first,
                                                       const std::shared_ptr<kyNetSender>& second,
                                                       std::uint64_t threshold)
{
    return std::make_shared<kyNetSwitchSender>(first, second, threshold);
}

void kyNetSwitchSender::send(const std::shared_ptr<kyNetBuffer>& buffer)
{
    (takesFirst(*buffer) ? m_first : m_second)->send(buffer);
}

bool kyNetSwitchSender::takesFirst(const kyNetBuffer& buffer) const
{
    switch (buffer.getSendMode()) {
    case kyNetBufferSendMode::First:
        return true;
    case kyNetBufferSendMode::Automatic:
        return buffer.getDataSize() > m_threshold;
    default:
        return false;
    }
}
