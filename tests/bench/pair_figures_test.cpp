#include <gtest/gtest.h>

#include <cmath>

#include "bench/pair_figures.h"

namespace {

bench::throughput_result run(double uplinks_per_s, uint64_t uplinks, double cpu_s) {
    bench::throughput_result r;
    r.complete = true;
    r.uplinks = uplinks;
    r.uplinks_per_s = uplinks_per_s;
    r.consumer_cpu_s = cpu_s;
    return r;
}

TEST(PairFigures, MedianOfOddEvenAndNoValues) {
    EXPECT_DOUBLE_EQ(bench::median({3, 1, 2}), 2);
    EXPECT_DOUBLE_EQ(bench::median({4, 1, 3, 2}), 2.5);
    EXPECT_DOUBLE_EQ(bench::median({7}), 7);
    EXPECT_TRUE(std::isnan(bench::median({})));
}

// The machine slowed down during the second pair and sped up in the third: each pair's
// ratio still reads 0.75, while the ratio of the two medians (600 / 1000) would say 0.6.
TEST(PairFigures, RatiosAreTakenPerPairThenTheirMedian) {
    const std::vector<bench::throughput_result> passthrough{run(1000, 1000, 0.06), run(1200, 1000, 0.06),
                                                            run(800, 1000, 0.08)};
    const std::vector<bench::throughput_result> service{run(500, 1000, 0.30), run(900, 1000, 0.36),
                                                        run(600, 1000, 0.24)};
    const bench::pair_figures f = bench::pair_up(passthrough, service);
    ASSERT_EQ(f.ratios.size(), 3u);
    EXPECT_DOUBLE_EQ(f.ratios[0], 0.5);
    EXPECT_DOUBLE_EQ(f.ratios[1], 0.75);
    EXPECT_DOUBLE_EQ(f.ratios[2], 0.75);
    EXPECT_DOUBLE_EQ(f.ratio, 0.75);
    // CPU ms per uplink: pass-through 0.06, 0.06, 0.08; service 0.30, 0.36, 0.24.
    EXPECT_NEAR(f.cpu_ratios[0], 5.0, 1e-9);
    EXPECT_NEAR(f.cpu_ratios[1], 6.0, 1e-9);
    EXPECT_NEAR(f.cpu_ratios[2], 3.0, 1e-9);
    EXPECT_NEAR(f.cpu_ratio, 5.0, 1e-9);
    EXPECT_DOUBLE_EQ(f.passthrough_ups, 1000);
    EXPECT_DOUBLE_EQ(f.service_ups, 600);
    EXPECT_NEAR(f.passthrough_cpu_ms, 0.06, 1e-12);
    EXPECT_NEAR(f.service_cpu_ms, 0.30, 1e-12);
}

TEST(PairFigures, TheServiceAloneHasItsMediansButNoRatio) {
    const bench::pair_figures f = bench::pair_up({}, {run(400, 2000, 1.0), run(500, 2000, 1.2)});
    EXPECT_TRUE(f.ratios.empty());
    EXPECT_TRUE(std::isnan(f.ratio));
    EXPECT_TRUE(std::isnan(f.cpu_ratio));
    EXPECT_DOUBLE_EQ(f.service_ups, 450);
    EXPECT_NEAR(f.service_cpu_ms, 0.55, 1e-12);  // (0.5 + 0.6) / 2
}

TEST(PairFigures, ARunWithoutUplinksHasNoCpuPerUplink) {
    EXPECT_TRUE(std::isnan(bench::cpu_ms_per_uplink(run(0, 0, 0.5))));
    EXPECT_DOUBLE_EQ(bench::cpu_ms_per_uplink(run(100, 4000, 2.0)), 0.5);
}

}  // namespace
