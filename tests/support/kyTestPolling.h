#pragma once

#include <NetBase/buffers/kyNetOptions.h>

namespace kyTest {

/// Sets the receive polling in microseconds; the default is restored on destruction.
class ReceivePolling
{
public:
    explicit ReceivePolling(int microseconds) { kyNetOptions::setReceivePolling(microseconds); }
    ~ReceivePolling() { kyNetOptions::setReceivePolling(-1); }

    ReceivePolling(const ReceivePolling&) = delete;
    ReceivePolling& operator=(const ReceivePolling&) = delete;
};

} // namespace kyTest
