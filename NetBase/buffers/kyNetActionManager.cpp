#include <NetBase/buffers/kyNetActionManager.h>

#include <algorithm>
#include <utility>

#include <NetBase/platform/kyThreads.h>

kyNetActionManager::kyNetActionManager(int maxRunning) : m_maxRunning(maxRunning) {}

void kyNetActionManager::run(std::function<void()> action)
{
    {
        std::unique_lock<std::mutex> lock(m_lock);
        m_changed.wait(lock, [this] { return m_maxRunning <= 0 || m_running < m_maxRunning; });
        ++m_running;
    }
    try {
        kyThreads::startDetached(
            [this, action = std::move(action)]() mutable { threadFunction(std::move(action)); });
    } catch (...) {
        finish();
        throw;
    }
}

void kyNetActionManager::threadFunction(std::function<void()> action)
{
    try {
        action();
    } catch (...) {
        const std::lock_guard<std::mutex> lock(m_lock);
        m_failure = std::current_exception();
    }
    // What the action holds may belong to who waits for it, so it goes before the count falls.
    action = nullptr;
    finish();
}

void kyNetActionManager::finish()
{
    // Notified under the lock: as soon as it is released, the manager may be destroyed.
    const std::lock_guard<std::mutex> lock(m_lock);
    --m_running;
    m_changed.notify_all();
}

void kyNetActionManager::waitAll()
{
    std::exception_ptr failure;
    {
        std::unique_lock<std::mutex> lock(m_lock);
        m_changed.wait(lock, [this] { return m_running <= 0; });
        failure = std::exchange(m_failure, nullptr);
    }
    if (failure) {
        std::rethrow_exception(failure);
    }
}

void kyNetActionManager::reduceMaxRunning()
{
    const std::lock_guard<std::mutex> lock(m_lock);
    if (m_maxRunning != 0) {
        m_maxRunning = std::max(m_maxRunning, 2) - 1;
    }
}
