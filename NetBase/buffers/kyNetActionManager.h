#pragma once

#include <condition_variable>
#include <cstdint>
#include <exception>
#include <functional>
#include <mutex>

#include <NetBase/kyNetBaseExport.h>

/// Runs actions each on a thread of its own, so many at a time as allowed, and waits for them.
///
///     kyNetActionManager manager(4);
///     for (const std::string& node : nodes) {
///         manager.run([node] { connect(node); });
///     }
///     manager.waitAll(); // throws what an action threw
///
/// Lifetime: the destructor waits for nothing, so call waitAll() before it; once that has
/// returned, the manager may go at once.
///
/// Threads: every member may be called from any thread. An action may call run() itself, but
/// where a bound holds it then waits while it occupies a place.
class KY_NETBASE_EXPORT kyNetActionManager
{
public:
    /// Lets at most `maxRunning` actions run at the same time; any number if it is 0 or less.
    explicit kyNetActionManager(int maxRunning);

    kyNetActionManager(const kyNetActionManager&) = delete;
    kyNetActionManager& operator=(const kyNetActionManager&) = delete;

    /// Starts the action on a new thread; blocks while as many run as are allowed. Throws
    /// std::system_error if the system gives no thread; the action is then dropped.
    void run(std::function<void()> action);

    /// Blocks until no action runs, then throws what the last failing action has thrown since
    /// the last call, if any did. By then the actions and all that they held are destroyed.
    void waitAll();

    /// Lowers the bound by one, not below 1; a bound of 0 stays, a negative one becomes 1. Stops
    /// nothing and wakes nobody: it holds from the next action that ends.
    void reduceMaxRunning();

private:
    void threadFunction(std::function<void()> action);
    void finish();

    std::int32_t m_running = 0;
    std::int32_t m_maxRunning;
    std::condition_variable m_changed;
    std::mutex m_lock;
    std::exception_ptr m_failure;
};
