// The server of the tests between systems: a service starts it as a render server, and clients of
// the other system talk to it. kyInteropPeer.h says how.

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>

#include <QString>
#include <QSysInfo>

#include <NetBase/buffers/kyNetOptions.h>
#include <NetBase/links/kySocketLink.h>
#include <NetBase/links/kySocketPipe.h>
#include <NetBase/platform/kyThreads.h>
#include <NetBase/serialization/kyNetStdIStream.h>
#include <NetBase/serialization/kyNetStdOStream.h>
#include <Utils/kyPlatform.h>
#include <apps/TALOClusterServer/ServerArguments.h>
#include <apps/common/KeyExchange.h>
#include <apps/common/MethodCompressor.h>
#include <apps/common/RenderChannels.h>
#include <apps/common/SharedKey.h>
#include <tests/interop/kyInteropPeer.h>

namespace {

constexpr int s_clientRank = 1;
constexpr int s_rank = 2;

render::ServerArguments s_arguments;

/// Where channels wait until all are there.
class Lobby
{
public:
    void addImage(const std::shared_ptr<kyNetLink>& link) { add(m_channels.image, link); }
    void addLowLatency(const std::shared_ptr<kyNetLink>& link) { add(m_channels.lowLatency, link); }

    render::RenderChannels wait(std::size_t image, std::size_t lowLatency)
    {
        std::unique_lock<std::mutex> guard(m_lock);
        m_changed.wait(guard, [&] {
            return m_channels.image.size() == image && m_channels.lowLatency.size() == lowLatency;
        });
        return m_channels;
    }

private:
    void add(std::vector<std::shared_ptr<kyNetLink>>& links, const std::shared_ptr<kyNetLink>& link)
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        links.push_back(link);
        m_changed.notify_all();
    }

    std::mutex m_lock;
    std::condition_variable m_changed;
    render::RenderChannels m_channels;
};

Lobby s_lobby;

void tellAbout(kyNetStream& stream)
{
    stream << s_arguments.application << std::to_string(kyPlatform::getProcessId())
           << QSysInfo::kernelType().toStdString() << kyNetStream::flush;
}

void returnValues(kyNetStream& stream)
{
    decltype(kyTest::interopValues()) values;
    kyTest::getInteropValues(stream, values);
    stream << (values == kyTest::interopValues());
    kyTest::putInteropValues(stream, values);
    stream.flush();
}

void returnText(kyNetStream& stream)
{
    kyNetStdIStream in(stream);
    in.exceptions(std::ios::badbit);
    const std::string text{std::istreambuf_iterator<char>(in), {}};
    kyNetStdOStream out(stream);
    out << text;
    out.close();
    stream.flush();
}

void answerSyncs(kyNetStream& stream)
{
    for (;;) {
        stream.sendSync(stream.waitSync() + 1);
    }
}

void answerTexts(kyNetStream& stream)
{
    for (;;) {
        std::string text;
        stream >> text;
        stream.sendSuccess() << text;
        stream.sendException(std::runtime_error(text)).flush();
    }
}

void returnMessages(kyNetStream& stream)
{
    for (;;) {
        kyTest::sendInteropMessage(stream, kyTest::recvInteropMessage(stream), s_clientRank);
    }
}

void returnBundles(kyNetLink& link)
{
    for (;;) {
        auto entries = kyTest::recvInteropBundle(link);
        std::reverse(entries.begin(), entries.end());
        kyTest::sendInteropBundle(link, entries);
    }
}

void serveChannels(kyNetStream& stream)
{
    std::uint32_t image = 0;
    std::uint32_t lowLatency = 0;
    auto method = kyNetCompression();
    stream >> image >> lowLatency >> method;
    kyNetOptions::setDataCompression(method);
    const render::RenderChannels channels = s_lobby.wait(image, lowLatency);

    const auto compressor = std::make_shared<MethodCompressor>();
    kyNetStream chain;
    chain.setRank(s_rank);
    chain.setSender(channels.makeSender(compressor, s_clientRank, 1000));
    chain.setReceiver(channels.makeReceiver(compressor));
    stream.sendSuccess().flush();
    kyTest::recvInteropNumbers(chain);
    kyTest::sendInteropNumbers(chain);
    returnMessages(chain);
}

void takeChannel(kyNetStream& stream, const std::function<void()>& add)
{
    stream.sendSuccess().flush();
    add();
}

void serve(const std::shared_ptr<kySocketLink>& link)
{
    try {
        KeyExchange::answer(link, SharedKey::readFromEnvironment());
        kyNetStream stream(link);
        stream.setRank(s_rank);
        std::string purpose;
        stream >> purpose;
        const std::map<std::string, std::function<void()>> acts{
            {"about", [&] { tellAbout(stream); }},
            {"values", [&] { returnValues(stream); }},
            {"text", [&] { returnText(stream); }},
            {"sync", [&] { answerSyncs(stream); }},
            {"results", [&] { answerTexts(stream); }},
            {"messages", [&] { returnMessages(stream); }},
            {"bundles", [&] { returnBundles(*link); }},
            {"channels", [&] { serveChannels(stream); }},
            {"image", [&] { takeChannel(stream, [&] { s_lobby.addImage(link); }); }},
            {"low latency", [&] { takeChannel(stream, [&] { s_lobby.addLowLatency(link); }); }},
        };
        acts.at(purpose)();
    } catch (const std::exception&) {
        // The client notices that the connection ends.
    }
}

} // namespace

int main(int argc, char** argv)
{
    s_arguments = render::ServerArguments::parse({argv + 1, argv + argc});
    kySocketPipe pipe(s_arguments.socketPipe);
    try {
        for (;;) {
            const auto link = std::make_shared<kySocketLink>(pipe, -1.0);
            kyThreads::startDetached([link] { serve(link); });
        }
    } catch (const std::exception&) {
        // The service has closed the pipe.
    }
    std::_Exit(0);
}
