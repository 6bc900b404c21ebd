#include <QtProcess/platform/exChild.h>

#include <array>
#include <atomic>
#include <system_error>
#include <utility>

#include <QString>
#include <windows.h>

#include <QtProcess/platform/win32/exEndRequest.h>
#include <Utils/platform/win32/kyHandle.h>

namespace {

[[noreturn]] void fail()
{
    throw std::system_error(static_cast<int>(::GetLastError()), std::system_category());
}

kyHandle checked(HANDLE value)
{
    kyHandle handle(value);
    if (!handle.isValid()) {
        fail();
    }
    return handle;
}

std::wstring toWide(const std::string& text)
{
    return QString::fromStdString(text).toStdWString();
}

/// The end of a stream that the child gets: inherited by it, and an ordinary, blocking file.
kyHandle openForChild(const std::wstring& path, DWORD access)
{
    SECURITY_ATTRIBUTES inherited{sizeof(inherited), nullptr, TRUE};
    return checked(::CreateFileW(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                 &inherited, OPEN_EXISTING, 0, nullptr));
}

/// Both ends of a pipe. It needs a name, as only pipes with one can be read without blocking.
struct Pipe
{
    static Pipe open()
    {
        static std::atomic<unsigned> s_count{0};
        const std::wstring name = L"\\\\.\\pipe\\exChild-" +
                                  std::to_wstring(::GetCurrentProcessId()) + L"-" +
                                  std::to_wstring(++s_count);
        constexpr DWORD size = 65536;
        Pipe pipe;
        pipe.reading = checked(::CreateNamedPipeW(
            name.c_str(),
            PIPE_ACCESS_INBOUND | FILE_FLAG_OVERLAPPED | FILE_FLAG_FIRST_PIPE_INSTANCE,
            PIPE_TYPE_BYTE | PIPE_REJECT_REMOTE_CLIENTS, 1, size, size, 0, nullptr));
        pipe.writing = openForChild(name, GENERIC_WRITE);
        return pipe;
    }

    /// What the child writes is discarded.
    static Pipe openNowhere()
    {
        Pipe pipe;
        pipe.writing = openForChild(L"NUL", GENERIC_WRITE);
        return pipe;
    }

    kyHandle reading;
    kyHandle writing;
};

/// No pass goes on for ever where somebody writes as fast as it is read.
constexpr std::size_t s_longestPass = 1 << 20;

/// Reads a pipe in the background, always one piece ahead.
class PipeReader
{
public:
    explicit PipeReader(kyHandle pipe)
        : m_pipe(std::move(pipe)), m_arrived(checked(::CreateEventW(nullptr, TRUE, FALSE, nullptr)))
    {
    }

    ~PipeReader()
    {
        if (m_isReading) {
            // The system writes into this object until it has let go of it.
            ::CancelIoEx(m_pipe.get(), &m_call);
            DWORD size = 0;
            ::GetOverlappedResult(m_pipe.get(), &m_call, &size, TRUE);
        }
    }

    PipeReader(const PipeReader&) = delete;
    PipeReader& operator=(const PipeReader&) = delete;

    /// Signalled once something has arrived; never, if the pipe has come to its end.
    HANDLE getEvent() const { return m_arrived.get(); }

    /// Asks for the next piece, unless it is asked for already.
    void begin()
    {
        if (m_isReading || !m_pipe.isValid()) {
            return;
        }
        m_call = OVERLAPPED{};
        m_call.hEvent = m_arrived.get();
        const BOOL isDone = ::ReadFile(m_pipe.get(), m_piece.data(),
                                       static_cast<DWORD>(m_piece.size()), nullptr, &m_call);
        m_isReading = isDone || ::GetLastError() == ERROR_IO_PENDING;
        if (!m_isReading) {
            end();
        }
    }

    /// Appends what has arrived until this moment.
    void drain(std::string& text)
    {
        begin();
        while (m_isReading && text.size() < s_longestPass) {
            DWORD size = 0;
            if (::GetOverlappedResult(m_pipe.get(), &m_call, &size, FALSE)) {
                text.append(m_piece.data(), size);
                m_isReading = false;
                begin();
            } else if (::GetLastError() == ERROR_IO_INCOMPLETE) {
                return;
            } else {
                m_isReading = false;
                end();
            }
        }
    }

private:
    void end()
    {
        m_pipe.close();
        ::ResetEvent(m_arrived.get());
    }

    kyHandle m_pipe;
    kyHandle m_arrived;
    bool m_isReading = false;
    OVERLAPPED m_call{};
    std::array<char, 4096> m_piece;
};

/// One argument as the child's runtime library will take it apart again.
void appendArgument(std::wstring& line, const std::wstring& argument)
{
    if (!line.empty()) {
        line += L' ';
    }
    line += L'"';
    std::size_t backslashes = 0;
    for (const wchar_t character : argument) {
        if (character == L'"') {
            // Those before a quotation mark count twice, and one more makes it a character.
            line.append(backslashes + 1, L'\\');
        }
        backslashes = character == L'\\' ? backslashes + 1 : 0;
        line += character;
    }
    line.append(backslashes, L'\\');
    line += L'"';
}

/// What the system passes on, without the zero at its end; a longer one is refused by it, or by
/// some of its versions let through to programs that cannot read it.
constexpr std::size_t s_longestCommandLine = 32766;

std::wstring makeCommandLine(const std::vector<std::string>& arguments)
{
    std::wstring line;
    for (const std::string& argument : arguments) {
        appendArgument(line, toWide(argument));
    }
    return line;
}

/// Each text with its zero, and one zero more; two for an empty list.
std::wstring makeEnvironment(const std::vector<std::string>& texts)
{
    std::wstring block;
    for (const std::string& text : texts) {
        block += toWide(text);
        block += L'\0';
    }
    if (block.empty()) {
        block += L'\0';
    }
    return block;
}

/// What the child inherits: these three streams and nothing else.
class Inheritance
{
public:
    Inheritance(HANDLE input, HANDLE output, HANDLE error) : m_handles{input, output, error}
    {
        SIZE_T size = 0;
        ::InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
        m_memory.resize(size);
        if (!::InitializeProcThreadAttributeList(getList(), 1, 0, &size)) {
            fail();
        }
        if (!::UpdateProcThreadAttribute(getList(), 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST,
                                         m_handles.data(), sizeof(m_handles), nullptr, nullptr)) {
            const DWORD code = ::GetLastError();
            ::DeleteProcThreadAttributeList(getList());
            ::SetLastError(code);
            fail();
        }
    }
    ~Inheritance() { ::DeleteProcThreadAttributeList(getList()); }

