#pragma once

/// Marks the classes and functions that leave the shared library; everything else stays hidden.
///
/// KY_NETBASE_BUILDING is defined while the library itself is compiled, KY_NETBASE_STATIC for
/// programs that link its objects directly (the tests).
#if defined(_WIN32)
#if defined(KY_NETBASE_STATIC)
#define KY_NETBASE_EXPORT
#elif defined(KY_NETBASE_BUILDING)
#define KY_NETBASE_EXPORT __declspec(dllexport)
#else
#define KY_NETBASE_EXPORT __declspec(dllimport)
#endif
#else
#define KY_NETBASE_EXPORT __attribute__((visibility("default")))
#endif
