#include "commonlibc/vxlb_tdigest.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <random>
#include <vector>

namespace vx::test {
namespace {

using Values = std::vector<std::int64_t>;

std::unique_ptr<VXDigest> digestOf(const Values& values) {
    auto digest = std::make_unique<VXDigest>();
    vxDigestClear(*digest);
    for (const std::int64_t value : values) vxDigestAdd(*digest, value);
    return digest;
}

// How far the part of the values below `answer` is from `q`; equal values may lie on either side.
double rankError(const Values& sorted, double answer, double q) {
    const auto part = [&](auto at) {
        return static_cast<double>(at - sorted.begin()) / static_cast<double>(sorted.size());
    };
    const auto less = [](double a, double b) { return a < b; };
    const double below = part(std::lower_bound(sorted.begin(), sorted.end(), answer, less));
    const double upTo = part(std::upper_bound(sorted.begin(), sorted.end(), answer, less));
    return std::max({0.0, below - q, q - upTo});
}

TEST(TDigest, QuantilesAreCloseToTheExactOnesWhateverTheDistributionAndTheOrder) {
    std::mt19937 random(7);
    std::lognormal_distribution<double> skewed(4, 1.5);
    std::exponential_distribution<double> rare(0.001);
    Values uniform, lognormal, exponential, twoPeaks, few, rising;
    for (int i = 0; i < 100000; ++i) {
        uniform.push_back(static_cast<std::int64_t>(random() % 1000000));
        lognormal.push_back(static_cast<std::int64_t>(skewed(random)));
        exponential.push_back(static_cast<std::int64_t>(rare(random)));
        twoPeaks.push_back(i % 10 ? 5 + i % 3 : 30000 + static_cast<std::int64_t>(random() % 1000));
        few.push_back(i % 4);
        rising.push_back(i);
    }
    const struct {
        const char* name;
        Values values;
    } rows[] = {
        {"uniform", uniform},
        {"lognormal", lognormal},
        {"exponential", exponential},
        {"two peaks", twoPeaks},
        {"few values", few},
        {"rising", rising},
        {"falling", Values(rising.rbegin(), rising.rend())},
        {"less than a buffer", Values(lognormal.begin(), lognormal.begin() + 200)},
        {"three", {30, 10, 20}},
    };
    for (const auto& row : rows) {
        const auto digest = digestOf(row.values);
        Values sorted = row.values;
        std::sort(sorted.begin(), sorted.end());
        EXPECT_EQ(vxDigestCount(*digest), std::int64_t(row.values.size()));
        EXPECT_TRUE(digest->min == sorted.front() && digest->max == sorted.back()) << row.name;
        double former = 0;
        for (const double q : {0.0, 0.001, 0.01, 0.1, 0.25, 0.5, 0.75, 0.9, 0.95, 0.99, 0.999, 1.0}) {
            const double answer = vxDigestQuantile(*digest, q);
            const double allowed =
                0.5 / static_cast<double>(sorted.size()) + (q < 0.01 || q > 0.98 ? 0.001 : 0.01);
            EXPECT_LE(rankError(sorted, answer, q), allowed) << row.name << " at " << q << ": " << answer;
            EXPECT_GE(answer, former) << row.name << " at " << q;
            former = answer;
        }
        EXPECT_EQ(former, static_cast<double>(sorted.back())) << row.name;
    }
}

TEST(TDigest, EveryInputStaysWithinTheCentroids) {
    std::mt19937_64 random(3);
    VXDigest digest;
    vxDigestClear(digest);
    for (int i = 0; i < 300000; ++i) {
        // Values of all sizes, of 64 bits and negative ones among them.
        vxDigestAdd(digest, static_cast<std::int64_t>(random()) >> (random() % 64));
        if (i % 1000 == 0) vxDigestMerge(digest, *digestOf({i, 2 * i, INT64_MAX, INT64_MIN}));
        ASSERT_LE(digest.centroidCount, kDigestCentroids);
    }
    EXPECT_TRUE(digest.min == 0 && digest.max == INT32_MAX);
    std::int64_t weight = 0;
    for (int i = 0; i < digest.centroidCount; ++i) {
        weight += digest.centroids[i].weight;
        EXPECT_TRUE(i == 0 || digest.centroids[i].mean >= digest.centroids[i - 1].mean) << i;
    }
    EXPECT_EQ(weight, digest.merged);
    EXPECT_EQ(vxDigestCount(digest), 300000 + 300 * 4);
}

}  // namespace
}  // namespace vx::test
