#include <apps/TALORender/ProgressBar.h>

#include <algorithm>
#include <cstdio>

namespace render {

namespace {
constexpr int s_width = 40;
}

ProgressBar::ProgressBar(bool isVisible) : m_isVisible(isVisible)
{
    kyNetProgress::set(this);
}

ProgressBar::~ProgressBar()
{
    kyNetProgress::reset();
    if (m_hasLine) {
        std::fputc('\n', stderr);
    }
}

void ProgressBar::start(const std::string& name, double)
{
    m_name = name;
}

void ProgressBar::progress(double, double wholePercent)
{
    if (!m_isVisible) {
        return;
    }
    const int percent = std::clamp(static_cast<int>(wholePercent), 0, 100);
    const auto done = static_cast<std::size_t>(percent * s_width / 100);
    const std::string bar = std::string(done, '#') + std::string(s_width - done, '.');
    std::fprintf(stderr, "\r%s [%s] %3d%%", m_name.c_str(), bar.c_str(), percent);
    std::fflush(stderr);
    m_hasLine = true;
}

} // namespace render
