// WriteJournal.h: the lost-write journal of one device: one byte per block
// saying what the block should hold.
//
//   0        nothing known (never written with keyed data, or a write failed)
//   1..254   written with keyed data whose sequence maps to this value
//   255      written with keyed data, but overlapping writes raced, so which
//            one landed is unknown: any valid keyed block is accepted
//
// The mapping wraps, so a block one full cycle (254 writes) stale is missed;
// anything fresher is caught. Saved to and loaded from a file so a later
// process can verify what an earlier one wrote.
#pragma once
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

namespace mqb {

class WriteJournal {
public:
    static constexpr uint8_t kUnknown = 0, kAmbiguous = 255;

    WriteJournal(uint64_t blocks, uint32_t blockSize);

    // The journal value a keyed write of sequence `seq` leaves.
    static uint8_t valueOf(uint64_t seq) { return uint8_t(1 + seq % 254); }

    uint8_t get(uint64_t lba) const {
        return lba < blocks_ ? bytes_[lba].load(std::memory_order_relaxed) : kUnknown;
    }
    // Sets blocks [lba, lba+tl) (clipped to the device) to `v`.
    void fill(uint64_t lba, uint32_t tl, uint8_t v);

    uint64_t blocks() const { return blocks_; }

    // Writes the journal to `path` with its header (magic, block count,
    // block size, the device's next sequence). Returns false with `err`.
    bool save(const std::string& path, uint32_t blockSize, uint64_t nextSeq, std::string& err) const;
    // Reads a journal saved for a device of the same block count and block
    // size. Returns false with `err` (and the journal unchanged) on any
    // mismatch or short file; sets `nextSeq` to the saved sequence.
    bool load(const std::string& path, uint32_t blockSize, uint64_t& nextSeq, std::string& err);

private:
    uint64_t blocks_;
    std::unique_ptr<std::atomic<uint8_t>[]> bytes_;
};

}  // namespace mqb
