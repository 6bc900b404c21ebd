#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>

/// A point in time that a wait with several steps ends at.
class kyDeadline
{
public:
    /// So many milliseconds from now; never, if they are negative.
    explicit kyDeadline(int milliseconds)
        : m_isForever(milliseconds < 0),
          m_end(Clock::now() + std::chrono::milliseconds(milliseconds))
    {
    }

    /// Milliseconds left, -1 for no limit, as the waits of the systems want them; rounded up so
    /// that no wait turns into a spin.
    int left() const
    {
        if (m_isForever) {
            return -1;
        }
        const auto rest = std::chrono::ceil<std::chrono::milliseconds>(m_end - Clock::now());
        return static_cast<int>(std::max<std::int64_t>(rest.count(), 0));
    }

private:
    using Clock = std::chrono::steady_clock;

    bool m_isForever;
    Clock::time_point m_end;
};
