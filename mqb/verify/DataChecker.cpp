// DataChecker.cpp: generated and keyed write data, and the checks of what
// comes back.
#include "DataChecker.h"
#include <cstring>
#include "KeyedBlock.h"
#include "MQB.h"
#include "MQBErr.h"
#include "channel/Device.h"

namespace mqb {

namespace {
constexpr uint64_t kNone = UINT64_MAX;
constexpr uint64_t kGenStep = 1 << 20;

bool isWrite(uint8_t op) { return op == scsi::kWrite10 || op == scsi::kWriteVerify10; }
}  // namespace

DataChecker::DataChecker() : recs_(new Pending[kRecs]) {
    free_.reserve(kRecs);
    for (int i = kRecs - 1; i >= 0; --i) free_.push_back(int16_t(i));
}

bool DataChecker::grow(Buf& b, uint64_t bytes) {
    if (b.cap >= bytes) return true;
    void* p = nullptr;
    if (posix_memalign(&p, 4096, bytes) != 0) return false;
    b.p.reset(static_cast<uint8_t*>(p));
    b.cap = bytes;
    return true;
}

void DataChecker::release(CmdTicket& tk) {
    if (tk.rec >= 0) {
        recs_[tk.rec].flags = 0;
        free_.push_back(tk.rec);
    }
    tk.rec = -1;
}

const uint8_t* DataChecker::generated(uint64_t bytes) {
    if (gen_.cap < bytes) {
        if (gen_.p) retired_.push_back(std::move(gen_));
        gen_ = Buf();
        if (!grow(gen_, (bytes + kGenStep - 1) / kGenStep * kGenStep)) return nullptr;
        uint64_t s = 0x2545F4914F6CDD1DULL;
        for (uint64_t off = 0; off + 8 <= gen_.cap; off += 8) {
            s ^= s << 13, s ^= s >> 7, s ^= s << 17;
            std::memcpy(gen_.p.get() + off, &s, 8);
        }
    }
    return gen_.p.get();
}

void DataChecker::prepare(Device& dev, Command& c, CmdTicket& tk) {
    DeviceData& dd = dev.data();
    const int mode = dd.mode();
    WriteTracker* tr = dd.tracker();
    // Reads outside keyed compare, and writes with neither generated data
    // nor a tracker to tell, have nothing to do here.
    const bool write = isWrite(c.opcode);
    if (write ? (mode != MQB_DATA_GENERATE && mode != MQB_DATA_KEYED && !tr)
              : (mode != MQB_DATA_KEYED || !tr || (c.opcode != scsi::kRead10 && c.opcode != scsi::kVerify10)))
        return;
    if (c.tl == 0) return;
    const uint32_t bs = dev.backend().geometry().blockSize;
    if (bs == 0) return;
    const uint64_t bytes = uint64_t(c.tl) * bs;

    if (write && !tr) {  // data generation alone: no record to keep
        if (const uint8_t* g = generated(bytes)) c.writeBuf = g, c.writeLen = bytes;
        return;
    }
    if (free_.empty()) return;  // cannot happen below the channel's queue limit
    tk.rec = free_.back();
    free_.pop_back();
    Pending& p = recs_[tk.rec];
    p.lba = c.lba, p.tl = c.tl, p.bs = bs, p.opcode = c.opcode, p.flags = 0, p.userBuf = nullptr;

    if (write) {
        if (mode == MQB_DATA_KEYED && dd.carriesData() && bs >= kKeyedMinBlock && grow(p.buf, bytes)) {
            uint8_t* d = p.buf.p.get();
            p.seq = dd.nextSeq();
            for (uint32_t b = 0; b < c.tl; ++b) stampBlock(d + uint64_t(b) * bs, bs, c.lba + b, p.seq);
            c.writeBuf = d;
            c.writeLen = bytes;
            p.flags |= Pending::kStamped;
            if (c.opcode == scsi::kWriteVerify10) p.flags |= Pending::kCheck;
        }
        if (!(p.flags & Pending::kStamped) && (mode == MQB_DATA_GENERATE || mode == MQB_DATA_KEYED)) {
            if (const uint8_t* g = generated(bytes)) c.writeBuf = g, c.writeLen = bytes;  // else the caller's data
        }
        bool overlapped = false;
        p.gen = tr->beginWrite(c.lba, c.tl, overlapped);
        p.flags |= Pending::kTracked | (overlapped ? Pending::kOverlap : 0);
        return;
    }
    if (c.opcode == scsi::kRead10) {
        if (!grow(p.buf, bytes)) {  // out of memory: the read goes unchecked
            release(tk);
            return;
        }
        p.userBuf = c.readBuf;
        p.userLen = c.readLen;
        c.readBuf = p.buf.p.get();
        c.readLen = bytes;
    }
    bool racy = false;
    p.gen = tr->beginRead(c.lba, c.tl, racy);
    p.flags |= Pending::kCheck | (racy ? Pending::kRacy : 0);
}

void DataChecker::onDrop(Device& dev, CmdTicket& tk) {
    if (tk.rec < 0) return;
    const Pending& p = recs_[tk.rec];
    if (p.flags & Pending::kTracked) dev.data().tracker()->endWrite(p.lba, p.tl);
    release(tk);
}

uint64_t DataChecker::firstBadBlock(const WriteJournal* j, const uint8_t* data, uint64_t lba,
                                    uint64_t n, uint32_t bs) {
    for (uint64_t i = 0; i < n; ++i) {
        uint64_t seq = 0;
        const BlockCheck st = checkBlock(data + i * bs, bs, lba + i, seq);
        const uint8_t v = j ? j->get(lba + i) : WriteJournal::kUnknown;
        bool bad;
        switch (st) {
        case BlockCheck::Unstamped: bad = v != WriteJournal::kUnknown; break;
        case BlockCheck::Good:
            bad = v != WriteJournal::kUnknown && v != WriteJournal::kAmbiguous &&
                  v != WriteJournal::valueOf(seq);
            break;
        default: bad = true; break;
        }
        if (bad) return lba + i;
    }
    return kNone;
}

bool DataChecker::readBackCommand(Device& dev, const Outcome& out, CmdTicket& tk, Command& rc,
                                  Outcome*& rcOut) {
    Pending& p = recs_[tk.rec];
    if (!(p.flags & Pending::kCheck) || p.opcode == scsi::kRead10 || out.status != MQB_OK) return false;
    if (p.flags & (Pending::kRacy | Pending::kOverlap)) return false;  // nothing to judge anyway
    WriteTracker* tr = dev.data().tracker();
    if (tr && tr->changedSince(p.lba, p.tl, p.gen, 0)) return false;
    if (!grow(p.rb, uint64_t(p.tl) * p.bs)) return false;  // out of memory: no verdict
    p.rbCdb[0] = scsi::kRead10;
    p.rbCdb[1] = 0;
    scsi::putBe32(p.rbCdb + 2, uint32_t(p.lba));
    p.rbCdb[6] = 0;
    scsi::putBe16(p.rbCdb + 7, uint16_t(p.tl));
    p.rbCdb[9] = 0;
    rc = Command();
    rc.cdb = p.rbCdb;
    rc.cdbLen = 10;
    rc.opcode = scsi::kRead10;
    rc.lba = p.lba;
    rc.tl = p.tl;
    rc.readBuf = p.rb.p.get();
    rc.readLen = uint64_t(p.tl) * p.bs;
    // Stays a failure unless the read-back completes: a lost transport leaves
    // the command's own good outcome unjudged.
    p.rbOut.status = MQB_ERR_IO;
    p.rbOut.senseLen = 0;
    p.flags |= Pending::kReadBack;
    rcOut = &p.rbOut;
    return true;
}

void DataChecker::cancelReadBack(CmdTicket& tk) {
    if (tk.rec >= 0) recs_[tk.rec].flags &= uint8_t(~Pending::kReadBack);
}

// The first bad LBA of a completed read-back (against the keys and journal,
// or byte for byte against what a WRITE AND VERIFY stamped), or kNone when
// all pass or the read-back itself failed (the medium's own error is not ours
// to report here).
uint64_t DataChecker::readBackVerdict(Device& dev, const Pending& p) {
    if (!(p.flags & Pending::kReadBack) || p.rbOut.status != MQB_OK) return kNone;
    const uint8_t* got = p.rb.p.get();
    if (p.opcode != scsi::kWriteVerify10)
        return firstBadBlock(dev.data().journal(), got, p.lba, p.tl, p.bs);
    const uint8_t* stamped = p.buf.p.get();
    for (uint64_t b = 0; b < p.tl; ++b)
        if (std::memcmp(got + b * p.bs, stamped + b * p.bs, p.bs) != 0) return p.lba + b;
    return kNone;
}

void DataChecker::finish(Device& dev, Outcome& out, CmdTicket& tk) {
    const Pending& p = recs_[tk.rec];
    DeviceData& dd = dev.data();
    WriteTracker* tr = dd.tracker();
    const bool good = out.status == MQB_OK;
    if (p.flags & Pending::kTracked) {
        if (WriteJournal* j = dd.journal()) {
            // What the blocks should now hold: nothing known after a failed
            // or unkeyed write; "some keyed write" when writes raced.
            const bool raced = (p.flags & Pending::kOverlap) || tr->changedSince(p.lba, p.tl, p.gen, 1);
            const uint8_t v = !good || !(p.flags & Pending::kStamped) ? WriteJournal::kUnknown
                              : raced ? WriteJournal::kAmbiguous : WriteJournal::valueOf(p.seq);
            j->fill(p.lba, p.tl, v);
            // A write that started meanwhile may already have recorded its
            // own value, which this store would have hidden.
            if (v != WriteJournal::kUnknown && v != WriteJournal::kAmbiguous &&
                tr->changedSince(p.lba, p.tl, p.gen, 1))
                j->fill(p.lba, p.tl, WriteJournal::kAmbiguous);
        }
        tr->endWrite(p.lba, p.tl);
    }
    uint64_t bad = kNone;
    if ((p.flags & Pending::kCheck) && good) {
        const bool racy = (p.flags & (Pending::kRacy | Pending::kOverlap)) ||
                          (tr && tr->changedSince(p.lba, p.tl, p.gen, 0));
        if (p.opcode == scsi::kRead10) {
            if (!racy) bad = firstBadBlock(dd.journal(), p.buf.p.get(), p.lba, p.tl, p.bs);
        } else if (!racy) {
            bad = readBackVerdict(dev, p);
        }
    }
    if (p.opcode == scsi::kRead10 && p.userBuf) {
        const uint64_t bytes = uint64_t(p.tl) * p.bs;
        std::memcpy(p.userBuf, p.buf.p.get(), size_t(p.userLen < bytes ? p.userLen : bytes));
    }
    if (bad != kNone) {
        // The channel counts the failed command among the device's errors.
        buildFixedSense(out, scsi::kKeyMiscompare, scsi::kMiscompareVerify, true, bad);
        dd.noteMiscompare();
    }
    release(tk);
}

}  // namespace mqb
