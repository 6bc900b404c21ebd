#include <tests/support/kyTestRawPipe.h>

#include <cstring>
#include <memory>
#include <system_error>
#include <utility>

#include <winsock2.h>

#include <ws2tcpip.h>

#include <windows.h>

#include <sddl.h>

namespace kyTest {

namespace {

constexpr std::uint64_t s_noSocket = ~std::uint64_t{0};

[[noreturn]] void fail(const char* what)
{
    throw std::system_error(static_cast<int>(::GetLastError()), std::system_category(), what);
}

void check(bool isDone, const char* what)
{
    if (!isDone) {
        fail(what);
    }
}

SOCKET makeSocket()
{
    static const bool s_isStarted = [] {
        WSADATA ignored{};
        return ::WSAStartup(MAKEWORD(2, 2), &ignored) == 0;
    }();
    check(s_isStarted, "WSAStartup");
    const SOCKET made = ::WSASocketW(AF_INET, SOCK_STREAM, 0, nullptr, 0,
                                     WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
    check(made != INVALID_SOCKET, "socket");
    return made;
}

/// A handle has 32 significant bits.
HANDLE toHandle(int value)
{
    return reinterpret_cast<HANDLE>(static_cast<std::intptr_t>(value));
}

int toValue(HANDLE handle, const char* what)
{
    check(handle != INVALID_HANDLE_VALUE && handle != nullptr, what);
    return static_cast<int>(reinterpret_cast<std::intptr_t>(handle));
}

void closeValue(int& value)
{
    if (value >= 0) {
        ::CloseHandle(toHandle(std::exchange(value, -1)));
    }
}

std::string describe(DWORD code)
{
    std::string text(1024, '\0');
    constexpr DWORD flags = FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS;
    text.resize(::FormatMessageA(flags, nullptr, code, 0, text.data(),
                                 static_cast<DWORD>(text.size()), nullptr));
    return std::to_string(code) + ':' + text;
}

/// The addresses of both ends of a connection.
std::string describeEnds(std::uint64_t socket)
{
    sockaddr_in ends[2]{};
    int size = sizeof(ends[0]);
    check(::getsockname(socket, reinterpret_cast<sockaddr*>(&ends[0]), &size) == 0, "getsockname");
    check(::getpeername(socket, reinterpret_cast<sockaddr*>(&ends[1]), &size) == 0, "getpeername");
    return {reinterpret_cast<const char*>(ends), sizeof(ends)};
}

} // namespace

SocketPair::SocketPair()
{
    const SOCKET listener = makeSocket();
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
    int size = sizeof(address);
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    check(::bind(listener, generic, size) == 0, "bind");
    check(::listen(listener, 1) == 0, "listen");
    check(::getsockname(listener, generic, &size) == 0, "getsockname");

    const SOCKET client = makeSocket();
    check(::connect(client, generic, size) == 0, "connect");
    const SOCKET served = ::accept(listener, nullptr, nullptr);
    check(served != INVALID_SOCKET, "accept");
    ::closesocket(listener);
    m_ends = {served, client};
}

SocketPair::~SocketPair()
{
    closeServed();
    closeSocket(m_ends[1]);
}

void SocketPair::closeServed()
{
    if (m_ends[0] != s_noSocket) {
        closeSocket(std::exchange(m_ends[0], s_noSocket));
    }
}

void sendText(std::uint64_t socket, const std::string& text)
{
    check(::send(socket, text.data(), static_cast<int>(text.size()), 0) >= 0, "send");
}

std::string receiveText(std::uint64_t socket, std::size_t size)
{
    std::string text(size, '\0');
    std::size_t count = 0;
    while (count < size) {
        const int received = ::recv(socket, text.data() + count, static_cast<int>(size - count), 0);
        if (received <= 0) {
            break;
        }
        count += static_cast<std::size_t>(received);
    }
    text.resize(count);
    return text;
}

void closeSocket(std::uint64_t socket)
{
    if (::closesocket(socket) != 0) {
        ::CloseHandle(reinterpret_cast<HANDLE>(socket));
    }
}

std::uint64_t openFile()
{
    const HANDLE file =
        ::CreateFileA("NUL", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                      nullptr, OPEN_EXISTING, 0, nullptr);
    return static_cast<std::uint64_t>(toValue(file, "NUL"));
}

RawPipe::~RawPipe()
{
    close();
}

RawPipe::RawPipe(RawPipe&& other) noexcept
    : m_listener(std::exchange(other.m_listener, -1)),
      m_connection(std::exchange(other.m_connection, -1))
{
}

RawPipe& RawPipe::operator=(RawPipe&& other) noexcept
{
    std::swap(m_listener, other.m_listener);
    std::swap(m_connection, other.m_connection);
    return *this;
}

RawPipe RawPipe::listen(const std::string& name)
{
    // Wine names an owner only for what is made with rights of its own.
    SECURITY_ATTRIBUTES security{sizeof(security), nullptr, FALSE};
    check(::ConvertStringSecurityDescriptorToSecurityDescriptorA(
              "D:(A;;GA;;;AU)", SDDL_REVISION_1, &security.lpSecurityDescriptor, nullptr),
          "security descriptor");
    const std::unique_ptr<void, decltype(&::LocalFree)> owner(security.lpSecurityDescriptor,
                                                              ::LocalFree);
    RawPipe pipe;
    pipe.m_listener = toValue(::CreateNamedPipeA(name.c_str(), PIPE_ACCESS_DUPLEX, PIPE_TYPE_BYTE,
                                                 1, 1024, 1024, 0, &security),
                              "CreateNamedPipe");
    return pipe;
}

RawPipe RawPipe::connect(const std::string& name)
{
    RawPipe pipe;
    pipe.m_connection = toValue(::CreateFileA(name.c_str(), GENERIC_READ | GENERIC_WRITE, 0,
                                              nullptr, OPEN_EXISTING, 0, nullptr),
                                "CreateFile");
    return pipe;
}

void RawPipe::accept()
{
    check(::ConnectNamedPipe(toHandle(m_listener), nullptr) ||
              ::GetLastError() == ERROR_PIPE_CONNECTED,
          "ConnectNamedPipe");
    // One and the same handle listens and is the connection.
    m_connection = std::exchange(m_listener, -1);
}

void RawPipe::send(const std::string& bytes, const std::vector<std::uint64_t>&)
{
    // The bytes are the socket here; nothing else travels.
    DWORD size = 0;
    check(::WriteFile(toHandle(m_connection), bytes.data(), static_cast<DWORD>(bytes.size()), &size,
                      nullptr),
          "WriteFile");
}

std::string RawPipe::receive(std::size_t size)
{
    std::string bytes(size, '\0');
    std::size_t count = 0;
    while (count < size) {
        DWORD received = 0;
        if (!::ReadFile(toHandle(m_connection), bytes.data() + count,
                        static_cast<DWORD>(size - count), &received, nullptr)) {
            break;
        }
        count += received;
    }
    bytes.resize(count);
    return bytes;
}

void RawPipe::close()
{
    closeValue(m_connection);
    closeValue(m_listener);
}

std::string noSuchPipeText()
{
    return describe(ERROR_FILE_NOT_FOUND);
}

std::string busyPipeText()
{
    return describe(ERROR_PIPE_BUSY);
}

std::string tooLongPipeNameText()
{
    return describe(ERROR_FILENAME_EXCED_RANGE);
}

std::string accessDeniedText()
{
    return describe(ERROR_ACCESS_DENIED);
}

int tooManyOpenCode()
{
    return ERROR_TOO_MANY_OPEN_FILES;
}

std::string tooManyOpenText()
{
    return describe(ERROR_TOO_MANY_OPEN_FILES);
}

std::string pipeBytes(std::uint64_t value)
{
    std::string bytes(sizeof(value), '\0');
    std::memcpy(bytes.data(), &value, sizeof(value));
    return bytes;
}

std::string socketBytes(std::uint64_t socket, const std::string&, std::uint32_t processId)
{
    WSAPROTOCOL_INFOA description{};
    check(::WSADuplicateSocketA(socket, processId, &description) == 0, "duplicate");
    const SOCKET made =
        ::WSASocketA(AF_INET, SOCK_STREAM, 0, &description, 0, WSA_FLAG_NO_HANDLE_INHERIT);
    check(made != INVALID_SOCKET, "WSASocket");
    return pipeBytes(made);
}

bool standForSocket(const std::string& bytes, std::uint64_t socket)
{
    std::uint64_t brought = 0;
    if (bytes.size() != sizeof(brought)) {
        return false;
    }
    std::memcpy(&brought, bytes.data(), sizeof(brought));
    const bool isSame = brought != socket && describeEnds(brought) == describeEnds(socket);
    closeSocket(brought);
    return isSame;
}

std::size_t longestPipeName()
{
    return 256;
}

bool isGoneClientPassedOver()
{
    return true;
}

} // namespace kyTest
