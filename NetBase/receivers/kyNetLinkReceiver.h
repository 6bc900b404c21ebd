#pragma once

#include <NetBase/receivers/kyNetReceiver.h>

/// Receives from one link. Its end leaves the link open.
class KY_NETBASE_EXPORT kyNetLinkReceiver : public kyNetReceiver
{
public:
    /// From this link; create is the usual way.
    explicit kyNetLinkReceiver(const std::shared_ptr<kyNetLink>& link);

    static std::shared_ptr<kyNetReceiver> create(const std::shared_ptr<kyNetLink>& link);

    using kyNetReceiver::getLinks;

    /// The link's.
    int getNodeAffinity() override;

    /// The link's next buffer; blocks, times out and fails as the link does.
    void recv(std::shared_ptr<kyNetBuffer>& buffer) override;

    /// The link's.
    std::string getLinkName() override;

protected:
    void getLinks(std::vector<std::shared_ptr<kyNetLink>>& links) override;

private:
    std::shared_ptr<kyNetLink> m_link;
};
