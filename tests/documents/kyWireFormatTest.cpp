// Every example of docs/wire-format.md is what the library really sends.

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <queue>
#include <sstream>
#include <string>
#include <vector>

#include <QCoreApplication>
#include <gtest/gtest.h>

#include <NetBase/buffers/kyConnectionClosed.h>
#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/buffers/kyNetBufferPool.h>
#include <NetBase/buffers/kyNetInterfaceOptions.h>
#include <NetBase/links/kyBoundSocketLink.h>
#include <NetBase/links/kySocketLink.h>
#include <NetBase/links/kySocketPipe.h>
#include <NetBase/serialization/kyNetMessage.h>
#include <NetBase/serialization/kyNetStream.h>
#include <NetBase/service/kyNetServiceStatus.h>
#include <Utils/kyPlatform.h>
#include <apps/common/ServiceClient.h>
#include <tests/support/kyTestRawPipe.h>

namespace {

using Bytes = std::vector<std::uint8_t>;

/// The blocks of the document that begin with "```hex NAME"; text after ';' is comment.
std::map<std::string, Bytes> readExamples()
{
    std::ifstream document(KY_TEST_SOURCE_DIR "/docs/wire-format.md");
    std::map<std::string, Bytes> examples;
    Bytes* current = nullptr;
    for (std::string line; std::getline(document, line);) {
        if (line.rfind("```hex ", 0) == 0) {
            current = &examples[line.substr(7)];
        } else if (line.rfind("```", 0) == 0) {
            current = nullptr;
        } else if (current != nullptr) {
            std::istringstream words(line.substr(0, line.find(';')));
            for (std::string word; words >> word;) {
                current->push_back(static_cast<std::uint8_t>(std::stoul(word, nullptr, 16)));
            }
        }
    }
    return examples;
}

Bytes toBytes(const void* data, std::uint64_t size)
{
    const auto* begin = static_cast<const std::uint8_t*>(data);
    return Bytes(begin, begin + size);
}

/// What a serializer wrote, without a header.
Bytes written(const std::function<void(kyNetSerializer&)>& write)
{
    kyNetMessage message;
    write(message);
    const auto buffer = message.takeSendBuffer();
    return toBytes(buffer->getData(), buffer->getDataSize());
}

/// What arrives on the other end of a TCP connection that `talk` has used and closed.
Bytes sent(const std::function<void(const std::shared_ptr<kySocketLink>&)>& talk)
{
    kyBoundSocketLink listener(0);
    auto link = std::make_shared<kySocketLink>(
        kySocketAddress("127.0.0.1", listener.getAddress().getPort()), 4.0);
    kySocketLink peer(listener);
    talk(link);
    link->shutdown();

    Bytes bytes;
    try {
        for (std::uint8_t byte = 0;; bytes.push_back(byte)) {
            peer.recv(&byte, 1);
        }
    } catch (const kyConnectionClosed&) {
        return bytes;
    }
}

/// What arrives when a stream is written to and flushed.
Bytes streamed(int rank, const std::function<void(kyNetStream&)>& write)
{
    return sent([&](const std::shared_ptr<kySocketLink>& link) {
        kyNetStream stream(link);
        stream.setRank(rank);
        write(stream);
        stream.flush();
    });
}

std::shared_ptr<kyNetBuffer> makeMessage(int sequence, const std::string& text)
{
    kyNetMessage message;
    message.putBytes(text.data(), text.size());
    auto buffer = message.takeSendBuffer();
    buffer->setSource(3);
    buffer->setDestination(7);
    buffer->setSequence(sequence);
    return buffer;
}

Bytes makeHeader()
{
    const auto buffer = kyNetBufferPool::pop();
    buffer->setDataSize(5);
    buffer->setCompression(kyNetCompression::None, 5);
    buffer->setSequence(258);
    buffer->setType(kyNetMessageType::StreamData);
    buffer->setSource(2);
    buffer->setDestination(1);
    return toBytes(buffer->getBuffer(), kyNetBuffer::getHeaderSize());
}

Bytes makeBundle()
{
    std::queue<std::shared_ptr<kyNetBuffer>> queue;
    queue.push(makeMessage(5, "hi"));
    queue.push(makeMessage(6, "bye"));
    std::shared_ptr<kyNetBuffer> bundle;
    EXPECT_TRUE(kyNetBuffer::tryBundle(queue, bundle));
    return toBytes(bundle->getBuffer(), bundle->getBufferSize());
}

void writeValues(kyNetSerializer& out)
{
    out << std::int32_t{-1} << true << 1.5;
    out.putValueSize(131072);
    out << "tile" << std::string();
}

void writeOptions(kyNetSerializer& out)
{
    kyNetInterfaceOptions options;
    options.setIbDevice("mlx5_");
    options.setIbPort(1);
    options.setSyncChannels(1);
    options.setImageChannels(4);
    options.setLowLatencyChannels(6);
    options.setEncrypted(true);
    out << options;
}

void writeStatus(kyNetSerializer& out)
{
    kyNetServiceStatus status;
    status.setIsRunning(true);
    status.setVersion("11.0");
    status.setBookingIds({"night-7"});
    out << status;
}

/// What a client sends to a service: the handshake word, or the request after it. The service of
/// this test answers the word, and goes away instead of answering the request.
struct Conversation
{
    Bytes word;
    Bytes request;
};

Conversation listenTo(const std::function<void(const NodeAddress&)>& ask)
{
    kyBoundSocketLink listener(0);
    const int port = listener.getAddress().getPort();
    auto client = std::async(std::launch::async, [&ask, port] {
        EXPECT_THROW(ask(NodeAddress::parse("127.0.0.1:" + std::to_string(port))), kyNetError);
    });

    Conversation heard;
    kySocketLink link(listener);
    heard.word.resize(4);
    link.recv(heard.word.data(), heard.word.size());
    link.send(heard.word.data(), heard.word.size());
    std::shared_ptr<kyNetBuffer> buffer;
    link.recv(buffer);
    heard.request = toBytes(buffer->getBuffer(), buffer->getBufferSize());
    link.shutdown();
    client.get();
    return heard;
}

Bytes request(const std::function<void(const ServiceClient&)>& ask)
{
    return listenTo([&ask](const NodeAddress& node) { ask(ServiceClient(node)); }).request;
}

Bytes requestStart()
{
    return request([](const ServiceClient& service) {
        ServiceClient::ServerSettings settings;
        settings.arguments = "--quiet";
        settings.bookingId = "night-7";
        service.startServer(settings);
    });
}

Bytes requestRelay()
{
    return listenTo([](const NodeAddress& relay) {
               ServiceClient(NodeAddress::parse("node7"), relay).status();
           })
        .request;
}

Bytes handshake()
{
    return listenTo([](const NodeAddress& node) { ServiceClient(node).status(); }).word;
}

Bytes littleEndian(std::uint32_t value)
{
    Bytes bytes;
    for (int byte = 0; byte < 4; ++byte, value >>= 8U) {
        bytes.push_back(static_cast<std::uint8_t>(value & 0xFFU));
    }
    return bytes;
}

/// The bytes of both directions of a pipe over which descriptor 17 is announced to a server.
struct HandOver
{
    Bytes processId;
    Bytes acknowledgement;
};

HandOver handOver()
{
    const std::string name =
        "\\\\.\\pipe\\taloService-{wire-format-" + std::to_string(kyPlatform::getProcessId()) + "}";
    kyTest::RawPipe service = kyTest::RawPipe::listen(name);
    kySocketPipe server(name);
    auto receiving = std::async(std::launch::async,
                                [&server] { const kySocketLink owner(server.recvSocket(0)); });
    service.accept();
    const auto text = [](const std::string& bytes) { return toBytes(bytes.data(), bytes.size()); };
    HandOver heard;
    heard.processId = text(service.receive(4));
    const kyTest::SocketPair sockets;
    // Not every system lets this process choose the value.
    const std::string documented = kyTest::pipeBytes(17);
    const std::string sent = kyTest::socketBytes(sockets.served(), documented);
    service.send(sent, {sockets.served()});
    const std::string answer = service.receive(8);
    heard.acknowledgement = text(answer == sent ? documented : answer);
    receiving.get();
    return heard;
}

/// The process in the document is not this one: what this one sends is checked here.
Bytes processIdOf1234()
{
    const auto own = static_cast<std::uint32_t>(QCoreApplication::applicationPid());
    EXPECT_EQ(handOver().processId, littleEndian(own));
    return littleEndian(1234);
}

const std::map<std::string, std::function<Bytes()>> s_makers = {
    {"header", makeHeader},
    {"frame", [] { return streamed(2, [](kyNetStream& out) { out << std::int32_t{42}; }); }},
    {"values", [] { return written(writeValues); }},
    {"sync", [] { return streamed(1, [](kyNetStream& out) { out.sendSync(7); }); }},
    {"success",
     [] {
         Bytes bytes = streamed(0, [](kyNetStream& out) { out.sendSuccess(); });
         bytes.erase(bytes.begin(), bytes.begin() + kyNetBuffer::getHeaderSize());
         return bytes;
     }},
    {"exception",
     [] {
         Bytes bytes =
             streamed(0, [](kyNetStream& out) { out.sendException(std::runtime_error("abc")); });
         bytes.erase(bytes.begin(), bytes.begin() + kyNetBuffer::getHeaderSize());
         return bytes;
     }},
    {"bundle", makeBundle},
    {"handshake", handshake},
    {"interface-options", [] { return written(writeOptions); }},
    {"request-start", requestStart},
    {"request-connect",
     [] { return request([](const ServiceClient& service) { service.connectServer(3); }); }},
    {"request-stop-service",
     [] { return request([](const ServiceClient& service) { service.stopService(); }); }},
    {"request-relay", requestRelay},
    {"request-stop",
     [] { return request([](const ServiceClient& service) { service.stopServer(3); }); }},
    {"request-status",
     [] { return request([](const ServiceClient& service) { service.status(); }); }},
    {"request-stop-booking",
     [] {
         return request([](const ServiceClient& service) { service.stopByBooking("night-7"); });
     }},
    {"status", [] { return written(writeStatus); }},
    {"pipe-process-id", processIdOf1234},
    {"pipe-handle", [] { return handOver().acknowledgement; }},
};

class kyWireFormat : public testing::TestWithParam<std::string>
{
};

std::vector<std::string> exampleNames()
{
    std::vector<std::string> names;
    for (const auto& example : readExamples()) {
        names.push_back(example.first);
    }
    return names;
}

TEST(kyWireFormatDocument, hasEveryExample)
{
    const auto examples = readExamples();
    for (const auto& maker : s_makers) {
        EXPECT_EQ(examples.count(maker.first), 1U) << maker.first;
    }
}

TEST_P(kyWireFormat, exampleIsWhatTheLibrarySends)
{
    const auto maker = s_makers.find(GetParam());
    ASSERT_NE(maker, s_makers.end()) << "an example that nothing checks";
    EXPECT_EQ(maker->second(), readExamples().at(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(documented, kyWireFormat, testing::ValuesIn(exampleNames()),
                         [](const auto& example) {
                             std::string name = example.param;
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

} // namespace
