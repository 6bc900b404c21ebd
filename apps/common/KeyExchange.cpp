#include <apps/common/KeyExchange.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <exception>
#include <string_view>
#include <tuple>
#include <vector>

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

/// What a hash is for: none of them is ever of use in another one's place.
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
        const std::vector<std::uint8_t> message = bindTo(purpose);
        Bytes result{};
        crypto_auth(result.data(), message.data(), message.size(), m_key.getBytes().data());
        return result;
    }

    bool isProof(std::string_view purpose, const Bytes& proof) const
    {
        const std::vector<std::uint8_t> message = bindTo(purpose);
        return crypto_auth_verify(proof.data(), message.data(), message.size(),
                                  m_key.getBytes().data()) == 0;
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
    static_assert(SharedKey::s_size == crypto_auth_KEYBYTES);
    static_assert(std::tuple_size_v<Bytes> == crypto_auth_BYTES);

    /// What is hashed: this exchange and no other, for this purpose and no other.
    std::vector<std::uint8_t> bindTo(std::string_view purpose) const
    {
        std::vector<std::uint8_t> message(purpose.begin(), purpose.end());
        message.insert(message.end(), m_client.begin(), m_client.end());
        message.insert(message.end(), m_server.begin(), m_server.end());
        return message;
    }

    const SharedKey& m_key;
    Bytes m_client;
    Bytes m_server;
};

constexpr const char* s_stranger = "The other side does not hold this key";

/// Ends the exchange; the other side is told why if it is still there.
[[noreturn]] void refuse(kyNetStream& stream, const char* reason)
{
    const kyNetError error(reason);
    try {
        stream.sendException(error).flush();
    } catch (const std::exception&) {
        // That it has gone is not what is wrong.
    }
    throw error;
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
        refuse(stream, s_stranger);
    }
    stream << session.derive(s_clientProof);
    stream.flush();
    link->setCipher(session.makeCipher(s_toServer, s_toClient));
}

void KeyExchange::answer(const std::shared_ptr<kySocketLink>& link,
                         const std::shared_ptr<const SharedKey>& key)
{
    kyNetStream stream(link);
    Offer offer;
    if (!key) {
        if (isOffered(*link)) {
            // Left unread it would reset the connection, and the reason might not arrive.
            recvRecord(*link, offer);
            refuse(stream, "A key was offered to a side that has none");
        }
        return;
    }
    if (!recvRecord(*link, offer) || offer.marker != s_marker) {
        refuse(stream, "This connection needs a key, and none was offered");
    }
    const Bytes server = makeRandom();
    const Session session(*key, offer.random, server);
    stream.sendSuccess() << server << session.derive(s_serverProof);
    stream.flush();

    Bytes proof{};
    if (!recvRecord(*link, proof) || !session.isProof(s_clientProof, proof)) {
        throw kyNetError(s_stranger);
    }
    link->setCipher(session.makeCipher(s_toClient, s_toServer));
}
