// LatencyHistogram.cpp: bucket arithmetic, merging and percentiles.
#include "LatencyHistogram.h"
#include <cstddef>

namespace mqb {

namespace {
constexpr uint64_t kSub = 1u << LatencyHistogram::kSubBits;  // buckets per power of two
}

int LatencyHistogram::bucketOf(uint64_t ns) {
    if (ns < 2 * kSub) return int(ns);
    const int msb = 63 - __builtin_clzll(ns);
    const int shift = msb - kSubBits;
    const uint64_t b = kSub * uint64_t(shift + 1) + ((ns >> shift) - kSub);
    return b < uint64_t(kBuckets) ? int(b) : kBuckets - 1;
}

uint64_t LatencyHistogram::bucketLow(int b) {
    if (uint64_t(b) < 2 * kSub) return uint64_t(b);
    const int shift = int(uint64_t(b) / kSub) - 1;
    return (uint64_t(b) % kSub + kSub) << shift;
}

uint64_t LatencyHistogram::bucketWidth(int b) {
    return uint64_t(b) < 2 * kSub ? 1 : uint64_t(1) << (uint64_t(b) / kSub - 1);
}

void LatencyHistogram::reset() {
    for (Cell& c : buckets_) c.store(0, std::memory_order_relaxed);
    count_.store(0, std::memory_order_relaxed);
    sum_.store(0, std::memory_order_relaxed);
    min_.store(UINT64_MAX, std::memory_order_relaxed);
    max_.store(0, std::memory_order_relaxed);
}

void LatencyHistogram::addTo(Summary& s) const {
    uint64_t n = 0;
    for (int b = 0; b < kBuckets; ++b) {
        const uint64_t v = buckets_[b].load(std::memory_order_relaxed);
        s.buckets[size_t(b)] += v;
        n += v;
    }
    // The buckets are the truth; the count may be a sample ahead of them.
    s.count += n;
    s.sum += sum_.load(std::memory_order_relaxed);
    const uint64_t lo = min_.load(std::memory_order_relaxed), hi = max_.load(std::memory_order_relaxed);
    if (n && lo < s.min) s.min = lo;
    if (n && hi > s.max) s.max = hi;
}

double LatencyHistogram::Summary::percentile(double q) const {
    if (count == 0) return 0.0;
    uint64_t want = uint64_t(q * double(count) + 0.999999);
    if (want == 0) want = 1;
    if (want > count) want = count;
    uint64_t seen = 0;
    for (int b = 0; b < kBuckets; ++b) {
        seen += buckets[size_t(b)];
        if (seen >= want) {
            double v = double(bucketLow(b)) + double(bucketWidth(b) - 1) / 2.0;
            if (v < double(min)) v = double(min);
            if (v > double(max)) v = double(max);
            return v;
        }
    }
    return double(max);
}

}  // namespace mqb
