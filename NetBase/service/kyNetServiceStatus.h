#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <NetBase/kyNetBaseExport.h>

class kyNetSerializer;

/// What a cluster service tells about its node: named values that a client of any version can read.
///
/// Every value is held as text under its key, and converted when it is set and when it is asked
/// for; lists of texts stand in a table of their own. So a reader skips what it does not know, and
/// gets a default for what the writer did not.
///
///     string     version of the writing library
///     uint64     number of values; then for each, in the order of their keys: key, value
///     uint64     number of lists;  then for each: key, uint64 number of elements, elements
///
/// Thread rules: as a value of the standard library.
class KY_NETBASE_EXPORT kyNetServiceStatus
{
public:
    /// A record without any entry: every getter answers its default.
    kyNetServiceStatus() = default;
    kyNetServiceStatus(const kyNetServiceStatus&) = default;
    kyNetServiceStatus(kyNetServiceStatus&&) = default;
    kyNetServiceStatus& operator=(const kyNetServiceStatus&) = default;
    kyNetServiceStatus& operator=(kyNetServiceStatus&&) = default;

    /// Writes the record. Throws what the serializer throws.
    virtual void putValue(kyNetSerializer& serializer) const;

    /// Reads a record. Its values replace those held, its lists are added to those held: a list
    /// that the message does not carry survives. A serializer that fails leaves the record partly
    /// filled; nothing is reserved for what is only announced.
    virtual void getValue(kyNetSerializer& serializer);

    virtual ~kyNetServiceStatus() = default;

    /// Whether the service serves requests; false by default.
    bool getIsRunning() const;
    void setIsRunning(bool isRunning);

    /// The servers that run on the node; 0 by default.
    std::int32_t getNumberOfClusterServers() const;
    void setNumberOfClusterServers(std::int32_t number);

    /// The load of the node's processors; 0 by default. Kept with six decimals.
    float getCPUUsage() const;
    void setCPUUsage(float usage);

    /// Available memory in bytes; 0 by default. What is set travels whole, but is read as a signed
    /// number of 32 bits: more than 2147483647 comes back as 2147483647.
    std::uint64_t getFreeMemory() const;
    void setFreeMemory(std::uint64_t bytes);

    /// The version of the service; "unknown" by default.
    std::string getVersion() const;
    void setVersion(const std::string& version);

    /// The bookings that have a running server; none by default.
    std::vector<std::string> getBookingIds() const;
    void setBookingIds(const std::vector<std::string>& bookingIds);

private:
    std::string getValue(const std::string& key, const std::string& defaultValue) const;
    std::vector<std::string> getList(const std::string& key) const;

    std::map<std::string, std::string> m_values;
    std::map<std::string, std::vector<std::string>> m_lists;
};
