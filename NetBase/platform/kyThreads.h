#pragma once

#include <functional>

/// Threads that nobody waits for, and which processors threads run on.
///
/// All functions may be called from any thread. Those about processors act on the calling thread
/// and never throw.
namespace kyThreads {

/// Runs the action, which throws nothing, on a new thread that belongs to nobody. Throws
/// std::system_error if the system gives no thread.
void startDetached(std::function<void()> action);

/// How many threads the machine runs at the same time, at least 1.
unsigned countHardwareThreads();

/// Lets the calling thread run on the first processor only; false if the system refuses, for
/// instance because that processor is not given to this process.
bool pinToFirstProcessor();

/// Lets the calling thread run on every processor that the process was given when it started.
///
/// A new thread inherits its creator's processors on some systems, so a worker calls this
/// before it sets its own.
void resetProcessors();

} // namespace kyThreads
