#pragma once

#include <NetBase/buffers/kyNetError.h>

/// Thrown when a transfer finds its connection shut: by the peer, by a reset, or by this side's own
/// shutdown. Nothing more can be sent or received over it.
///
/// The text is always "Connection closed".
class KY_NETBASE_EXPORT kyConnectionClosed : public kyNetError
{
public:
    kyConnectionClosed();

    kyConnectionClosed(const kyConnectionClosed&) = default;
    kyConnectionClosed(kyConnectionClosed&&) = default;
    kyConnectionClosed& operator=(const kyConnectionClosed&) = default;
    kyConnectionClosed& operator=(kyConnectionClosed&&) = default;
    ~kyConnectionClosed() override;
};
