#include <NetBase/service/kyNetServiceStatus.h>

#include <cstring>
#include <deque>
#include <limits>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/buffers/kyNetError.h>
#include <NetBase/serialization/kyNetSerializer.h>
#include <VersionInfo/kyVersionInfo.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// Reads back what was written into it, in buffers of a given size.
class Channel : public kyNetSerializer
{
public:
    explicit Channel(int bufferSize = 1000) : kyNetSerializer(bufferSize) {}

    Channel& finish()
    {
        flushSendBuffer();
        return *this;
    }

    /// The bytes that were written and not read.
    std::string bytes()
    {
        finish();
        std::string all;
        for (const auto& buffer : m_buffers) {
            all.append(buffer->getData(), static_cast<std::size_t>(buffer->getDataSize()));
        }
        return all;
    }

    void writeBytes(const std::string& bytes) { putBytes(bytes.data(), bytes.size()); }

protected:
    void sendBuffer(const std::shared_ptr<kyNetBuffer>& buffer) override
    {
        m_buffers.push_back(buffer);
    }

    void recvBuffer(std::shared_ptr<kyNetBuffer>& buffer) override
    {
        if (m_buffers.empty()) {
            throw kyNetError("nothing more to read");
        }
        buffer = m_buffers.front();
        m_buffers.pop_front();
    }

private:
    std::deque<std::shared_ptr<kyNetBuffer>> m_buffers;
};

using Values = std::vector<std::pair<std::string, std::string>>;
using Lists = std::vector<std::pair<std::string, std::vector<std::string>>>;

/// A record as another version of the library may write it.
void write(kyNetSerializer& serializer, const Values& values, const Lists& lists = {})
{
    serializer.putValue(std::string("99.9"));
    serializer.putValueSize(values.size());
    for (const auto& [key, value] : values) {
        serializer.putValue(key);
        serializer.putValue(value);
    }
    serializer.putValueSize(lists.size());
    for (const auto& [key, list] : lists) {
        serializer.putValue(key);
        serializer.putValueSize(list.size());
        for (const std::string& element : list) {
            serializer.putValue(element);
        }
    }
}

void read(kyNetServiceStatus& status, const Values& values, const Lists& lists = {})
{
    Channel channel;
    write(channel, values, lists);
    status.getValue(channel.finish());
}

kyNetServiceStatus withValue(const std::string& key, const std::string& value)
{
    kyNetServiceStatus status;
    read(status, {{key, value}});
    return status;
}

std::string size(std::uint64_t value)
{
    std::string bytes(sizeof(value), '\0');
    std::memcpy(bytes.data(), &value, sizeof(value));
    return bytes;
}

std::string text(const std::string& value)
{
    const auto length = static_cast<std::uint32_t>(value.size() + 1);
    std::string bytes(sizeof(length), '\0');
    std::memcpy(bytes.data(), &length, sizeof(length));
    return bytes + value + std::string(1, '\0');
}

std::string written(const kyNetServiceStatus& status)
{
    Channel channel;
    status.putValue(channel);
    return channel.bytes();
}

/// The bytes of a record that holds one value.
std::string written(const std::string& key, const std::string& value)
{
    return text(kyVersionInfo::the().getVersionString()) + size(1) + text(key) + text(value) +
           size(0);
}

kyNetServiceStatus full()
{
    kyNetServiceStatus status;
    status.setIsRunning(true);
    status.setNumberOfClusterServers(-3);
    status.setCPUUsage(12.5F);
    status.setFreeMemory(2000000000);
    status.setVersion("11.0");
    status.setBookingIds({"b", "", "a"});
    return status;
}

void expectFull(const kyNetServiceStatus& status)
{
    EXPECT_TRUE(status.getIsRunning());
    EXPECT_EQ(status.getNumberOfClusterServers(), -3);
    EXPECT_EQ(status.getCPUUsage(), 12.5F);
    EXPECT_EQ(status.getFreeMemory(), 2000000000u);
    EXPECT_EQ(status.getVersion(), "11.0");
    EXPECT_THAT(status.getBookingIds(), ElementsAre("b", "", "a"));
}

void expectEmpty(const kyNetServiceStatus& status)
{
    EXPECT_FALSE(status.getIsRunning());
    EXPECT_EQ(status.getNumberOfClusterServers(), 0);
    EXPECT_EQ(status.getCPUUsage(), 0.0F);
    EXPECT_EQ(status.getFreeMemory(), 0u);
    EXPECT_EQ(status.getVersion(), "unknown");
    EXPECT_THAT(status.getBookingIds(), IsEmpty());
}

} // namespace

static_assert(std::is_polymorphic_v<kyNetServiceStatus>);

TEST(kyNetServiceStatus, freshRecordAnswersDefaults)
{
    expectEmpty(kyNetServiceStatus());
}

