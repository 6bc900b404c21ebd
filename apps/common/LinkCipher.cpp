#include <apps/common/LinkCipher.h>

#include <algorithm>
#include <array>

#include <sodium.h>

namespace {

constexpr std::uint64_t s_blockSize = 64;

/// A key is used for one stream only, whose blocks are counted: nothing else needs to differ.
constexpr std::array<std::uint8_t, crypto_stream_chacha20_NONCEBYTES> s_nonce{};

static_assert(SharedKey::s_size == crypto_stream_chacha20_KEYBYTES);

} // namespace

LinkCipher::LinkCipher(const SharedKey::Bytes& sendKey, const SharedKey::Bytes& recvKey)
    : m_send(sendKey), m_recv(recvKey)
{
}

void LinkCipher::encrypt(std::uint8_t* out, const std::uint8_t* in, std::uint64_t length)
{
    m_send.apply(out, in, length);
}

void LinkCipher::decrypt(std::uint8_t* out, const std::uint8_t* in, std::uint64_t length)
{
    m_recv.apply(out, in, length);
}

void LinkCipher::Direction::apply(std::uint8_t* out, const std::uint8_t* in, std::uint64_t length)
{
    applyRestOfBlock(out, in, length);
    if (length == 0) {
        return;
    }
    crypto_stream_chacha20_xor_ic(out, in, length, s_nonce.data(), m_block,
                                  m_key.getBytes().data());
    m_block += length / s_blockSize;
    m_usedOfBlock = length % s_blockSize;
}

void LinkCipher::Direction::applyRestOfBlock(std::uint8_t*& out, const std::uint8_t*& in,
                                             std::uint64_t& length)
{
    if (m_usedOfBlock == 0) {
        return;
    }
    std::array<std::uint8_t, s_blockSize> block{};
    const std::uint64_t count = std::min(length, s_blockSize - m_usedOfBlock);
    std::copy_n(in, count, block.begin() + static_cast<std::ptrdiff_t>(m_usedOfBlock));
    crypto_stream_chacha20_xor_ic(block.data(), block.data(), m_usedOfBlock + count, s_nonce.data(),
                                  m_block, m_key.getBytes().data());
    out = std::copy_n(block.begin() + static_cast<std::ptrdiff_t>(m_usedOfBlock), count, out);
    in += count;
    length -= count;
    // The rest of the block is key stream for what comes next.
    sodium_memzero(block.data(), block.size());
    m_usedOfBlock = (m_usedOfBlock + count) % s_blockSize;
    m_block += m_usedOfBlock == 0 ? 1 : 0;
}
