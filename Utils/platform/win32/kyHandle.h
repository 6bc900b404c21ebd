#pragma once

#include <utility>

#include <windows.h>

/// Owns a handle of the system and closes it; null is none. What the system answers for a file that
/// it could not open is none, too.
class kyHandle
{
public:
    kyHandle() = default;
    explicit kyHandle(HANDLE value) : m_value(value == INVALID_HANDLE_VALUE ? nullptr : value) {}
    kyHandle(kyHandle&& other) noexcept : m_value(other.release()) {}
    kyHandle& operator=(kyHandle&& other) noexcept
    {
        std::swap(m_value, other.m_value);
        return *this;
    }
    ~kyHandle() { close(); }

    HANDLE get() const { return m_value; }
    bool isValid() const { return m_value != nullptr; }

    /// Gives the handle away.
    HANDLE release() { return std::exchange(m_value, nullptr); }

    void close()
    {
        if (isValid()) {
            ::CloseHandle(release());
        }
    }

private:
    HANDLE m_value = nullptr;
};
