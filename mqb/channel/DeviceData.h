// DeviceData.h: the per-device state of data verification and latency that
// sits beside a device's backend: the data mode, the write sequence counter,
// the write tracker and lost-write journal, the miscompare counters, and the
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
    static constexpr uint64_t kDefaultJournalMax = UINT64_MAX;
    // What a bad block was found to be.
    enum Damage { kStale = 0, kWrongLba = 1, kTorn = 2, kUnstamped = 3, kDamageKinds = 4 };

    // One channel's histograms. Owned by the device; a channel borrows one
    // while it has the device selected, and a released set keeps its counts
    // (and is handed to the next channel), so nothing needs folding.
    struct LatencySet {
        LatencyHistogram kind[kKinds];
        bool inUse = false;
    };

    // Set once, when the device is added: the journal size limit in bytes
    // (two per block), whether the backend gives back the data written
    // (a simulated disk without a store does not: nothing is checked), and
    // whether latency is recorded from the start.
    void configure(uint64_t journalMax, bool carriesData, bool recordLatency);
    bool journalAllowed(uint64_t blocks) const { return blocks <= journalMax_ / 2; }
    // Keeps the journal in the file at `path` (see WriteJournal), opened now
    // for a device of geometry `g` named by `identity`; an empty path keeps
    // it in memory, made when first needed. False with `err`.
    bool setJournalFile(const std::string& path, const std::string& identity, const Geometry& g,
                        std::string& err);
    bool carriesData() const { return carriesData_; }

    // Data mode of ioctl 118. Turning keyed compare on for the first time
    // makes the write tracker and (within the limit) the journal. Returns
    // MQB_OK; kNoJournal the one time the journal cannot be had (the mode is
    // set, writes are checked without it); MQB_ERR_NO_MEMORY, mode
    // unchanged, when the tracker cannot be allocated.
    static constexpr int kNoJournal = 1;
    int setMode(int mode, const Geometry& g);
    int mode() const { return mode_.load(std::memory_order_relaxed); }

    WriteTracker* tracker() const { return tracker_.load(std::memory_order_acquire); }
    WriteJournal* journal() const { return journal_.load(std::memory_order_acquire); }
    // A fresh write sequence. With a journal file, sequences are reserved
    // there in batches before use, so a later process never reissues one.
    uint64_t nextSeq() {
        const uint64_t s = seq_.fetch_add(1, std::memory_order_relaxed);
        if ((s & (kSeqBatch - 1)) == 0)
            if (WriteJournal* j = journal()) j->reserveSeq(s + kSeqBatch);
        return s;
    }

    void noteMiscompare(Damage d) {
        miscompares_.fetch_add(1, std::memory_order_relaxed);
        damage_[d].fetch_add(1, std::memory_order_relaxed);
    }
    uint64_t miscompares() const { return miscompares_.load(std::memory_order_relaxed); }
    uint64_t damage(Damage d) const { return damage_[d].load(std::memory_order_relaxed); }
    void resetCounters() {
        miscompares_.store(0, std::memory_order_relaxed);
        for (auto& c : damage_) c.store(0, std::memory_order_relaxed);
    }

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
    // The journal's block counts; false with `err` when there is none.
    bool journalCounts(WriteJournal::Counts& c, std::string& path, std::string& err);

private:
    static constexpr uint64_t kSeqBatch = 1024;
    // Makes the tracker and, when allowed, the journal. Returns MQB_OK,
    // kNoJournal with `err` when the journal cannot be had, or
    // MQB_ERR_NO_MEMORY when the tracker cannot. lock_ held.
    int ensureTracking(const Geometry& g, std::string& err);
    std::string noJournalReason(const Geometry& g) const;

    uint64_t journalMax_ = kDefaultJournalMax;
    bool carriesData_ = true;
    std::atomic<int> mode_{0};
    std::atomic<uint64_t> seq_{1};
    std::atomic<uint64_t> miscompares_{0};
    std::atomic<uint64_t> damage_[kDamageKinds] = {};
    std::string identity_, journalPath_;
    bool journalFailed_ = false;  // the keys are checked without a journal
    std::string journalError_;    // why
    std::atomic<bool> latencyOn_{false};

    std::mutex lock_;
    std::unique_ptr<WriteTracker> trackerOwner_;
    std::unique_ptr<WriteJournal> journalOwner_;
    std::atomic<WriteTracker*> tracker_{nullptr};
    std::atomic<WriteJournal*> journal_{nullptr};
    std::vector<std::unique_ptr<LatencySet>> latency_;
};

}  // namespace mqb
