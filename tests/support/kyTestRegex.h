#pragma once

#include <regex>
#include <string>

#include <gmock/gmock.h>

namespace kyTest {

/// Matches a text that the expression describes as a whole. The test library's own matcher of this
/// kind knows hardly any expression on some systems.
MATCHER_P(matchesRegex, expression,
          std::string(negation ? "does not match " : "matches ") + expression)
{
    static_cast<void>(result_listener);
    return std::regex_match(std::string(arg), std::regex(std::string(expression)));
}

/// Matches a text in which the expression describes a part.
MATCHER_P(containsRegex, expression,
          std::string(negation ? "contains nothing like " : "contains ") + expression)
{
    static_cast<void>(result_listener);
    return std::regex_search(std::string(arg), std::regex(std::string(expression)));
}

} // namespace kyTest
