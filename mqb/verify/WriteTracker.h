// WriteTracker.h: which parts of a device have writes in flight, so a check of
// data read back never blames the device for a race the test itself made.
//
// The device is cut into regions of 64 blocks, hashed onto a fixed table. Each
// slot counts the writes in flight over it and remembers the generation of the
// newest write that started there (generations come from one per-device
// counter). A reader takes a snapshot of the counter when it is sent; when it
// completes, its blocks are "racy" if a write overlapped them at any moment in
// between: one was in flight at send, or is still in flight, or started after
// the snapshot. A hash collision only makes more commands racy, never fewer.
//
// Order matters: a write bumps its slots' counts before it takes its
// generation and is sent, and drops them only after its journal update, so a
// reader that misses the count must see the generation (all sequentially
// consistent).
#pragma once
#include <atomic>
#include <cstdint>
#include <memory>

namespace mqb {

class WriteTracker {
public:
    static constexpr unsigned kRegionShift = 6;     // 64 blocks per region
    static constexpr uint32_t kSlots = 1u << 14;    // 256 KiB per device

    WriteTracker();

    // Registers a write of blocks [lba, lba+tl) about to be sent. Returns its
    // generation; `overlapped` says another write over the same slots was
    // already in flight.
    uint64_t beginWrite(uint64_t lba, uint32_t tl, bool& overlapped);
    // Drops a write's in-flight counts (after its journal update, or when
    // its send was refused).
    void endWrite(uint64_t lba, uint32_t tl);
    // Snapshot for a reader about to be sent; `racy` says a write over its
    // slots is in flight right now.
    uint64_t beginRead(uint64_t lba, uint32_t tl, bool& racy);
    // True when, over [lba, lba+tl), more than `self` writes are in flight
    // (the caller's own write counts as one) or a write started after
    // generation `gen`.
    bool changedSince(uint64_t lba, uint32_t tl, uint64_t gen, uint32_t self) const;

private:
    struct Slot {
        std::atomic<uint32_t> inFlight{0};
        std::atomic<uint64_t> lastStart{0};
    };
    // Calls f(slot) once for each slot the range touches.
    template <typename F> void forSlots(uint64_t lba, uint32_t tl, F f) const;

    std::unique_ptr<Slot[]> slots_;
    std::atomic<uint64_t> gen_{0};
};

}  // namespace mqb
