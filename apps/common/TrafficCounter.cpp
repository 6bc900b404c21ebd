#include <apps/common/TrafficCounter.h>

#include <NetBase/buffers/kyNetBuffer.h>

namespace render {

TrafficCounter::TrafficCounter(const std::shared_ptr<kyNetSender>& child) : kyNetSender(child) {}

void TrafficCounter::send(const std::shared_ptr<kyNetBuffer>& buffer)
{
    // Read first: who has given a buffer away knows nothing of it any more.
    const std::uint64_t size = buffer->getBufferSize();
    getChildren().front()->send(buffer);
    m_bytes += size;
}

} // namespace render
