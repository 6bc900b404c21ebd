# What every target of the project is compiled with.

set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

if(NOT CMAKE_BUILD_TYPE)
    set(CMAKE_BUILD_TYPE Release)
endif()

# Programs, the library and its link library stand in one place, so that a service finds the
# server beside itself in the build tree as it does when installed.
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/bin")
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/lib")
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/lib")
set(CMAKE_INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")

find_program(KY_CCACHE ccache)
if(KY_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    # Relative to the sources, so that every clone on a machine shares what was compiled in one,
    # but for the tests, who know their own folder.
    set(CMAKE_CXX_COMPILER_LAUNCHER
        "${CMAKE_COMMAND}" -E env "CCACHE_BASEDIR=${PROJECT_SOURCE_DIR}" CCACHE_NOHASHDIR=1
        CCACHE_SLOPPINESS=pch_defines,time_macros "${KY_CCACHE}")
endif()

add_compile_options(-Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror)
add_compile_definitions(QT_NO_KEYWORDS)
if(WIN32)
    # Nothing older than Windows 10, and of its headers only what a source asks for.
    add_compile_definitions(_WIN32_WINNT=0x0A00 WIN32_LEAN_AND_MEAN NOMINMAX)
endif()

if(KY_SANITIZE)
    add_compile_options(-fsanitize=${KY_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer -g1)
    # The check of virtual pointers reads memory through a pipe: where a test lets the descriptors
    # run out, it takes sound objects for broken ones.
    add_compile_options(-fno-sanitize=vptr)
    add_link_options(-fsanitize=${KY_SANITIZE})
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        # Instrumented code of the standard library's expressions looks uninitialised to it.
        add_compile_options(-Wno-maybe-uninitialized)
    endif()
    if(KY_SANITIZE MATCHES "thread" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        # Fences inside the standard and task libraries, not ours.
        add_compile_options(-Wno-tsan)
    endif()
endif()

if(KY_COVERAGE)
    add_compile_options(--coverage -O0 -g)
    add_link_options(--coverage)
endif()
