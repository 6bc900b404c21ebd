#pragma once

#include <cstdint>

/// What a client may ask of a cluster service: the first four bytes of each request.
///
/// What follows the code, and what is answered, is told with the operations in kyNetService.
enum class kyNetServiceCommand : std::uint32_t
{
    StartServer = 1,
    ConnectServer = 2,
    StopService = 3,
    ConnectService = 4,
    StopServer = 5,
    GetStatus = 6,
    StopServersByBookingId = 7
};
