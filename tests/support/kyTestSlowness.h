#pragma once

#include <chrono>

namespace kyTest {

/// Whether a sanitizer, the count of lines or an emulated system slows everything down, so that a
/// test of many repetitions takes fewer.
constexpr bool s_isSlow = KY_TEST_IS_SLOW;

/// How long what nobody is to notice may take.
constexpr std::chrono::seconds s_moment{s_isSlow ? 30 : 1};

} // namespace kyTest
