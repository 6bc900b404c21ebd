#include <apps/TALORender/OutputFile.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <system_error>

#include <NetBase/buffers/kyNetError.h>

namespace render {

namespace fs = std::filesystem;

namespace {

[[noreturn]] void fail(const fs::path& path, int error)
{
    throw kyNetError("Unable to write '" + path.string() +
                     "': " + std::generic_category().message(error));
}

/// Whether the name is taken by something that is no file: /dev/stdout, a named pipe, a folder.
bool isSpecial(const fs::path& path)
{
    std::error_code ignored;
    const fs::file_status status = fs::status(path, ignored);
    return fs::exists(status) && !fs::is_regular_file(status);
}

struct Close
{
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, Close>;

/// Writes and closes the file; the system's error code, 0 if there was none.
int writeAndClose(File file, const std::vector<std::uint8_t>& bytes)
{
    errno = 0;
    const bool isWritten = std::fwrite(bytes.data(), 1, bytes.size(), file.get()) == bytes.size();
    const int error = errno;
    const bool isClosed = std::fclose(file.release()) == 0;
    return !isWritten ? error : isClosed ? 0 : errno;
}

/// The files that are being written, which go when the process does.
struct Unfinished
{
    std::mutex lock;
    std::set<fs::path> paths;
    bool isAbandoned = false;
};

Unfinished& unfinished()
{
    // Never destroyed: the process may be asked to end while it already does.
    static auto& s_unfinished = *new Unfinished;
    return s_unfinished;
}

fs::path withRandomName(const fs::path& target)
{
    std::random_device random;
    std::array<char, 16> ending{};
    std::snprintf(ending.data(), ending.size(), ".%08x.part", random());
    fs::path path = target;
    path += ending.data();
    return path;
}

} // namespace

/// The file beside, from its creation until it has taken its name or is removed.
class OutputFile::Part
{
public:
    explicit Part(const fs::path& target) : m_target(target)
    {
        const std::lock_guard<std::mutex> guard(unfinished().lock);
        do {
            m_path = withRandomName(target);
            errno = unfinished().isAbandoned ? EINTR : 0;
            if (errno == 0) {
                m_file.reset(std::fopen(m_path.c_str(), "wbx"));
            }
        } while (!m_file && errno == EEXIST);
        if (!m_file) {
            fail(m_target, errno);
        }
        unfinished().paths.insert(m_path);
    }

    ~Part()
    {
        const std::lock_guard<std::mutex> guard(unfinished().lock);
        std::error_code ignored;
        fs::remove(m_path, ignored);
        unfinished().paths.erase(m_path);
    }

    Part(const Part&) = delete;
    Part& operator=(const Part&) = delete;

    void write(const std::vector<std::uint8_t>& bytes)
    {
        if (const int error = writeAndClose(std::move(m_file), bytes)) {
            fail(m_target, error);
        }
        std::error_code error;
        fs::rename(m_path, m_target, error);
        if (error) {
            fail(m_target, error.value());
        }
    }

private:
    const fs::path m_target;
    fs::path m_path;
    File m_file;
};

OutputFile::OutputFile(const std::string& path) : m_path(path), m_isSpecial(isSpecial(m_path))
{
    if (!m_isSpecial) {
        const Part attempt(m_path);
    } else if (fs::is_directory(m_path)) {
        fail(m_path, EISDIR);
    }
}

void OutputFile::write(const std::vector<std::uint8_t>& bytes) const
{
    if (!m_isSpecial) {
        Part(m_path).write(bytes);
        return;
    }
    File file(std::fopen(m_path.c_str(), "wb"));
    const int error = file ? writeAndClose(std::move(file), bytes) : errno;
    if (error != 0) {
        fail(m_path, error);
    }
}

void OutputFile::abandonAll() noexcept
{
    const std::lock_guard<std::mutex> guard(unfinished().lock);
    unfinished().isAbandoned = true;
    for (const fs::path& path : unfinished().paths) {
        std::error_code ignored;
        fs::remove(path, ignored);
    }
}

std::string sequencePath(const std::string& path, std::uint32_t number)
{
    std::array<char, 16> digits{};
    std::snprintf(digits.data(), digits.size(), "-%04u", number);
    const fs::path whole(path);
    fs::path name = whole.stem();
    name += digits.data();
    name += whole.extension();
    return (whole.parent_path() / name).string();
}

} // namespace render
