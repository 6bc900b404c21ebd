#include <NetBase/buffers/kyNetMem.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <tbb/parallel_for.h>
#include <tbb/task_group.h>

#include <NetBase/buffers/kyNetMemParts.h>

namespace {

std::string pattern(std::size_t size)
{
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<char>(1 + i % 251);
    }
    return bytes;
}

/// How many bytes from the beginning a copy in parts wrote; the others must stay as they were.
std::uint64_t copied(std::uint64_t n, std::uint64_t parts)
{
    const std::string from = pattern(n);
    std::string to(n, '\0');
    kyNetMemParts::copy(to.data(), from.data(), n, parts);
    std::uint64_t count = 0;
    while (count < n && to[count] == from[count]) {
        ++count;
    }
    EXPECT_EQ(to.find_first_not_of('\0', count), std::string::npos);
    return count;
}

} // namespace

TEST(kyNetMem, copiesBlocksOfEverySize)
{
    for (const std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{4097},
                                   std::size_t{999999}, std::size_t{1000000}}) {
        const std::string from = pattern(size);
        std::string to(size + 2, '\0');
        EXPECT_EQ(kyNetMem::copy(to.data() + 1, from.data(), size), to.data() + 1);
        EXPECT_EQ(to, '\0' + from + '\0') << size;
    }
}

TEST(kyNetMem, copiesBlocksInParts)
{
    // Divides by any number of parts that a machine of today comes to.
    constexpr std::size_t size = 2 * 3 * 4 * 5 * 7 * 1001 * 12;
    static_assert(size > 1000000);
    const std::string from = pattern(size);
    std::string to(size, '\0');
    EXPECT_EQ(kyNetMem::copy(to.data(), from.data(), size), to.data());
    EXPECT_EQ(to, from);

    std::string again(size, '\0');
    EXPECT_EQ(kyNetMem::parallelCopy(again.data(), from.data(), size), again.data());
    EXPECT_EQ(again, from);
}

TEST(kyNetMem, onePartForEveryEightHardwareThreads)
{
    for (unsigned threads = 0; threads < 16; ++threads) {
        EXPECT_EQ(kyNetMemParts::count(threads), 1U) << threads;
    }
    EXPECT_EQ(kyNetMemParts::count(16), 2U);
    EXPECT_EQ(kyNetMemParts::count(23), 2U);
    EXPECT_EQ(kyNetMemParts::count(24), 3U);
    EXPECT_EQ(kyNetMemParts::count(256), 32U);
}

// Intended: what is left when the parts are cut stays as it was.
TEST(kyNetMem, lastBytesThatMakeNoPartAreNotCopied)
{
    EXPECT_EQ(copied(10001, kyNetMemParts::count(16)), 10000U);
    EXPECT_EQ(copied(10001, 3), 9999U);
    EXPECT_EQ(copied(10003, 8), 10000U);
    EXPECT_EQ(copied(10007, 8), 10000U);
    EXPECT_EQ(copied(10008, 8), 10008U);
    EXPECT_EQ(copied(5, 8), 0U);
}

TEST(kyNetMem, onePartCopiesEverything)
{
    EXPECT_EQ(copied(1000001, 1), 1000001U);
    EXPECT_EQ(copied(1, 1), 1U);
}

TEST(kyNetMem, cancelledGroupDoesNotStopACopy)
{
    const std::string from = pattern(10008);
    std::string to(from.size(), '\0');
    tbb::task_group_context context;
    tbb::parallel_for(
        0, 1,
        [&](int) {
            context.cancel_group_execution();
            kyNetMemParts::copy(to.data(), from.data(), from.size(), 8);
        },
        context);
    EXPECT_TRUE(context.is_group_execution_cancelled());
    EXPECT_EQ(to, from);
}

TEST(kyNetMem, usedMemoryGrowsWithWhatIsTouched)
{
    constexpr std::size_t size = std::size_t{64} << 20;
    const std::uint64_t before = kyNetMem::getUsedMemory();
    EXPECT_GT(before, 1U << 20);
    const std::unique_ptr<char[]> block(new char[size]);
    std::memset(block.get(), 1, size);
    EXPECT_EQ(block[size - 1], 1);
    EXPECT_GT(kyNetMem::getUsedMemory(), before + size / 2);
}

TEST(kyNetMem, availableMemoryIsThatOfAMachine)
{
    const std::uint64_t available = kyNetMem::getAvailableMemory();
    EXPECT_GT(available, std::uint64_t{16} << 20);
    EXPECT_LT(available, std::uint64_t{1} << 48);
}
