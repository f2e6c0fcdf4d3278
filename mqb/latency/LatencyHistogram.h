// LatencyHistogram.h: a fixed-size, log-linear latency histogram in
// nanoseconds: values below 256 ns each have a bucket, and every power of two
// above is split into 128 buckets, so a bucket is at most 0.8% wide, up to
// about 9 minutes (longer values land in the last bucket). One thread
// records (no lock, no allocation, relaxed atomics so others may read or
// reset it at any time); readers add histograms into a Summary.
#pragma once
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace mqb {

class LatencyHistogram {
public:
    static constexpr int kSubBits = 7;
    static constexpr int kBuckets = 4096;

    // The bucket of a value, and the first value of a bucket and its width.
    static int bucketOf(uint64_t ns);
    static uint64_t bucketLow(int b);
    static uint64_t bucketWidth(int b);

    // Adds one sample. Only one thread may call it at a time.
    void record(uint64_t ns) {
        bump(buckets_[bucketOf(ns)], 1);
        bump(count_, 1);
        bump(sum_, ns);
        if (ns < min_.load(std::memory_order_relaxed)) min_.store(ns, std::memory_order_relaxed);
        if (ns > max_.load(std::memory_order_relaxed)) max_.store(ns, std::memory_order_relaxed);
    }
    // Zeroes it (a sample recorded at the same moment may survive).
    void reset();

    // A merged, plain copy to compute figures from.
    struct Summary {
        std::vector<uint64_t> buckets = std::vector<uint64_t>(kBuckets, 0);
        uint64_t count = 0, sum = 0, min = UINT64_MAX, max = 0;
        // The value (ns) at or below which a fraction `q` of the samples lie,
        // as the middle of its bucket held within [min, max]; 0 when empty.
        double percentile(double q) const;
        double mean() const { return count ? double(sum) / double(count) : 0.0; }
    };
    void addTo(Summary& s) const;

private:
    using Cell = std::atomic<uint64_t>;
    // Single writer: a load and a store, no locked instruction.
    static void bump(Cell& c, uint64_t n) {
        c.store(c.load(std::memory_order_relaxed) + n, std::memory_order_relaxed);
    }
    Cell buckets_[kBuckets] = {};
    Cell count_{0}, sum_{0}, min_{UINT64_MAX}, max_{0};
};

}  // namespace mqb
