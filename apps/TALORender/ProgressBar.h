#pragma once

#include <string>

#include <NetBase/buffers/kyNetProgress.h>
#include <apps/common/platform/Terminal.h>

namespace render {

/// Shows the process's progress as a line on standard error, for as long as it exists.
///
///     Rendering [##########..............................]  25%
///
/// Silent where standard error is no terminal: a log has no use for a line that moves.
class ProgressBar : private kyNetProgress::Handler
{
public:
    /// Silent unless it is visible.
    explicit ProgressBar(bool isVisible = terminal::isStandardErrorVisible());
    ~ProgressBar() override;

    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

private:
    void start(const std::string& name, double total) override;
    void progress(double percent, double wholePercent) override;

    const bool m_isVisible;
    bool m_hasLine = false;
    std::string m_name;
};

} // namespace render
