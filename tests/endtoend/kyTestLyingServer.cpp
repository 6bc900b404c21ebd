// A render server that breaks its promises, in the way that KY_TEST_LIE names. It begins well: it
// takes its connections from the service's pipe and answers every Hello.

#include <cstdlib>
#include <list>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/links/kySocketLink.h>
#include <NetBase/links/kySocketPipe.h>
#include <NetBase/serialization/kyNetStream.h>
#include <apps/TALOClusterServer/ServerArguments.h>
#include <apps/common/RenderProtocol.h>
#include <apps/common/SceneWire.h>

using namespace render;

namespace {

const std::string s_lie = std::getenv("KY_TEST_LIE");
std::shared_ptr<kySocketLink> s_imageLink;

void answer(kyNetStream& stream)
{
    stream.sendSuccess() << 0.5;
    stream.flush();
}

void sendTile(Tile tile)
{
    std::vector<Vector> pixels(tile.pixelCount());
    if (s_lie == "other tile") {
        ++tile.x;
    } else if (s_lie == "short tile") {
        pixels.pop_back();
    }
    TileMessage message;
    message.putTile(tile, pixels);
    kyNetStream(s_imageLink).sendMessage(message, 1, kyNetBufferSendMode::Automatic);
}

void serveOrders(kyNetStream& stream, kySocketLink& link)
{
    for (;;) {
        auto order = Order();
        stream >> order;
        if (order == Order::LoadScene) {
            getScene(stream);
            if (s_lie == "exception") {
                stream.sendException(std::runtime_error("no memory\x1b[2J for the scene"));
                stream.flush();
                continue;
            }
        } else if (order == Order::BeginFrame) {
            std::int32_t number = 0;
            Frame frame;
            stream >> number >> frame;
        } else {
            Tile tile;
            stream >> tile;
            if (s_lie == "silence") {
                continue;
            }
            if (s_lie == "huge buffer") {
                link.send("\xFF\xFF\xFF\xFF 16 bytes more..", 20);
                continue;
            }
            if (s_lie == "message") {
                TileMessage message;
                message << 1;
                stream.sendMessage(message, 1, kyNetBufferSendMode::Automatic);
                continue;
            }
            sendTile(tile);
        }
        answer(stream);
    }
}

void serveSync(kyNetStream& stream)
{
    for (;;) {
        stream.sendSync(stream.waitSync() + (s_lie == "wrong sync" ? 1 : 0));
    }
}

void serve(const std::shared_ptr<kySocketLink>& link)
{
    try {
        kyNetStream stream(link);
        Hello hello;
        stream >> hello;
        stream.setRank(hello.rank);
        if (s_lie == "refusal") {
            stream.sendException(std::runtime_error("not today"));
            stream.flush();
            return;
        }
        if (hello.type == kyNodeConnectionType::Image) {
            s_imageLink = link;
        }
        stream.sendSuccess();
        stream.flush();
        if (hello.type == kyNodeConnectionType::LowLatency) {
            serveOrders(stream, *link);
        } else if (hello.type == kyNodeConnectionType::Sync) {
            serveSync(stream);
        } else {
            stream.recvAll();
        }
    } catch (const std::exception&) {
        // The application is gone.
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
