#pragma once

#include <cstdint>
#include <map>

#include <NetBase/receivers/kyNetReceiver.h>

/// Restores the order of multicast buffers, which overtake each other on several links and in
/// threads below.
///
///     stream.setReceiver(kyNetSortReceiver::create(
///         kyNetDecompressReceiver::create(compressor, children)));
///
/// Multicast buffers are delivered by their sequence numbers, from 0 and again from 0 after 65535;
/// what comes early is held. Buffers for a single rank pass at once, whatever their number.
///
/// Limits: a number that never comes is waited for for ever, while all later multicasts are held,
/// 65536 at most; of two that come early with the same number the second replaces the first. So
/// no more than 65535 multicasts may be on their way at once, or they cannot be told apart: a
/// sender that may get so far ahead over several links waits for acknowledgements, as
/// kyNetStream::sendSync and waitSync give them. There is one source of multicasts.
///
/// Ownership: shares the source; copies share it too and hold the same buffers.
class KY_NETBASE_EXPORT kyNetSortReceiver : public kyNetReceiver
{
public:
    /// Over this source; create is the usual way.
    explicit kyNetSortReceiver(const std::shared_ptr<kyNetReceiver>& source);

    kyNetSortReceiver(const kyNetSortReceiver&) = default;
    kyNetSortReceiver& operator=(const kyNetSortReceiver&) = default;

    static std::shared_ptr<kyNetReceiver> create(const std::shared_ptr<kyNetReceiver>& source);

    /// The next multicast in order, or the next buffer for a single rank; blocks until one of them
    /// comes. Throws what the source throws, and keeps what is held.
    void recv(std::shared_ptr<kyNetBuffer>& buffer) override;

    /// Whether something is held, also if recv would have to wait for another one, or the source
    /// is readable.
    bool isReadable() override;

private:
    bool takeHeld(std::shared_ptr<kyNetBuffer>& buffer);

    std::uint32_t m_expected = 0;
    std::shared_ptr<kyNetReceiver> m_source;
    std::map<std::uint32_t, std::shared_ptr<kyNetBuffer>> m_held; ///< By sequence number.
};
