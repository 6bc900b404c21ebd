#include <apps/common/platform/SecretFile.h>

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <NetBase/buffers/kyNetError.h>

namespace {

/// A file that is open.
class File
{
public:
    explicit File(const std::string& path)
        // A pipe that nobody writes to must not hold up the program.
        : m_descriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY))
    {
    }
    ~File()
    {
        if (m_descriptor >= 0) {
            close(m_descriptor);
        }
    }

    File(const File&) = delete;
    File& operator=(const File&) = delete;

    int get() const { return m_descriptor; }

private:
    int m_descriptor;
};

void requireSecrecy(const std::string& name, const struct stat& status)
{
    if (!S_ISREG(status.st_mode)) {
        throw kyNetError(name + " is no regular file");
    }
    if (status.st_uid != geteuid() && status.st_uid != 0) {
        throw kyNetError(name + " belongs to another user");
    }
    if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        throw kyNetError(name + " is open to other users; take their rights away: chmod go=");
    }
}

} // namespace

std::size_t readSecretFile(const std::string& what, const std::string& path, char* bytes,
                           std::size_t size)
{
    const std::string name = what + " '" + path + "'";
    const auto fail = [&name] {
        throw kyNetError(name + " cannot be read. " + kyNetError::getLastErrorString());
    };

    // The file that is looked at is the one that is read, whatever happens to the name meanwhile.
    const File file(path);
    struct stat status = {};
    if (file.get() < 0 || fstat(file.get(), &status) != 0) {
        fail();
    }
    requireSecrecy(name, status);

    std::size_t count = 0;
    while (count < size) {
        const ssize_t got = ::read(file.get(), bytes + count, size - count);
        if (got == 0) {
            break;
        }
        if (got > 0) {
            count += static_cast<std::size_t>(got);
        } else if (errno != EINTR) {
            fail();
        }
    }
    return count;
}
