#include <NetBase/receivers/kyNetBufferedReceiver.h>

#include <utility>

#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/links/kyNetLink.h>
#include <NetBase/receivers/kyNetRecvQueue.h>

kyNetBufferedReceiver::kyNetBufferedReceiver(
    const std::vector<std::shared_ptr<kyNetReceiver>>& children)
    : kyNetReceiver(children), m_queue(std::make_unique<kyNetRecvQueue>()), m_links(getLinks())
{
    try {
        for (const auto& child : children) {
            m_threads.emplace_back([queue = m_queue.get(), child, source = m_queue->addSource()] {
                queue->readFrom(*child, [queue](std::shared_ptr<kyNetBuffer>&& buffer) {
                    queue->push(std::move(buffer));
                });
            });
        }
    } catch (...) {
        stop();
        throw;
    }
}

kyNetBufferedReceiver::~kyNetBufferedReceiver()
{
    stop();
}

std::shared_ptr<kyNetReceiver>
kyNetBufferedReceiver::create(const std::vector<std::shared_ptr<kyNetReceiver>>& children)
{
    return std::make_shared<kyNetBufferedReceiver>(children);
}

void kyNetBufferedReceiver::recv(std::shared_ptr<kyNetBuffer>& buffer)
{
    m_queue->recv(buffer);
}

void kyNetBufferedReceiver::recvAvailable(std::queue<std::shared_ptr<kyNetBuffer>>& queue)
{
    m_queue->recvAvailable(queue);
}

void kyNetBufferedReceiver::stop()
{
    m_links.clear();
    getLinks(m_links); // Needs no memory but for those that have come since the beginning.
    for (const auto& link : m_links) {
        link->shutdown();
    }
    for (std::thread& thread : m_threads) {
        thread.join();
    }
}
