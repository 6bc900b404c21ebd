#include <NetBase/platform/kyLocalPipe.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include <winsock2.h>

#include <windows.h>

#include <aclapi.h>
#include <sddl.h>

#include <NetBase/platform/kyDeadline.h>
#include <Utils/platform/win32/kyHandle.h>
#include <Utils/platform/win32/kyTrust.h>

// The name is that of a named pipe with one instance. A socket is duplicated into the other process
// and travels as the value of the duplicate, of which that process makes a socket of its own.

namespace {

using Status = kyLocalPipe::Status;

/// Authenticated users read and write, administrators may do anything.
constexpr const char* s_rights = "D:(A;OICI;GRGW;;;AU)(A;OICI;GA;;;BA)";

constexpr DWORD s_bufferSize = 1024;

/// Characters of a name; some systems open something else if there are very many more.
constexpr std::size_t s_longestName = 256;

bool isName(const std::string& name)
{
    ::SetLastError(ERROR_FILENAME_EXCED_RANGE);
    return name.size() <= s_longestName;
}

/// The security of a new pipe, which no child inherits.
class PipeSecurity
{
public:
    PipeSecurity()
    {
        ::ConvertStringSecurityDescriptorToSecurityDescriptorA(
            s_rights, SDDL_REVISION_1, &m_attributes.lpSecurityDescriptor, nullptr);
    }
    ~PipeSecurity() { ::LocalFree(m_attributes.lpSecurityDescriptor); }

    PipeSecurity(const PipeSecurity&) = delete;
    PipeSecurity& operator=(const PipeSecurity&) = delete;

    bool isValid() const { return m_attributes.lpSecurityDescriptor != nullptr; }
    SECURITY_ATTRIBUTES* get() { return &m_attributes; }

private:
    SECURITY_ATTRIBUTES m_attributes{sizeof(SECURITY_ATTRIBUTES), nullptr, FALSE};
};

/// Bytes are read as a stream, whatever pieces they were written in.
bool setByteMode(const kyHandle& pipe)
{
    DWORD mode = PIPE_READMODE_BYTE | PIPE_WAIT;
    return ::SetNamedPipeHandleState(pipe.get(), &mode, nullptr, nullptr) != FALSE;
}

kyHandle makeEvent(bool staysSignalled)
{
    return kyHandle(::CreateEventA(nullptr, staysSignalled ? TRUE : FALSE, FALSE, nullptr));
}

bool isPeerGone(DWORD code)
{
    return code == ERROR_BROKEN_PIPE || code == ERROR_PIPE_NOT_CONNECTED || code == ERROR_NO_DATA;
}

/// Waits for one of the events; the result is that of the system.
template <std::size_t count>
DWORD waitFor(const std::array<HANDLE, count>& events, const kyDeadline& deadline)
{
    static_assert(INFINITE == static_cast<DWORD>(-1), "a deadline says it so");
    return ::WaitForMultipleObjects(count, events.data(), FALSE,
                                    static_cast<DWORD>(deadline.left()));
}

/// Whether whoever made the first pipe of this name is trusted.
bool isMakerTrusted(const kyHandle& pipe)
{
    PSID owner = nullptr;
    PSECURITY_DESCRIPTOR security = nullptr;
    const DWORD code = ::GetSecurityInfo(pipe.get(), SE_KERNEL_OBJECT, OWNER_SECURITY_INFORMATION,
                                         &owner, nullptr, nullptr, nullptr, &security);
    const bool isTrusted = code == ERROR_SUCCESS && kyTrust::isTrusted(owner);
    ::LocalFree(security);
    return isTrusted;
}

kyHandle openProcess(ULONG processId)
{
    return kyHandle(::OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, processId));
}

/// Whether the process at the other end is trusted. It need not be the one that made the pipe:
/// everybody who may write to one may serve further clients under its name.
bool isServerTrusted(const kyHandle& pipe)
{
    ULONG processId = 0;
    return isMakerTrusted(pipe) && ::GetNamedPipeServerProcessId(pipe.get(), &processId) != FALSE &&
           kyTrust::isTrustedProcess(openProcess(processId));
}

/// Whether the process at the other end is trusted, or has ended already: what is left of such a
/// one harms nobody.
bool isClientTrusted(const kyHandle& pipe)
{
    ULONG processId = 0;
    if (::GetNamedPipeClientProcessId(pipe.get(), &processId) == FALSE) {
        return false;
    }
    const kyHandle process = openProcess(processId);
    return process.isValid() ? kyTrust::isTrustedProcess(process)
                             : ::GetLastError() != ERROR_ACCESS_DENIED;
}

