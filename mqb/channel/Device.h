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
#include "backends/Backend.h"
#include "DeviceData.h"
#include "DeviceTable.h"
#include "Metrics.h"
#include "channel/SenseTally.h"

namespace mqb {

// The command counters one channel keeps for one device. Only that channel's
// thread writes them, with a plain load and store (no locked instruction on
// the command path); stats() sums every channel's set from any thread.
struct ChannelCounters {
    using Counter = std::atomic<uint64_t>;
    Counter commands{0}, reads{0}, writes{0}, wrvs{0}, verifies{0}, other{0};
    Counter blocksRead{0}, blocksWritten{0}, errors{0};
    Counter atDevice{0};  // the channel's commands at the device now
    SenseTally sense;     // failed commands by sense key / ASC / ASCQ
    bool inUse = false;   // owned by a channel; the device's lock_ guards it

    static void bump(Counter& c, uint64_t n = 1) {
        c.store(c.load(std::memory_order_relaxed) + n, std::memory_order_relaxed);
    }
    // Adds this channel's command and block counts to `out`, any type with
    // the same field names (DeviceStats, DeviceMetrics).
    template <class Sums>
    void addTo(Sums& out) const {
        auto ld = [](const Counter& c) { return c.load(std::memory_order_relaxed); };
        out.commands += ld(commands);
        out.reads += ld(reads);
        out.writes += ld(writes);
        out.wrvs += ld(wrvs);
        out.verifies += ld(verifies);
        out.other += ld(other);
        out.blocksRead += ld(blocksRead);
        out.blocksWritten += ld(blocksWritten);
        out.errors += ld(errors);
    }
};

class Device {
public:
    Device(std::string deviceText, std::unique_ptr<Backend> backend);

    // What admit() decided about a command.
    enum class Admit {
        Pass,      // goes on to the backend's queue
        Answered,  // a fault rule answered it: `out` is its completion
        Refused,   // the send is refused: `out` holds the status and sense
    };

    // Takes one command in, in front of every backend: counts it in the
    // calling channel's counters, traces it and applies the first fault rule
    // that fires. With no trace and no faults it takes no lock and does not
    // allocate. Given `delayUs`, a delay rule that fires adds its delay there
    // and the command passes on (the channel holds its completion back).
    // Inline up to the trace and the faults: it runs once per command.
    Admit admit(const Command& cmd, uint32_t tag, Outcome& out, ChannelCounters& mine,
                uint32_t* delayUs = nullptr) {
        using C = ChannelCounters;
        C::bump(mine.commands);
        switch (cmd.opcode) {
        case scsi::kRead10: C::bump(mine.reads); C::bump(mine.blocksRead, cmd.tl); break;
        case scsi::kWrite10: C::bump(mine.writes); C::bump(mine.blocksWritten, cmd.tl); break;
        case scsi::kWriteVerify10: C::bump(mine.wrvs); C::bump(mine.blocksWritten, cmd.tl); break;
        case scsi::kVerify10: C::bump(mine.verifies); break;
        default: C::bump(mine.other); break;
        }
        if (slowPath_.load(std::memory_order_acquire))
            return traceAndFault(cmd, tag, out, mine, delayUs);
        return Admit::Pass;
    }

    // A counter set for one channel (a free one reused, else a new one that
    // lives as long as the device); the channel gives it back when it goes.
    ChannelCounters* attachChannel();
    void detachChannel(ChannelCounters* c);

    // Bookkeeping of commands at the device (handed to it and not yet
    // collected back), kept per channel; enter() sums every channel's count
    // for the device's peak. Neither takes a lock or a locked instruction
    // (the peak's compare-and-swap runs only when a new peak is seen).
    void enter(ChannelCounters& mine, uint64_t n) {
        ChannelCounters::bump(mine.atDevice, n);
        if (nTracked_.load(std::memory_order_acquire) == 1) {  // this channel alone: no sum
            const uint64_t now = mine.atDevice.load(std::memory_order_relaxed);
            if (now > maxOutstanding_.load(std::memory_order_relaxed)) raisePeak(now);
        } else {
            raisePeak(sumAtDevice());
        }
    }
    void leave(ChannelCounters& mine, uint64_t n) { ChannelCounters::bump(mine.atDevice, uint64_t(0) - n); }

