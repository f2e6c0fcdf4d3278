// DataChecker.cpp: generated and keyed write data, and the checks of what
// comes back.
#include "DataChecker.h"
#include <cstring>
#include "KeyedBlock.h"
#include "MQB.h"
#include "MQBErr.h"
#include "backends/RelaxedCopy.h"
#include "channel/Device.h"
#include "scsi/Cdb.h"

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
        p.race = tr->begin(c.lba, c.lba + c.tl, true);
        p.flags |= Pending::kTracked | Pending::kWrite;
        if (WriteJournal* j = dd.journal()) {
            // Before the device sees it: in doubt between old and new, so a
            // write cut off here blames neither.
            if (p.flags & Pending::kStamped) j->beginWrite(c.lba, c.tl, WriteJournal::valueOf(p.seq));
            else j->fill(c.lba, c.lba + c.tl, WriteJournal::kUnknown);
            // A race seen by either side: the shared blocks stay ambiguous
            // whatever order the two stores above landed in.
            uint64_t lo, hi;
            tr->hull(p.race, lo, hi);
            if (lo < hi && (p.flags & Pending::kStamped)) raceFill(*j, p, lo, hi);
        }
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
    p.race = tr->begin(c.lba, c.lba + c.tl, false);
    p.flags |= Pending::kTracked | Pending::kCheck;
}

void DataChecker::raceFill(WriteJournal& j, const Pending& p, uint64_t lo, uint64_t hi) {
    if (lo < p.lba) lo = p.lba;
    if (hi > p.lba + p.tl) hi = p.lba + p.tl;
    if (lo < hi) j.fill(lo, hi, WriteJournal::kAmbiguous);
}

void DataChecker::onDrop(Device& dev, CmdTicket& tk) {
    if (tk.rec < 0) return;
    const Pending& p = recs_[tk.rec];
    uint64_t lo, hi;
    if (p.flags & Pending::kTracked) dev.data().tracker()->end(p.race, lo, hi);
    release(tk);
}

namespace {
// Whether a block checked as `st` (sequence `seq` when Good) may stand where
// the journal's state is `v`.
bool passes(BlockCheck st, uint64_t seq, uint8_t v) {
    switch (st) {
    case BlockCheck::Unstamped: return v == WriteJournal::kUnknown;
    case BlockCheck::Good:
        return v == WriteJournal::kUnknown || v == WriteJournal::kAmbiguous || v == WriteJournal::valueOf(seq);
    default: return false;
    }
}
// What a bad block held, as counted by DeviceData.
int damageOf(BlockCheck st) {
    return st == BlockCheck::Good ? DeviceData::kStale
           : st == BlockCheck::WrongLba ? DeviceData::kWrongLba
           : st == BlockCheck::BadCrc ? DeviceData::kTorn : DeviceData::kUnstamped;
}
}  // namespace

uint64_t DataChecker::firstBadBlock(const WriteJournal* j, const uint8_t* data, uint64_t lba,
                                    uint64_t n, uint32_t bs, uint64_t skipLo, uint64_t skipHi,
                                    int& kind) {
    for (uint64_t i = 0; i < n; ++i) {
        const uint64_t b = lba + i;
        if (b >= skipLo && b < skipHi) continue;
        uint64_t seq = 0;
        const BlockCheck st = checkBlock(data + i * bs, bs, b, seq);
        const uint16_t e = j ? j->get(b) : 0;
        // In doubt: the state before the cut-off write passes too.
        if (passes(st, seq, uint8_t(e)) || ((e >> 8) && passes(st, seq, uint8_t((e >> 8) - 1)))) continue;
        kind = damageOf(st);
        return b;
    }
    return kNone;
}

