// DataChecker.h: a channel's part of the data modes. Under hardware data
// generation (3) a write carries data the channel generated once; under keyed
// compare (6) a write carries keyed blocks stamped in a buffer of the
// channel's own, and every block a read, a VERIFY or the read-back of a WRITE
// AND VERIFY brings in is checked against its key and the device's
// lost-write journal. A bad block fails its command with MISCOMPARE
// (0E/1D/00, INFORMATION = the first bad LBA). The caller's buffers are never
// written to except a read's data-in buffer, which still gets the data.
//
// Where the data are checked:
//  - READ: the read goes into a channel buffer, checked at completion, then
//    copied to the caller's buffer.
//  - VERIFY and WRITE AND VERIFY: after the device completed the command
//    well, the channel sends a READ(10) of its blocks into a checker buffer
//    to the same queue (readBackCommand) and completes the command once that
//    is back; the checker checks the blocks then; for WRITE AND VERIFY the read-back must equal
//    the stamped data byte for byte.
//  - A backend that gives back no data (a simulated disk without a store) is
//    not checked at all.
// Blocks a write touched while a reader was in flight are not judged (see
// WriteTracker); the others are. A keyed write puts its blocks in doubt in
// the journal before it is sent and makes them known when it completes well;
// blocks two writes raced on become ambiguous; a failed write leaves them in
// doubt.
//
// Buffers are allocated when first needed and only grow; nothing is allocated
// per command once a run has warmed up.
#pragma once
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <vector>
#include "channel/CmdTicket.h"
#include "channel/Device.h"

namespace mqb {

class WriteJournal;

class DataChecker {
public:
    DataChecker();
    DataChecker(const DataChecker&) = delete;
    DataChecker& operator=(const DataChecker&) = delete;

    // At send, before the device sees `c`: may point its data buffers at the
    // channel's own and registers writes with the device's tracker. Fills
    // `tk`.
    void onSend(Device& dev, Command& c, CmdTicket& tk) {
        // Fast path, inline: no data mode of ours and nothing ever tracked.
        tk.rec = -1;
        const DeviceData& dd = dev.data();
        if (!dd.tracker()) {
            // Nothing to check: only a write under data generation or keyed
            // compare has anything to do.
            const int m = dd.mode();
            if ((m != 3 && m != 6) || (c.opcode != scsi::kWrite10 && c.opcode != scsi::kWriteVerify10)) return;
        }
        prepare(dev, c, tk);
    }
    // The command never reached the device (refused send) or was dropped in
    // flight: undoes onSend's bookkeeping; the journal is left alone.
    void onDrop(Device& dev, CmdTicket& tk);
    // When a VERIFY or WRITE AND VERIFY the checker follows has completed
    // well at the device (`out`), and its blocks are to be judged: fills `rc`
    // with a READ(10) of them into a buffer of the checker's and `rcOut` with
    // where its outcome goes, and returns true. The channel sends `rc` to the
    // same queue and calls onComplete once it is back. False when there is
    // nothing to read back.
    bool readBackCommand(Device& dev, const Outcome& out, CmdTicket& tk, Command& rc,
                         Outcome*& rcOut);
    // The read-back could not be queued: the command completes unjudged.
    void cancelReadBack(CmdTicket& tk);
    // At completion: updates the journal for a write, checks the data of a
    // reader, and turns a good `out` into MISCOMPARE when a block is bad.
    void onComplete(Device& dev, Outcome& out, CmdTicket& tk) {
        if (tk.rec >= 0) finish(dev, out, tk);
    }

    // The first LBA among `n` blocks at `data` (read from `lba` on) that
    // fails its key or the journal `j` (may be null), leaving out the blocks
    // in [skipLo, skipHi); UINT64_MAX when all pass. Sets `kind` (a
    // DeviceData::Damage) for a bad one.
    static uint64_t firstBadBlock(const WriteJournal* j, const uint8_t* data, uint64_t lba,
                                  uint64_t n, uint32_t bs, uint64_t skipLo, uint64_t skipHi,
                                  int& kind);

private:
    void prepare(Device& dev, Command& c, CmdTicket& tk);
    void finish(Device& dev, Outcome& out, CmdTicket& tk);

    struct Free {
        void operator()(uint8_t* p) const { std::free(p); }
    };
    struct Buf {
        std::unique_ptr<uint8_t, Free> p;
        uint64_t cap = 0;
    };
    // One command the checker follows from send to completion.
    struct Pending {
        enum Flag : uint8_t {
            kTracked = 1,  // holds an entry of the device's write tracker
            kStamped = 2,  // its data are keyed blocks of sequence `seq`, in `buf`
            kWrite = 4,    // a write
            kCheck = 8,    // read back and check its blocks at completion
            kReadBack = 32,  // its blocks were read back into `rb`, into `rbOut`
        };
        Buf      buf;               // keyed write data or read data, grown on demand
        uint64_t lba = 0, seq = 0;
        WriteTracker::Ticket race;  // its entry in the device's write tracker
        uint8_t* userBuf = nullptr; // the caller's data-in buffer of a redirected read
        uint64_t userLen = 0;
        uint32_t tl = 0, bs = 0;
        uint8_t  opcode = 0, flags = 0;
        Buf      rb;                // read-back of a VERIFY or WRITE AND VERIFY
        Outcome  rbOut;
        uint8_t  rbCdb[16] = {};
    };
    static constexpr int kRecs = 256;          // at most one per command in flight

    static bool grow(Buf& b, uint64_t bytes);  // page-aligned, at least `bytes`; false when out of memory
    void release(CmdTicket& tk);
    const uint8_t* generated(uint64_t bytes);
    // The first bad LBA of a completed read-back outside [lo, hi), or
    // UINT64_MAX; sets `kind` for a bad one.
    uint64_t readBackVerdict(Device& dev, const Pending& p, uint64_t lo, uint64_t hi, int& kind);
    // Marks the blocks of write `p` within [lo, hi) ambiguous.
    static void raceFill(WriteJournal& j, const Pending& p, uint64_t lo, uint64_t hi);

    std::unique_ptr<Pending[]> recs_;
    std::vector<int16_t> free_;
    Buf gen_;                   // generated write data, filled once per growth
    std::vector<Buf> retired_;  // outgrown generated buffers writes may still use
};

}  // namespace mqb
