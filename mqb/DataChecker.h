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
//    well, the checker reads the blocks back (in chunks, through a queue of
//    its own to the device, waiting for each) and checks them; for WRITE AND VERIFY the read-back must equal
//    the stamped data byte for byte.
//  - A backend that gives back no data (a simulated disk without a store) is
//    not checked at all.
// Blocks a concurrent write of the same region may have changed between a
// reader's send and its completion are not judged (see WriteTracker).
//
// Buffers are allocated when first needed and only grow; nothing is allocated
// per command once a run has warmed up.
#pragma once
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <vector>
#include "CmdTicket.h"
#include "backends/Device.h"

namespace mqb {

class Queue;
class WriteJournal;

class DataChecker {
public:
    DataChecker();
    ~DataChecker();
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
    // At completion: updates the journal for a write, checks the data of a
    // reader, and turns a good `out` into MISCOMPARE when a block is bad.
    void onComplete(Device& dev, Outcome& out, CmdTicket& tk) {
        if (tk.rec >= 0) finish(dev, out, tk);
    }

    // The first LBA among `n` blocks at `data` (read from `lba` on) that
    // fails its key or the journal `j` (may be null), or UINT64_MAX when all
    // pass.
    static uint64_t firstBadBlock(const WriteJournal* j, const uint8_t* data, uint64_t lba,
                                  uint64_t n, uint32_t bs);

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
            kTracked = 1,  // a write registered with the device's write tracker
            kStamped = 2,  // its data are keyed blocks of sequence `seq`, in `buf`
            kOverlap = 4,  // another write over its blocks was in flight at send
            kCheck = 8,    // read back and check its blocks at completion
            kRacy = 16,    // a write over its blocks was in flight at send
        };
        Buf      buf;               // keyed write data or read data, grown on demand
        uint64_t lba = 0, gen = 0, seq = 0;
        uint8_t* userBuf = nullptr; // the caller's data-in buffer of a redirected read
        uint64_t userLen = 0;
        uint32_t tl = 0, bs = 0;
        uint8_t  opcode = 0, flags = 0;
    };
    static constexpr int kRecs = 256;          // at most one per command in flight
    static constexpr uint64_t kReadBackChunk = 256 * 1024;

    static bool grow(Buf& b, uint64_t bytes);  // page-aligned, at least `bytes`; false when out of memory
    void release(CmdTicket& tk);
    const uint8_t* generated(uint64_t bytes);
    int readSync(Device& dev, uint64_t lba, uint32_t n, uint8_t* buf, uint32_t bs);
    // Reads blocks back through the checker's own queue, chunk by chunk, and returns the
    // first bad LBA per `stamped` (nullptr: check keys; else compare bytes),
    // UINT64_MAX when all pass or the read-back itself failed.
    uint64_t readBack(Device& dev, const Pending& p, const uint8_t* stamped);

    std::unique_ptr<Pending[]> recs_;
    std::vector<int16_t> free_;
    Buf gen_;                   // generated write data, filled once per growth
    std::vector<Buf> retired_;  // outgrown generated buffers writes may still use
    Buf scratch_;               // read-back chunks
    // The read-back's own queue, to the device it was opened on.
    Device* rbDev_ = nullptr;
    std::unique_ptr<Queue> rbQueue_;
};

}  // namespace mqb
