#include <tests/support/kyTestSystem.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace kyTest {

namespace {

/// Calls visit(name) for each entry of a folder below /proc; `self` is the walk's own descriptor.
template <class Visit> void walk(const char* folder, Visit visit)
{
    DIR* directory = ::opendir(folder);
    if (directory == nullptr) {
        return;
    }
    const std::string own = std::to_string(::dirfd(directory));
    while (const dirent* entry = ::readdir(directory)) {
        const std::string name = entry->d_name;
        if (name != "." && name != ".." && name != own) {
            visit(name);
        }
    }
    ::closedir(directory);
}

} // namespace

std::string describeDescriptors()
{
    std::ostringstream text;
    walk("/proc/self/fd", [&](const std::string& name) {
        std::error_code ignored;
        text << name << " -> "
             << std::filesystem::read_symlink("/proc/self/fd/" + name, ignored).string() << '\n';
    });
    return text.str();
}

std::size_t countDescriptors()
{
    std::size_t count = 0;
    walk("/proc/self/fd", [&](const std::string&) { ++count; });
    return count;
}

std::size_t nextDescriptor()
{
    const int next = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (next < 0) {
        throw std::system_error(errno, std::generic_category(), "open");
    }
    ::close(next);
    return static_cast<std::size_t>(next);
}

std::size_t countThreads()
{
    std::size_t count = 0;
    walk("/proc/self/task", [&](const std::string&) { ++count; });
    return count;
}

std::size_t countChildren()
{
    std::size_t count = 0;
    walk("/proc/self/task", [&](const std::string& thread) {
        std::ifstream children("/proc/self/task/" + thread + "/children");
        for (std::string id; children >> id;) {
            ++count;
        }
    });
    return count;
}

DescriptorLimit::DescriptorLimit(std::size_t limit)
{
    rlimit current{};
    if (::getrlimit(RLIMIT_NOFILE, &current) != 0) {
        throw std::system_error(errno, std::generic_category(), "getrlimit");
    }
    m_previous = current.rlim_cur;
    current.rlim_cur = std::min<rlim_t>(limit, current.rlim_max);
    if (::setrlimit(RLIMIT_NOFILE, &current) != 0) {
        throw std::system_error(errno, std::generic_category(), "setrlimit");
    }
}

DescriptorLimit::~DescriptorLimit()
{
    rlimit current{};
    if (::getrlimit(RLIMIT_NOFILE, &current) == 0) {
        current.rlim_cur = m_previous;
        ::setrlimit(RLIMIT_NOFILE, &current);
    }
}

} // namespace kyTest
