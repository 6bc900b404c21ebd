#pragma once

#include <cstdint>
#include <string>

/// The operating system's last error of the calling thread, as the code that its calls leave
/// behind; the calls of sockets report through the same code.
///
/// A call that succeeds need not touch it: clear it before a call whose outcome is judged by it.
namespace kyLastError {

/// The code, 0 if there is none.
int get();

/// Makes the code what is given, for one that comes by another way (a socket's own error).
void set(int code);

/// Makes the code 0.
void clear();

/// The code in decimal, as the system lists it: some systems use all bits, and have none below 0.
inline std::string getNumber(int code)
{
    return std::to_string(static_cast<std::uint32_t>(code));
}

/// The system's text for a code, in English where the system leaves that to us; "" if it has none.
/// May change the last error.
std::string getText(int code);

} // namespace kyLastError
