#pragma once

#include <filesystem>
#include <fstream>
#include <random>
#include <string>

namespace kyTest {

/// A folder of its own for the files of a test; gone with the object.
class Folder
{
public:
    Folder() : m_path(std::filesystem::temp_directory_path() / uniqueName())
    {
        std::filesystem::create_directory(m_path);
    }

    ~Folder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }

    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    /// The path of a file in it.
    std::string path(const std::string& name) const { return (m_path / name).string(); }

    /// Makes a file of these bytes and returns its path.
    std::string write(const std::string& name, const std::string& bytes) const
    {
        std::ofstream(m_path / name, std::ios::binary) << bytes;
        return path(name);
    }

    /// The same, of a file that only its owner may read.
    std::string writeSecret(const std::string& name, const std::string& bytes) const
    {
        using std::filesystem::perms;
        const std::string secret = write(name, bytes);
        std::filesystem::permissions(secret, perms::owner_read | perms::owner_write);
        return secret;
    }

    /// How many files there are.
    std::ptrdiff_t count() const
    {
        return std::distance(std::filesystem::directory_iterator(m_path), {});
    }

private:
    static std::string uniqueName()
    {
        std::random_device random;
        return "kyTest-" + std::to_string(random()) + "-" + std::to_string(random());
    }

    std::filesystem::path m_path;
};

/// The bytes of a file.
inline std::string readFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

} // namespace kyTest
