#pragma once

#include <chrono>
#include <functional>

namespace kyTest {

/// How long a test waits for what must happen; long enough for a loaded machine and a sanitizer.
constexpr std::chrono::seconds s_patience{30};

/// Waits until the condition holds, looking again every millisecond; false after the limit.
///
/// For conditions that nobody signals (a thread has reached a blocking call, a process has
/// ended). A condition that can be signalled is waited for with a future.
bool waitUntil(const std::function<bool()>& condition,
               std::chrono::milliseconds limit = s_patience);

} // namespace kyTest
