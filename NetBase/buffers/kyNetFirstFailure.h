#pragma once

#include <atomic>
#include <exception>
#include <mutex>

/// The first thing that went wrong in the worker threads of a chain part, for the threads that
/// use it.
///
///     worker:  m_failure.attempt([&] { link.send(buffer); });
///     caller:  m_failure.rethrowIfSet();
///
/// Once set, it stays: every caller gets the very object that was thrown, also several at once, so
/// nobody changes it.
///
/// Threads: any number at once. Asking costs one atomic read and never blocks.
class kyNetFirstFailure
{
public:
    /// Runs a step of a worker. What it throws is stored, and the result false.
    template <class Step> bool attempt(const Step& step) noexcept
    {
        try {
            step();
            return true;
        } catch (...) {
            store(std::current_exception());
            return false;
        }
    }

    /// Keeps the failure, unless there is one already. By the time it returns, every thread sees
    /// that something failed.
    void store(std::exception_ptr failure) noexcept;

    /// Whether something failed. Whoever sees it also sees all that was written before.
    bool isSet() const noexcept { return m_isSet.load(std::memory_order_acquire); }

    /// Throws the failure, if there is one.
    void rethrowIfSet() const
    {
        if (isSet()) {
            rethrow();
        }
    }

private:
    [[noreturn]] void rethrow() const;

    std::mutex m_mutex; // Of those who store.
    std::exception_ptr m_failure;
    std::atomic<bool> m_isSet{false};
};
