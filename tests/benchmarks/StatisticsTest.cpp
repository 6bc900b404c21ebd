#include <gtest/gtest.h>

#include <benchmarks/core/Statistics.h>

TEST(Statistics, medianIsTheMiddleOfAnOddNumber)
{
    EXPECT_EQ(bench::median({5}), 5);
    EXPECT_EQ(bench::median({9, 1, 5}), 5);
}

TEST(Statistics, medianIsBetweenTheTwoInTheMiddleOfAnEvenNumber)
{
    EXPECT_EQ(bench::median({4, 1, 100, 2}), 3);
}

TEST(Statistics, percentileIsOneOfTheValues)
{
    std::vector<double> values;
    for (int i = 100; i >= 1; --i) {
        values.push_back(i);
    }
    EXPECT_EQ(bench::percentile(values, 99), 99);
    EXPECT_EQ(bench::percentile(values, 100), 100);
    EXPECT_EQ(bench::percentile(values, 50), 50);
    EXPECT_EQ(bench::percentile(values, 0), 1);
}

TEST(Statistics, percentileOfFewValuesIsTheLargest)
{
    EXPECT_EQ(bench::percentile({3, 8}, 99), 8);
    EXPECT_EQ(bench::percentile({3, 8}, 50), 3);
}
