#pragma once

#include <NetBase/senders/kyNetSender.h>

/// The end of every chain: sends over one link.
class KY_NETBASE_EXPORT kyNetLinkSender : public kyNetSender
{
public:
    /// Over this link, to these ranks.
    kyNetLinkSender(const std::shared_ptr<kyNetLink>& link,
                    const std::set<unsigned int>& destinations);

    static std::shared_ptr<kyNetSender> create(const std::shared_ptr<kyNetLink>& link,
                                               const std::set<unsigned int>& destinations);

    /// Without destinations: for a chain in which nothing looks at them.
    static std::shared_ptr<kyNetSender> create(const std::shared_ptr<kyNetLink>& link);

    using kyNetSender::getLinks;

    /// The link's.
    int getNodeAffinity() override;

    /// Sends over the link and blocks as that does.
    void send(const std::shared_ptr<kyNetBuffer>& buffer) override;

    /// Sends all of them with one call of the link.
    void sendMany(const std::vector<std::shared_ptr<kyNetBuffer>>& buffers) override;

protected:
    void getLinks(std::vector<std::shared_ptr<kyNetLink>>& links) override;

private:
    std::shared_ptr<kyNetLink> m_link;
};
