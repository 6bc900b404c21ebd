// This library. The variant says what is put over the links:
//     links      whole buffers through the chains of chains.h, whose words may follow
//     stream     a stream, into which each message is written as bytes
//     values     a stream, into which each message is written as values of 8 bytes
//     records    a stream, into which each message is written as one value of 64 bytes
//     relay      buffers for all; the first two receivers pass them on to the others

#include <array>
#include <vector>

#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/buffers/kyNetBufferPool.h>
#include <NetBase/receivers/kyNetBufferedReceiver.h>
#include <NetBase/receivers/kyNetForwardReceiver.h>
#include <NetBase/receivers/kyNetUnbundleReceiver.h>
#include <NetBase/senders/kyNetMultiSender.h>
#include <NetBase/serialization/kyNetStream.h>
#include <benchmarks/core/Channel.h>
#include <benchmarks/core/Meeting.h>
#include <benchmarks/core/Terms.h>
#include <benchmarks/library/chains.h>

namespace bench {

namespace {

/// What a process has open. The links are held here too, since silent ones stand in no chain.
struct Chains
{
    Links links;
    std::shared_ptr<kyNetSender> sender;
    std::shared_ptr<kyNetReceiver> receiver;
};

/// Each message is a buffer of the pool.
class BufferChannel : public Channel
{
public:
    BufferChannel(const Terms& terms, Chains chains)
        : m_size(terms.size),
          m_source(toLibraryRank(terms.rank)),
          m_destination(terms.receivers > 1 ? 0 : toLibraryRank(terms.rank == 0 ? 1 : 0)),
          m_chains(std::move(chains))
    {
    }

    char* prepare() override
    {
        m_out = kyNetBufferPool::pop();
        *m_out->getBuffer() = kyNetHeader{};
        m_out->setDataSize(m_size);
        m_out->setCompression(kyNetCompression::None, m_size);
        m_out->setSource(m_source);
        m_out->setDestination(m_destination);
        m_out->setSendMode(kyNetBufferSendMode::Automatic);
        return m_out->getData();
    }

    void send() override { m_chains.sender->send(m_out); }

    void flush() override
    {
        if (m_chains.sender) {
            m_chains.sender->waitAllDataTransfered();
        }
    }

    Message receive() override
    {
        m_chains.receiver->recv(m_in);
        return {m_in->getData(), m_in->getDataSize()};
    }

    Report getStatistics() const override
    {
        return {{"compressedBytes", static_cast<double>(m_chains.sender->getCompressedBytes())}};
    }

private:
    const std::uint64_t m_size;
    const unsigned int m_source;
    const unsigned int m_destination;
    Chains m_chains;
    std::shared_ptr<kyNetBuffer> m_out;
    std::shared_ptr<kyNetBuffer> m_in;
};

/// Each message is written into a stream and read from it, in the way that Value tells.
template <class Value> class StreamChannel : public Channel
{
public:
    StreamChannel(const Terms& terms, const Chains& chains)
        : m_links(chains.links), m_out(terms.size), m_in(terms.size)
    {
        m_stream.setRank(static_cast<int>(toLibraryRank(terms.rank)));
        m_stream.setSender(chains.sender);
        m_stream.setReceiver(chains.receiver);
    }

    char* prepare() override { return m_out.data(); }
    void send() override { Value::put(m_stream, m_out); }

    void flush() override
    {
        m_stream.flush();
        m_stream.waitAllDataTransfered(); // Nothing to wait for without a sender.
    }

    Message receive() override
    {
        Value::get(m_stream, m_in);
        return {m_in.data(), m_in.size()};
    }

private:
    Links m_links;
    kyNetStream m_stream;
    std::vector<char> m_out;
    std::vector<char> m_in;
};

struct Bytes
{
    static void put(kyNetStream& stream, const std::vector<char>& message)
    {
        stream.putBytes(message.data(), message.size());
    }
    static void get(kyNetStream& stream, std::vector<char>& message)
    {
        stream.getBytes(message.data(), message.size());
    }
};

template <class Value> struct Values
{
    static void put(kyNetStream& stream, const std::vector<char>& message)
    {
        Value value;
        for (std::size_t i = 0; i < message.size(); i += sizeof value) {
            std::memcpy(&value, message.data() + i, sizeof value);
            stream << value;
        }
    }
    static void get(kyNetStream& stream, std::vector<char>& message)
    {
        Value value;
        for (std::size_t i = 0; i < message.size(); i += sizeof value) {
            stream >> value;
            std::memcpy(message.data() + i, &value, sizeof value);
        }
    }
};

Chains makeSenderToAll(const Terms& terms, const Meeting& meeting)
{
    const bool isRelayed = uses(terms, "relay");
    const int children = isRelayed ? 2 : terms.receivers;
    std::vector<std::shared_ptr<kyNetSender>> senders;
    for (int rank = 1; rank <= children; ++rank) {
        std::set<unsigned int> destinations{toLibraryRank(rank)};
        if (isRelayed) {
            destinations.insert(toLibraryRank(rank + 2));
        }
        senders.push_back(makeSender(terms, connectTo(rank, terms, meeting), destinations));
    }
    return {{}, kyNetMultiSender::create(senders), nullptr};
}

/// Rank 1 passes on to rank 3, rank 2 to rank 4.
Chains makeRelay(const Terms& terms, const Meeting& meeting, const Links& links)
{
    const int next = terms.rank + 2;
    const auto forward = makeSender(terms, connectTo(next, terms, meeting), {toLibraryRank(next)});
    return {links, forward,
            kyNetForwardReceiver::create(makeReceiver(terms, links), forward,
                                         static_cast<int>(toLibraryRank(terms.rank)))};
}

Chains makeChains(const Terms& terms, Meeting& meeting)
{
    if (terms.rank == 0 && terms.receivers > 1) {
        return makeSenderToAll(terms, meeting);
    }
    const Links links = terms.rank == 0 ? connectTo(1, terms, meeting) : acceptAll(terms, meeting);
    if (uses(terms, "relay") && terms.rank + 2 <= terms.receivers) {
        return makeRelay(terms, meeting, links);
    }
    const bool sends = terms.rank == 0 || terms.pattern == "roundTrip";
    const bool receives = terms.rank != 0 || terms.pattern == "roundTrip";
    const Links busy(links.end() - terms.busy, links.end());
    Chains chains{links, nullptr, nullptr};
    if (sends) {
        chains.sender = makeSender(terms, busy, {toLibraryRank(terms.rank == 0 ? 1 : 0)});
    }
    if (receives) {
        chains.receiver = makeReceiver(terms, links);
    }
    return chains;
}

} // namespace

std::unique_ptr<Channel> openChannel(const Terms& terms, Meeting& meeting)
{
    const Chains chains = makeChains(terms, meeting);
    if (uses(terms, "stream")) {
        return std::make_unique<StreamChannel<Bytes>>(terms, chains);
    }
    if (uses(terms, "values")) {
        return std::make_unique<StreamChannel<Values<std::uint64_t>>>(terms, chains);
    }
    if (uses(terms, "records")) {
        return std::make_unique<StreamChannel<Values<std::array<std::uint64_t, 8>>>>(terms, chains);
    }
    return std::make_unique<BufferChannel>(terms, chains);
}

} // namespace bench
