#include <NetBase/receivers/kyNetSortReceiver.h>

#include <utility>

#include <NetBase/buffers/kyNetBuffer.h>

namespace {

std::uint32_t sequenceOf(const kyNetBuffer& buffer)
{
    return static_cast<std::uint32_t>(buffer.getSequence());
}

std::uint32_t nextSequence(std::uint32_t sequence)
{
    return (sequence + 1) & 0xFFFF;
}

} // namespace

kyNetSortReceiver::kyNetSortReceiver(const std::shared_ptr<kyNetReceiver>& source)
    : kyNetReceiver(source), m_source(source)
{
}

std::shared_ptr<kyNetReceiver>
kyNetSortReceiver::create(const std::shared_ptr<kyNetReceiver>& source)
{
    return std::make_shared<kyNetSortReceiver>(source);
}

void kyNetSortReceiver::recv(std::shared_ptr<kyNetBuffer>& buffer)
{
    if (takeHeld(buffer)) {
        return;
    }
    m_source->recv(buffer);
    while (buffer->isMulticast()) {
        const std::uint32_t sequence = sequenceOf(*buffer);
        if (sequence == m_expected) {
            m_expected = nextSequence(sequence);
            return;
        }
        m_held[sequence] = std::move(buffer);
        m_source->recv(buffer);
    }
}

bool kyNetSortReceiver::isReadable()
{
    return !m_held.empty() || m_source->isReadable();
}

bool kyNetSortReceiver::takeHeld(std::shared_ptr<kyNetBuffer>& buffer)
{
    const auto next = m_held.find(m_expected);
    if (next == m_held.end()) {
        return false;
    }
    buffer = std::move(next->second);
    m_held.erase(next);
    m_expected = nextSequence(m_expected);
    return true;
}
