#pragma once

#include <sstream>
#include <string>

namespace kyTest {

/// The text of a model file (OBJ): a bent strip of a few triangles, with light, shadow and both
/// sides to see.
inline std::string makeModel()
{
    std::ostringstream obj;
    const int steps = 12;
    for (int i = 0; i <= steps; ++i) {
        const double x = static_cast<double>(i) / steps * 4.0;
        const double y = (i % 2 == 0 ? 0.0 : 1.0) + 0.3 * x;
        obj << "v " << x << ' ' << y << " 0\nv " << x << ' ' << y << " 2\n";
    }
    for (int i = 0; i < steps; ++i) {
        const int first = 2 * i + 1;
        obj << "f " << first << ' ' << first + 2 << ' ' << first + 3 << ' ' << first + 1 << '\n';
    }
    return obj.str();
}

} // namespace kyTest
