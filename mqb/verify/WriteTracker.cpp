// WriteTracker.cpp: in-flight write bookkeeping per region of a device.
#include "WriteTracker.h"

namespace mqb {

WriteTracker::WriteTracker() : slots_(new Slot[kSlots]) {}

template <typename F>
void WriteTracker::forSlots(uint64_t lba, uint32_t tl, F f) const {
    const uint64_t first = lba >> kRegionShift;
    const uint64_t last = (lba + (tl ? tl : 1) - 1) >> kRegionShift;
    // Consecutive regions land on distinct slots until the range wraps the
    // table; past that every slot is already covered once.
    const uint64_t n = last - first + 1 < kSlots ? last - first + 1 : kSlots;
    for (uint64_t i = 0; i < n; ++i) f(slots_[(first + i) & (kSlots - 1)]);
}

uint64_t WriteTracker::beginWrite(uint64_t lba, uint32_t tl, bool& overlapped) {
    forSlots(lba, tl, [](Slot& s) { s.inFlight.fetch_add(1); });
    const uint64_t g = gen_.fetch_add(1) + 1;
    overlapped = false;
    forSlots(lba, tl, [&](Slot& s) {
        uint64_t cur = s.lastStart.load();
        while (cur < g && !s.lastStart.compare_exchange_weak(cur, g)) {
        }
        if (s.inFlight.load() > 1) overlapped = true;
    });
    return g;
}

void WriteTracker::endWrite(uint64_t lba, uint32_t tl) {
    forSlots(lba, tl, [](Slot& s) { s.inFlight.fetch_sub(1); });
}

uint64_t WriteTracker::beginRead(uint64_t lba, uint32_t tl, bool& racy) {
    const uint64_t g = gen_.load();
    racy = false;
    forSlots(lba, tl, [&](Slot& s) {
        if (s.inFlight.load() > 0) racy = true;
    });
    return g;
}

bool WriteTracker::changedSince(uint64_t lba, uint32_t tl, uint64_t gen, uint32_t self) const {
    bool changed = false;
    forSlots(lba, tl, [&](Slot& s) {
        if (s.inFlight.load() > self || s.lastStart.load() > gen) changed = true;
    });
    return changed;
}

}  // namespace mqb
