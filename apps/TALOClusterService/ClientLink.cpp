#include <apps/TALOClusterService/ClientLink.h>

#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/buffers/kyNetError.h>

/// One call that waits for the client, from its begin to its end.
class ClientLink::Waiting
{
public:
    explicit Waiting(ClientLink& link) : m_link(link)
    {
        const std::lock_guard<std::mutex> guard(m_link.m_mutex);
        if (m_link.m_waits++ == 0) {
            m_link.m_waitBegin = Clock::now();
        }
    }

    ~Waiting()
    {
        const std::lock_guard<std::mutex> guard(m_link.m_mutex);
        if (--m_link.m_waits == 0) {
            m_link.m_waited += Clock::now() - m_link.m_waitBegin;
        }
    }

    Waiting(const Waiting&) = delete;
    Waiting& operator=(const Waiting&) = delete;

private:
    ClientLink& m_link;
};

ClientLink::ClientLink(kySocketHandle descriptor, std::uint64_t maxReceived)
    : kySocketLink(descriptor), m_maxReceived(maxReceived)
{
}

bool ClientLink::speaks(double timeout)
{
    const Waiting waiting(*this);
    // A connection that was ended is readable, too.
    char byte = 0;
    return pollReadable(timeout) && peekAvailable(&byte, sizeof(byte)) > 0;
}

void ClientLink::recv(std::shared_ptr<kyNetBuffer>& buffer)
{
    {
        const Waiting waiting(*this);
        kySocketLink::recv(buffer);
    }
    count(buffer->getBufferSize());
}

void ClientLink::count(std::uint64_t received)
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    m_received += received;
    if (m_isWatched && m_received > m_maxReceived) {
        throw kyNetError("Request too large");
    }
}

void ClientLink::send(const std::shared_ptr<kyNetBuffer>& buffer)
{
    const Waiting waiting(*this);
    kySocketLink::send(buffer);
}

void ClientLink::sendMany(const std::vector<std::shared_ptr<kyNetBuffer>>& buffers)
{
    const Waiting waiting(*this);
    kySocketLink::sendMany(buffers);
}

ClientLink::Clock::duration ClientLink::getWait(Clock::time_point now) const
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    return isWaiting() ? m_waited + (now - m_waitBegin) : Clock::duration::zero();
}

void ClientLink::dropIfWaiting()
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    if (isWaiting()) {
        shutdown();
    }
}

void ClientLink::endWatch()
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    m_isWatched = false;
}
