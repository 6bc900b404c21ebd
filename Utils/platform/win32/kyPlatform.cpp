#include <Utils/kyPlatform.h>

#include <filesystem>

#include <windows.h>

namespace {

/// The longest path that the system can name, with its end.
constexpr std::size_t s_longestPath = 32768;

} // namespace

std::string kyPlatform::getBinDir()
{
    std::wstring path(s_longestPath, L'\0');
    const DWORD size = ::GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
    path.resize(size);
    return std::filesystem::path(path).parent_path().generic_u8string();
}

const char* kyPlatform::getProgramSuffix()
{
    return ".exe";
}

std::uint32_t kyPlatform::getProcessId()
{
    return ::GetCurrentProcessId();
}
