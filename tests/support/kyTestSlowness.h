#pragma once

namespace kyTest {

/// Whether a sanitizer, the count of lines or an emulated system slows everything down, so that a
/// test of many repetitions takes fewer.
constexpr bool s_isSlow = KY_TEST_IS_SLOW;

} // namespace kyTest
