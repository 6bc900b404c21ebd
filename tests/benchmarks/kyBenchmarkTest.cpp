// The measuring program as scripts/bench.sh runs it, with as little to do as it lets itself be
// told.

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tests/apps/kyTestFolder.h>
#include <tests/support/kyTestProgram.h>

namespace {

using testing::HasSubstr;

kyTest::ProgramResult measureBulk(const kyTest::Folder& folder,
                                  std::vector<std::string> arguments = {})
{
    arguments.insert(arguments.end(), {"--quick", "--workload", "bulk", "--repetitions", "1",
                                       "--folder", folder.path("results")});
    return kyTest::runProgram(KY_TEST_BENCHMARK, arguments);
}

} // namespace

TEST(kyBenchmark, quickBulkPrintsTheLibraryBesideItsLimit)
{
    const kyTest::Folder folder;
    const kyTest::ProgramResult result = measureBulk(folder);
    EXPECT_EQ(result.exitCode, 0) << result.errors;
    EXPECT_THAT(result.output, HasSubstr("library, links"));
    EXPECT_THAT(result.output, HasSubstr("library, stream of 8-byte values"));
    EXPECT_THAT(result.output, HasSubstr("plain sockets"));
    const std::string csv = kyTest::readFile(folder.path("results/results.csv"));
    EXPECT_THAT(csv, HasSubstr("\"bulk\",\"library, stream of bytes\",library,\"GiB/s\","));
    EXPECT_THAT(kyTest::readFile(folder.path("results/bulk.dat")), HasSubstr("\"bulk, GiB/s\"\n"));
    EXPECT_EQ(kyTest::readFile(folder.path("results/table.txt")), result.output);
}

TEST(kyBenchmark, checkFailsAndNamesWhatFellTwice)
{
    const kyTest::Folder folder;
    const std::string baseline =
        folder.write("baseline", "metric,contender,ratio\n\"bulk\",\"library, links\",1000\n");
    const kyTest::ProgramResult result = measureBulk(folder, {"--check", baseline});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_THAT(result.output, HasSubstr("FELL  bulk: library, links is at "));
    EXPECT_THAT(result.errors, HasSubstr("2 of 2  bulk")); // Measured once more, and longer.
}

TEST(kyBenchmark, checkPassesAgainstABaselineThatIsKept)
{
    const kyTest::Folder folder;
    const std::string baseline =
        folder.write("baseline", "metric,contender,ratio\n\"bulk\",\"library, links\",0.001\n");
    const kyTest::ProgramResult result = measureBulk(folder, {"--check", baseline});
    EXPECT_EQ(result.exitCode, 0) << result.errors;
    EXPECT_THAT(result.output, HasSubstr("No ratio is more than 15 % below " + baseline));
}

TEST(kyBenchmark, unknownWorkloadIsWrongUsage)
{
    EXPECT_EQ(kyTest::runProgram(KY_TEST_BENCHMARK, {"--workload", "bulky"}).exitCode, 2);
}
