#pragma once

#include <chrono>
#include <functional>
#include <string>

#include <NetBase/platform/kySocketHandle.h>
#include <NetBase/platform/kySystemSockets.h>

/// What the systems' calls of sockets differ in, for the sources of tests/support/platform.
namespace kyTest {

/// A socket as the system's calls take it.
inline auto toSystem(kySocketHandle handle)
{
    return static_cast<decltype(::socket(0, 0, 0))>(handle);
}

/// Throws what the last call of a socket has failed with.
[[noreturn]] void failCall(const char* what);

/// Passes what a call answered, unless it failed.
inline int checked(long long result, const char* what)
{
    if (result < 0) {
        failCall(what);
    }
    return static_cast<int>(result);
}

template <class Value>
void setOption(kySocketHandle handle, int level, int name, const Value& value, const char* what)
{
    checked(::setsockopt(toSystem(handle), level, name, reinterpret_cast<const char*>(&value),
                         sizeof(value)),
            what);
}

template <class Value> Value getOption(kySocketHandle handle, int level, int name)
{
    Value value{};
    socklen_t size = sizeof(value);
    checked(::getsockopt(toSystem(handle), level, name, reinterpret_cast<char*>(&value), &size),
            "getsockopt");
    return value;
}

inline int getNumber(kySocketHandle handle, int level, int name)
{
    return getOption<int>(handle, level, name);
}

/// Makes sockets, and texts of addresses, usable.
void startSockets();

/// A stream socket that no child inherits.
kySocketHandle openSocket(int family);

/// A socket that is bound to a free port of 127.0.0.1, which it shares with nobody.
kySocketHandle openBound();

void closeHandle(kySocketHandle handle);

/// Limits each send and receive, 0 for no limit.
void setWaits(kySocketHandle handle, std::chrono::milliseconds limit);

/// The next connection of a listening socket; throws when a test has waited long enough.
kySocketHandle acceptNext(kySocketHandle listening);

/// Begins to connect; what comes of it does not matter unless the system refuses to begin.
void beginToConnect(kySocketHandle handle, const sockaddr_in& address);

/// Sends some of the bytes; how many, or less than 0. Nothing is signalled if the peer is gone.
long long sendSome(kySocketHandle handle, const char* data, std::size_t size);

/// Receives some of the bytes; how many, 0 at the end, or less than 0.
long long receiveSome(kySocketHandle handle, char* data, std::size_t size);

/// A port of 127.0.0.1, 0 for any.
sockaddr_in makeLoopback(int port);

template <class Address> const sockaddr* pointerTo(const Address& address)
{
    return reinterpret_cast<const sockaddr*>(&address);
}

template <class Address> std::string toBytes(const Address& address)
{
    return {reinterpret_cast<const char*>(&address), sizeof(address)};
}

/// Runs the action on a thread of its own, since what is refused to that one stays so; passes on
/// what it throws.
void runApart(const std::function<void()>& action);

} // namespace kyTest
