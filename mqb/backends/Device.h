// Device.h: one entry of the process-wide device table: the backend that does
// the work plus what the table adds on top of every backend (lock flag,
// counters, fault rules, command trace). Private to libMQB.
#pragma once
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>
#include "Backend.h"
#include "DeviceData.h"
#include "DeviceTable.h"

namespace mqb {

class Device {
public:
    Device(std::string spec, std::unique_ptr<Backend> backend);

    // Takes one command in: counts it, traces it, applies the first fault rule
    // that fires, otherwise lets the backend carry it out into `out`. Returns
    // false when the command is refused (out then holds the -16 and its
    // sense); true when it was accepted and `out` is its completion. With no
    // trace and no faults it takes no lock and does not allocate. Given `io`,
    // a command the backend can run asynchronously is not executed: `io`
    // describes its I/O, `out` is left good, and the caller carries it out.
    // Given `delayUs`, a delay fault rule that fires adds its delay there
    // (the command still runs); it is left alone otherwise.
    bool submit(const Command& cmd, uint32_t tag, Outcome& out, IoRequest* io = nullptr,
                uint32_t* delayUs = nullptr);
    // Counts an error found after submit() (a failed asynchronous I/O).
    void noteError() { bump(errors_); }

    // Bookkeeping of commands in flight across every channel, for the peak.
    void enter();
    void leave() { inFlight_.fetch_sub(1, std::memory_order_relaxed); }

    Backend& backend() { return *backend_; }
    // Data verification and latency state (data mode, journal, histograms).
    DeviceData& data() { return data_; }
    const DeviceData& data() const { return data_; }
    const std::string& spec() const { return spec_; }
    bool locked() const { return locked_.load(std::memory_order_relaxed); }
    void setLocked(bool v) { locked_.store(v, std::memory_order_relaxed); }

    // The states the last ioctls of any channel left on the device.
    void noteQueueing(bool on) { queueing_.store(on, std::memory_order_relaxed); }
    void noteMaxDepth(int d) { maxDepth_.store(d, std::memory_order_relaxed); }
    void noteFastReads(bool on) { fastReads_.store(on, std::memory_order_relaxed); }
    void noteDataMode(int m) { dataMode_.store(m, std::memory_order_relaxed); }

    int  addFault(const FaultRule& rule);
    void clearFaults();
    void listFaults(std::vector<FaultRule>& out);
    void stats(DeviceStats& out) const;
    void traceStart(uint64_t limit);
    void traceStop();
    void traceGet(std::vector<TraceEntry>& out);
    void traceClear();
    void reset();

private:
    using Counter = std::atomic<uint64_t>;
    static void bump(Counter& c, uint64_t n = 1) { c.fetch_add(n, std::memory_order_relaxed); }
    bool applyFaults(const Command& cmd, Outcome& out, bool& refused, uint32_t* delayUs);  // lock_ held
    void updateSlowPath();                                              // lock_ held

    std::string spec_;
    std::unique_ptr<Backend> backend_;
    std::atomic<bool> locked_{false};
    DeviceData data_;

    Counter commands_{0}, reads_{0}, writes_{0}, wrvs_{0}, verifies_{0}, other_{0};
    Counter blocksRead_{0}, blocksWritten_{0}, errors_{0};
    Counter inFlight_{0}, maxOutstanding_{0};
    std::atomic<bool> queueing_{false}, fastReads_{false};
    std::atomic<int> maxDepth_{0}, dataMode_{0};

    // Set while a trace runs or a fault rule exists: only then does submit()
    // take lock_.
    std::atomic<bool> slowPath_{false};
    std::mutex lock_;
    std::vector<FaultRule> faults_;
    int nextFaultId_ = 1;
    bool tracing_ = false;
    uint64_t traceLimit_ = 0;
    std::vector<TraceEntry> trace_;
};

// The device at `idx`, or null. Devices stay valid for the life of the
// process (clearAllDevices retires them without freeing).
Device* deviceAt(int idx);

}  // namespace mqb
