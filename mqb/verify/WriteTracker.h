// WriteTracker.h: the commands of a device that have data in flight, so a
// check of data read back never blames the device for a race the test itself
// made, and the journal knows which blocks two writes raced on.
//
// Every tracked command (a write, or a reader whose blocks are judged) holds
// one entry of a fixed table from before it is sent until its bookkeeping is
// done: its block range and a tag (its generation, whether it writes, and a
// "raced" bit). On entry it scans the entries in use: for each other command
// whose range meets its own, where at least one of the two writes, the
// blocks they share are added to its own "race hull" and, when it is the
// writer, to the other's. With sequentially consistent operations, of two
// commands in flight at the same time at least one sees the other, so:
//  - a write's hull holds every block another write touched while it was in
//    flight (those blocks are ambiguous);
//  - a reader's hull holds every block a write touched while the reader was
//    in flight (those blocks are not judged).
// The hull is one range: several races of one command cover the blocks
// between them too. Nothing is locked or allocated; a command costs a claim
// and a scan of the entries up to the highest ever in use (about the most
// commands the device has had in flight at once).
//
// When the table is full (more commands in flight on one device than it
// holds) the command goes untracked, and every command in flight meanwhile
// treats its whole range as raced.
#pragma once
#include <atomic>
#include <cstdint>
#include <memory>

namespace mqb {

class WriteTracker {
public:
    static constexpr uint32_t kEntries = 4096;

    // What begin hands back, for the other calls.
    struct Ticket {
        int32_t  slot = -1;     // entry held, or -1 when untracked
        uint64_t epoch = 0;     // untracked commands seen at begin
    };

    WriteTracker();

    // Registers a command over blocks [lba, end) about to be sent.
    Ticket begin(uint64_t lba, uint64_t end, bool write);
    // The race hull so far, as [lo, hi) (empty when lo >= hi); [0, max) when
    // an untracked command was in flight meanwhile.
    void hull(const Ticket& t, uint64_t& lo, uint64_t& hi) const;
    // Frees the entry and gives the final hull, as hull() does.
    void end(const Ticket& t, uint64_t& lo, uint64_t& hi);

private:
    struct alignas(64) Entry {
        std::atomic<uint64_t> tag{0};   // gen << 2 | write << 1 | raced; 0 free
        std::atomic<uint64_t> lo{0}, end{0};
        std::atomic<uint64_t> raceLo{UINT64_MAX}, raceHi{0};
    };
    static constexpr uint64_t kBusy = ~uint64_t(3);  // being claimed or freed

    // Adds [lo, hi) to entry `e`'s hull, if it still holds tag `t`.
    static void mark(Entry& e, uint64_t t, uint64_t lo, uint64_t hi);
    bool untrackedSince(const Ticket& t) const;

    std::unique_ptr<Entry[]> entries_;
    std::atomic<uint32_t> used_{0};       // entries at or above are free
    std::atomic<uint64_t> gen_{0};
    std::atomic<uint32_t> untracked_{0};  // untracked commands in flight
    std::atomic<uint64_t> untrackedEpoch_{0};
};

}  // namespace mqb
