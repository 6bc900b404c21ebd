#pragma once

#include <NetBase/buffers/kyNetError.h>

/// Thrown when a receive with a time limit got nothing in time. The connection stands, and the
/// caller may receive again; bytes of a buffer that had arrived in part are lost.
///
/// The text is always "recv error: Connected party did not properly respond after a period of
/// time.".
class KY_NETBASE_EXPORT kyConnectionTimeout : public kyNetError
{
public:
    kyConnectionTimeout();

    kyConnectionTimeout(const kyConnectionTimeout&) = default;
    kyConnectionTimeout(kyConnectionTimeout&&) = default;
    kyConnectionTimeout& operator=(const kyConnectionTimeout&) = default;
    kyConnectionTimeout& operator=(kyConnectionTimeout&&) = default;
    ~kyConnectionTimeout() override;
};
