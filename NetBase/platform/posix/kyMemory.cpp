#include <NetBase/platform/kyMemory.h>

#include <fstream>
#include <limits>
#include <string>

#include <unistd.h>

std::uint64_t kyMemory::getUsed()
{
    std::ifstream statistics("/proc/self/statm");
    std::uint64_t total = 0;
    std::uint64_t resident = 0;
    statistics >> total >> resident;
    return resident * static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
}

std::uint64_t kyMemory::getAvailable()
{
    std::ifstream statistics("/proc/meminfo");
    for (std::string name; statistics >> name;) {
        std::uint64_t kibibytes = 0;
        if (name == "MemAvailable:" && statistics >> kibibytes) {
            return kibibytes * 1024;
        }
        statistics.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
    }
    return 0;
}
