// DeviceData.cpp: per-device verification and latency state.
#include "DeviceData.h"
#include "MQB.h"

namespace mqb {

void DeviceData::configure(uint64_t journalMax, bool carriesData, bool recordLatency) {
    journalMax_ = journalMax;
    carriesData_ = carriesData;
    latencyOn_.store(recordLatency, std::memory_order_relaxed);
}

void DeviceData::ensureTracking(const Geometry& g) {
    if (!trackerOwner_) {
        trackerOwner_ = std::make_unique<WriteTracker>();
        tracker_.store(trackerOwner_.get(), std::memory_order_release);
    }
    if (!journalOwner_ && g.blocks > 0 && journalAllowed(g.blocks)) {
        journalOwner_ = std::make_unique<WriteJournal>(g.blocks, g.blockSize);
        journal_.store(journalOwner_.get(), std::memory_order_release);
    }
}

void DeviceData::setMode(int mode, const Geometry& g) {
    if (mode == MQB_DATA_KEYED && carriesData_) {
        std::lock_guard<std::mutex> l(lock_);
        ensureTracking(g);
    }
    mode_.store(mode, std::memory_order_relaxed);
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
        err = !carriesData_ ? "the device keeps no data, so it has no journal"
              : !journalAllowed(g.blocks) ? "the device is larger than its journalmax, so it has no journal"
                                          : "the device has no journal yet (no keyed-compare run)";
        return false;
    }
    return journalOwner_->save(path, g.blockSize, seq_.load(std::memory_order_relaxed), err);
}

bool DeviceData::loadJournal(const std::string& path, const Geometry& g, std::string& err) {
    std::lock_guard<std::mutex> l(lock_);
    if (!carriesData_) {
        err = "the device keeps no data, so it has no journal";
        return false;
    }
    if (!journalAllowed(g.blocks)) {
        err = "the device is larger than its journalmax, so it has no journal";
        return false;
    }
    ensureTracking(g);
    if (!journalOwner_) {
        err = "the device reports no blocks yet, so it has no journal";
        return false;
    }
    uint64_t next = 0;
    if (!journalOwner_->load(path, g.blockSize, next, err)) return false;
    // Continue after the saved sequence so new writes never reuse its values.
    uint64_t cur = seq_.load(std::memory_order_relaxed);
    while (cur < next && !seq_.compare_exchange_weak(cur, next, std::memory_order_relaxed)) {
    }
    return true;
}

}  // namespace mqb
