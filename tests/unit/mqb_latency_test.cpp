// mqb_latency_test.cpp: the latency histogram's precision, percentiles and
// merging (a reset through mqb latency is data-3.2 in tests/tcl).
#include <gtest/gtest.h>
#include <cmath>
#include "latency/LatencyHistogram.h"

using mqb::LatencyHistogram;

TEST(LatencyHistogram, BucketsAreContiguousAndWithinOnePercent) {
    int prev = -1;
    for (uint64_t v = 0; v < (uint64_t(1) << 38); v = v < 1000 ? v + 1 : v + v / 97) {
        const int b = LatencyHistogram::bucketOf(v);
        ASSERT_GE(b, prev) << v;
        ASSERT_LE(LatencyHistogram::bucketLow(b), v) << v;
        ASSERT_GT(LatencyHistogram::bucketLow(b) + LatencyHistogram::bucketWidth(b), v) << v;
        if (v >= 100) {
            ASSERT_LE(double(LatencyHistogram::bucketWidth(b)) / double(LatencyHistogram::bucketLow(b)), 0.01) << v;
        }
        if (b > 0) {
            ASSERT_EQ(LatencyHistogram::bucketLow(b - 1) + LatencyHistogram::bucketWidth(b - 1),
                      LatencyHistogram::bucketLow(b)) << v;
        }
        prev = b;
    }
    // 100 s still has its own bucket; far beyond lands in the last one.
    EXPECT_LT(LatencyHistogram::bucketOf(100000000000ULL), LatencyHistogram::kBuckets - 1);
    EXPECT_EQ(LatencyHistogram::bucketOf(UINT64_MAX), LatencyHistogram::kBuckets - 1);
}

TEST(LatencyHistogram, PercentilesAndMerge) {
    // Two channels: one with 1..10000 us, one with 5 samples of 1 s.
    LatencyHistogram a, b;
    for (uint64_t us = 1; us <= 10000; ++us) a.record(us * 1000);
    for (int i = 0; i < 5; ++i) b.record(1000000000);
    LatencyHistogram::Summary s;
    a.addTo(s);
    for (auto [p, want] : {std::pair{0.5, 5000e3}, {0.99, 9900e3}, {0.0, 1000.0}, {1.0, 10000e3}})
        EXPECT_NEAR(s.percentile(p), want, want * 0.005) << p;
    EXPECT_DOUBLE_EQ(s.mean(), 5000.5e3);
    b.addTo(s);
    EXPECT_EQ(std::make_pair(s.count, s.max), std::make_pair(uint64_t(10005), uint64_t(1000000000)));
    EXPECT_NEAR(s.percentile(0.9999), 1e9, 1e9 * 0.005) << "the rare slow commands show at 99.99";
    EXPECT_LT(s.percentile(0.999), 10000e3 + 1);

    EXPECT_EQ(LatencyHistogram::Summary().percentile(0.5), 0.0) << "no samples";
    LatencyHistogram one;
    LatencyHistogram::Summary r;
    one.record(1500);
    one.addTo(r);
    EXPECT_EQ(std::make_pair(r.min, r.percentile(0.5)), std::make_pair(uint64_t(1500), 1500.0)) << "a lone sample is itself";
}
