#pragma once

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include <NetBase/platform/kyLastError.h>
#include <tests/support/kyTestFileRights.h>

namespace kyTest {

/// A folder of its own for the files of a test; gone with the object.
class Folder
{
public:
    explicit Folder(const std::filesystem::path& parent = std::filesystem::temp_directory_path())
        : m_path(parent / uniqueName())
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
        // Rights that a former file of this name left behind would stay.
        std::filesystem::remove(path(name));
        const std::string secret = write(name, bytes);
        setRights(secret, rightsOfTheOwner().back());
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

/// What is said of a file that is not there: the code and the system's text.
inline std::string missingFileText()
{
    return std::to_string(ENOENT) + ":" + kyLastError::getText(ENOENT);
}

/// The bytes of a file.
inline std::string readFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

} // namespace kyTest
