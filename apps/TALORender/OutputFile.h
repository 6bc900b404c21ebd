#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace render {

/// A file that appears whole or not at all.
///
/// The bytes go to a file beside it, of a name that nobody has used (NAME.1f2e3d4c.part), which
/// takes the name when everything is written; a former file of that name stays until then. A device
/// or pipe is written to directly.
///
/// Threads: any.
class OutputFile
{
public:
    /// Tries whether the file can be written, so that a path nobody can write to is found out
    /// before the work is done; leaves no trace. Throws kyNetError naming the file and the
    /// system's reason.
    explicit OutputFile(const std::string& path);

    std::string getPath() const { return m_path.string(); }

    /// Writes the file. Throws kyNetError, and leaves nothing of it.
    void write(const std::vector<std::uint8_t>& bytes) const;

    /// Removes what is half written, and lets nothing more begin: for a process that is about to
    /// end whatever its other threads do. Never blocks for long, never throws.
    static void abandonAll() noexcept;

private:
    class Part;

    std::filesystem::path m_path;
    bool m_isSpecial;
};

/// The name of one picture of a sequence: "out.png" becomes "out-0001.png".
std::string sequencePath(const std::string& path, std::uint32_t number);

} // namespace render
