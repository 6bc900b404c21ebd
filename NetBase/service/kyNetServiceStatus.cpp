#include <NetBase/service/kyNetServiceStatus.h>

#include <utility>

#include <NetBase/serialization/kyNetSerializer.h>
#include <Utils/kyNumber.h>
#include <VersionInfo/kyVersionInfo.h>

namespace {

constexpr const char* s_isRunning = "IsRunning";
constexpr const char* s_numberOfClusterServers = "NumberOfClusterServers";
constexpr const char* s_cpuUsage = "CPUUsage";
constexpr const char* s_freeMemory = "FreeMemory";
constexpr const char* s_version = "Version";
constexpr const char* s_bookingIds = "BookingIds";

std::string readText(kyNetSerializer& serializer)
{
    std::string text;
    serializer.getValue(text);
    return text;
}

} // namespace

void kyNetServiceStatus::putValue(kyNetSerializer& serializer) const
{
    serializer.putValue(kyVersionInfo::the().getVersionString());
    serializer.putValueSize(m_values.size());
    for (const auto& [key, value] : m_values) {
        serializer.putValue(key);
        serializer.putValue(value);
    }
    serializer.putValueSize(m_lists.size());
    for (const auto& [key, list] : m_lists) {
        serializer.putValue(key);
        serializer.putValueSize(list.size());
        for (const std::string& element : list) {
            serializer.putValue(element);
        }
    }
}

void kyNetServiceStatus::getValue(kyNetSerializer& serializer)
{
    // The writer's version; what a reader wants to know is the entry of that name.
    readText(serializer);

    m_values.clear();
    for (std::uint64_t left = serializer.getValueSize(); left > 0; --left) {
        const std::string key = readText(serializer);
        m_values[key] = readText(serializer);
    }

    // Intended: the lists are not cleared. One that the message does not carry survives.
    for (std::uint64_t left = serializer.getValueSize(); left > 0; --left) {
        const std::string key = readText(serializer);
        std::vector<std::string> list;
        for (std::uint64_t elements = serializer.getValueSize(); elements > 0; --elements) {
            list.push_back(readText(serializer));
        }
        m_lists[key] = std::move(list);
    }
}

bool kyNetServiceStatus::getIsRunning() const
{
    return getValue(s_isRunning, "false") == "true";
}

void kyNetServiceStatus::setIsRunning(bool isRunning)
{
    m_values[s_isRunning] = isRunning ? "true" : "false";
}

std::int32_t kyNetServiceStatus::getNumberOfClusterServers() const
{
    return kyNumber::toInt32(getValue(s_numberOfClusterServers, "0"));
}

void kyNetServiceStatus::setNumberOfClusterServers(std::int32_t number)
{
    m_values[s_numberOfClusterServers] = std::to_string(number);
}

float kyNetServiceStatus::getCPUUsage() const
{
    return static_cast<float>(kyNumber::toDouble(getValue(s_cpuUsage, "0")));
}

void kyNetServiceStatus::setCPUUsage(float usage)
{
    m_values[s_cpuUsage] = kyNumber::toFixedText(static_cast<double>(usage));
}

std::uint64_t kyNetServiceStatus::getFreeMemory() const
{
    // Intended: written as 64 bits, read as 32 with a sign, which is then extended.
    return static_cast<std::uint64_t>(std::int64_t{kyNumber::toInt32(getValue(s_freeMemory, "0"))});
}

void kyNetServiceStatus::setFreeMemory(std::uint64_t bytes)
{
    m_values[s_freeMemory] = std::to_string(bytes);
}

std::string kyNetServiceStatus::getVersion() const
{
    return getValue(s_version, "unknown");
}

void kyNetServiceStatus::setVersion(const std::string& version)
{
    m_values[s_version] = version;
}

std::vector<std::string> kyNetServiceStatus::getBookingIds() const
{
    return getList(s_bookingIds);
}

void kyNetServiceStatus::setBookingIds(const std::vector<std::string>& bookingIds)
{
    m_lists[s_bookingIds] = bookingIds;
}

std::string kyNetServiceStatus::getValue(const std::string& key,
                                         const std::string& defaultValue) const
{
    const auto found = m_values.find(key);
    return found == m_values.end() ? defaultValue : found->second;
}

std::vector<std::string> kyNetServiceStatus::getList(const std::string& key) const
{
    const auto found = m_lists.find(key);
    return found == m_lists.end() ? std::vector<std::string>() : found->second;
}
