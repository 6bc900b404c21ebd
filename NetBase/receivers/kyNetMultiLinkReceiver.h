#pragma once

#include <cstddef>
#include <exception>

#include <NetBase/links/kyPollWindow.h>
#include <NetBase/receivers/kyNetReceiver.h>

/// Receives from several links at once, with one poll over all of them and without a thread.
///
/// Every link that has something is read in the same pass, in the order of the links, and what
/// was read is delivered first in, first out: no busy link keeps another waiting for longer than
/// a pass. Since a poll over many links costs more than a small buffer, a link that alone had
/// something is read again before the next poll while it has more, at most once for every sixteen
/// links. A link that is closed or fails throws from recv; buffers that the pass read before it
/// are delivered by the next calls.
///
/// Limits: a peer that stops in the middle of a buffer holds up all links; set a receive time-out
/// on links to such peers.
///
/// Ownership: shares the links. Its end shuts all of them down, and so does the end of a copy.
class KY_NETBASE_EXPORT kyNetMultiLinkReceiver : public kyNetReceiver
{
public:
    /// From these links; create is the usual way.
    explicit kyNetMultiLinkReceiver(const std::vector<std::shared_ptr<kyNetLink>>& links);

    kyNetMultiLinkReceiver(const kyNetMultiLinkReceiver&) = default;
    kyNetMultiLinkReceiver& operator=(const kyNetMultiLinkReceiver&) = default;

    ~kyNetMultiLinkReceiver() override;

    /// A new multi link receiver, or a link receiver if there is only one link.
    static std::shared_ptr<kyNetReceiver>
    create(const std::vector<std::shared_ptr<kyNetLink>>& links);

    using kyNetReceiver::getLinks;

    /// The next buffer of any link. While none has one it looks every four seconds whether all
    /// are alive. Throws what the links throw, kyConnectionClosed if there are none, and
    /// kyNetError if the poll fails, after which it may be called again.
    void recv(std::shared_ptr<kyNetBuffer>& buffer) override;

    /// All that the pass has read; blocks and throws as recv.
    void recvAvailable(std::queue<std::shared_ptr<kyNetBuffer>>& queue) override;

protected:
    void getLinks(std::vector<std::shared_ptr<kyNetLink>>& links) override;

    /// Reads until there is a buffer to deliver; at once if there is one.
    void pollBuffers();

    /// What the next empty buffer makes recv throw; for a derived receiver that has a failure to
    /// tell. Nothing here sets it.
    std::exception_ptr m_error;

private:
    class PollSet;
    class Pinned;

    /// Reads the link that the last poll found alone, if it may be read without a poll of all and
    /// has more.
    bool readBusyLink();
    void readReadyLinks();
    void awaitReadyLinks();
    bool isReady(kyNetLink& link);

    std::queue<std::shared_ptr<kyNetBuffer>> m_recvQueue;
    std::vector<std::shared_ptr<kyNetLink>> m_links;
    kyPollWindow<> m_pollWindow;
    std::shared_ptr<PollSet> m_pollSet;
    std::vector<std::size_t> m_ready; // What the last poll has found, kept for its memory.
    std::size_t m_busyLink = 0;
    std::size_t m_shortPasses = 0; // That it may still be read alone.
};
