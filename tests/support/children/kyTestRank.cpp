// A rank of a job. Whoever starts it listens on a port of this machine.
//
//     kyTestRank source PORT LINKS    connects so often and sends multicasts, as fast as they are
//                                     answered
//     kyTestRank sink PORT LINKS      connects so often and receives whatever comes
//     kyTestRank relay PORT RANK [CHILD=RANK,RANK,... ...]
//                                     connects once and says its rank; prints a port of its own,
//                                     where each child connects in the same way, with the ranks
//                                     that are reached through it; relays until that fails, and
//                                     prints what it has received

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <limits>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <NetBase/links/kyBoundSocketLink.h>
#include <NetBase/receivers/kyNetBufferedReceiver.h>
#include <NetBase/receivers/kyNetForwardReceiver.h>
#include <NetBase/senders/kyNetMultiSender.h>
#include <tests/chains/kyChainFixtures.h>

namespace {

using kyTest::Buffer;
using kyTest::CountingReceiver;

/// The ranks that are reached through each child.
using Subtrees = std::map<unsigned int, kyTest::Ranks>;

std::shared_ptr<kySocketLink> connectTo(int port)
{
    return std::make_shared<kySocketLink>(kySocketAddress("127.0.0.1", port), 30.0);
}

kyTest::Links connectTo(int port, int count)
{
    kyTest::Links links;
    for (int i = 0; i < count; ++i) {
        links.push_back(connectTo(port));
    }
    return links;
}

int runSource(int port, int links)
{
    const kyTest::Links channels = connectTo(port, links);
    kyNetStream stream;
    stream.setRank(1);
    stream.setSender(kyTest::makeFullSender(channels, {2}));
    stream.setReceiver(kyNetLinkReceiver::create(channels.front()));
    kyTest::sendMulticasts(stream, std::numeric_limits<std::uint32_t>::max());
    return 0;
}

int runSink(int port, int links)
{
    kyNetStream stream;
    stream.setReceiver(kyTest::makeFullReceiver(connectTo(port, links)));
    stream.recvAll();
    return 0;
}

Subtrees parseSubtrees(const std::vector<std::string>& texts)
{
    Subtrees subtrees;
    for (const std::string& text : texts) {
        std::istringstream in(text);
        unsigned int child = 0;
        in >> child;
        for (char separator = 0; in >> separator;) {
            unsigned int rank = 0;
            in >> rank;
            subtrees[child].insert(rank);
        }
    }
    return subtrees;
}

/// A sender to all children, each of which connects and says its rank.
std::shared_ptr<kyNetSender> acceptChildren(const kyBoundSocketLink& listener,
                                            const Subtrees& subtrees)
{
    std::vector<std::shared_ptr<kyNetSender>> children;
    while (children.size() < subtrees.size()) {
        const auto link = std::make_shared<kySocketLink>(listener);
        std::uint32_t rank = 0;
        link->recv(&rank, sizeof rank);
        children.push_back(kyNetSender::createBundle({link}, true, subtrees.at(rank)));
    }
    return kyNetMultiSender::create(children);
}

/// What a rank has received, multicasts in order and unicasts for nobody else.
struct Received
{
    void add(unsigned int rank, const kyNetBuffer& buffer)
    {
        std::uint32_t number = 0;
        std::memcpy(&number, buffer.getData(), sizeof number);
        const bool isExpected =
            buffer.isMulticast() ? number == multicasts : number / kyTest::s_unicastStep == rank;
        if (!isExpected || !kyTest::hasContentOf(number, buffer)) {
            throw kyNetError("wrong content " + std::to_string(number));
        }
        ++(buffer.isMulticast() ? multicasts : unicasts);
    }

    std::uint32_t multicasts = 0;
    std::uint32_t unicasts = 0;
};

int runRelay(int port, unsigned int rank, const Subtrees& subtrees)
{
    kyBoundSocketLink listener(0);
    std::cout << listener.getAddress().getPort() << std::endl;
    const auto up = connectTo(port);
    up->send(&rank, sizeof rank);
    const auto forward = acceptChildren(listener, subtrees);

    // Bundles are relayed as they come and opened above the relay.
    const auto relay =
        kyNetForwardReceiver::create(kyNetBufferedReceiver::create({kyNetLinkReceiver::create(up)}),
                                     forward, static_cast<int>(rank));
    const auto all = std::make_shared<CountingReceiver>(kyNetDecompressReceiver::create(
        std::make_shared<kyTest::TrimCompressor>(), {kyNetUnbundleReceiver::create(relay)}));
    const auto receiver = kyNetSortReceiver::create(all);

    Received received;
    const std::string end = kyTest::messageOf([&] {
        for (Buffer buffer;;) {
            receiver->recv(buffer);
            received.add(rank, *buffer);
        }
    });
    try {
        forward->waitAllDataTransfered();
    } catch (const kyNetError&) {
        // Then this was the end.
    }
    std::cout << received.multicasts << " multicasts, " << received.unicasts << " unicasts, "
              << all->delivered << " in all, " << end << std::endl;
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    const std::string what = arguments.at(0);
    const int port = std::atoi(arguments.at(1).c_str());
    const int number = std::atoi(arguments.at(2).c_str());
    try {
        if (what == "relay") {
            return runRelay(port, static_cast<unsigned int>(number),
                            parseSubtrees({arguments.begin() + 3, arguments.end()}));
        }
        return what == "source" ? runSource(port, number) : runSink(port, number);
    } catch (const std::exception& exception) {
        std::cerr << exception.what() << std::endl;
        return 2;
    }
}
