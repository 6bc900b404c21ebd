#include <tests/support/kyTestLongText.h>

#include <cstring>
#include <system_error>

#include <windows.h>

#include <Utils/platform/win32/kyHandle.h>

namespace kyTest {

namespace {

constexpr std::uint64_t s_pieceSize = 4 * 1024 * 1024;

[[noreturn]] void fail(const char* what)
{
    throw std::system_error(static_cast<int>(::GetLastError()), std::system_category(), what);
}

/// Addresses that were free a moment ago.
char* findAddresses(std::uint64_t size)
{
    void* addresses = ::VirtualAlloc(nullptr, size, MEM_RESERVE, PAGE_NOACCESS);
    if (addresses == nullptr) {
        fail("VirtualAlloc");
    }
    ::VirtualFree(addresses, 0, MEM_RELEASE);
    return static_cast<char*>(addresses);
}

kyHandle makePiece()
{
    kyHandle piece(::CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0,
                                        static_cast<DWORD>(s_pieceSize), nullptr));
    if (!piece.isValid()) {
        fail("CreateFileMapping");
    }
    return piece;
}

void map(const kyHandle& piece, char* address)
{
    if (::MapViewOfFileEx(piece.get(), FILE_MAP_WRITE, 0, 0, s_pieceSize, address) == nullptr) {
        fail("MapViewOfFileEx");
    }
}

} // namespace

LongText::LongText(std::uint64_t length)
{
    // Whole pieces, and a last one of zeroes behind them.
    const std::uint64_t pieces = length / s_pieceSize + 1;
    m_size = (pieces + 1) * s_pieceSize;
    m_addresses = findAddresses(m_size);
    const kyHandle piece = makePiece();
    for (std::uint64_t i = 0; i < pieces; ++i) {
        map(piece, m_addresses + i * s_pieceSize);
    }
    map(makePiece(), m_addresses + pieces * s_pieceSize);
    std::memset(m_addresses, 'x', s_pieceSize);
    m_begin = m_addresses + pieces * s_pieceSize - length;
}

LongText::~LongText()
{
    for (std::uint64_t offset = 0; offset < m_size; offset += s_pieceSize) {
        ::UnmapViewOfFile(m_addresses + offset);
    }
}

} // namespace kyTest
