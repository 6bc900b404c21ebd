#include <apps/TALORender/RelayPlan.h>

#include <gtest/gtest.h>

using namespace render;

namespace {

std::vector<std::string> onOneNode(std::size_t servers)
{
    return std::vector<std::string>(servers, "node");
}

using Children = std::vector<std::size_t>;

} // namespace

TEST(RelayPlan, nobodyRelaysWithoutServers)
{
    EXPECT_TRUE(planRelays({}).empty());
}

TEST(RelayPlan, oneServerGetsTheSceneFromTheApplication)
{
    const auto places = planRelays(onOneNode(1));
    EXPECT_FALSE(places[0].parent);
    EXPECT_TRUE(places[0].children.empty());
    EXPECT_EQ(places[0].level, 0U);
}

TEST(RelayPlan, sevenServersOfANodeAreAFullTree)
{
    const auto places = planRelays(onOneNode(7));
    EXPECT_FALSE(places[0].parent);
    EXPECT_EQ(places[0].children, (Children{1, 2}));
    EXPECT_EQ(places[1].children, (Children{3, 4}));
    EXPECT_EQ(places[2].children, (Children{5, 6}));
    const std::vector<std::size_t> parents{0, 0, 1, 1, 2, 2};
    const std::vector<std::size_t> levels{0, 1, 1, 2, 2, 2, 2};
    for (std::size_t i = 0; i < 7; ++i) {
        EXPECT_EQ(places[i].level, levels[i]);
        if (i > 0) {
            EXPECT_EQ(places[i].parent, parents[i - 1]);
        }
        if (i > 2) {
            EXPECT_TRUE(places[i].children.empty());
        }
    }
}

TEST(RelayPlan, nobodyRelaysToAnotherNode)
{
    const auto places = planRelays({"a", "b", "a", "b", "c"});
    EXPECT_FALSE(places[0].parent);
    EXPECT_FALSE(places[1].parent);
    EXPECT_EQ(places[2].parent, 0U);
    EXPECT_EQ(places[3].parent, 1U);
    EXPECT_FALSE(places[4].parent);
    EXPECT_EQ(places[0].children, Children{2});
    EXPECT_EQ(places[1].children, Children{3});
    EXPECT_TRUE(places[4].children.empty());
}

TEST(RelayPlan, nobodyRelaysToMoreThanTwoAndEverybodyIsReachedOnce)
{
    const auto places = planRelays(onOneNode(1000));
    std::vector<int> reached(places.size(), 0);
    for (std::size_t i = 0; i < places.size(); ++i) {
        EXPECT_LE(places[i].children.size(), 2U);
        for (const std::size_t child : places[i].children) {
            ++reached.at(child);
            EXPECT_EQ(places[child].parent, i);
            EXPECT_EQ(places[child].level, places[i].level + 1);
        }
    }
    EXPECT_EQ(reached[0], 0);
    EXPECT_EQ(std::vector<int>(reached.begin() + 1, reached.end()), std::vector<int>(999, 1));
    EXPECT_EQ(places.back().level, 9U);
}
