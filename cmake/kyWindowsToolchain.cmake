# Builds for Windows on Linux with Debian's cross compiler, against the libraries in
# KY_WINDOWS_PREFIX (scripts/windows-build.sh gives it), and runs what is built under Wine.

set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

# Of the two variants the one with POSIX threads: the other has no std::thread.
set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)

set(KY_WINDOWS_PREFIX "" CACHE PATH
    "Where the libraries for Windows are installed; scripts/windows-prefix.sh prints where it puts them")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KY_WINDOWS_PREFIX)

# Nothing of the building machine but its programs.
get_filename_component(prefix "${KY_WINDOWS_PREFIX}" ABSOLUTE)
set(CMAKE_FIND_ROOT_PATH "${prefix}" /usr/x86_64-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_CROSSCOMPILING_EMULATOR "${CMAKE_CURRENT_LIST_DIR}/../scripts/run-under-wine.sh")

# Packages that tell about themselves by pkg-config.
set(ENV{PKG_CONFIG_LIBDIR} "${prefix}/lib/pkgconfig")
