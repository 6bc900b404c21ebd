#pragma once

/// Which processors threads run on.
///
/// All functions act on the calling thread, may be called from any thread and never throw.
namespace kyThreads {

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
