#pragma once

#include <memory>
#include <queue>
#include <string>
#include <vector>

#include <NetBase/kyNetBaseExport.h>

class kyNetBuffer;
class kyNetLink;

/// One stage of the way that buffers take into a process, the mirror of kyNetSender.
///
/// A receiver delivers whole buffers that it takes from its children, and the last one from links:
///
///     stream.setReceiver(kyNetMultiLinkReceiver::create(links));
///
/// Ownership: make receivers with their create, hold them by std::shared_ptr. A parent shares its
/// children, and copies share them too.
///
/// Threads: one thread at a time may receive from a chain. shutdown may be called by any thread,
/// and wakes it.
///
/// Failures: what a link throws passes through to the caller.
class KY_NETBASE_EXPORT kyNetReceiver
{
public:
    /// Without children.
    kyNetReceiver();

    /// With these children.
    explicit kyNetReceiver(const std::shared_ptr<kyNetReceiver>& child);
    explicit kyNetReceiver(const std::vector<std::shared_ptr<kyNetReceiver>>& children);

    kyNetReceiver(const kyNetReceiver&) = default;
    kyNetReceiver& operator=(const kyNetReceiver&) = default;

    virtual ~kyNetReceiver();

    /// Node that the links below are served on: the first child's that has one, or -1.
    virtual int getNodeAffinity();

protected:
    /// Appends every link that is reached through this receiver.
    virtual void getLinks(std::vector<std::shared_ptr<kyNetLink>>& links);

public:
    /// Replaces `buffer` by the next one; blocks until there is one.
    virtual void recv(std::shared_ptr<kyNetBuffer>& buffer) = 0;

    /// Appends all buffers that are at hand; blocks until there is one.
    virtual void recvAvailable(std::queue<std::shared_ptr<kyNetBuffer>>& queue);

    /// Delivers a buffer as if it had been received. Throws kyNetError for a receiver without a
    /// queue of its own.
    virtual void addToRecvQueue(const std::shared_ptr<kyNetBuffer>& buffer);

    /// Whether recv would return without waiting for the network; true if that is not known.
    virtual bool isReadable();

    /// Names the link for a message to the user, "unknown" if there is not just one.
    virtual std::string getLinkName();

    /// Every link that is reached through this receiver, in the order of the children.
    std::vector<std::shared_ptr<kyNetLink>> getLinks();

    /// Shuts down every link below, which ends the receives that wait in them. Any thread.
    void shutdown();

private:
    std::vector<std::shared_ptr<kyNetReceiver>> m_children;
};
