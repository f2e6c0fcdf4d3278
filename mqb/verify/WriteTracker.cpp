// WriteTracker.cpp: the table of commands in flight and their race hulls.
#include "WriteTracker.h"

namespace mqb {

WriteTracker::WriteTracker() : entries_(new Entry[kEntries]) {}

void WriteTracker::mark(Entry& e, uint64_t t, uint64_t lo, uint64_t hi) {
    uint64_t cur = e.raceLo.load();
    while (lo < cur && !e.raceLo.compare_exchange_weak(cur, lo)) {
    }
    cur = e.raceHi.load();
    while (hi > cur && !e.raceHi.compare_exchange_weak(cur, hi)) {
    }
    // The hull is in place before the bit says so; a command that moved on
    // (tag changed) is left alone.
    uint64_t w = e.tag.load();
    while ((w | 1) == (t | 1) && !(w & 1) && !e.tag.compare_exchange_weak(w, w | 1)) {
    }
}

WriteTracker::Ticket WriteTracker::begin(uint64_t lba, uint64_t end, bool write) {
    Ticket tk;
    for (uint32_t i = 0; i < kEntries; ++i) {
        uint64_t free = 0;
        if (entries_[i].tag.load() == 0 && entries_[i].tag.compare_exchange_strong(free, kBusy)) {
            tk.slot = int32_t(i);
            break;
        }
    }
    if (tk.slot < 0) {
        untracked_.fetch_add(1);
        untrackedEpoch_.fetch_add(1);
        return tk;
    }
    tk.epoch = untrackedEpoch_.load();
    Entry& me = entries_[tk.slot];
    uint32_t used = used_.load();
    while (used < uint32_t(tk.slot) + 1 && !used_.compare_exchange_weak(used, uint32_t(tk.slot) + 1)) {
    }
    me.lo.store(lba);
    me.end.store(end);
    const uint64_t tag = (gen_.fetch_add(1) + 1) << 2 | (write ? 2 : 0);
    me.tag.store(tag);
    const uint32_t n = used_.load();
    for (uint32_t i = 0; i < n; ++i) {
        if (int32_t(i) == tk.slot) continue;
        Entry& o = entries_[i];
        const uint64_t t = o.tag.load();
        if (t == 0 || t == kBusy || (!write && !(t & 2))) continue;
        const uint64_t olo = o.lo.load(), oend = o.end.load();
        if ((o.tag.load() | 1) != (t | 1)) continue;  // moved on: it will see us
        const uint64_t lo = lba > olo ? lba : olo, hi = end < oend ? end : oend;
        if (lo >= hi) continue;
        // A reader's blocks were touched by a write; two writes share theirs.
        if (!write || (t & 2)) mark(me, tag, lo, hi);
        if (write) mark(o, t, lo, hi);
    }
    return tk;
}

bool WriteTracker::untrackedSince(const Ticket& t) const {
    return untracked_.load() != 0 || untrackedEpoch_.load() != t.epoch;
}

void WriteTracker::hull(const Ticket& t, uint64_t& lo, uint64_t& hi) const {
    if (t.slot < 0 || untrackedSince(t)) {
        lo = 0, hi = UINT64_MAX;
        return;
    }
    const Entry& e = entries_[t.slot];
    if (e.tag.load() & 1) {
        lo = e.raceLo.load(), hi = e.raceHi.load();
    } else {
        lo = 1, hi = 0;
    }
}

void WriteTracker::end(const Ticket& t, uint64_t& lo, uint64_t& hi) {
    if (t.slot < 0) {
        untracked_.fetch_sub(1);
        untrackedEpoch_.fetch_add(1);
        lo = 0, hi = UINT64_MAX;
        return;
    }
    Entry& e = entries_[t.slot];
    // Busy first, so no mark lands between reading the hull and freeing.
    const uint64_t w = e.tag.exchange(kBusy);
    lo = 1, hi = 0;
    if (w & 1) lo = e.raceLo.load(), hi = e.raceHi.load();
    e.raceLo.store(UINT64_MAX);
    e.raceHi.store(0);
    e.tag.store(0);
    if (untrackedSince(t)) lo = 0, hi = UINT64_MAX;
}

}  // namespace mqb
