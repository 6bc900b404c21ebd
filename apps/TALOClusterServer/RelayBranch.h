#pragma once

#include <functional>
#include <memory>

#include <NetBase/senders/kyNetSender.h>

namespace render {

/// The way to one of the servers that a relay passes the scene on to.
///
/// A server that is lost there concerns nobody else: the failure is logged once, its links are shut
/// down, and whatever is sent from then on is dropped.
///
/// Threads: one at a time sends; shutdown may be called by any.
class RelayBranch : public kyNetSender
{
public:
    /// In front of the links to one server.
    explicit RelayBranch(const std::shared_ptr<kyNetSender>& child);

    /// Blocks as the child does. Does not throw.
    void send(const std::shared_ptr<kyNetBuffer>& buffer) override;
    void waitAllDataTransfered() override;

private:
    void attempt(const std::function<void(kyNetSender&)>& step);

    bool m_isLost = false;
};

} // namespace render
