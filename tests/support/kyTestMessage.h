#pragma once

#include <exception>
#include <functional>
#include <string>

namespace kyTest {

/// The text of what an action throws; "" if it throws nothing.
inline std::string messageOf(const std::function<void()>& action)
{
    try {
        action();
    } catch (const std::exception& e) {
        const std::string text = e.what();
        return text.empty() ? "an exception without a text" : text;
    }
    return "";
}

} // namespace kyTest
