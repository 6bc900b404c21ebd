#pragma once

#include <string>

#include <NetBase/kyNetBaseExport.h>

/// Questions about files.
class KY_NETBASE_EXPORT kyFile
{
public:
    /// Whether the path (UTF-8) names a file that the caller may see; a folder is none. Never
    /// throws; thread-safe.
    static bool exists(const std::string& path) noexcept;
};
