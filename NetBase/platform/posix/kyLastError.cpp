#include <NetBase/platform/kyLastError.h>

#include <cerrno>
#include <cstring>

int kyLastError::get()
{
    return errno;
}

void kyLastError::set(int code)
{
    errno = code;
}

void kyLastError::clear()
{
    errno = 0;
}

std::string kyLastError::getText(int code)
{
    // Unlike its older relatives it is the same in every language of the user, and knows when
    // there is no text.
    const char* text = ::strerrordesc_np(code);
    return text != nullptr ? text : "";
}
