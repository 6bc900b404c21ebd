#pragma once

#include <queue>

#include <NetBase/receivers/kyNetReceiver.h>

/// Opens the bundles that senders pack small buffers into, and delivers their messages one by one.
///
/// Buffers are compressed first and bundled then, so open bundles below a kyNetDecompressReceiver,
/// with one of these over each link:
///
///     children.push_back(kyNetUnbundleReceiver::create(kyNetLinkReceiver::create(link)));
///
/// Foreign bytes: a bundle is checked as a whole before anything of it is delivered. Bundles are
/// never nested: an entry that calls itself one is delivered as it is.
///
/// Ownership: shares the source; copies share it too and have their own queue of the same buffers.
class KY_NETBASE_EXPORT kyNetUnbundleReceiver : public kyNetReceiver
{
public:
    /// Over this source; create is the usual way.
    explicit kyNetUnbundleReceiver(const std::shared_ptr<kyNetReceiver>& source);

    kyNetUnbundleReceiver(const kyNetUnbundleReceiver&) = default;
    kyNetUnbundleReceiver(kyNetUnbundleReceiver&&) = default;
    kyNetUnbundleReceiver& operator=(const kyNetUnbundleReceiver&) = default;
    kyNetUnbundleReceiver& operator=(kyNetUnbundleReceiver&&) = default;

    static std::shared_ptr<kyNetReceiver> create(const std::shared_ptr<kyNetReceiver>& source);

    /// The next message: of the last bundle, or else of the source's next buffer, for which it
    /// blocks. Throws what the source throws, and kyNetError for a bundle whose entries do not
    /// fill it; the next call goes on behind that one.
    void recv(std::shared_ptr<kyNetBuffer>& buffer) override;

private:
    std::shared_ptr<kyNetReceiver> m_source;
    std::queue<std::shared_ptr<kyNetBuffer>> m_recvQueue;
};
