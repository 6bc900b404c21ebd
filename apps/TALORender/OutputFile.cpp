#include <apps/TALORender/OutputFile.h>

#include <cerrno>
#include <fstream>
#include <system_error>

#include <NetBase/buffers/kyNetError.h>

namespace render {

namespace fs = std::filesystem;

namespace {

/// Whether the name is taken by something that is no file: /dev/stdout, a named pipe, a folder.
bool isSpecial(const fs::path& path)
{
    std::error_code ignored;
    const fs::file_status status = fs::status(path, ignored);
    return fs::exists(status) && !fs::is_regular_file(status);
}

} // namespace

OutputFile::OutputFile(const std::string& path) : m_path(path), m_part(path)
{
    if (isSpecial(m_path)) {
        if (fs::is_directory(m_path)) {
            fail(EISDIR);
        }
        return;
    }
    m_part += ".part";
    writePart({});
    removePart();
}

void OutputFile::write(const std::vector<std::uint8_t>& bytes) const
{
    try {
        writePart(bytes);
        if (m_part != m_path) {
            std::error_code error;
            fs::rename(m_part, m_path, error);
            if (error) {
                fail(error.value());
            }
        }
    } catch (...) {
        removePart();
        throw;
    }
}

void OutputFile::writePart(const std::vector<std::uint8_t>& bytes) const
{
    errno = 0;
    std::ofstream file(m_part, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    file.close();
    if (!file) {
        fail(errno);
    }
}

void OutputFile::removePart() const
{
    if (m_part != m_path) {
        std::error_code ignored;
        fs::remove(m_part, ignored);
    }
}

void OutputFile::fail(int error) const
{
    throw kyNetError("Unable to write '" + m_path.string() +
                     "': " + std::generic_category().message(error));
}

} // namespace render
