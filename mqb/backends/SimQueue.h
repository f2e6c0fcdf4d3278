// SimQueue.h: a channel's queue to a simulated disk. The disk decides each
// command's outcome when it is submitted; the queue holds it until it is due
// (commit time plus the disk's latency) and hands completions back in order.
#pragma once
#include <cstdint>
#include <memory>
#include "IndexRing.h"
#include "Queue.h"

namespace mqb {

class SimDisk;

class SimQueue : public Queue {
public:
    SimQueue(SimDisk& disk, int depth);
    int submit(const Command& cmd, Outcome* out, uint64_t token) override;
    int commit() override;
    // Sleeps until the earliest command is due when fewer than `min` are.
    int reap(uint64_t* tokens, int min, int max, int64_t timeoutNs) override;
    int outstanding() const override { return ring_.size(); }
    const char* kind() const override { return "sim"; }

private:
    struct Entry {
        uint64_t token;
        uint64_t due;  // steady-clock ns; set by commit
        bool     capacity;  // a READ CAPACITY(10) answered GOOD: tells the disk when reaped
    };
    // Hands back the entry at head_ and drops it from the ring.
    uint64_t popHead();
    [[gnu::noinline]] int reapDue(uint64_t* tokens, int min, int max, int64_t timeoutNs);
    SimDisk& disk_;
    const uint64_t latencyNs_;
    IndexRing<Entry> ring_;  // oldest first
    int committed_ = 0;      // the first `committed_` entries have a due time
};

}  // namespace mqb
