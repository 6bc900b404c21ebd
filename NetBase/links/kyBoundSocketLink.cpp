#include <NetBase/links/kyBoundSocketLink.h>

#include <string>

#include <NetBase/buffers/kyConnectionClosed.h>
#include <NetBase/buffers/kyNetError.h>
#include <NetBase/links/kySharedSocket.h>
#include <NetBase/platform/kyAddresses.h>
#include <NetBase/platform/kySockets.h>

namespace {

/// Clients that may wait to be accepted.
constexpr int s_backlog = 10;

} // namespace

kyBoundSocketLink::kyBoundSocketLink(int port)
    : kySocketLink(s_invalidSocketHandle), m_shutdown(std::make_shared<kySockets::WakeEvent>())
{
    if (!m_shutdown->isUsable()) {
        throw kyNetError("Unable to create socket. " + kyNetError::getLastErrorString());
    }
    listen(port);
}

// The base is named, or the accepting constructor of kySocketLink would be taken and wait.
kyBoundSocketLink::kyBoundSocketLink(const kyBoundSocketLink& other)
    : kySocketLink(static_cast<const kySocketLink&>(other)), m_shutdown(other.m_shutdown)
{
}

kyBoundSocketLink::~kyBoundSocketLink()
{
    // The base only closes, which alone would not end the accept of a copy that waits.
    if (!isClosed()) {
        m_shutdown->signal();
    }
}

void kyBoundSocketLink::listen(int port)
{
    int family = kyAddresses::s_familyIPv6;
    adopt(kySockets::create(family));
    if (!isClosed()) {
        setIPv6Only(false);
    } else {
        family = kyAddresses::s_familyIPv4;
        adopt(kySockets::create(family));
    }
    if (isClosed()) {
        throw kyNetError("Unable to create socket. " + kyNetError::getLastErrorString());
    }
    setReusePort(true);
    if (!kySockets::bindToPort(getDescriptor(), family, port)) {
        throw kyNetError("Unable to bind to port " + std::to_string(port) + ". " +
                         kyNetError::getLastErrorString());
    }
    useLoopbackFastPath();
    if (!kySockets::listen(getDescriptor(), s_backlog)) {
        throw kyNetError("Unable to listen for incoming connections. " +
                         kyNetError::getLastErrorString());
    }
    // A client may be gone again between the wake-up and the accept, which then must not wait.
    setBlocking(false);
}

kySocketHandle kyBoundSocketLink::accept() const
{
    const kySharedSocket::Use use(getSocket());
    while (!isClosed() && m_shutdown->waitForConnection(use.getHandle())) {
        const kySockets::Accepted accepted = kySockets::accept(use.getHandle());
        if (accepted.outcome == kySockets::Outcome::Done) {
            return accepted.handle;
        }
        if (accepted.outcome != kySockets::Outcome::WouldBlock && !isClosed()) {
            throw kyNetError("Unable to accept incomming connection. " +
                             kyNetError::getLastErrorString());
        }
    }
    throw kyConnectionClosed();
}

void kyBoundSocketLink::shutdown()
{
    m_shutdown->signal();
    kySocketLink::shutdown();
}