bool DataChecker::readBackCommand(Device& dev, const Outcome& out, CmdTicket& tk, Command& rc,
                                  Outcome*& rcOut) {
    Pending& p = recs_[tk.rec];
    if (!(p.flags & Pending::kCheck) || p.opcode == scsi::kRead10 || out.status != MQB_OK) return false;
    uint64_t lo, hi;
    dev.data().tracker()->hull(p.race, lo, hi);
    if (lo <= p.lba && hi >= p.lba + p.tl) return false;  // nothing left to judge
    if (!grow(p.rb, uint64_t(p.tl) * p.bs)) return false;  // out of memory: no verdict
    // In the form the device's commands take: 16 bytes where forced or needed.
    const bool sixteen = dev.cdbForm() == 16 || !scsi::fits10(p.lba, p.tl);
    rc = Command();
    rc.cdbLen = scsi::putDataCdb(p.rbCdb, scsi::kRead10, 0, p.lba, p.tl, sixteen);
    rc.cdb = p.rbCdb;
    rc.opcode = scsi::kRead10;
    rc.lba = p.lba;  // the 10-byte form: the channel sends only what fits it
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
uint64_t DataChecker::readBackVerdict(Device& dev, const Pending& p, uint64_t lo, uint64_t hi,
                                      int& kind) {
    if (!(p.flags & Pending::kReadBack) || p.rbOut.status != MQB_OK) return kNone;
    const uint8_t* got = p.rb.p.get();
    if (p.opcode != scsi::kWriteVerify10)
        return firstBadBlock(dev.data().journal(), got, p.lba, p.tl, p.bs, lo, hi, kind);
    const uint8_t* stamped = p.buf.p.get();
    for (uint64_t b = 0; b < p.tl; ++b) {
        if (p.lba + b >= lo && p.lba + b < hi) continue;
        if (std::memcmp(got + b * p.bs, stamped + b * p.bs, p.bs) != 0) {
            // Say what it holds instead, as a read would.
            uint64_t seq = 0;
            kind = damageOf(checkBlock(got + b * p.bs, p.bs, p.lba + b, seq));
            return p.lba + b;
        }
    }
    return kNone;
}

void DataChecker::finish(Device& dev, Outcome& out, CmdTicket& tk) {
    const Pending& p = recs_[tk.rec];
    DeviceData& dd = dev.data();
    WriteTracker* tr = dd.tracker();
    const bool good = out.status == MQB_OK;
    uint64_t lo = 1, hi = 0;
    if ((p.flags & Pending::kWrite) && (p.flags & Pending::kTracked)) {
        WriteJournal* j = dd.journal();
        if (j && (p.flags & Pending::kStamped)) {
            // Races known so far first, so no moment shows a raced block as
            // known; then this write's own value where it is still in doubt
            // towards it; then races that came in meanwhile.
            tr->hull(p.race, lo, hi);
            if (lo < hi) raceFill(*j, p, lo, hi);
            if (good) j->completeWrite(p.lba, p.tl, WriteJournal::valueOf(p.seq));
            uint64_t lo2, hi2;
            tr->end(p.race, lo2, hi2);
            if (lo2 < hi2 && (lo2 != lo || hi2 != hi)) raceFill(*j, p, lo2, hi2);
            lo = lo2, hi = hi2;
        } else {
            // Unkeyed data, or nothing known either way: forgotten.
            if (j) j->fill(p.lba, p.lba + p.tl, WriteJournal::kUnknown);
            tr->end(p.race, lo, hi);
        }
    } else if (p.flags & Pending::kTracked) {
        // A reader stays in the table while it is judged, so a write that
        // starts meanwhile (and may change the journal) shows in its hull.
        tr->hull(p.race, lo, hi);
    }
    uint64_t bad = kNone;
    int kind = DeviceData::kStale;
    if ((p.flags & Pending::kCheck) && good) {
        if (p.opcode == scsi::kRead10) bad = firstBadBlock(dd.journal(), p.buf.p.get(), p.lba, p.tl, p.bs, lo, hi, kind);
        else bad = readBackVerdict(dev, p, lo, hi, kind);
    }
    if ((p.flags & Pending::kTracked) && !(p.flags & Pending::kWrite)) {
        uint64_t lo2, hi2;
        tr->end(p.race, lo2, hi2);
        if (bad >= lo2 && bad < hi2) bad = kNone;  // a write came in while it was judged
    }
    if (p.opcode == scsi::kRead10 && p.userBuf) {
        const uint64_t bytes = uint64_t(p.tl) * p.bs;
        // The caller's read buffer is the one every loop shares: other
        // threads may be copying into it at the same moment.
        relaxedCopy(p.userBuf, p.buf.p.get(), p.userLen < bytes ? p.userLen : bytes);
    }
    if (bad != kNone) {
        // The channel counts the failed command among the device's errors.
        buildFixedSense(out, scsi::kKeyMiscompare, scsi::kMiscompareVerify, true, bad);
        dd.noteMiscompare(DeviceData::Damage(kind));
    }
    release(tk);
}

}  // namespace mqb
