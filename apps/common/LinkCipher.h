#pragma once

#include <cstdint>

#include <NetBase/links/kyNetCipherBase.h>
#include <apps/common/SharedKey.h>

/// The cipher of one link: ChaCha20, with a key of its own for each direction.
///
/// Each direction is one long stream of bytes, of which each call takes as many as it is given; it
/// has room for 2^70 of them. Both ends must pass the same bytes: after a transfer that failed
/// midway the link is of no use any more.
///
/// It hides, and does nothing else: who changes a byte on the way changes the byte that arrives.
///
/// Threads: one may encrypt while another one decrypts. A cipher serves one link only.
///
/// Ownership: made by KeyExchange and held by the link. The keys are wiped with the object.
class LinkCipher final : public kyNetCipherBase
{
public:
    /// Two keys that were never used for anything else; the other end has them the other way round.
    LinkCipher(const SharedKey::Bytes& sendKey, const SharedKey::Bytes& recvKey);
    ~LinkCipher() = default;

    LinkCipher(const LinkCipher&) = delete;
    LinkCipher& operator=(const LinkCipher&) = delete;

    void encrypt(std::uint8_t* out, const std::uint8_t* in, std::uint64_t length) override;
    void decrypt(std::uint8_t* out, const std::uint8_t* in, std::uint64_t length) override;

private:
    /// One direction.
    class Direction
    {
    public:
        explicit Direction(const SharedKey::Bytes& key) : m_key(key) {}

        /// Combines the next bytes of the key stream with these; `out` may be `in`.
        void apply(std::uint8_t* out, const std::uint8_t* in, std::uint64_t length);

    private:
        void applyRestOfBlock(std::uint8_t*& out, const std::uint8_t*& in, std::uint64_t& length);

        SharedKey m_key;
        std::uint64_t m_block = 0;       ///< of the next byte, counted in blocks of 64 bytes
        std::uint64_t m_usedOfBlock = 0; ///< bytes of it that are spent
    };

    Direction m_send;
    Direction m_recv;
};
