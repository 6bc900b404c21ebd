#include <apps/common/SharedKey.h>

#include <cstdlib>

#include <sodium.h>

#include <NetBase/buffers/kyNetError.h>
#include <apps/common/platform/SecretFile.h>

namespace {

constexpr std::size_t s_digits = 2 * SharedKey::s_size;

/// What a key file holds, and one byte more, by which a longer one is noticed.
struct Text
{
    ~Text() { sodium_memzero(bytes.data(), bytes.size()); }

    std::array<char, s_digits + 2> bytes{};
    std::size_t size = 0;
};

bool isComplete(const Text& text)
{
    return text.size == s_digits || (text.size == s_digits + 1 && text.bytes[s_digits] == '\n');
}

} // namespace

SharedKey::~SharedKey()
{
    sodium_memzero(m_bytes.data(), m_bytes.size());
}

std::shared_ptr<const SharedKey> SharedKey::read(const std::string& path)
{
    Text text;
    text.size = readSecretFile("Key file", path, text.bytes.data(), text.bytes.size());

    // Only digits: without characters to be ignored every other one ends the conversion.
    Bytes bytes{};
    std::size_t converted = 0;
    const bool isKey = isComplete(text) &&
                       sodium_hex2bin(bytes.data(), bytes.size(), text.bytes.data(), s_digits,
                                      nullptr, &converted, nullptr) == 0 &&
                       converted == bytes.size();
    std::shared_ptr<const SharedKey> key;
    if (isKey) {
        key = std::make_shared<SharedKey>(bytes);
    }
    sodium_memzero(bytes.data(), bytes.size());
    if (!key) {
        throw kyNetError("Key file '" + path + "' does not hold 64 hexadecimal digits");
    }
    return key;
}

std::shared_ptr<const SharedKey> SharedKey::readFromEnvironment()
{
    const char* path = std::getenv(s_fileVariable);
    return path != nullptr ? read(path) : nullptr;
}
