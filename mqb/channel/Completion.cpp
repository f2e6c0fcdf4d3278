// Completion.cpp: the completion engine of an MQB channel. Sends since the
// last receive are handed to each device in one commit; completions are
// reaped from the lanes' queues in batches onto the ready ring, in the order
// the devices finished them. On the way the latency recorder takes each
// command's latency and the data checker checks what came back; a VERIFY or
// WRITE AND VERIFY the checker judges goes back into the same queue as a READ
// of its blocks, and a completion a delay fault rule picked is held until its
// time has passed.
#include <cstdint>
#include "channel/Channel.h"
#include "MQBErr.h"
#include "latency/SteadyClock.h"

using mqb::kPollNs;
using mqb::kQueueCap;
using Lane = mqb::Lane;
using Slot = mqb::Slot;

// The lane of device `d`, opening its queue the first time. Null when the
// device gives no queue.
Lane* MQB::Impl::laneOf(mqb::Device* d) {
    for (auto& l : lanes)
        if (l->device == d) return l.get();
    std::string err;
    std::unique_ptr<mqb::Queue> q = d->backend().openQueue(kQueueCap, err);
    if (!q) {
        d->noteQueueFailed(err);
        return nullptr;
    }
    d->noteQueueOpened(q->kind());
    auto l = std::make_unique<Lane>();
    l->device = d;
    l->counters = d->attachChannel();
    l->queue = std::move(q);
    lanes.push_back(std::move(l));
    return lanes.back().get();
}

void MQB::Impl::commitAll() {
    for (auto& l : lanes) commitLane(*l, false);
}

// Reaps what lane `l` has finished (at least `min`, waiting up to
// `timeoutNs`) onto the ready ring.
void MQB::Impl::reapLane(Lane& l, int min, int64_t timeoutNs) {
    commitLane(l, true);
    const int n = l.queue->reap(tokens, min, kQueueCap, timeoutNs);
    if (n < 0) {
        failLane(l, n);
        return;
    }
    uint64_t now = 0;
    int again = 0;  // read-backs sent to the same queue
    for (int i = 0; i < n; ++i) {
        Slot& s = slots[tokens[i]];
        s.lane = nullptr;
        if (s.tk.rec >= 0 && !s.readBack) {
            // A VERIFY or WRITE AND VERIFY under keyed compare goes back to
            // the device for its blocks before it counts as done.
            mqb::Command rc;
            mqb::Outcome* rcOut = nullptr;
            if (data.readBackCommand(*s.dev, s.out, s.tk, rc, rcOut)) {
                if (l.queue->submit(rc, rcOut, tokens[i]) == MQB_OK) {
                    s.lane = &l;
                    s.readBack = true;
                    ++again;
                    continue;
                }
                data.cancelReadBack(s.tk);
            }
        }
        if (s.tk.delayUs == 0) {
            complete(int(tokens[i]));
            continue;
        }
        // A delay fault rule picked it: held from now for the rule's time, at
        // most for the device's command time-out. A longer delay ends as a
        // real device's silence would: a time-out, when the time-out is up.
        if (now == 0) now = mqb::steadyNs();
        const uint64_t limit = uint64_t(l.device->backend().commandTimeoutSec()) * 1000000000ULL;
        uint64_t hold = uint64_t(s.tk.delayUs) * 1000;
        if (hold > limit) {
            hold = limit;
            s.out.status = MQB_ERR_TIMEOUT;
            s.out.senseLen = 0;
        }
        s.holdUntil = now + hold;
        delayed[nDelayed++] = int(tokens[i]);
    }
    l.atDevice -= n;
    inQueues -= n;
    l.device->leave(*l.counters, uint64_t(n));
    if (again > 0) {  // rarely: keeps the usual path free of these stores and loads
        l.uncommitted += again;
        uncommitted += again;
        inQueues += again;
    }
}

// The lane's transport can no longer be waited on: every command it holds
// completes with `status`.
void MQB::Impl::failLane(Lane& l, int status) {
    for (int i = 0; i < kQueueCap; ++i) {
        Slot& s = slots[i];
        if (s.lane != &l) continue;
        s.lane = nullptr;
        if (!s.readBack) {  // a read-back's command itself completed well
            s.out.status = status;
            s.out.senseLen = 0;
        }
        complete(i);
        --inQueues;
    }
    l.device->leave(*l.counters, uint64_t(l.atDevice));
    uncommitted -= l.uncommitted;
    l.atDevice = l.uncommitted = 0;
}

// Moves every held completion whose time has come to the ready ring.
void MQB::Impl::promoteDue() {
    const uint64_t now = mqb::steadyNs();
    for (int i = 0; i < nDelayed;) {
        if (slots[delayed[i]].holdUntil <= now) {
            complete(delayed[i]);
            delayed[i] = delayed[--nDelayed];
        } else {
            ++i;
        }
    }
}

// The time the first held completion is due (steady-clock ns); nDelayed > 0.
uint64_t MQB::Impl::earliestHold() const {
    uint64_t t = UINT64_MAX;
    for (int i = 0; i < nDelayed; ++i)
        if (slots[delayed[i]].holdUntil < t) t = slots[delayed[i]].holdUntil;
    return t;
}

// Fills the ready ring from the queues and the held completions, waiting for
// at least one. With one device busy this is one reap that blocks (until the
// first held completion is due, when there is one); with several, each is
// looked at in turn and waited on briefly.
int MQB::Impl::collect() {
    if (nDelayed == 0) {
        // The usual case, one device busy and nothing held: one blocking reap.
        Lane* busy = nullptr;
        int nBusy = 0;
        for (auto& l : lanes)
            if (l->atDevice + l->uncommitted > 0) busy = l.get(), ++nBusy;
        if (nBusy == 1) {
            // Loops only while read-backs went back to the queue.
            do {
                reapLane(*busy, 1, -1);
            } while (ready.empty() && nDelayed == 0 && busy->atDevice + busy->uncommitted > 0);
            if (!ready.empty()) return MQB_OK;
            if (nDelayed == 0) return MQB_ERR_IO;  // an unbounded reap that brought nothing back
        }
    }
    for (;;) {
        if (nDelayed > 0) promoteDue();
        if (!ready.empty()) return MQB_OK;
        int64_t wait = -1;  // how long a reap may block: until the next hold ends
        if (nDelayed > 0) {
            const uint64_t due = earliestHold(), now = mqb::steadyNs();
            wait = due > now ? int64_t(due - now) : 0;
        }
        Lane* busy = nullptr;
        int nBusy = 0;
        for (auto& l : lanes)
            if (l->atDevice + l->uncommitted > 0) busy = l.get(), ++nBusy;
        if (nBusy == 0) {
            if (nDelayed == 0) return MQB_ERR_IO;
            mqb::sleepUntilNs(earliestHold());
            continue;
        }
        if (nBusy == 1) {
            reapLane(*busy, 1, wait);
            if (wait < 0 && ready.empty() && nDelayed == 0 &&
                busy->atDevice + busy->uncommitted == 0)
                return MQB_ERR_IO;  // an unbounded reap that brought nothing back
            continue;
        }
        for (auto& l : lanes)
            if (l->atDevice + l->uncommitted > 0) reapLane(*l, 0, 0);
        if (!ready.empty()) continue;
        const int64_t poll = wait >= 0 && wait < kPollNs ? wait : kPollNs;
        for (auto& l : lanes) {
            if (l->atDevice + l->uncommitted == 0) continue;
            reapLane(*l, 1, poll);
            if (!ready.empty() || nDelayed > 0) break;
        }
    }
}
