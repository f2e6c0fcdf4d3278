// Metrics.cpp: the devices' counters for monitoring, and the run figures the
// statistics pass publishes.
#include "Metrics.h"
#include <algorithm>
#include <atomic>
#include <cstring>
#include <tuple>
#include "channel/Device.h"

namespace mqb {

void Device::metrics(DeviceMetrics& out) const {
    auto ld = [](const Counter& c) { return c.load(std::memory_order_relaxed); };
    out = DeviceMetrics{};
    // The published channel sets, as enter() reads them: no lock.
    const int n = nTracked_.load(std::memory_order_acquire);
    for (int i = 0; i < n; ++i) {
        const ChannelCounters* c = tracked_[i].load(std::memory_order_relaxed);
        c->addTo(out);
        out.outstanding += ld(c->atDevice);  // each channel's count wraps alike: the sum is right
        c->sense.forEach([&](uint8_t key, uint8_t asc, uint8_t ascq, uint64_t count) {
            for (SenseCount& s : out.sense)
                if (s.key == key && s.asc == asc && s.ascq == ascq) {
                    s.count += count;
                    return;
                }
            out.sense.push_back(SenseCount{key, asc, ascq, count});
        });
    }
    // A reading taken between a channel's enter and leave may pass zero.
    if (int64_t(out.outstanding) < 0) out.outstanding = 0;
    out.maxOutstanding = ld(maxOutstanding_);
    out.miscompares = data_.miscompares();
    std::sort(out.sense.begin(), out.sense.end(), [](const SenseCount& a, const SenseCount& b) {
        return std::make_tuple(a.key, a.asc, a.ascq) < std::make_tuple(b.key, b.asc, b.ascq);
    });
}

bool deviceMetrics(int idx, DeviceMetrics& out) {
    const Device* d = deviceAt(idx);
    if (d) d->metrics(out);
    return d != nullptr;
}

namespace {

struct RunSlot {
    std::atomic<int> device{-1};  // -1: no report pass yet
    std::atomic<uint64_t> opsPerSec{0};
    std::atomic<uint32_t> mbBits{0};  // the float's bits
};

struct RunState {
    std::atomic<bool> running{false};
    std::atomic<int> elapsed{0};
    std::atomic<int> positions{0};
    RunSlot slots[kRunSlots];
};

RunState& run() {
    static RunState r;
    return r;
}

}  // namespace

void runBegin(int devices) {
    RunState& r = run();
    const int n = std::min(std::max(devices, 0), kRunSlots);
    for (int i = 0; i < kRunSlots; ++i) r.slots[i].device.store(-1, std::memory_order_relaxed);
    r.positions.store(n, std::memory_order_relaxed);
    r.elapsed.store(0, std::memory_order_relaxed);
    r.running.store(true, std::memory_order_relaxed);
}

void runEnd() { run().running.store(false, std::memory_order_relaxed); }

void runElapsed(int seconds) { run().elapsed.store(seconds, std::memory_order_relaxed); }

void runPass(int pos, int device, uint64_t opsPerSec, float mbPerSec) {
    if (pos < 0 || pos >= kRunSlots) return;
    RunSlot& s = run().slots[pos];
    uint32_t bits;
    std::memcpy(&bits, &mbPerSec, sizeof bits);
    s.opsPerSec.store(opsPerSec, std::memory_order_relaxed);
    s.mbBits.store(bits, std::memory_order_relaxed);
    s.device.store(device, std::memory_order_relaxed);
}

void runFigures(RunFigures& out) {
    RunState& r = run();
    out.running = r.running.load(std::memory_order_relaxed);
    out.elapsedSec = r.elapsed.load(std::memory_order_relaxed);
    out.devices.clear();
    const int n = r.positions.load(std::memory_order_relaxed);
    for (int i = 0; i < n; ++i) {
        const RunSlot& s = r.slots[i];
        const int dev = s.device.load(std::memory_order_relaxed);
        if (dev < 0) continue;
        const uint32_t bits = s.mbBits.load(std::memory_order_relaxed);
        float mb;
        std::memcpy(&mb, &bits, sizeof mb);
        out.devices.push_back(RunDeviceFigures{dev, s.opsPerSec.load(std::memory_order_relaxed), mb});
    }
}

}  // namespace mqb
