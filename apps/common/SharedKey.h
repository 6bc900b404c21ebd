#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>

/// The secret that the services, render servers and users of a cluster have in common, by which
/// they know each other.
///
///     const auto key = SharedKey::read("/etc/talo.key");
///     KeyExchange::offer(link, key);
///
/// A key file holds 64 hexadecimal digits, which may end with one newline, and nothing else. Like
/// every file with a secret it must belong to whoever reads it, or to root, and nobody else may
/// have any right to it.
///
/// Ownership: shared by whoever needs it; an empty pointer stands for "no key" everywhere. The
/// memory is wiped with the last holder.
///
/// Threads: a constant value.
class SharedKey
{
public:
    /// Bytes of a key.
    static constexpr std::size_t s_size = 32;
    using Bytes = std::array<std::uint8_t, s_size>;

    /// The environment variable by which a cluster service tells its render servers which key file
    /// to use; not set if there is none.
    static constexpr const char* s_fileVariable = "TALO_KEY_FILE";

    explicit SharedKey(const Bytes& bytes) : m_bytes(bytes) {}
    ~SharedKey();

    SharedKey(const SharedKey&) = delete;
    SharedKey& operator=(const SharedKey&) = delete;

    /// Reads a key file. Throws kyNetError naming the file if it cannot be read, if others may read
    /// it, or if it is no key file.
    static std::shared_ptr<const SharedKey> read(const std::string& path);

    /// The key of the file that s_fileVariable names; empty if it is not set. Throws as read does.
    static std::shared_ptr<const SharedKey> readFromEnvironment();

    const Bytes& getBytes() const { return m_bytes; }

private:
    Bytes m_bytes;
};
