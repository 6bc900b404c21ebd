#include <apps/TALOClusterService/RefusalLog.h>

#include <iterator>

#include <Utils/kyLog.h>

RefusalLog::RefusalLog(std::chrono::milliseconds pause, std::size_t maxAddresses)
    : m_pause(pause), m_maxAddresses(maxAddresses)
{
}

void RefusalLog::report(const std::string& address, const std::string& reason)
{
    if (isDue(address)) {
        kyLog::error("Refused client %s: %s\n", address.c_str(), reason.c_str());
    }
}

bool RefusalLog::isDue(const std::string& address)
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    const Clock::time_point now = Clock::now();
    for (auto entry = m_reported.begin(); entry != m_reported.end();) {
        entry = now - entry->second >= m_pause ? m_reported.erase(entry) : std::next(entry);
    }
    return m_reported.size() < m_maxAddresses && m_reported.emplace(address, now).second;
}