TEST(kyNetServiceStatus, settersAreReadBack)
{
    kyNetServiceStatus status = full();
    expectFull(status);
    status.setIsRunning(false);
    status.setNumberOfClusterServers(std::numeric_limits<std::int32_t>::min());
    status.setBookingIds({});
    EXPECT_FALSE(status.getIsRunning());
    EXPECT_EQ(status.getNumberOfClusterServers(), std::numeric_limits<std::int32_t>::min());
    EXPECT_THAT(status.getBookingIds(), IsEmpty());
    status.setNumberOfClusterServers(std::numeric_limits<std::int32_t>::max());
    EXPECT_EQ(status.getNumberOfClusterServers(), std::numeric_limits<std::int32_t>::max());
}

TEST(kyNetServiceStatus, copiesAndMovesTakeBothTables)
{
    kyNetServiceStatus source = full();
    kyNetServiceStatus copy(source);
    expectFull(copy);
    copy.setVersion("other");
    expectFull(source);
    copy = source;
    expectFull(copy);
    const kyNetServiceStatus moved(std::move(source));
    expectFull(moved);
    kyNetServiceStatus assigned;
    assigned = std::move(copy);
    expectFull(assigned);
}

TEST(kyNetServiceStatus, runningIsExactlyTheWordTrue)
{
    EXPECT_TRUE(withValue("IsRunning", "true").getIsRunning());
    for (const char* value : {"True", "true ", " true", "TRUE", "1", "", "false", "truetrue"}) {
        EXPECT_FALSE(withValue("IsRunning", value).getIsRunning()) << '"' << value << '"';
    }
}

TEST(kyNetServiceStatus, textsThatAreNoNumbersGiveWhatTheConversionsGive)
{
    const auto servers = [](const char* value) {
        return withValue("NumberOfClusterServers", value).getNumberOfClusterServers();
    };
    EXPECT_EQ(servers("7 servers"), 7);
    EXPECT_EQ(servers(" -7"), -7);
    EXPECT_EQ(servers("seven"), 0);
    EXPECT_EQ(servers(""), 0);
    EXPECT_EQ(servers("99999999999"), 2147483647);

    const auto usage = [](const char* value) { return withValue("CPUUsage", value).getCPUUsage(); };
    EXPECT_EQ(usage("0.5 of all"), 0.5F);
    EXPECT_EQ(usage("1e1"), 10.0F);
    EXPECT_EQ(usage("0,5"), 0.0F);
    EXPECT_EQ(usage("much"), 0.0F);
    EXPECT_EQ(usage("1e300"), std::numeric_limits<float>::infinity());
}

TEST(kyNetServiceStatus, freeMemoryIsWrittenWholeAndReadWith32Bits)
{
    kyNetServiceStatus status;
    status.setFreeMemory(2147483647);
    EXPECT_EQ(status.getFreeMemory(), 2147483647u);
    status.setFreeMemory(2147483648);
    EXPECT_EQ(status.getFreeMemory(), 2147483647u);
    status.setFreeMemory(5000000000);
    EXPECT_EQ(status.getFreeMemory(), 2147483647u);
    EXPECT_EQ(written(status), written("FreeMemory", "5000000000"));
    status.setFreeMemory(std::numeric_limits<std::uint64_t>::max());
    EXPECT_EQ(status.getFreeMemory(), 2147483647u);
    EXPECT_EQ(written(status), written("FreeMemory", "18446744073709551615"));
}

TEST(kyNetServiceStatus, negativeFreeMemoryIsExtendedWithItsSign)
{
    EXPECT_EQ(withValue("FreeMemory", "-1").getFreeMemory(),
              std::numeric_limits<std::uint64_t>::max());
    EXPECT_EQ(withValue("FreeMemory", "-99999999999").getFreeMemory(), 0xffffffff80000000u);
}

TEST(kyNetServiceStatus, valuesAreStoredAsTheirTexts)
{
    kyNetServiceStatus running;
    running.setIsRunning(true);
    EXPECT_EQ(written(running), written("IsRunning", "true"));
    running.setIsRunning(false);
    EXPECT_EQ(written(running), written("IsRunning", "false"));

    kyNetServiceStatus servers;
    servers.setNumberOfClusterServers(-12);
    EXPECT_EQ(written(servers), written("NumberOfClusterServers", "-12"));

    kyNetServiceStatus usage;
    usage.setCPUUsage(0.5F);
    EXPECT_EQ(written(usage), written("CPUUsage", "0.500000"));
    usage.setCPUUsage(12.5F);
    EXPECT_EQ(written(usage), written("CPUUsage", "12.500000"));
    usage.setCPUUsage(0.1F);
    EXPECT_EQ(written(usage), written("CPUUsage", "0.100000"));
    usage.setCPUUsage(-1e-9F);
    EXPECT_EQ(written(usage), written("CPUUsage", "-0.000000"));
    usage.setCPUUsage(std::numeric_limits<float>::max());
    EXPECT_EQ(written(usage),
              written("CPUUsage", "340282346638528859811704183484516925440.000000"));

    kyNetServiceStatus version;
    version.setVersion(" any text ");
    EXPECT_EQ(written(version), written("Version", " any text "));
}

