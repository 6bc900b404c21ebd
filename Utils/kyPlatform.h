#pragma once

#include <cstdint>
#include <string>

#include <NetBase/kyNetBaseExport.h>

/// What a program wants to know about its own process. One source per system stands in platform/.
class KY_NETBASE_EXPORT kyPlatform
{
public:
    /// The folder that holds the running program, without a separator at its end; empty if the
    /// system does not tell. Needs no application object. Thread-safe.
    static std::string getBinDir();

    /// What the name of a program ends with: ".exe" on Windows, nothing on Linux. Thread-safe.
    static const char* getProgramSuffix();

    /// The id of this process. Thread-safe.
    static std::uint32_t getProcessId();
};
