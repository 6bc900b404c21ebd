#include <NetBase/buffers/kyConnectionTimeout.h>

kyConnectionTimeout::kyConnectionTimeout()
    : kyNetError("recv error: Connected party did not properly respond after a period of time.")
{
}

kyConnectionTimeout::~kyConnectionTimeout() = default;
