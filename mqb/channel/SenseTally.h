// SenseTally.h: one channel's count of failed commands by sense key, ASC and
// ASCQ. The channel's thread is the only writer (a load and a store, no locked
// instruction, and only for a failed command); any thread may read it at any
// time: a slot's count is written before its key is published.
#pragma once
#include <atomic>
#include <cstdint>

namespace mqb {

class SenseTally {
public:
    static constexpr int kSlots = 64;  // distinct key/ASC/ASCQ triples kept; more are dropped

    // Counts one failure with this sense (fixed or descriptor format, `len`
    // bytes). Sense too short to hold a key is not counted.
    void note(const uint8_t* sense, int len);

    // Calls f(key, asc, ascq, count) for every triple seen so far.
    template <class F> void forEach(F&& f) const {
        for (const Slot& s : slots_) {
            const uint32_t k = s.key.load(std::memory_order_acquire);
            if (k == 0) return;  // slots fill in order
            f(uint8_t(k >> 16), uint8_t(k >> 8), uint8_t(k), s.count.load(std::memory_order_relaxed));
        }
    }
    // Zeroes the counts; the triples stay (a counter goes back to 0).
    void clear() {
        for (Slot& s : slots_) s.count.store(0, std::memory_order_relaxed);
    }

private:
    struct Slot {
        std::atomic<uint32_t> key{0};  // 1 << 24 | key << 16 | asc << 8 | ascq; 0 = free
        std::atomic<uint64_t> count{0};
    };
    Slot slots_[kSlots];
};

}  // namespace mqb
