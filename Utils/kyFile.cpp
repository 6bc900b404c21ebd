#include <Utils/kyFile.h>

#include <filesystem>
#include <system_error>

bool kyFile::exists(const std::string& path) noexcept
{
    try {
        std::error_code error;
        const std::filesystem::file_status status =
            std::filesystem::status(std::filesystem::u8path(path), error);
        return std::filesystem::exists(status) && !std::filesystem::is_directory(status);
    } catch (...) {
        return false;
    }
}
