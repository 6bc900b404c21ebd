#pragma once

#include <cstddef>
#include <string>

/// Reads the first bytes, `size` at most, of a file that holds a secret, and answers how many there
/// are. `what` names the kind of file in messages.
///
/// Throws kyNetError if the file cannot be read, is no regular file, belongs to another user than
/// the one that runs the program or root, or grants others than its owner any right.
std::size_t readSecretFile(const std::string& what, const std::string& path, char* bytes,
                           std::size_t size);
