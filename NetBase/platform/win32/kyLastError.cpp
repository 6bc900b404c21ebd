#include <NetBase/platform/kyLastError.h>

#include <memory>

#include <windows.h>

int kyLastError::get()
{
    return static_cast<int>(::GetLastError());
}

void kyLastError::set(int code)
{
    ::SetLastError(static_cast<DWORD>(code));
}

void kyLastError::clear()
{
    ::SetLastError(0);
}

std::string kyLastError::getText(int code)
{
    constexpr DWORD flags =
        FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS;
    constexpr DWORD language = MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT);

    // With the first flag the system writes the address of a text of its own to where it is told.
    char* text = nullptr;
    const DWORD length = ::FormatMessageA(flags, nullptr, static_cast<DWORD>(code), language,
                                          reinterpret_cast<char*>(&text), 0, nullptr);
    const std::unique_ptr<char, decltype(&::LocalFree)> owner(text, ::LocalFree);
    // The line end that the system puts behind its texts stays: intended.
    return std::string(text != nullptr ? text : "", length);
}
