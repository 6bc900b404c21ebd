#pragma once

#include <memory>

class SharedKey;
class kySocketLink;

/// How the two ends of a link prove to each other that they hold the same key, and agree on the
/// cipher of this link.
///
///     KeyExchange::offer(link, key);  // who connected
///     KeyExchange::answer(link, key); // who was connected to, once it has something to read
///
/// It is the first thing on a link, and on a connection to a cluster service follows the handshake
/// word. Each end contributes 32 random bytes, so nothing that was recorded is of any use later:
///
///     offer    "taloKey1", client's random bytes        in one buffer
///     answer   success, server's random bytes, proof    or a failure
///     proof    client's proof                           or a failure
///
/// A proof, and the key for each direction, is a keyed hash (crypto_auth of libsodium) of the
/// purpose and of both sides' random bytes. From then on the link has a LinkCipher, until
/// kyNetLink::setCipher takes it away; a connection that is handed over starts afresh.
///
/// No key is an empty pointer. Both ends learn what is wrong, by the same text of kyNetError:
///
///     The other side does not hold this key                    they have different ones
///     This connection needs a key, and none was offered        only the one who answers has one
///     A key was offered to a side that has none                only the one who offers has one
///
/// Foreign bytes: whoever does not know the key gets the answer to an offer, and nothing else.
///
/// Threads: a link belongs to the caller meanwhile. Both block; limit them by the link's receive
/// time-out. They throw what the link throws, too. The link is to be closed after any failure.
class KeyExchange
{
public:
    /// The client's side; without a key it does nothing.
    static void offer(const std::shared_ptr<kySocketLink>& link,
                      const std::shared_ptr<const SharedKey>& key);

    /// The server's side. Without a key it only looks at the bytes that wait at the link (see
    /// kySocketLink::pollReadable): an offer is taken and turned down, anything else stays unread.
    static void answer(const std::shared_ptr<kySocketLink>& link,
                       const std::shared_ptr<const SharedKey>& key);
};