    Backend& backend() { return *backend_; }
    // Data verification and latency state (data mode, journal, histograms).
    DeviceData& data() { return data_; }
    const DeviceData& data() const { return data_; }
    const std::string& deviceText() const { return deviceText_; }
    bool locked() const { return locked_.load(std::memory_order_relaxed); }
    // The CDB form the device text forces on data commands: 10, 16, or 0 for
    // whichever carries each command.
    int cdbForm() const { return cdbForm_; }
    void setCdbForm(int form) { cdbForm_ = form; }
    void setLocked(bool v) { locked_.store(v, std::memory_order_relaxed); }

    // The queue a channel opened last ("io_uring", "sync", ...), or why the
    // last opening failed (empty when it did not). Set once per channel and
    // device, not per command.
    void noteQueueOpened(const char* kind);
    void noteQueueFailed(const std::string& why);
    std::string queueKind() const;
    std::string queueError() const;

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
    // The counters summed over every channel, read without taking lock_ (which
    // the command path takes while faults or a trace are set): for monitoring.
    void metrics(DeviceMetrics& out) const;

private:
    using Counter = std::atomic<uint64_t>;
    // admit() with a trace or fault rules set: under lock_.
    Admit traceAndFault(const Command& cmd, uint32_t tag, Outcome& out, ChannelCounters& mine,
                        uint32_t* delayUs);
    // The commands at the device over every tracked channel.
    uint64_t sumAtDevice() const;
    // Makes `now` the peak when it is above it.
    void raisePeak(uint64_t now);
    bool applyFaults(const Command& cmd, Outcome& out, bool& refused, uint32_t* delayUs);  // lock_ held
    void updateSlowPath();                                              // lock_ held

    std::string deviceText_;
    std::unique_ptr<Backend> backend_;
    std::atomic<bool> locked_{false};
    int cdbForm_ = 0;  // set once, before the device is in the table
    DeviceData data_;

    std::vector<std::unique_ptr<ChannelCounters>> channels_;  // lock_ held to change
    // The same sets, for enter() to read without the lock: published once
    // each, never moved. Channels past the first kTracked at once are not in
    // the peak.
    static constexpr int kTracked = 256;
    std::atomic<ChannelCounters*> tracked_[kTracked] = {};
    std::atomic<int> nTracked_{0};
    Counter maxOutstanding_{0};
    std::atomic<bool> queueing_{false}, fastReads_{false};
    std::atomic<int> maxDepth_{0}, dataMode_{0};

    // Set while a trace runs or a fault rule exists: only then does submit()
    // take lock_.
    std::atomic<bool> slowPath_{false};
    mutable std::mutex lock_;
    std::vector<FaultRule> faults_;
    int nextFaultId_ = 1;
    bool tracing_ = false;
    uint64_t traceLimit_ = 0;
    std::vector<TraceEntry> trace_;
    const char* queueKind_ = nullptr;  // lock_ held; null until a queue opened
    std::string queueError_;           // lock_ held
};

// The device at `idx`, or null. Devices stay valid for the life of the
// process (clearAllDevices retires them without freeing).
Device* deviceAt(int idx);

// deviceAt, setting `err` to "no device IDX" when there is none.
Device* deviceAt(int idx, std::string& err);

// Runs `f` on device idx; false when there is no such device.
template <typename F>
bool withDevice(int idx, F&& f) {
    Device* d = deviceAt(idx);
    if (d) f(*d);
    return d != nullptr;
}

}  // namespace mqb
