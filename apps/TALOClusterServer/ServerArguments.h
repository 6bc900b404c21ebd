#pragma once

#include <string>
#include <vector>

namespace render {

/// The command line with which a cluster service starts a render server:
///
///     TALOClusterServer [-Z] [-P] [-s] [-t|-ta] [-socketpipe=NAME] ARGUMENTS
///
/// Without -socketpipe the environment variable TALO_LOCAL_SERVICE names the pipe, as older
/// clients' servers have it. ARGUMENTS is one text of the application's, often empty.
struct ServerArguments
{
    /// Throws kyNetError if something is unknown or no pipe is named.
    static ServerArguments parse(const std::vector<std::string>& arguments);

    bool flagZ = false;
    bool hasDisplay = true; ///< false with -P
    bool isStereo = false;  ///< -s
    bool flagT = false;     ///< -t or -ta
    bool flagTA = false;    ///< -ta
    std::string socketPipe;
    std::string application;
};

} // namespace render
