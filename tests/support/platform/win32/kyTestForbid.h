#pragma once

#include <windows.h>

/// Takes the place of functions of the system, for tests of what happens where it refuses.
namespace kyTest {

/// From now on this program, and the libraries beside it, call `replacement` instead of a function
/// of the system; the system's own libraries go on as before. Nothing if none of them uses it.
void detour(const char* library, const char* function, FARPROC replacement);

/// The function itself, for its replacement to call.
FARPROC findOriginal(const char* library, const char* function);

template <class Function> void detour(const char* library, const char* function, Function* to)
{
    detour(library, function, reinterpret_cast<FARPROC>(reinterpret_cast<void*>(to)));
}

/// Calls the function itself, from its replacement.
template <class Result, class... Arguments>
Result callOriginal(const char* library, const char* function, Arguments... arguments)
{
    using Function = Result(Arguments...);
    auto* original =
        reinterpret_cast<Function*>(reinterpret_cast<void*>(findOriginal(library, function)));
    return original(arguments...);
}

} // namespace kyTest
