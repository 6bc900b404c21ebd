#include <sstream>
#include <stdexcept>

#include <gtest/gtest.h>

#include <benchmarks/core/Results.h>

namespace {

using bench::Contender;
using bench::Metric;
using bench::Results;
using bench::Row;

const Metric s_bulk{"bulk", "GiB/s", false};
const Metric s_trip{"trip, median", "us", true};

Row makeRow(const Metric& metric, const std::string& contender, Contender::Kind kind,
            const std::vector<double>& values, const std::string& reference = "")
{
    return {"work",
            metric,
            contender,
            kind,
            reference,
            values,
            std::vector<double>(values.size(), 2.5)};
}

/// The library at twice the limit, and half of the best peer.
Results makeResults()
{
    Results results;
    results.add(makeRow(s_bulk, "library, links", Contender::Kind::Library, {4, 3, 9}));
    results.add(makeRow(s_bulk, "plain sockets", Contender::Kind::Limit, {2, 2, 2}));
    results.add(makeRow(s_bulk, "slow", Contender::Kind::Peer, {1}));
    results.add(makeRow(s_bulk, "fast", Contender::Kind::Peer, {8}));
    return results;
}

std::vector<std::string> compare(const Results& results, const std::string& lines)
{
    std::istringstream baseline("metric,contender,ratio\n" + lines);
    std::vector<std::string> sentences;
    for (const bench::Fall& fall : results.compareWithBaseline(baseline)) {
        EXPECT_EQ(fall.workload, "work");
        sentences.push_back(fall.sentence);
    }
    return sentences;
}

} // namespace

TEST(Results, ratioIsThatOfMediansToTheFirstLimit)
{
    const Results results = makeResults();
    EXPECT_DOUBLE_EQ(*results.getRatio(results.getRows()[0]), 2.0);
    EXPECT_FALSE(results.getRatio(results.getRows()[1]));
    EXPECT_DOUBLE_EQ(*results.getRatio(results.getRows()[2]), 0.5);
}

TEST(Results, bestPeerIsTheOneThatIsHardestToBeat)
{
    Results results = makeResults();
    EXPECT_DOUBLE_EQ(*results.getRatioToBestPeer(results.getRows()[0]), 0.5);
    results.add(makeRow(s_trip, "library", Contender::Kind::Library, {10}));
    EXPECT_FALSE(results.getRatioToBestPeer(results.getRows()[4]));
    results.add(makeRow(s_trip, "slow", Contender::Kind::Peer, {40}));
    results.add(makeRow(s_trip, "fast", Contender::Kind::Peer, {20}));
    EXPECT_DOUBLE_EQ(*results.getRatioToBestPeer(results.getRows()[4]), 2.0);
}

TEST(Results, ratioIsAboveOneWhereLessIsBetterAndLess)
{
    Results results;
    results.add(makeRow(s_trip, "library", Contender::Kind::Library, {10}));
    results.add(makeRow(s_trip, "plain sockets", Contender::Kind::Limit, {40}));
    EXPECT_DOUBLE_EQ(*results.getRatio(results.getRows()[0]), 4.0);
}

TEST(Results, ratioIsToTheReferenceThatIsNamed)
{
    Results results = makeResults();
    results.add(makeRow(s_bulk, "gathered", Contender::Kind::Limit, {16}));
    results.add(makeRow(s_bulk, "library, b", Contender::Kind::Library, {4}, "gathered"));
    results.add(makeRow(s_bulk, "library, c", Contender::Kind::Library, {4}, "nobody"));
    EXPECT_DOUBLE_EQ(*results.getRatio(results.getRows()[5]), 0.25);
    EXPECT_FALSE(results.getRatio(results.getRows()[6]));
}

TEST(Results, csvHasALineForEachRow)
{
    std::ostringstream csv;
    makeResults().writeCsv(csv);
    EXPECT_EQ(
        csv.str(),
        "metric,contender,kind,unit,median,min,max,cpu_us_per_message,reference,ratio,"
        "ratio_to_best_peer\n"
        "\"bulk\",\"library, links\",library,\"GiB/s\",4,3,9,2.5,\"plain sockets\",2.00,0.50\n"
        "\"bulk\",\"plain sockets\",limit,\"GiB/s\",2,2,2,2.5,\"plain sockets\",-,0.25\n"
        "\"bulk\",\"slow\",peer,\"GiB/s\",1,1,1,2.5,\"plain sockets\",0.50,0.12\n"
        "\"bulk\",\"fast\",peer,\"GiB/s\",8,8,8,2.5,\"plain sockets\",4.00,1.00\n");
}

TEST(Results, tableHasAPartForEachMetric)
{
    Results results;
    results.add(makeRow(s_bulk, "library, links", Contender::Kind::Library, {4, 3, 9}));
    results.add(makeRow(s_bulk, "plain sockets", Contender::Kind::Limit, {250}));
    std::ostringstream table;
    results.writeTable(table);
    EXPECT_EQ(table.str(), "\n"
                           "bulk, GiB/s                                      median        min    "
                           "    max     CPU us    x limit x best peer\n"
                           "  library, links                                   4.00       3.00    "
                           "   9.00        2.5       0.02          -\n"
                           "  plain sockets                                     250        250    "
                           "    250        2.5          -          -\n");
}

TEST(Results, plotDataHasABlockForEachMetric)
{
    Results results = makeResults();
    results.add(makeRow(s_trip, "library", Contender::Kind::Library, {10}));
    std::ostringstream data;
    results.writePlotData("work", data);
    EXPECT_EQ(data.str(), "\"bulk, GiB/s\"\n"
                          "\"library, links\" 0 4 3 9\n"
                          "\"plain sockets\" 1 2 2 2\n"
                          "\"slow\" 2 1 1 1\n"
                          "\"fast\" 2 8 8 8\n"
                          "\n\n"
                          "\"trip, median, us\"\n"
                          "\"library\" 0 10 10 10\n");
    EXPECT_EQ(results.getWorkloads(), std::vector<std::string>{"work"});
}

TEST(Results, baselineHoldsTheLibraryOnly)
{
    std::ostringstream baseline;
    makeResults().writeBaseline(baseline);
    EXPECT_EQ(baseline.str(), "metric,contender,ratio\n\"bulk\",\"library, links\",2.000\n");
}

TEST(Results, checkNamesWhatFellByMoreThanFifteenPercent)
{
    const Results results = makeResults(); // at 2.0
    EXPECT_TRUE(compare(results, "\"bulk\",\"library, links\",2.352\n").empty());
    EXPECT_EQ(compare(results, "\"bulk\",\"library, links\",2.354\n"),
              std::vector<std::string>{"bulk: library, links is at 2.00 instead of 2.35"});
    EXPECT_TRUE(compare(results, "\"bulk\",\"library, links\",0.5\n").empty());
}

TEST(Results, checkPassesOverMetricsThatWereNotMeasured)
{
    EXPECT_TRUE(compare(makeResults(), "\"trip, median\",\"library\",3\n").empty());
}

TEST(Results, checkNamesAContenderThatIsMissing)
{
    EXPECT_EQ(compare(makeResults(), "\"bulk\",\"library, values\",3\n"),
              std::vector<std::string>{"bulk: library, values is at - instead of 3.00"});
}

TEST(Results, checkRefusesALineThatIsNoneOfABaseline)
{
    EXPECT_THROW(compare(makeResults(), "bulk,library,3\n"), std::runtime_error);
    EXPECT_THROW(compare(makeResults(), "\n"), std::runtime_error);
}
