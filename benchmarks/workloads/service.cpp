#include <benchmarks/workloads/workloads.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <NetBase/buffers/kyNetOptions.h>
#include <apps/common/ServiceClient.h>
#include <benchmarks/core/Run.h>
#include <benchmarks/core/Statistics.h>
#include <benchmarks/core/Stopwatch.h>
#include <benchmarks/core/platform/Processes.h>

namespace bench {

namespace {

constexpr double s_patience = 20.0;

/// A program that says on which port it listens.
class Listener
{
public:
    explicit Listener(const std::vector<std::string>& command)
        : m_output(m_folder.getPath() + "/output"),
          m_process({command, 0, m_output}),
          m_port(awaitPort())
    {
    }

    int getPort() const { return m_port; }

    /// Waits for its end; the processor time that it has taken, and those it has started.
    double wait()
    {
        const Moment begin = Moment::now();
        while (!m_process.hasEnded()) {
            if (Moment::now().secondsSince(begin) > s_patience) {
                throw std::runtime_error("the service does not end");
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return m_process.getProcessorSeconds();
    }

private:
    int awaitPort()
    {
        const Moment begin = Moment::now();
        while (Moment::now().secondsSince(begin) < s_patience) {
            std::string words[4];
            int port = 0;
            std::ifstream file(m_output);
            file >> words[0] >> words[1] >> words[2] >> port;
            if (file && file.peek() == '\n') {
                return port;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        throw std::runtime_error("the service does not say where it listens");
    }

    TemporaryFolder m_folder;
    std::string m_output;
    Process m_process;
    int m_port;
};

void exchangeByte(kySocketLink& link)
{
    std::uint8_t byte = 1;
    link.send(&byte, sizeof byte);
    link.recv(&byte, sizeof byte);
}

/// Listens without a service.
class EchoServer
{
public:
    EchoServer() : m_listener({programPath("echoServer")}) {}

    void exchange() const
    {
        kySocketLink link = connect();
        exchangeByte(link);
    }

    /// Ends it; the processor time that it has taken.
    double finish()
    {
        connect().shutdown(); // A client that says nothing ends it.
        return m_listener.wait();
    }

private:
    kySocketLink connect() const
    {
        return kySocketLink(kySocketAddress("127.0.0.1", std::to_string(m_listener.getPort())),
                            kyNetOptions::getConnectionTimeout());
    }

    Listener m_listener;
};

/// A service and its client.
class Node
{
public:
    Node()
        : m_daemon({programPath("../bin/TALOClusterService"), "--port", "0", "--server",
                    programPath("echoServer")}),
          m_client(NodeAddress{"127.0.0.1", m_daemon.getPort()})
    {
    }

    const ServiceClient& getClient() const { return m_client; }

    /// Ends it; the processor time of both, and of the servers.
    double finish(const Moment& begin)
    {
        m_client.stopService();
        return m_daemon.wait() + Moment::now().processorSecondsSince(begin);
    }

private:
    Listener m_daemon;
    ServiceClient m_client;
};

/// Does it again and again; how long each took.
std::vector<double> repeatFor(double seconds, const std::function<void()>& work)
{
    std::vector<double> durations;
    const Moment begin = Moment::now();
    Moment last = begin;
    do {
        work();
        const Moment now = Moment::now();
        durations.push_back(now.secondsSince(last));
        last = now;
    } while (last.secondsSince(begin) < seconds);
    return durations;
}

/// What a request is worth, from the middle one of all.
Sample makeSample(const std::vector<double>& durations, double processorSeconds)
{
    return {{median(durations)}, processorSeconds / static_cast<double>(durations.size()) * 1e6};
}

Sample perSecond(Sample sample)
{
    sample.values[0] = 1 / sample.values[0];
    return sample;
}

bool isLimit(const Contender& contender)
{
    return contender.kind == Contender::Kind::Limit;
}

Sample exchangeWithoutService(double seconds)
{
    const Moment begin = Moment::now();
    EchoServer server;
    const auto durations = repeatFor(seconds, [&] { server.exchange(); });
    return makeSample(durations, server.finish() + Moment::now().processorSecondsSince(begin));
}

Sample runStatus(const Contender& contender, double seconds)
{
    if (isLimit(contender)) {
        return perSecond(exchangeWithoutService(seconds));
    }
    const Moment begin = Moment::now();
    Node node;
    const auto durations = repeatFor(seconds, [&] { node.getClient().status(); });
    return perSecond(makeSample(durations, node.finish(begin)));
}

Sample runHandOver(const Contender& contender, double seconds)
{
    if (isLimit(contender)) {
        return perSecond(exchangeWithoutService(seconds));
    }
    const Moment begin = Moment::now();
    Node node;
    const ServiceClient::StartedServer server = node.getClient().startServer({});
    exchangeByte(*server.link);
    const auto durations =
        repeatFor(seconds, [&] { exchangeByte(*node.getClient().connectServer(server.id)); });
    return perSecond(makeSample(durations, node.finish(begin)));
}

/// Starts a server again and again, which `startOne` does and ends; it gives how long that took.
std::vector<double> startFor(double seconds, const std::function<double()>& startOne)
{
    std::vector<double> durations;
    const Moment begin = Moment::now();
    do {
        durations.push_back(startOne());
    } while (Moment::now().secondsSince(begin) < seconds);
    return durations;
}

Sample startWithoutService(double seconds)
{
    const Moment begin = Moment::now();
    double processorSeconds = 0;
    const auto durations = startFor(seconds, [&] {
        const Moment start = Moment::now();
        EchoServer server;
        server.exchange();
        const double duration = Moment::now().secondsSince(start);
        processorSeconds += server.finish();
        return duration;
    });
    return makeSample(durations, processorSeconds + Moment::now().processorSecondsSince(begin));
}

Sample startByService(double seconds)
{
    const Moment begin = Moment::now();
    Node node;
    const auto durations = startFor(seconds, [&] {
        const Moment start = Moment::now();
        const ServiceClient::StartedServer server = node.getClient().startServer({});
        exchangeByte(*server.link);
        const double duration = Moment::now().secondsSince(start);
        node.getClient().stopServer(server.id);
        return duration;
    });
    return makeSample(durations, node.finish(begin));
}

Sample runStart(const Contender& contender, double seconds)
{
    Sample sample = isLimit(contender) ? startWithoutService(seconds) : startByService(seconds);
    sample.values[0] *= 1e3;
    return sample;
}

std::vector<Contender> makeContenders(const std::string& limitName)
{
    return {{"library, cluster service", Contender::Kind::Library, "", {}, ""},
            {limitName, Contender::Kind::Limit, "", {}, ""}};
}

} // namespace

/// How many status requests a client gets answered.
Workload serviceStatus()
{
    return {"serviceStatus",
            {{"service, status", "requests/s"}},
            makeContenders("a connection and a byte for each"),
            runStatus,
            {}};
}

/// How many connections a client gets to a server that runs, each to its first byte.
Workload serviceHandOver()
{
    return {"serviceHandOver",
            {{"service, hand-over", "connections/s"}},
            makeContenders("a connection and a byte for each"),
            runHandOver,
            {}};
}

/// From asking for a server to the first byte that it sends.
Workload serviceStart()
{
    return {"serviceStart",
            {{"service, start to first byte", "ms", true}},
            makeContenders("starting it without the service"),
            runStart,
            {}};
}

} // namespace bench
