#include <tests/support/kyTestResources.h>

#include <chrono>

#include <tests/support/kyTestSystem.h>
#include <tests/support/kyTestWait.h>

namespace kyTest {

void Resources::OnTestStart(const testing::TestInfo&)
{
    m_descriptors = countDescriptors();
    m_threads = countThreads();
    m_children = countChildren();
}

void Resources::OnTestEnd(const testing::TestInfo&)
{
    const auto isClean = [this] {
        return countDescriptors() <= m_descriptors && countThreads() <= m_threads &&
               countChildren() <= m_children;
    };
    if (waitUntil(isClean, std::chrono::seconds(3))) {
        return;
    }
    EXPECT_LE(countDescriptors(), m_descriptors) << describeDescriptors();
    EXPECT_LE(countThreads(), m_threads);
    EXPECT_LE(countChildren(), m_children);
}

} // namespace kyTest