TEST(kyNetServiceStatus, recordIsWrittenInTheOrderOfItsKeys)
{
    EXPECT_EQ(written(full()), text(kyVersionInfo::the().getVersionString()) + size(5) +
                                   text("CPUUsage") + text("12.500000") + text("FreeMemory") +
                                   text("2000000000") + text("IsRunning") + text("true") +
                                   text("NumberOfClusterServers") + text("-3") + text("Version") +
                                   text("11.0") + size(1) + text("BookingIds") + size(3) +
                                   text("b") + text("") + text("a"));
    EXPECT_EQ(written(kyNetServiceStatus()),
              text(kyVersionInfo::the().getVersionString()) + size(0) + size(0));
}

TEST(kyNetServiceStatus, travelsThroughBuffersOfAnySize)
{
    const std::string expected = written(full());
    for (int bufferSize = 1; bufferSize <= static_cast<int>(expected.size()) + 1; ++bufferSize) {
        Channel channel(bufferSize);
        channel << full();
        kyNetServiceStatus status;
        channel.finish() >> status;
        expectFull(status);
        EXPECT_EQ(written(status), expected);
    }
}

TEST(kyNetServiceStatus, unknownEntriesAreKeptAndPassedOn)
{
    kyNetServiceStatus status;
    read(status, {{"Zone", "north"}, {"Version", "12.0"}}, {{"Cards", {"one", "two"}}});
    EXPECT_EQ(status.getVersion(), "12.0");
    EXPECT_EQ(written(status), text(kyVersionInfo::the().getVersionString()) + size(2) +
                                   text("Version") + text("12.0") + text("Zone") + text("north") +
                                   size(1) + text("Cards") + size(2) + text("one") + text("two"));
}

TEST(kyNetServiceStatus, writersVersionIsNotTheServices)
{
    kyNetServiceStatus status;
    read(status, {});
    EXPECT_EQ(status.getVersion(), "unknown");
}

TEST(kyNetServiceStatus, lastOfTwoEqualKeysCounts)
{
    kyNetServiceStatus status;
    read(status, {{"Version", "1"}, {"Version", "2"}},
         {{"BookingIds", {"x"}}, {"BookingIds", {"y", "z"}}});
    EXPECT_EQ(status.getVersion(), "2");
    EXPECT_THAT(status.getBookingIds(), ElementsAre("y", "z"));
}

TEST(kyNetServiceStatus, readingReplacesTheValuesAndKeepsTheListsNotCarried)
{
    kyNetServiceStatus status = full();
    read(status, {{"Version", "12.0"}});
    EXPECT_EQ(status.getVersion(), "12.0");
    EXPECT_FALSE(status.getIsRunning());
    EXPECT_EQ(status.getFreeMemory(), 0u);
    EXPECT_THAT(status.getBookingIds(), ElementsAre("b", "", "a"));

    read(status, {}, {{"Other", {"x"}}});
    EXPECT_THAT(status.getBookingIds(), ElementsAre("b", "", "a"));
    read(status, {}, {{"BookingIds", {}}});
    EXPECT_THAT(status.getBookingIds(), IsEmpty());
}

TEST(kyNetServiceStatus, recordCutAnywhereFailsInTheSerializer)
{
    const std::string bytes = written(full());
    for (std::size_t size = 0; size < bytes.size(); ++size) {
        Channel channel;
        channel.writeBytes(bytes.substr(0, size));
        channel.finish();
        kyNetServiceStatus status;
        try {
            status.getValue(channel);
            ADD_FAILURE() << size;
        } catch (const kyNetError& error) {
            EXPECT_STREQ(error.what(), "nothing more to read");
        }
    }
}

TEST(kyNetServiceStatus, whatWasReadBeforeAFailureStays)
{
    Channel channel;
    channel.writeBytes(text("99.9") + size(2) + text("Version") + text("12.0"));
    channel.finish();
    kyNetServiceStatus status = full();
    EXPECT_THROW(status.getValue(channel), kyNetError);
    EXPECT_EQ(status.getVersion(), "12.0");
    EXPECT_FALSE(status.getIsRunning());
}

TEST(kyNetServiceStatus, announcedCountsReserveNothing)
{
    const std::uint64_t huge = std::numeric_limits<std::uint64_t>::max();
    for (const std::string& bytes :
         {text("") + size(huge), text("") + size(0) + size(huge),
          text("") + size(0) + size(1) + text("BookingIds") + size(huge),
          text("") + size(0) + size(1) + text("BookingIds") + size(huge / 32)}) {
        Channel channel;
        channel.writeBytes(bytes);
        channel.finish();
        kyNetServiceStatus status;
        try {
            status.getValue(channel);
            ADD_FAILURE();
        } catch (const kyNetError& error) {
            EXPECT_STREQ(error.what(), "nothing more to read");
        }
    }
}
