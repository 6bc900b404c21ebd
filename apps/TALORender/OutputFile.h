#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace render {

/// A file that appears whole or not at all.
///
/// The bytes go to a file beside it, NAME.part, which takes the name when everything is written; a
/// former file of that name stays until then. A device or pipe is written to directly.
class OutputFile
{
public:
    /// Tries whether the file can be written, so that a path nobody can write to is found out
    /// before the work is done; leaves no trace. Throws kyNetError naming the file and the
    /// system's reason.
    explicit OutputFile(const std::string& path);

    /// Writes the file. Throws kyNetError, and leaves nothing of it.
    void write(const std::vector<std::uint8_t>& bytes) const;

private:
    void writePart(const std::vector<std::uint8_t>& bytes) const;
    void removePart() const;
    [[noreturn]] void fail(int error) const;

    std::filesystem::path m_path;
    std::filesystem::path m_part;
};

} // namespace render
