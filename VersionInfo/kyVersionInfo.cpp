#include <VersionInfo/kyVersionInfo.h>

const kyVersionInfo& kyVersionInfo::the()
{
    static const kyVersionInfo instance;
    return instance;
}

kyVersionInfo::kyVersionInfo() : m_version(KY_NETBASE_VERSION) {}
