#include <NetBase/buffers/kyConnectionClosed.h>

kyConnectionClosed::kyConnectionClosed() : kyNetError("Connection closed") {}

kyConnectionClosed::~kyConnectionClosed() = default;
