#pragma once

#include <utility>

#include <unistd.h>

/// Owns a descriptor of the system and closes it; -1 is none.
class kyDescriptor
{
public:
    kyDescriptor() = default;
    explicit kyDescriptor(int value) : m_value(value) {}
    kyDescriptor(kyDescriptor&& other) noexcept : m_value(other.release()) {}
    kyDescriptor& operator=(kyDescriptor&& other) noexcept
    {
        std::swap(m_value, other.m_value);
        return *this;
    }
    ~kyDescriptor() { close(); }

    int get() const { return m_value; }
    bool isValid() const { return m_value >= 0; }

    /// Gives the descriptor away.
    int release() { return std::exchange(m_value, -1); }

    void close()
    {
        if (isValid()) {
            ::close(release());
        }
    }

private:
    int m_value = -1;
};
