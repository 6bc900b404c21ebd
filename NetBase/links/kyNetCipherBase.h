#pragma once

#include <cstdint>

#include <NetBase/kyNetBaseExport.h>

/// The encryption of a link, supplied by the application: see kyNetLink::setCipher.
///
/// It preserves length: a link has no room for filler, tags or nonces. The object may be shared
/// by several links and both directions, so encrypt and decrypt are called by several threads at
/// once. What it throws comes out of the link's send or recv unchanged.
///
/// Ownership: the destructor is neither public nor virtual. Hold the concrete object by a
/// std::shared_ptr that was made with its own type, as std::make_shared does.
class KY_NETBASE_EXPORT kyNetCipherBase
{
public:
    /// Reads `length` bytes at `in`, writes as many at `out`.
    virtual void encrypt(std::uint8_t* out, const std::uint8_t* in, std::uint64_t length) = 0;

    /// The inverse. A link calls it in place, with `out` equal to `in`.
    virtual void decrypt(std::uint8_t* out, const std::uint8_t* in, std::uint64_t length) = 0;

protected:
    kyNetCipherBase() = default;
    kyNetCipherBase(const kyNetCipherBase&) = default;
    kyNetCipherBase& operator=(const kyNetCipherBase&) = default;
    ~kyNetCipherBase() = default;
};
