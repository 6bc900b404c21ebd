// A render server that breaks its promises, in the way that KY_TEST_LIE names. It begins well: it
// takes its connections from the service's pipe, answers every Hello and makes its chains.

#include <cstdlib>
#include <list>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/buffers/kyNetOptions.h>
#include <NetBase/links/kySocketLink.h>
#include <NetBase/links/kySocketPipe.h>
#include <NetBase/serialization/kyNetStream.h>
#include <apps/TALOClusterServer/ChannelLobby.h>
#include <apps/TALOClusterServer/FrameGate.h>
#include <apps/TALOClusterServer/OrderBook.h>
#include <apps/TALOClusterServer/ServerArguments.h>
#include <apps/common/MethodCompressor.h>
#include <apps/common/RenderProtocol.h>

using namespace render;

namespace {

const std::string s_lie = std::getenv("KY_TEST_LIE");
ChannelLobby s_lobby;
FrameGate s_gate;

void answerSuccess(kyNetStream& stream)
{
    stream.sendSuccess().flush();
}

void send(kyNetStream& stream, const Answer& answer)
{
    AnswerMessage message;
    message.putAnswer(answer);
    stream.sendMessage(message, s_applicationRank, kyNetBufferSendMode::Automatic);
}

/// Whether the server says nothing at this step; it may also end here.
bool isSilentAt(const std::string& step)
{
    if (s_lie == "dead " + step) {
        std::_Exit(1);
    }
    return s_lie == "silent " + step;
}

void answerScene(kyNetStream& stream)
{
    Answer answer;
    answer.order = Order::LoadScene;
    if (isSilentAt("scene")) {
        return;
    }
    if (s_lie == "exception") {
        answer.failure = "no memory\x1b[2J for the scene";
    }
    send(stream, answer);
}

/// Keeps the first tile of all back until one of the next frame is ordered.
void answerLate(kyNetStream& stream, const Answer& answer)
{
    static bool s_hasBegun = false;
    static std::optional<Answer> s_keptBack;
    if (!std::exchange(s_hasBegun, true)) {
        s_keptBack = answer;
        return;
    }
    if (s_keptBack && s_keptBack->frame < answer.frame) {
        send(stream, *std::exchange(s_keptBack, std::nullopt));
    }
    send(stream, answer);
}

void answerTile(kyNetStream& stream, kySocketLink& first, Answer answer)
{
    answer.order = Order::RenderTile;
    answer.pixels.resize(answer.tile.pixelCount());
    if (isSilentAt("tile")) {
        return;
    }
    if (s_lie == "late tile") {
        answerLate(stream, answer);
        return;
    }
    if (s_lie == "huge buffer") {
        first.send("\xFF\xFF\xFF\xFF 16 bytes more..", 20);
        return;
    }
    if (s_lie == "stream data") {
        stream << 1;
        stream.flush();
        return;
    }
    if (s_lie == "other tile") {
        ++answer.tile.x;
    } else if (s_lie == "other frame") {
        ++answer.frame;
    } else if (s_lie == "other order") {
        answer.order = Order::LoadScene;
        answer.pixels.clear();
    } else if (s_lie == "short tile") {
        answer.pixels.pop_back();
    } else if (s_lie == "long tile") {
        answer.pixels.emplace_back();
    } else if (s_lie == "tile twice") {
        send(stream, answer);
    }
    send(stream, answer);
}

void answerMessage(kyNetStream& stream, kySocketLink& first, kyNetMessage& message)
{
    auto order = Order();
    message >> order;
    Answer answer;
    if (order == Order::BeginFrame && !isSilentAt("begin")) {
        message >> answer.frame;
        s_gate.reach(answer.frame);
    } else if (order == Order::RenderTile) {
        message >> answer.frame >> answer.tile;
        answerTile(stream, first, answer);
    } else if (order == Order::ReportTraffic && !isSilentAt("end")) {
        answer.order = order;
        send(stream, answer);
    }
}

void serveOrders(const std::shared_ptr<kySocketLink>& first, kyNetStream& stream, std::int32_t rank)
{
    Setup setup;
    stream >> setup;
    if (s_lie == "refused setup") {
        throw std::runtime_error("not in this way");
    }
    if (s_lie == "long refusal") {
        throw std::runtime_error(std::string(1'000'000, 'x'));
    }
    const RenderChannels channels = s_lobby.waitForChannels(30.0);
    stream.sendSuccess() << false << kyNetStream::flush;
    const auto compressor = std::make_shared<MethodCompressor>();
    kyNetStream chain;
    chain.setRank(rank);
    chain.setSender(channels.makeSender(compressor, s_applicationRank,
                                        kyNetOptions::getLowLatencyServerThreshold()));
    chain.setReceiver(channels.makeReceiver(compressor));
    OrderBook::recvScene(chain);
    answerScene(chain);
    for (;;) {
        kyNetMessage message;
        chain.recvMessage(message);
        answerMessage(chain, *first, message);
    }
}

void serveSync(kyNetStream& stream)
{
    for (;;) {
        const std::int32_t frame = stream.waitSync();
        s_gate.wait(frame);
        if (isSilentAt("sync")) {
            continue;
        }
        if (s_lie == "sync twice") {
            stream.sendSync(frame);
        }
        stream.sendSync(frame + (s_lie == "wrong sync" ? 1 : 0));
    }
}

void converse(const std::shared_ptr<kySocketLink>& link, kyNetStream& stream)
{
    Hello hello;
    stream >> hello;
    stream.setRank(hello.rank);
    if (s_lie == "refusal") {
        throw std::runtime_error("not today");
    }
    const bool isFirst = s_lobby.admit(hello);
    answerSuccess(stream);
    if (hello.type == kyNodeConnectionType::Sync) {
        serveSync(stream);
    }
    s_lobby.keep(hello, link);
    if (isFirst) {
        serveOrders(link, stream, hello.rank);
    }
}

void serve(const std::shared_ptr<kySocketLink>& link)
{
    kyNetStream stream(link);
    try {
        converse(link, stream);
        return;
    } catch (const kyNetError&) {
        // The application is gone.
    } catch (const std::exception& e) {
        stream.sendException(e).flush();
    }
    link->shutdown();
}

} // namespace

int main(int argc, char** argv)
{
    std::list<std::thread> threads;
    try {
        kySocketPipe pipe(ServerArguments::parse({argv + 1, argv + argc}).socketPipe);
        for (;;) {
            threads.emplace_back(serve, std::make_shared<kySocketLink>(pipe, -1.0));
        }
    } catch (const std::exception&) {
        // The service has closed the pipe.
    }
    std::_Exit(0);
}
