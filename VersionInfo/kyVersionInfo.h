#pragma once

#include <string>

#include <NetBase/kyNetBaseExport.h>

/// The version of this library, as its peers see it.
///
/// Thread-safe: the one instance is constant.
class KY_NETBASE_EXPORT kyVersionInfo
{
public:
    /// The one instance of the process.
    static const kyVersionInfo& the();

    /// Major and minor number in decimal, "11.0"; peers compare it as a number. Never throws.
    const std::string& getVersionString() const { return m_version; }

private:
    kyVersionInfo();

    std::string m_version;
};
