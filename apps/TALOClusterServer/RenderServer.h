#pragma once

#include <atomic>
#include <chrono>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include <NetBase/links/kySocketPipe.h>
#include <apps/TALOClusterServer/FrameGate.h>
#include <apps/TALOClusterServer/ImageChannels.h>
#include <apps/common/RenderProtocol.h>

class kyNetStream;
class kySocketLink;

namespace render {

/// One render server: takes connections from the cluster service's pipe and serves each on a
/// thread of its own.
///
/// Whoever opens the low latency channel first is the application that the server works for; the
/// other channels must be of the same session.
///
/// The server lives as long as somebody needs it. It ends when the application's low latency
/// channel closes, however that came about; when the service closes the pipe, which it does to
/// stop the server and cannot help when it dies; and when nobody has been connected for ten
/// seconds. So nobody's death leaves a server behind.
///
/// A connection that says no proper Hello within half a minute is told why and closed; the others
/// do not notice.
class RenderServer
{
public:
    /// Opens the service's pipe. Throws kyNetError if there is none of that name.
    explicit RenderServer(const std::string& socketPipe);

    /// Closes every connection and waits for the threads that serve them.
    ~RenderServer();

    RenderServer(const RenderServer&) = delete;
    RenderServer& operator=(const RenderServer&) = delete;

    /// Serves until the end; blocks. Throws kyNetError if the pipe fails.
    void run();

private:
    struct Connection
    {
        std::shared_ptr<kySocketLink> link;
        std::atomic<bool> isDone{false};
        std::thread thread;
    };

    void acceptConnection();
    void removeDone();
    bool isAbandoned();

    void serve(Connection& connection);
    void converse(kySocketLink& link, kyNetStream& stream);
    Hello recvHello(kyNetStream& stream);
    void serveApplication(kyNetStream& stream);
    void serveSync(kyNetStream& stream);

    kySocketPipe m_pipe;
    ImageChannels m_images;
    FrameGate m_gate;

    std::mutex m_lock;
    std::optional<Hello> m_application;

    // Of the thread that runs.
    std::list<Connection> m_connections;
    std::chrono::steady_clock::time_point m_lastConnected;
};

} // namespace render
