#include <apps/TALOClusterServer/Sampling.h>

#include <cmath>
#include <set>
#include <vector>

#include <gtest/gtest.h>

using namespace render;

TEST(Sampler, everyNumberIsAtLeastZeroAndBelowOne)
{
    for (std::uint32_t pixel = 0; pixel < 100; ++pixel) {
        for (std::uint32_t path = 0; path < 100; ++path) {
            Sampler sampler(pixel, 1000 - pixel, path);
            for (int question = 0; question < 10; ++question) {
                const Sampler::Pair pair = sampler.next();
                ASSERT_GE(pair.u, 0.0F);
                ASSERT_LT(pair.u, 1.0F);
                ASSERT_GE(pair.v, 0.0F);
                ASSERT_LT(pair.v, 1.0F);
            }
        }
    }
}

TEST(Sampler, samePixelAndPathGiveTheSameNumbers)
{
    Sampler one(17, 4, 9);
    Sampler other(17, 4, 9);
    for (int question = 0; question < 50; ++question) {
        const Sampler::Pair a = one.next();
        const Sampler::Pair b = other.next();
        EXPECT_EQ(a.u, b.u);
        EXPECT_EQ(a.v, b.v);
    }
}

TEST(Sampler, neighboursDoNotShareNumbers)
{
    std::set<float> numbers;
    for (std::uint32_t y = 0; y < 16; ++y) {
        for (std::uint32_t x = 0; x < 16; ++x) {
            numbers.insert(Sampler(x, y, 0).next().u);
        }
    }
    // 24-bit numbers of 256 pixels: a chance collision or two would not be an error.
    EXPECT_GE(numbers.size(), 254U);
}

TEST(Sampler, sixteenPathsFillEverySixteenthOfBothAxes)
{
    for (int question = 0; question < 6; ++question) {
        std::set<int> columns;
        std::set<int> rows;
        std::set<int> cells;
        for (std::uint32_t path = 0; path < 16; ++path) {
            Sampler sampler(31, 7, path);
            Sampler::Pair pair{};
            for (int i = 0; i <= question; ++i) {
                pair = sampler.next();
            }
            columns.insert(static_cast<int>(pair.u * 16.0F));
            rows.insert(static_cast<int>(pair.v * 16.0F));
            cells.insert(static_cast<int>(pair.u * 4.0F) * 4 + static_cast<int>(pair.v * 4.0F));
        }
        EXPECT_EQ(columns.size(), 16U) << "question " << question;
        EXPECT_EQ(rows.size(), 16U) << "question " << question;
        EXPECT_EQ(cells.size(), 16U) << "question " << question;
    }
}

TEST(Sampling, turnIsSineAndCosineOfAWholeTurn)
{
    for (int i = 0; i < 4096; ++i) {
        const float u = static_cast<float>(i) / 4096.0F;
        const Turn turn(u);
        const double angle = 2.0 * 3.14159265358979 * static_cast<double>(u);
        ASSERT_NEAR(turn.sine, std::sin(angle), 1e-6) << u;
        ASSERT_NEAR(turn.cosine, std::cos(angle), 1e-6) << u;
    }
}

TEST(Sampling, exponentialDecayIsTheExponentialFunction)
{
    for (int i = 0; i < 8000; ++i) {
        const float x = static_cast<float>(i) / 100.0F;
        const double expected = std::exp(-static_cast<double>(x));
        ASSERT_NEAR(exponentialDecay(x), expected, 1e-5 * expected) << x;
    }
    EXPECT_EQ(exponentialDecay(0.0F), 1.0F);
    EXPECT_EQ(exponentialDecay(80.0F), 0.0F);
    EXPECT_EQ(exponentialDecay(INFINITY), 0.0F);
    EXPECT_EQ(exponentialDecay(NAN), 0.0F);
}

TEST(Sampling, basisIsOrthonormalForEveryNormal)
{
    for (const Vector& direction :
         {Vector(0, 0, 1), Vector(0, 0, -1), Vector(1, 0, 0), Vector(0, -1, 0), Vector(1, 2, -3),
          Vector(-1e-6F, 1e-6F, -1), Vector(3, -1, 1e-8F)}) {
        const Basis basis(normalize(direction));
        EXPECT_NEAR(length(basis.tangent), 1.0F, 1e-5F);
        EXPECT_NEAR(length(basis.bitangent), 1.0F, 1e-5F);
        EXPECT_NEAR(dot(basis.tangent, basis.bitangent), 0.0F, 1e-5F);
        EXPECT_NEAR(dot(basis.tangent, basis.normal), 0.0F, 1e-5F);
        const Vector v(0.1F, -0.7F, 0.4F);
        EXPECT_NEAR(length(basis.toLocal(basis.toWorld(v)) - v), 0.0F, 1e-5F);
    }
}

TEST(Sampling, cosineDirectionsPointUpwardsAndAverageTwoThirds)
{
    double sum = 0.0;
    for (std::uint32_t path = 0; path < 4096; ++path) {
        const Vector v = sampleCosine(Sampler(1, 2, path).next());
        ASSERT_GE(v.z, 0.0F);
        ASSERT_NEAR(length(v), 1.0F, 1e-5F);
        sum += static_cast<double>(v.z);
    }
    EXPECT_NEAR(sum / 4096.0, 2.0 / 3.0, 1e-3);
}

TEST(Sampling, microfacetsReflectNoMoreLightThanArrives)
{
    // The reflected share of a white coat, estimated by its own samples: at most 1, and near 1 for
    // a smooth surface, where hardly any light is lost between the facets.
    for (const float roughness : {0.02F, 0.2F, 0.5F, 1.0F}) {
        for (const float height : {0.1F, 0.5F, 0.95F}) {
            const Microfacets facets(roughness);
            const Vector out(std::sqrt(1.0F - height * height), 0.0F, height);
            double sum = 0.0;
            const std::uint32_t paths = 4096;
            for (std::uint32_t path = 0; path < paths; ++path) {
                const Vector facet = facets.sample(out, Sampler(5, 5, path).next());
                const Vector in = facet * (2.0F * dot(out, facet)) - out;
                ASSERT_NEAR(length(facet), 1.0F, 1e-4F);
                if (in.z > 0.0F) {
                    sum += static_cast<double>(facets.reflect(out, in, facet) * in.z /
                                               facets.density(out, facet));
                }
            }
            EXPECT_LE(sum / paths, 1.001) << roughness << " " << height;
            EXPECT_GE(sum / paths, roughness < 0.3F ? 0.9 : 0.3) << roughness << " " << height;
        }
    }
}
