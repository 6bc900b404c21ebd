#include <NetBase/service/kyNetServerFolder.h>

#include <array>
#include <filesystem>
#include <system_error>

#include <QString>

namespace {

constexpr std::array<const char*, 3> s_editions{"TALOCluster", "TALOAlpha", "TALOBeta"};

bool isPlainVersion(const std::string& version)
{
    return !version.empty() && version.find_first_not_of("0123456789.") == std::string::npos;
}

bool isFolder(const QString& path)
{
    std::error_code error;
    return std::filesystem::is_directory(std::filesystem::u8path(path.toStdString()), error);
}

/// The same installation under the name of another edition; empty if there is none.
QString findEdition(const QString& folder)
{
    for (const QString installed : s_editions) {
        if (!folder.contains(installed)) {
            continue;
        }
        for (const QString wanted : s_editions) {
            QString candidate = QString(folder).replace(installed, wanted);
            if (isFolder(candidate)) {
                return candidate;
            }
        }
    }
    return QString();
}

} // namespace

std::string kyNetServerFolder::find(const std::string& ownFolder, const std::string& ownVersion,
                                    const std::string& version)
{
    if (!isPlainVersion(version)) {
        return ownFolder;
    }
    const QString folder = QString::fromStdString(ownFolder).replace(
        "-" + QString::fromStdString(ownVersion), "-" + QString::fromStdString(version));
    if (isFolder(folder)) {
        return folder.toStdString();
    }
    const QString edition = findEdition(folder);
    return edition.isEmpty() ? ownFolder : edition.toStdString();
}
