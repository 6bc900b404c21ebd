#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <vector>

#include <NetBase/kyNetBaseExport.h>

class kyNetBuffer;
class kyNetLink;

/// One stage of the way that buffers take out of a process.
///
/// A sender hands each buffer to one or more of its children, and the last one to a link:
///
///     auto sender = kyNetLockedSender::create(
///         kyNetMultiSender::create({kyNetLinkSender::create(toTwo, {2}),
///                                   kyNetLinkSender::create(toThree, {3})}));
///     stream.setSender(sender);
///
/// Every sender knows the ranks that can be reached through it, its destinations: a leaf is given
/// them, all others take the union of their children's when they are made.
///
/// Ownership: make senders with their create, hold them by std::shared_ptr. A parent shares its
/// children, so one child may stand below several parents, and copies share them too.
///
/// Threads: one thread at a time may send through a chain, unless a kyNetLockedSender or a sender
/// with threads of its own stands above it. shutdown may be called by any thread.
///
/// Failures: what a link throws passes through every sender unchanged; through one with threads of
/// its own with a later call.
class KY_NETBASE_EXPORT kyNetSender
{
public:
    /// Without children and destinations.
    kyNetSender();

    /// Without children, for these destinations.
    explicit kyNetSender(const std::set<unsigned int>& destinations);

    /// With these children and all that they reach now.
    explicit kyNetSender(const std::vector<std::shared_ptr<kyNetSender>>& children);
    explicit kyNetSender(const std::shared_ptr<kyNetSender>& child);
    kyNetSender(const std::shared_ptr<kyNetSender>& first,
                const std::shared_ptr<kyNetSender>& second);

    kyNetSender(const kyNetSender&) = default;
    kyNetSender& operator=(const kyNetSender&) = default;

    virtual ~kyNetSender();

    /// One sender for several parallel links to the same peer, each of which reaches these
    /// destinations: a kyNetBufferedSender with a thread for each link, or else a
    /// kyNetBalancedSender, which is the link's own sender if there is only one. Give at least one
    /// link. Buffers overtake each other on several links, either way.
    static std::shared_ptr<kyNetSender> createBundle(std::vector<std::shared_ptr<kyNetLink>> links,
                                                     bool buffered,
                                                     const std::set<unsigned int>& destinations);

protected:
    /// Appends every link that is reached through this sender.
    virtual void getLinks(std::vector<std::shared_ptr<kyNetLink>>& links);

public:
    /// Node that the links below are served on: the first child's that has one, or -1.
    virtual int getNodeAffinity();

    /// Sends a buffer on its way; blocks as the links do, or until there is room in a queue. Who
    /// has given a buffer away does not write to it any more.
    virtual void send(const std::shared_ptr<kyNetBuffer>& buffer) = 0;

    /// Sets what getCompressedBytes counts to 0.
    virtual void resetStatistics();

    /// Bytes that the senders below have compressed buffers to, headers included.
    virtual std::uint64_t getCompressedBytes();

    /// Blocks until threads below have passed on all that was sent; at once without threads.
    virtual void waitAllDataTransfered();

    /// Sends the buffers in their order as send does; a sender that can passes them on together.
    /// After a failure nothing says which of them have been sent.
    virtual void sendMany(const std::vector<std::shared_ptr<kyNetBuffer>>& buffers);

    /// Every link that is reached through this sender, in the order of the children.
    std::vector<std::shared_ptr<kyNetLink>> getLinks();

    /// The ranks that can be reached.
    const std::set<unsigned int>& getDestinations() const { return m_destinations; }
    bool hasDestination(unsigned int rank) const { return m_destinations.count(rank) != 0; }

    /// Forgets a rank here; the children keep it.
    void removeDestination(unsigned int rank) { m_destinations.erase(rank); }

    std::vector<std::shared_ptr<kyNetSender>>& getChildren() { return m_children; }

    /// Shuts down every link below, which wakes the threads that wait in them. Any thread.
    void shutdown();

private:
    std::vector<std::shared_ptr<kyNetSender>> m_children;
    std::set<unsigned int> m_destinations;
};
