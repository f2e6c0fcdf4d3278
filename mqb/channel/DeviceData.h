// DeviceData.h: the per-device state of data verification and latency that
// sits beside a device's backend: the data mode, the write sequence counter,
// the write tracker and lost-write journal, the miscompare counter, and the
// latency histograms of every channel that has used the device. Safe for
// several threads.
#pragma once
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>
#include "latency/LatencyHistogram.h"
#include "verify/WriteJournal.h"
#include "verify/WriteTracker.h"
#include "backends/Backend.h"

namespace mqb {

class DeviceData {
public:
    enum Kind { kRead = 0, kWrite = 1, kVerify = 2, kKinds = 3 };
    static constexpr uint64_t kDefaultJournalMax = uint64_t(256) << 20;

    // One channel's histograms. Owned by the device; a channel borrows one
    // while it has the device selected, and a released set keeps its counts
    // (and is handed to the next channel), so nothing needs folding.
    struct LatencySet {
        LatencyHistogram kind[kKinds];
        bool inUse = false;
    };

    // Set once, when the device is added: the journal size limit in bytes
    // (one byte per block), whether the backend gives back the data written
    // (a simulated disk without a store does not: nothing is checked), and
    // whether latency is recorded from the start.
    void configure(uint64_t journalMax, bool carriesData, bool recordLatency);
    bool journalAllowed(uint64_t blocks) const { return blocks <= journalMax_; }
    bool carriesData() const { return carriesData_; }

    // Data mode of ioctl 118. Turning keyed compare on for the first time
    // makes the write tracker and (within the limit) the journal.
    void setMode(int mode, const Geometry& g);
    int mode() const { return mode_.load(std::memory_order_relaxed); }

    WriteTracker* tracker() const { return tracker_.load(std::memory_order_acquire); }
    WriteJournal* journal() const { return journal_.load(std::memory_order_acquire); }
    uint64_t nextSeq() { return seq_.fetch_add(1, std::memory_order_relaxed); }

    void noteMiscompare() { miscompares_.fetch_add(1, std::memory_order_relaxed); }
    uint64_t miscompares() const { return miscompares_.load(std::memory_order_relaxed); }
    void resetCounters() { miscompares_.store(0, std::memory_order_relaxed); }

    bool latencyOn() const { return latencyOn_.load(std::memory_order_relaxed); }
    void setLatencyOn(bool on) { latencyOn_.store(on, std::memory_order_relaxed); }
    LatencySet* acquireLatency();
    void releaseLatency(LatencySet* s);
    // Every channel's samples of one kind since the last reset.
    void latencySummary(Kind k, LatencyHistogram::Summary& out);
    void resetLatency();

    // The journal to and from a file (see WriteJournal). Loading makes the
    // journal when there is none yet and continues the saved sequence.
    bool saveJournal(const std::string& path, const Geometry& g, std::string& err);
    bool loadJournal(const std::string& path, const Geometry& g, std::string& err);

private:
    void ensureTracking(const Geometry& g);  // lock_ held

    uint64_t journalMax_ = kDefaultJournalMax;
    bool carriesData_ = true;
    std::atomic<int> mode_{0};
    std::atomic<uint64_t> seq_{1};
    std::atomic<uint64_t> miscompares_{0};
    std::atomic<bool> latencyOn_{false};

    std::mutex lock_;
    std::unique_ptr<WriteTracker> trackerOwner_;
    std::unique_ptr<WriteJournal> journalOwner_;
    std::atomic<WriteTracker*> tracker_{nullptr};
    std::atomic<WriteJournal*> journal_{nullptr};
    std::vector<std::unique_ptr<LatencySet>> latency_;
};

}  // namespace mqb
