#include <tests/support/kyTestLongText.h>

#include <cerrno>
#include <string>
#include <system_error>

#include <sys/mman.h>
#include <unistd.h>

namespace kyTest {

namespace {

constexpr std::uint64_t s_pieceSize = 4 * 1024 * 1024;

[[noreturn]] void fail(const char* what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

} // namespace

LongText::LongText(std::uint64_t length)
{
    // Whole pieces, and a last one of zeroes behind them.
    const std::uint64_t pieces = length / s_pieceSize + 1;
    m_size = (pieces + 1) * s_pieceSize;
    void* addresses = mmap(nullptr, m_size, PROT_READ | PROT_WRITE,
                           MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (addresses == MAP_FAILED) {
        fail("mmap");
    }
    m_addresses = static_cast<char*>(addresses);

    const int file = memfd_create("kyTestLongText", MFD_CLOEXEC);
    if (file < 0) {
        fail("memfd_create");
    }
    const std::string piece(s_pieceSize, 'x');
    if (write(file, piece.data(), piece.size()) != static_cast<ssize_t>(piece.size())) {
        fail("write");
    }
    for (std::uint64_t i = 0; i < pieces; ++i) {
        if (mmap(m_addresses + i * s_pieceSize, s_pieceSize, PROT_READ, MAP_SHARED | MAP_FIXED,
                 file, 0) == MAP_FAILED) {
            fail("mmap");
        }
    }
    close(file);
    m_begin = m_addresses + pieces * s_pieceSize - length;
}

LongText::~LongText()
{
    munmap(m_addresses, m_size);
}

} // namespace kyTest
