#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include <NetBase/senders/kyNetSender.h>

namespace render {

/// Counts what passes a part of a chain that compresses nothing, so that getCompressedBytes of the
/// whole is what leaves the process.
///
/// Threads: as many as the child bears.
class TrafficCounter : public kyNetSender
{
public:
    explicit TrafficCounter(const std::shared_ptr<kyNetSender>& child);

    void send(const std::shared_ptr<kyNetBuffer>& buffer) override;
    void resetStatistics() override { m_bytes = 0; }
    std::uint64_t getCompressedBytes() override { return m_bytes; }

private:
    std::atomic<std::uint64_t> m_bytes{0};
};

} // namespace render