/// One overlapped operation of a pipe, which may outlast the call that began it. It is broken off
/// with its owner, since the system writes into both records until it has ended.
class Operation
{
public:
    explicit Operation(const kyHandle& pipe) : m_pipe(pipe), m_event(makeEvent(false)) {}
    ~Operation() { breakOff(); }

    Operation(const Operation&) = delete;
    Operation& operator=(const Operation&) = delete;

    bool isUsable() const { return m_event.isValid(); }
    bool isPending() const { return m_isPending; }
    HANDLE getEvent() const { return m_event.get(); }

    /// Begins with a call that takes the record and answers as the system does; false, with the
    /// code, if it is refused.
    template <class Call> bool begin(Call call)
    {
        ::ResetEvent(m_event.get()); // What ended at once was not waited for.
        m_record = {};
        m_record.hEvent = m_event.get();
        m_isPending = call(&m_record) != FALSE || ::GetLastError() == ERROR_IO_PENDING;
        return m_isPending;
    }

    /// Waits for the end; false, with the code, if the operation has failed.
    bool finish(DWORD& count)
    {
        m_isPending = false;
        return ::GetOverlappedResult(m_pipe.get(), &m_record, &count, TRUE) != FALSE;
    }

    /// How many bytes have moved, since the operation may have ended by itself.
    DWORD breakOff()
    {
        DWORD count = 0;
        if (!m_isPending) {
            return 0;
        }
        ::CancelIoEx(m_pipe.get(), &m_record);
        return finish(count) ? count : 0;
    }

private:
    const kyHandle& m_pipe;
    kyHandle m_event;
    OVERLAPPED m_record{};
    bool m_isPending = false;
};

/// What another process needs to make its own socket of one of this process. False if the handle is
/// no socket, or the process is none that this one may give anything to.
bool describe(kySocketHandle socket, DWORD processId, WSAPROTOCOL_INFOA& description)
{
    return ::WSADuplicateSocketA(socket, processId, &description) == 0;
}

/// The socket that a description stands for; its value is the one in the process described for.
kySocketHandle makeSocket(WSAPROTOCOL_INFOA& description)
{
    return ::WSASocketA(AF_INET, SOCK_STREAM, 0, &description, 0, 0);
}

/// Closes a socket of this process that may be known to the system only.
void closeRaw(kySocketHandle socket)
{
    if (::closesocket(socket) != 0) {
        ::CloseHandle(reinterpret_cast<HANDLE>(socket));
    }
}

/// Makes the value that has reached this process a socket that all calls know, and closes what it
/// stood for. Invalid if the value is no socket here.
kySocketHandle adopt(std::uint64_t value)
{
    WSAPROTOCOL_INFOA description{};
    if (!describe(value, ::GetCurrentProcessId(), description)) {
        return s_invalidSocketHandle;
    }
    const kySocketHandle socket = makeSocket(description);
    closeRaw(value);
    if (socket != s_invalidSocketHandle) {
        ::SetHandleInformation(reinterpret_cast<HANDLE>(socket), HANDLE_FLAG_INHERIT, 0);
    }
    return socket;
}

class Win32Pipe final : public kyLocalPipe
{
public:
    /// The stop event is that of the connecting side.
    Win32Pipe(kyHandle pipe, kyHandle stopEvent)
        : m_pipe(std::move(pipe)), m_stopEvent(std::move(stopEvent))
    {
    }
    ~Win32Pipe() override { dropUnreceived(); }

    bool isUsable() const { return m_transfer.isUsable() && m_arriving.isUsable(); }

    Status waitForClient(int milliseconds) override
    {
        const kyDeadline deadline(milliseconds);
        while (!m_isConnected) {
            const Status status = waitForAnyClient(deadline);
            if (status != Status::Done) {
                return status;
            }
            m_isConnected = isClientTrusted(m_pipe);
            if (!m_isConnected && ::DisconnectNamedPipe(m_pipe.get()) == FALSE) {
                return Status::Failed;
            }
        }
        return Status::Done;
    }

