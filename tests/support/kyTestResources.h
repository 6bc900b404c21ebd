#pragma once

#include <gtest/gtest.h>

namespace kyTest {

/// Fails every test that ends with more descriptors, threads or child processes than it began with.
///
/// Installed by the shared main, so no test has to ask for it. What is on its way out when a test
/// returns (a detached thread that has done its work) is given a moment to go.
class Resources : public testing::EmptyTestEventListener
{
public:
    void OnTestStart(const testing::TestInfo& test) override;
    void OnTestEnd(const testing::TestInfo& test) override;

private:
    std::size_t m_descriptors = 0;
    std::size_t m_threads = 0;
    std::size_t m_children = 0;
};

} // namespace kyTest