    Inheritance(const Inheritance&) = delete;
    Inheritance& operator=(const Inheritance&) = delete;

    STARTUPINFOEXW makeStartupInfo()
    {
        STARTUPINFOEXW info{};
        info.StartupInfo.cb = sizeof(info);
        info.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
        info.StartupInfo.hStdInput = m_handles[0];
        info.StartupInfo.hStdOutput = m_handles[1];
        info.StartupInfo.hStdError = m_handles[2];
        info.lpAttributeList = getList();
        return info;
    }

private:
    LPPROC_THREAD_ATTRIBUTE_LIST getList()
    {
        return reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(m_memory.data());
    }

    std::array<HANDLE, 3> m_handles;
    std::vector<char> m_memory;
};

/// The handle of the started program, or none.
kyHandle spawn(const exChild::Order& order, Inheritance& inheritance, DWORD& id)
{
    const std::wstring program = toWide(order.arguments.front());
    std::wstring line = makeCommandLine(order.arguments);
    if (line.size() > s_longestCommandLine) {
        return kyHandle();
    }
    std::wstring environment;
    if (order.environment) {
        environment = makeEnvironment(*order.environment);
    }
    DWORD flags = EXTENDED_STARTUPINFO_PRESENT | CREATE_UNICODE_ENVIRONMENT;
    if (!order.hasDisplay) {
        flags |= CREATE_NO_WINDOW;
    }
    STARTUPINFOEXW info = inheritance.makeStartupInfo();
    PROCESS_INFORMATION started{};
    if (!::CreateProcessW(program.c_str(), line.data(), nullptr, nullptr, TRUE, flags,
                          order.environment ? environment.data() : nullptr, nullptr,
                          &info.StartupInfo, &started)) {
        return kyHandle();
    }
    ::CloseHandle(started.hThread);
    id = started.dwProcessId;
    return kyHandle(started.hProcess);
}

class WindowsChild final : public exChild
{
public:
    /// Takes charge of a child that runs.
    WindowsChild(kyHandle process, DWORD id, std::unique_ptr<PipeReader> output,
                 std::unique_ptr<PipeReader> error)
        : m_process(std::move(process)),
          m_id(id),
          m_output(std::move(output)),
          m_error(std::move(error))
    {
    }

    ~WindowsChild() override
    {
        WindowsChild::kill();
        ::WaitForSingleObject(m_process.get(), INFINITE);
    }

    bool isRunning() const override
    {
        return ::WaitForSingleObject(m_process.get(), 0) == WAIT_TIMEOUT;
    }

    std::uint32_t getProcessId() const override { return m_id; }

    void terminate() override
    {
        if (isRunning()) {
            exRequestEnd(m_process.get());
        }
    }

    void kill() override { ::TerminateProcess(m_process.get(), 1); }

    bool readOutput(std::string& output, std::string& error) override
    {
        std::array<HANDLE, 3> waits{m_process.get()};
        DWORD count = 1;
        for (PipeReader* reader : {m_output.get(), m_error.get()}) {
            if (reader != nullptr) {
                reader->begin();
                waits[count++] = reader->getEvent();
            }
        }
        const DWORD first = ::WaitForMultipleObjects(count, waits.data(), FALSE, INFINITE);
        if (m_output) {
            m_output->drain(output);
        }
        if (m_error) {
            m_error->drain(error);
        }
        return first != WAIT_OBJECT_0;
    }

private:
    kyHandle m_process;
    const DWORD m_id;
    std::unique_ptr<PipeReader> m_output;
    std::unique_ptr<PipeReader> m_error;
};

Pipe openPipe(bool isCaptured)
{
    return isCaptured ? Pipe::open() : Pipe::openNowhere();
}

std::unique_ptr<PipeReader> makeReader(Pipe& pipe)
{
    return pipe.reading.isValid() ? std::make_unique<PipeReader>(std::move(pipe.reading)) : nullptr;
}

} // namespace

std::unique_ptr<exChild> exChild::start(const Order& order)
{
    if (order.arguments.empty()) {
        return nullptr;
    }
    try {
        const kyHandle input = openForChild(L"NUL", GENERIC_READ);
        Pipe output = openPipe(order.captureOutput);
        Pipe error = openPipe(order.captureError);
        std::unique_ptr<PipeReader> outputReader = makeReader(output);
        std::unique_ptr<PipeReader> errorReader = makeReader(error);

        Inheritance inheritance(input.get(), output.writing.get(), error.writing.get());
        DWORD id = 0;
        kyHandle process = spawn(order, inheritance, id);
        if (!process.isValid()) {
            return nullptr;
        }
        return std::make_unique<WindowsChild>(std::move(process), id, std::move(outputReader),
                                              std::move(errorReader));
    } catch (const std::system_error&) {
        return nullptr;
    }
}