    bool write(const void* data, std::size_t size) override
    {
        DWORD count = 0;
        const auto begin = [&](OVERLAPPED* record) {
            return ::WriteFile(m_pipe.get(), data, static_cast<DWORD>(size), nullptr, record);
        };
        return m_transfer.begin(begin) && m_transfer.finish(count) && count == size;
    }

    bool read(void* data, std::size_t size) override
    {
        while (size > 0) {
            DWORD count = 0;
            const auto begin = [&](OVERLAPPED* record) {
                return ::ReadFile(m_pipe.get(), data, static_cast<DWORD>(size), nullptr, record);
            };
            if (!m_transfer.begin(begin) || !m_transfer.finish(count)) {
                return false;
            }
            data = static_cast<char*>(data) + count;
            size -= count;
        }
        return true;
    }

    bool duplicate(kySocketHandle socket, std::uint32_t processId) override
    {
        // Held, so that no other process gets this one's id.
        if (!m_receiver.isValid()) {
            m_receiver = kyHandle(::OpenProcess(
                PROCESS_DUP_HANDLE | PROCESS_QUERY_LIMITED_INFORMATION, FALSE, processId));
        }
        return m_receiver.isValid() && kyTrust::isTrustedProcess(m_receiver) &&
               describe(socket, processId, m_description);
    }

    bool passSocket(kySocketHandle) override
    {
        const std::uint64_t value = makeSocket(m_description);
        if (value == s_invalidSocketHandle) {
            return false;
        }
        if (!write(&value, sizeof(value))) {
            takeBack(value);
            return false;
        }
        return true;
    }

    Status receiveSocket(int milliseconds, Received& received) override
    {
        const kyDeadline deadline(milliseconds);
        while (m_count < sizeof(m_value)) {
            const Status piece = receivePiece(deadline);
            if (piece == Status::Failed) {
                breakOff();
            }
            if (piece != Status::Done) {
                return piece;
            }
        }
        m_count = 0;
        received.value = m_value;
        received.socket = adopt(m_value);
        if (received.socket == s_invalidSocketHandle) {
            breakOff();
            return Status::Failed;
        }
        return Status::Done;
    }

    bool acknowledge(const Received& received) override
    {
        if (write(&received.value, sizeof(received.value))) {
            return true;
        }
        const DWORD code = ::GetLastError();
        ::closesocket(received.socket);
        ::SetLastError(code);
        return false;
    }

    void stop() override { ::SetEvent(m_stopEvent.get()); }

private:
    Status waitForAnyClient(const kyDeadline& deadline)
    {
        // A wait that timed out goes on.
        if (!m_transfer.isPending() && !beginToWait()) {
            return ::GetLastError() == ERROR_PIPE_CONNECTED ? Status::Done : Status::Failed;
        }
        DWORD count = 0;
        switch (waitFor(std::array{m_transfer.getEvent()}, deadline)) {
        case WAIT_OBJECT_0:
            return m_transfer.finish(count) ? Status::Done : Status::Failed;
        case WAIT_TIMEOUT:
            return Status::TimedOut;
        default:
            return Status::Failed;
        }
    }

    /// Begins to wait for a client; a client that has come and gone is in the way of the next.
    bool beginToWait()
    {
        const auto connect = [this](OVERLAPPED* record) {
            return ::ConnectNamedPipe(m_pipe.get(), record);
        };
        return m_transfer.begin(connect) ||
               (::GetLastError() == ERROR_NO_DATA && ::DisconnectNamedPipe(m_pipe.get()) != FALSE &&
                m_transfer.begin(connect));
    }

    /// Some of the eight bytes of a socket, which may arrive in pieces.
    Status receivePiece(const kyDeadline& deadline)
    {
        if (!m_arriving.isPending()) {
            const Status status = beginToReceive();
            if (status != Status::Done) {
                return status;
            }
        }
        switch (waitFor(std::array{m_stopEvent.get(), m_arriving.getEvent()}, deadline)) {
        case WAIT_OBJECT_0:
            return Status::Stopped;
        case WAIT_OBJECT_0 + 1:
            break;
        case WAIT_TIMEOUT:
            return Status::TimedOut;
        default:
            return Status::Failed;
        }
        DWORD count = 0;
        if (!m_arriving.finish(count)) {
            return isPeerGone(::GetLastError()) ? Status::Closed : Status::Failed;
        }
        m_count += count;
        return Status::Done;
    }

