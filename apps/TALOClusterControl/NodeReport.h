#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <NetBase/service/kyNetServiceStatus.h>

/// What one node answered, whichever question it was asked.
struct NodeReport
{
    std::string node;
    std::string error; ///< empty: the request succeeded

    std::optional<kyNetServiceStatus> status; ///< of "status"
    std::optional<std::uint32_t> serverId;    ///< of "start"
    std::optional<double> seconds;            ///< of "ping"

    bool isDone() const { return error.empty(); }
};
