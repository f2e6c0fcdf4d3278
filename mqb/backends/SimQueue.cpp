// SimQueue.cpp: the simulated disk's queue. One disk has one latency, so
// commands fall due in the order they were committed: the queue is a plain
// ring, oldest first, and a reap never sorts.
#include "SimQueue.h"
#include "MQBErr.h"
#include "SimDisk.h"
#include "latency/SteadyClock.h"

namespace mqb {

// A disk with latency sleeps in every reap: the opening thread (the
// channel's, which reaps) gets a low timer slack so that the sleeps end on
// time.
SimQueue::SimQueue(SimDisk& disk, int depth)
    : disk_(disk), latencyNs_(uint64_t(disk.latencyUs()) * 1000),
      ring_(depth > 0 ? depth : 1) {
    if (latencyNs_ != 0) lowerTimerSlack();
}

// The disk answers now (data lands in the caller's buffer at once); only the
// completion waits for its due time.
int SimQueue::submit(const Command& cmd, Outcome* out, uint64_t token) {
    if (ring_.size() == ring_.capacity()) return MQB_ERR_QUEUE_FULL;
    disk_.execute(cmd, *out);
    ring_.push(Entry{token, 0, cmd.opcode == scsi::kReadCapacity10 && out->status == MQB_OK});
    return MQB_OK;
}

// Starts the latency of every command submitted since the last commit. Reads
// the clock only for a disk with latency.
int SimQueue::commit() {
    if (committed_ == ring_.size()) return MQB_OK;
    if (latencyNs_ != 0) {
        const uint64_t due = steadyNs() + latencyNs_;
        for (int i = committed_; i < ring_.size(); ++i) ring_.at(i).due = due;
    }
    committed_ = ring_.size();
    return MQB_OK;
}

uint64_t SimQueue::popHead() {
    const Entry e = ring_.pop();
    if (e.capacity) disk_.capacityRead();
    return e.token;
}

int SimQueue::reap(uint64_t* tokens, int min, int max, int64_t timeoutNs) {
    if (latencyNs_ != 0) return reapDue(tokens, min, max, timeoutNs);
    // Everything submitted is done: no due times, no clock, no wait.
    int n = 0;
    while (n < max && !ring_.empty()) tokens[n++] = popHead();
    committed_ = ring_.size();
    return n;
}

// A disk with latency: hands back what is due, sleeping until the earliest
// command is when fewer than `min` are. Kept apart so that the zero-latency
// reap above stays a short loop.
int SimQueue::reapDue(uint64_t* tokens, int min, int max, int64_t timeoutNs) {
    commit();
    if (min > max) min = max;
    int n = 0;
    const uint64_t start = steadyNs();
    const uint64_t deadline = timeoutNs < 0 ? UINT64_MAX : start + uint64_t(timeoutNs);
    uint64_t now = start;
    for (;;) {
        while (n < max && !ring_.empty() && ring_.front().due <= now) {
            tokens[n++] = popHead();
            --committed_;
        }
        if (n >= min || ring_.empty() || n == max || now >= deadline) break;
        const uint64_t wake = ring_.front().due < deadline ? ring_.front().due : deadline;
        sleepUntilNs(wake);
        now = steadyNs();
    }
    return n;
}

}  // namespace mqb
