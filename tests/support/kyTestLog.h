#pragma once

#include <mutex>
#include <string>
#include <vector>

#include <Utils/kyLog.h>

namespace kyTest {

/// Collects what is logged instead of printing it.
class LogCapture
{
public:
    LogCapture()
    {
        kyLog::setSink([this](kyLog::Severity, int, const std::string& text) {
            const std::lock_guard<std::mutex> guard(m_mutex);
            m_texts.push_back(text);
        });
    }

    ~LogCapture() { kyLog::setSink({}); }

    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<std::string> texts() const
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        return m_texts;
    }

private:
    mutable std::mutex m_mutex;
    std::vector<std::string> m_texts;
};

} // namespace kyTest
