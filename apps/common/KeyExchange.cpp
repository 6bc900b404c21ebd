#include <apps/common/KeyExchange.h>

#include <array>
#include <cstring>
#include <string_view>

#include <sodium.h>

#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/buffers/kyNetError.h>
#include <NetBase/links/kySocketLink.h>
#include <NetBase/serialization/kyNetStream.h>
#include <apps/common/LinkCipher.h>
#include <apps/common/SharedKey.h>

namespace {

using Bytes = SharedKey::Bytes;

constexpr std::array<char, 8> s_marker{'t', 'a', 'l', 'o', 'K', 'e', 'y', '1'};

/// What the client begins with, as it travels.
struct Offer
{
    std::array<char, 8> marker = s_marker;
    Bytes random{};
};
static_assert(sizeof(Offer) == sizeof(s_marker) + SharedKey::s_size);

/// What the hash is for: none of them is ever of use in another one's place.
constexpr std::string_view s_serverProof = "talo key 1: server's proof";
constexpr std::string_view s_clientProof = "talo key 1: client's proof";
constexpr std::string_view s_toServer = "talo key 1: from client to server";
constexpr std::string_view s_toClient = "talo key 1: from server to client";

Bytes makeRandom()
{
    // It opens the system's source on first use, which may be on several threads.
    if (sodium_init() < 0) {
        throw kyNetError("Unable to get random bytes for the key exchange");
    }
    Bytes random{};
    randombytes_buf(random.data(), random.size());
    return random;
}

/// What both sides know about one exchange once each has the other's random bytes.
class Session
{
public:
    Session(const SharedKey& key, const Bytes& client, const Bytes& server)
        : m_key(key), m_client(client), m_server(server)
    {
    }

    Bytes derive(std::string_view purpose) const
    {
        static_assert(SharedKey::s_size >= crypto_generichash_KEYBYTES_MIN &&
                      SharedKey::s_size <= crypto_generichash_KEYBYTES_MAX);
        crypto_generichash_state state;
        const Bytes& key = m_key.getBytes();
        crypto_generichash_init(&state, key.data(), key.size(), SharedKey::s_size);
        crypto_generichash_update(&state, reinterpret_cast<const unsigned char*>(purpose.data()),
                                  purpose.size());
        crypto_generichash_update(&state, m_client.data(), m_client.size());
        crypto_generichash_update(&state, m_server.data(), m_server.size());
        Bytes result{};
        crypto_generichash_final(&state, result.data(), result.size());
        sodium_memzero(&state, sizeof(state));
        return result;
    }

    bool isProof(std::string_view purpose, const Bytes& proof) const
    {
        return sodium_memcmp(derive(purpose).data(), proof.data(), proof.size()) == 0;
    }

    std::shared_ptr<LinkCipher> makeCipher(std::string_view send, std::string_view recv) const
    {
        Bytes sendKey = derive(send);
        Bytes recvKey = derive(recv);
        auto cipher = std::make_shared<LinkCipher>(sendKey, recvKey);
        sodium_memzero(sendKey.data(), sendKey.size());
        sodium_memzero(recvKey.data(), recvKey.size());
        return cipher;
    }

private:
    const SharedKey& m_key;
    Bytes m_client;
    Bytes m_server;
};

kyNetError strangerError()
{
    return kyNetError("The other side does not hold this key");
}

void sendFailure(kyNetStream& stream, const kyNetError& error)
{
    stream.sendException(error).flush();
}

/// Receives one buffer and takes it for the record; false if it has another size.
template <class Record> bool recvRecord(kySocketLink& link, Record& record)
{
    std::shared_ptr<kyNetBuffer> buffer;
    link.recv(buffer);
    if (buffer->getDataSize() != sizeof(record)) {
        return false;
    }
    std::memcpy(&record, buffer->getData(), sizeof(record));
    return true;
}

/// Whether the bytes that wait are an offer. It was sent as one piece; should it come in several,
/// it is read as what it is not, and refused all the same.
bool isOffered(kySocketLink& link)
{
    std::array<char, sizeof(kyNetHeader) + sizeof(Offer)> bytes{};
    if (link.peekAvailable(bytes.data(), bytes.size()) < bytes.size()) {
        return false;
    }
    kyNetHeader header{};
    std::memcpy(&header, bytes.data(), sizeof(header));
    return header.dataSize == sizeof(Offer) &&
           std::memcmp(bytes.data() + sizeof(header), s_marker.data(), s_marker.size()) == 0;
}

} // namespace

void KeyExchange::offer(const std::shared_ptr<kySocketLink>& link,
                        const std::shared_ptr<const SharedKey>& key)
{
    if (!key) {
        return;
    }
    Offer offer;
    offer.random = makeRandom();
    kyNetStream stream(link);
    stream << offer;
    stream.flush();

    Bytes server{};
    Bytes proof{};
    stream.recvResult() >> server >> proof;
    const Session session(*key, offer.random, server);
    if (!session.isProof(s_serverProof, proof)) {
        const kyNetError error = strangerError();
        sendFailure(stream, error);
        throw error;
    }
    stream << session.derive(s_clientProof);
    stream.flush();
    link->setCipher(session.makeCipher(s_toServer, s_toClient));
}

void KeyExchange::answer(const std::shared_ptr<kySocketLink>& link,
                         const std::shared_ptr<const SharedKey>& key)
{
    kyNetStream stream(link);
    if (!key) {
        if (isOffered(*link)) {
            const kyNetError error("A key was offered to a side that has none");
            sendFailure(stream, error);
            throw error;
        }
        return;
    }
    Offer offer;
    if (!recvRecord(*link, offer) || offer.marker != s_marker) {
        const kyNetError error("This connection needs a key, and none was offered");
        sendFailure(stream, error);
        throw error;
    }
    const Bytes server = makeRandom();
    const Session session(*key, offer.random, server);
    stream.sendSuccess() << server << session.derive(s_serverProof);
    stream.flush();

    Bytes proof{};
    if (!recvRecord(*link, proof) || !session.isProof(s_clientProof, proof)) {
        throw strangerError();
    }
    link->setCipher(session.makeCipher(s_toClient, s_toServer));
}
