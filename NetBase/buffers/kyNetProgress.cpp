#include <NetBase/buffers/kyNetProgress.h>

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

/// The whole part of any number: the nearest int where there is none, 0 for not a number.
int truncate(double value)
{
    if (std::isnan(value)) {
        return 0;
    }
    constexpr double lowest = std::numeric_limits<int>::min();
    constexpr double highest = std::numeric_limits<int>::max();
    return static_cast<int>(std::clamp(value, lowest, highest));
}

} // namespace

std::atomic<kyNetProgress::Handler*> kyNetProgress::s_handler{nullptr};
std::atomic<bool> kyNetProgress::s_isAborting{false};
std::atomic<double> kyNetProgress::s_progress{0};
std::atomic<double> kyNetProgress::s_progressScale{0};
std::atomic<int> kyNetProgress::s_lastProgressPercent{0};
std::mutex kyNetProgress::s_mutex;

kyNetProgress::Handler::~Handler() = default;

void kyNetProgress::set(Handler* handler)
{
    s_isAborting = false;
    s_progress = 0;
    s_handler = handler;
}

void kyNetProgress::reset()
{
    s_handler = nullptr;
    s_isAborting = false;
}

void kyNetProgress::start(const std::string& name, double total)
{
    s_progress = 0;
    Handler* const handler = s_handler;
    if (handler == nullptr) {
        return;
    }
    if (truncate(total) > 0) {
        s_progressScale = 100.0 / total;
        s_lastProgressPercent = 0;
        handler->start(name, 100.0);
        handler->progress(0.0, 0);
    } else {
        handler->start(name, 0.0);
        handler->progress(-1.0, 0);
    }
}

void kyNetProgress::set(double value)
{
    s_progress = value;
    progressChanged();
}

void kyNetProgress::add(double amount)
{
    {
        const std::lock_guard<std::mutex> lock(s_mutex);
        s_progress = s_progress + amount;
    }
    progressChanged();
}

void kyNetProgress::abort()
{
    s_isAborting = true;
}

bool kyNetProgress::isAborting()
{
    return s_isAborting;
}

void kyNetProgress::progressChanged()
{
    Handler* const handler = s_handler;
    if (handler == nullptr) {
        return;
    }
    const double progress = s_progress * s_progressScale;
    const int percent = truncate(progress);
    if (s_lastProgressPercent.exchange(percent) != percent) {
        handler->progress(progress, percent);
    }
}
