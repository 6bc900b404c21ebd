#include <benchmarks/core/platform/SharedNumber.h>

#include <cerrno>
#include <system_error>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace bench {

namespace {

constexpr std::size_t s_size = sizeof(std::atomic<std::uint64_t>);

void* mapFile(const std::string& path)
{
    const int file = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    void* memory = MAP_FAILED;
    if (file >= 0 && ::ftruncate(file, s_size) == 0) {
        memory = ::mmap(nullptr, s_size, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    }
    const int failure = errno;
    if (file >= 0) {
        ::close(file);
    }
    if (memory == MAP_FAILED) {
        throw std::system_error(failure, std::generic_category(), path);
    }
    return memory;
}

} // namespace

SharedNumber::SharedNumber(const std::string& path)
    : m_number(static_cast<std::atomic<std::uint64_t>*>(mapFile(path)))
{
    static_assert(std::atomic<std::uint64_t>::is_always_lock_free, "several processes use it");
}

SharedNumber::~SharedNumber()
{
    ::munmap(m_number, s_size);
}

} // namespace bench
