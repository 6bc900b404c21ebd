#pragma once

#include <string>

/// Finds the folder of the server program that fits a client.
///
/// Installations of several versions and editions stand side by side, such as
/// ".../TALOCluster-11.0/bin" and ".../TALOBeta-9.2/bin". A service starts the server of the
/// installation that has the client's version; it may differ from the service's own.
class kyNetServerFolder
{
public:
    /// The folder for a client of `version`, seen from a service of `ownVersion` in `ownFolder`;
    /// `ownFolder` itself if no installation fits.
    ///
    /// The version comes from a peer and becomes part of a path only if it consists of digits and
    /// dots. Looks at the file system; thread-safe.
    static std::string find(const std::string& ownFolder, const std::string& ownVersion,
                            const std::string& version);
};
