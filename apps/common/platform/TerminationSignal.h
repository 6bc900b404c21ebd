#pragma once

#include <functional>
#include <memory>

/// Tells the program that it is asked to end: by Ctrl-C, or by whoever manages the system's
/// services (SIGTERM).
///
/// From construction to destruction such a request does not end the process but calls the function
/// given, on a thread of this object: it may take locks and block, but must not throw. It is called
/// for each request, one at a time. Programs started meanwhile do not inherit any of it.
///
/// One object at a time in a process.
class TerminationSignal
{
public:
    /// Throws kyNetError if the system has no descriptor or thread left.
    explicit TerminationSignal(std::function<void()> onRequest);

    /// Returns when the function is not running and will not be called any more; requests end the
    /// process again.
    ~TerminationSignal();

    TerminationSignal(const TerminationSignal&) = delete;
    TerminationSignal& operator=(const TerminationSignal&) = delete;

private:
    class System;
    std::unique_ptr<System> m_system;
};
