#pragma once

#include <cstdlib>
#include <stdexcept>
#include <string>

#include <apps/common/NodeAddress.h>

/// What scripts/interop.sh tells the tests between systems.
namespace kyTest {

/// The variable KY_INTEROP_... of the environment. Throws std::runtime_error if it is not set, so
/// that no test passes without the other system.
inline std::string interopVariable(const std::string& name)
{
    const std::string variable = "KY_INTEROP_" + name;
    const char* value = std::getenv(variable.c_str());
    if (value == nullptr) {
        throw std::runtime_error(variable + " is not set: run scripts/interop.sh");
    }
    return value;
}

/// The service whose port stands there.
inline NodeAddress interopNode(const std::string& name)
{
    return {"127.0.0.1", std::stoi(interopVariable(name))};
}

} // namespace kyTest
