#pragma once

#include <string>
#include <vector>

/// Who may do what with a file, in the notation of the system.
///
/// One source per system stands in platform/. Calls that the system refuses throw
/// std::system_error.
namespace kyTest {

/// Rights of the owner and nobody else: one right, and all of them.
std::vector<std::string> rightsOfTheOwner();

/// All rights for the owner, and one for others; each that the system knows.
std::vector<std::string> rightsOfOthers();

/// Gives a file these rights and no others.
void setRights(const std::string& path, const std::string& rights);

/// What a program tells those to do who left a secret open to others.
std::string adviceAgainstOthers();

} // namespace kyTest
