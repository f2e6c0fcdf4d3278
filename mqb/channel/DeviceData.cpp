// DeviceData.cpp: per-device verification and latency state.
#include "DeviceData.h"
#include <new>
#include "MQB.h"
#include "MQBErr.h"

namespace mqb {

void DeviceData::configure(uint64_t journalMax, bool carriesData, bool recordLatency) {
    journalMax_ = journalMax;
    carriesData_ = carriesData;
    latencyOn_.store(recordLatency, std::memory_order_relaxed);
}

std::string DeviceData::noJournalReason(const Geometry& g) const {
    return !carriesData_ ? "the device keeps no data, so it has no journal"
           : !journalAllowed(g.blocks) ? "the device is larger than its journalmax, so it has no journal"
           : g.blocks == 0 ? "the device reports no blocks yet, so it has no journal"
                           : "the device has no journal yet (no keyed-compare run)";
}

// Memory that cannot be had is an answer, not an abort: no tracker means no
// keyed compare at all; no journal means the device is checked without one.
int DeviceData::ensureTracking(const Geometry& g, std::string& err) {
    try {
        if (!trackerOwner_) {
            trackerOwner_ = std::make_unique<WriteTracker>();
            tracker_.store(trackerOwner_.get(), std::memory_order_release);
        }
    } catch (const std::bad_alloc&) {
        return MQB_ERR_NO_MEMORY;
    }
    if (journalOwner_ || g.blocks == 0 || !carriesData_ || !journalAllowed(g.blocks)) return MQB_OK;
    try {
        journalOwner_ = WriteJournal::open(g.blocks, g.blockSize, identity_, journalPath_, err);
    } catch (const std::bad_alloc&) {
        err = "there is no memory for the device's journal";
    }
    if (!journalOwner_) return kNoJournal;
    // Continue after every sequence an earlier process may have used.
    const uint64_t saved = (journalOwner_->savedSeq() + kSeqBatch - 1) / kSeqBatch * kSeqBatch;
    uint64_t cur = seq_.load(std::memory_order_relaxed);
    while (cur < saved && !seq_.compare_exchange_weak(cur, saved, std::memory_order_relaxed)) {
    }
    journalOwner_->reserveSeq(seq_.load(std::memory_order_relaxed));
    journal_.store(journalOwner_.get(), std::memory_order_release);
    return MQB_OK;
}

bool DeviceData::setJournalFile(const std::string& path, const std::string& identity,
                                const Geometry& g, std::string& err) {
    std::lock_guard<std::mutex> l(lock_);
    identity_ = identity;
    journalPath_ = path;
    if (path.empty()) return true;
    if (!carriesData_) {
        err = "the device keeps no data, so it has no journal";
        return false;
    }
    if (g.blocks == 0) {
        err = "the device reports no blocks, so it has no journal";
        return false;
    }
    std::string e;
    if (ensureTracking(g, e) != MQB_OK || !journalOwner_) {
        err = e.empty() ? noJournalReason(g) : e;
        return false;
    }
    return true;
}

int DeviceData::setMode(int mode, const Geometry& g) {
    int rc = MQB_OK;
    if (mode == MQB_DATA_KEYED && carriesData_) {
        std::lock_guard<std::mutex> l(lock_);
        // A journal that cannot be had leaves the checks of the keys alone;
        // it is reported the first time and not tried again.
        if (!journalFailed_) {
            std::string err;
            rc = ensureTracking(g, err);
            if (rc == kNoJournal) journalFailed_ = true, journalError_ = err;
        } else if (!trackerOwner_) {
            std::string unused;
            rc = ensureTracking(g, unused) < 0 ? MQB_ERR_NO_MEMORY : MQB_OK;
        }
    }
    if (rc >= 0) mode_.store(mode, std::memory_order_relaxed);
    return rc;
}

DeviceData::LatencySet* DeviceData::acquireLatency() {
    std::lock_guard<std::mutex> l(lock_);
    for (auto& s : latency_)
        if (!s->inUse) {
            s->inUse = true;
            return s.get();
        }
    latency_.push_back(std::make_unique<LatencySet>());
    latency_.back()->inUse = true;
    return latency_.back().get();
}

void DeviceData::releaseLatency(LatencySet* s) {
    std::lock_guard<std::mutex> l(lock_);
    if (s) s->inUse = false;
}

void DeviceData::latencySummary(Kind k, LatencyHistogram::Summary& out) {
    std::lock_guard<std::mutex> l(lock_);
    for (auto& s : latency_) s->kind[k].addTo(out);
}

void DeviceData::resetLatency() {
    std::lock_guard<std::mutex> l(lock_);
    for (auto& s : latency_)
        for (auto& h : s->kind) h.reset();
}

bool DeviceData::saveJournal(const std::string& path, const Geometry& g, std::string& err) {
    std::lock_guard<std::mutex> l(lock_);
    if (!journalOwner_) {
        err = journalFailed_ ? journalError_ : noJournalReason(g);
        return false;
    }
    return journalOwner_->save(path, seq_.load(std::memory_order_relaxed), err);
}

bool DeviceData::loadJournal(const std::string& path, const Geometry& g, std::string& err) {
    std::lock_guard<std::mutex> l(lock_);
    if (!carriesData_ || !journalAllowed(g.blocks) || g.blocks == 0) {
        err = noJournalReason(g);
        return false;
    }
    const int rc = ensureTracking(g, err);
    if (rc == MQB_ERR_NO_MEMORY) err = "there is no memory for the device's write tracker";
    if (rc != MQB_OK) return false;
    uint64_t next = 0;
    if (!journalOwner_->load(path, next, err)) return false;
    // Continue after the saved sequence so new writes never reuse its values.
    uint64_t cur = seq_.load(std::memory_order_relaxed);
    while (cur < next && !seq_.compare_exchange_weak(cur, next, std::memory_order_relaxed)) {
    }
    return true;
}

bool DeviceData::journalCounts(WriteJournal::Counts& c, std::string& path, std::string& err) {
    std::lock_guard<std::mutex> l(lock_);
    if (!journalOwner_) {
        err = journalFailed_ ? journalError_ : "the device has no journal yet (no keyed-compare run)";
        if (!carriesData_) err = "the device keeps no data, so it has no journal";
        return false;
    }
    c = journalOwner_->counts();
    path = journalOwner_->path();
    return true;
}

}  // namespace mqb