    Status beginToReceive()
    {
        if (!m_pipe.isValid()) {
            return Status::Closed;
        }
        if (!setByteMode(m_pipe)) {
            return isPeerGone(::GetLastError()) ? Status::Closed : Status::NotPrepared;
        }
        const auto begin = [this](OVERLAPPED* record) {
            return ::ReadFile(m_pipe.get(), reinterpret_cast<char*>(&m_value) + m_count,
                              static_cast<DWORD>(sizeof(m_value) - m_count), nullptr, record);
        };
        if (!m_arriving.begin(begin)) {
            return isPeerGone(::GetLastError()) ? Status::Closed : Status::NotBegun;
        }
        return Status::Done;
    }

    /// Closes the socket whose value has arrived and was not received: it is open in this process.
    void dropUnreceived()
    {
        if (!m_stopEvent.isValid() || !isUsable()) {
            return;
        }
        if (m_arriving.isPending() || beginToReceive() == Status::Done) {
            m_count += m_arriving.breakOff();
        }
        if (m_count == sizeof(m_value)) {
            const kySocketHandle socket = adopt(m_value);
            if (socket != s_invalidSocketHandle) {
                ::closesocket(socket);
            }
        }
    }

    /// Closes a duplicate of which the other process has not heard.
    void takeBack(kySocketHandle socket)
    {
        const DWORD code = ::GetLastError();
        if (::GetProcessId(m_receiver.get()) == ::GetCurrentProcessId()) {
            ::closesocket(socket);
        } else {
            ::DuplicateHandle(m_receiver.get(), reinterpret_cast<HANDLE>(socket), nullptr, nullptr,
                              0, FALSE, DUPLICATE_CLOSE_SOURCE);
        }
        ::SetLastError(code);
    }

    /// The other side, which waits for an acknowledgement, learns that none will come.
    void breakOff()
    {
        const DWORD code = ::GetLastError();
        m_arriving.breakOff();
        m_pipe.close();
        ::SetLastError(code);
    }

    kyHandle m_pipe;
    kyHandle m_stopEvent;
    bool m_isConnected = false;
    kyHandle m_receiver; ///< The process that the sockets go to.
    WSAPROTOCOL_INFOA m_description{};
    std::uint64_t m_value = 0;
    std::size_t m_count = 0;
    Operation m_transfer{m_pipe}; ///< Waits for the client, writes, reads.
    Operation m_arriving{m_pipe}; ///< Reads into the value.
};

/// Null, with the code, if the system has no event left.
std::unique_ptr<kyLocalPipe> wrap(kyHandle pipe, kyHandle stopEvent)
{
    auto wrapped = std::make_unique<Win32Pipe>(std::move(pipe), std::move(stopEvent));
    if (!wrapped->isUsable()) {
        return nullptr;
    }
    return wrapped;
}

} // namespace

std::unique_ptr<kyLocalPipe> kyLocalPipe::listen(const std::string& name)
{
    PipeSecurity security;
    if (!security.isValid() || !isName(name)) {
        return nullptr;
    }
    kyHandle pipe(::CreateNamedPipeA(
        name.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
        PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_REJECT_REMOTE_CLIENTS,
        PIPE_UNLIMITED_INSTANCES, s_bufferSize, s_bufferSize, 0, security.get()));
    if (!pipe.isValid() || !setByteMode(pipe)) {
        return nullptr;
    }
    return wrap(std::move(pipe), kyHandle());
}

kyLocalPipe::Status kyLocalPipe::connect(const std::string& name,
                                         std::unique_ptr<kyLocalPipe>& pipe)
{
    if (!isName(name)) {
        return Status::Failed;
    }
    // Whoever serves the pipe learns who opens it, and cannot act in that one's name.
    constexpr DWORD flags = FILE_FLAG_OVERLAPPED | SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION;
    kyHandle opened(::CreateFileA(name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                  OPEN_EXISTING, flags, nullptr));
    if (!opened.isValid()) {
        return ::GetLastError() == ERROR_PIPE_BUSY ? Status::Busy : Status::Failed;
    }
    kyHandle stopEvent = makeEvent(true);
    if (!setByteMode(opened) || !stopEvent.isValid()) {
        return Status::Failed;
    }
    if (!isServerTrusted(opened)) {
        ::SetLastError(ERROR_ACCESS_DENIED);
        return Status::Failed;
    }
    pipe = wrap(std::move(opened), std::move(stopEvent));
    return pipe ? Status::Done : Status::Failed;
}
