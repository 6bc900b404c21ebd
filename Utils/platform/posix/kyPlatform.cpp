#include <Utils/kyPlatform.h>

#include <filesystem>
#include <system_error>

#include <unistd.h>

std::string kyPlatform::getBinDir()
{
    std::error_code error;
    return std::filesystem::read_symlink("/proc/self/exe", error).parent_path().string();
}

const char* kyPlatform::getProgramSuffix()
{
    return "";
}

std::uint32_t kyPlatform::getProcessId()
{
    return static_cast<std::uint32_t>(::getpid());
}
