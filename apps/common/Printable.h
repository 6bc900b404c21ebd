#pragma once

#include <string>

/// A foreign text as a terminal may show it: without what moves the cursor or turns the direction
/// of letters round.
std::string printable(const std::string& text);
