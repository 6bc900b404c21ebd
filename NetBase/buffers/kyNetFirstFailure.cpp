#include <NetBase/buffers/kyNetFirstFailure.h>

#include <utility>

void kyNetFirstFailure::store(std::exception_ptr failure) noexcept
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!isSet()) {
        m_failure = std::move(failure);
        m_isSet.store(true, std::memory_order_release);
    }
}

void kyNetFirstFailure::rethrow() const
{
    std::rethrow_exception(m_failure);
}
