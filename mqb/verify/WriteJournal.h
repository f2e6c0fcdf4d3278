// WriteJournal.h: the lost-write journal of one device: two bytes per block
// saying what the block may hold.
//
// The low byte is the block's state:
//   0        unknown (never written with keyed data, or an unkeyed write)
//   1..253   known: written with keyed data whose sequence maps to this value
//   254      ambiguous: two keyed writes of this block were in flight at
//            once, so either may have landed: any valid keyed block passes
// The high byte is 0, or the block is "in doubt": a write of it was cut off
// (the process died with it in flight) or failed, and the high byte is the
// state before that write plus one: the old or the new content passes.
//
// The entries live in a mapping whose pages are only allocated when first
// written, so memory follows the blocks written, not the capacity. With a
// path the mapping is a sparse file (header, then the entries) that outlives
// the process; without one it is anonymous memory. The same layout is the
// form `save` writes and `load` reads. The header names the device (block
// count, block size, identity text) and carries the next write sequence; a
// file of another device, or of another length, is refused.
#pragma once
#include <cstdint>
#include <memory>
#include <string>

namespace mqb {

class WriteJournal {
public:
    static constexpr uint8_t kUnknown = 0, kAmbiguous = 254;
    static constexpr uint32_t kHeaderBytes = 4096;

    // The journal of a device of `blocks` blocks of `blockSize` bytes named
    // by `identity`: in anonymous memory when `path` is empty, else in the
    // file at `path` (created sparse, or reopened when it is this device's).
    // Null with `err` when it cannot be had.
    static std::unique_ptr<WriteJournal> open(uint64_t blocks, uint32_t blockSize,
                                              const std::string& identity,
                                              const std::string& path, std::string& err);
    ~WriteJournal();
    WriteJournal(const WriteJournal&) = delete;
    WriteJournal& operator=(const WriteJournal&) = delete;

    // The state a keyed write of sequence `seq` leaves.
    static uint8_t valueOf(uint64_t seq) { return uint8_t(1 + seq % 253); }

    // The entry of `lba` (0 past the end): state | (doubt << 8).
    uint16_t get(uint64_t lba) const {
        return lba < blocks_ ? __atomic_load_n(&e_[lba], __ATOMIC_RELAXED) : 0;
    }
    // A keyed write of state `v` over [lba, lba+tl) is about to be sent:
    // each block goes in doubt between what it held and `v`.
    void beginWrite(uint64_t lba, uint32_t tl, uint8_t v);
    // That write completed well: each block still in doubt towards `v`
    // becomes known as `v` (a block another write has since touched is left
    // to that write).
    void completeWrite(uint64_t lba, uint32_t tl, uint8_t v);
    // Sets [lba, end) (clipped to the device) to the plain state `v`.
    void fill(uint64_t lba, uint64_t end, uint8_t v);

    uint64_t blocks() const { return blocks_; }
    uint32_t blockSize() const { return blockSize_; }
    const std::string& path() const { return path_; }
    // The sequence a later process should continue from, and reserving
    // sequences below `next` in the file before any is used.
    uint64_t savedSeq() const;
    void reserveSeq(uint64_t next);

    struct Counts {
        uint64_t known = 0, ambiguous = 0, inDoubt = 0, unknown = 0;
        uint64_t residentBytes = 0;  // memory the entries take now
    };
    // Counts the blocks of each kind, visiting only the populated pages.
    Counts counts() const;

    // Writes the journal to `path` safely (a temporary file in the same
    // folder, synced, renamed over `path`, the folder synced), holes kept.
    // Returns false with `err`; `path` is then as it was.
    bool save(const std::string& path, uint64_t nextSeq, std::string& err) const;
    // Replaces the entries with those of the file at `path`, which must be a
    // regular file saved for this device (same block count, block size and
    // identity, exact length). Returns false with `err`: the journal is
    // unchanged when the file is refused, and emptied when reading it failed
    // midway. Sets `nextSeq` to the saved sequence.
    bool load(const std::string& path, uint64_t& nextSeq, std::string& err);

private:
    WriteJournal() = default;
    // Calls f(first, count) over runs of entries that may be non-zero.
    template <typename F> void forPopulated(F f) const;

    uint64_t blocks_ = 0;
    uint32_t blockSize_ = 0;
    std::string identity_, path_;
    int fd_ = -1;                 // the mapped file, or -1
    uint8_t* map_ = nullptr;      // header page + entries
    uint64_t mapLen_ = 0;
    uint16_t* e_ = nullptr;       // entries, in map_
};

}  // namespace mqb
