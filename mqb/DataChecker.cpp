// DataChecker.cpp: generated and keyed write data, and the checks of what
// comes back.
#include "DataChecker.h"
#include <cstring>
#include "KeyedBlock.h"
#include "MQBErr.h"
#include "backends/Device.h"

namespace mqb {

namespace {
constexpr uint64_t kNone = UINT64_MAX;
constexpr uint64_t kGenStep = 1 << 20;

bool isWrite(uint8_t op) { return op == sbc::kWrite || op == sbc::kWrv; }
}  // namespace

DataChecker::DataChecker() : bufs_(kBufs) {
    free_.reserve(kBufs);
    for (int i = kBufs - 1; i >= 0; --i) free_.push_back(int16_t(i));
}

bool DataChecker::grow(Buf& b, uint64_t bytes) {
    if (b.cap >= bytes) return true;
    void* p = nullptr;
    if (posix_memalign(&p, 4096, bytes) != 0) return false;
    b.p.reset(static_cast<uint8_t*>(p));
    b.cap = bytes;
    return true;
}

int DataChecker::takeBuf(uint64_t bytes) {
    if (free_.empty()) return -1;
    const int i = free_.back();
    if (!grow(bufs_[size_t(i)], bytes)) return -1;  // out of memory: the command goes unchecked
    free_.pop_back();
    return i;
}

void DataChecker::giveBuf(CmdTicket& tk) {
    if (tk.buf >= 0) free_.push_back(tk.buf);
    tk.buf = -1;
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
    tk.bs = 0;
    DeviceData& dd = dev.data();
    const int mode = dd.mode();
    WriteTracker* tr = dd.tracker();
    // Reads outside keyed compare, and writes with neither generated data
    // nor a tracker to tell, have nothing to do here: the common case.
    const bool write = isWrite(c.opcode);
    if (write ? (mode != 3 && mode != 6 && !tr)
              : (mode != 6 || !tr || (c.opcode != sbc::kRead && c.opcode != sbc::kVerify)))
        return;
    if (c.tl == 0) return;
    const uint32_t bs = dev.backend().geometry().blockSize;
    if (bs == 0) return;
    const uint64_t bytes = uint64_t(c.tl) * bs;
    tk.lba = c.lba, tk.tl = c.tl, tk.bs = bs, tk.opcode = c.opcode;

    if (write) {
        if (mode == 6 && dd.carriesData() && bs >= kKeyedMinBlock) {
            const int i = takeBuf(bytes);
            if (i >= 0) {
                uint8_t* p = bufs_[size_t(i)].p.get();
                tk.seq = dd.nextSeq();
                for (uint32_t b = 0; b < c.tl; ++b) stampBlock(p + uint64_t(b) * bs, bs, c.lba + b, tk.seq);
                c.writeBuf = p;
                c.writeLen = bytes;
                tk.buf = int16_t(i);
                tk.flags |= CmdTicket::kStamped;
                if (c.opcode == sbc::kWrv) tk.flags |= CmdTicket::kCheck;
            }
        }
        if (!(tk.flags & CmdTicket::kStamped) && (mode == 3 || mode == 6)) {
            if (const uint8_t* g = generated(bytes)) {  // else the caller's data go out
                c.writeBuf = g;
                c.writeLen = bytes;
            }
        }
        if (tr) {
            bool overlapped = false;
            tk.gen = tr->beginWrite(c.lba, c.tl, overlapped);
            tk.flags |= CmdTicket::kTracked | (overlapped ? CmdTicket::kOverlap : 0);
        }
        return;
    }
    if (mode != 6 || !tr) return;
    bool racy = false;
    tk.gen = tr->beginRead(c.lba, c.tl, racy);
    if (c.opcode == sbc::kRead) {
        const int i = takeBuf(bytes);
        if (i < 0) return;
        tk.userBuf = c.readBuf;
        tk.userLen = c.readLen;
        c.readBuf = bufs_[size_t(i)].p.get();
        c.readLen = bytes;
        tk.buf = int16_t(i);
    }
    tk.flags |= CmdTicket::kCheck | (racy ? CmdTicket::kRacy : 0);
}

void DataChecker::onDrop(Device& dev, CmdTicket& tk) {
    if (tk.flags & CmdTicket::kTracked) dev.data().tracker()->endWrite(tk.lba, tk.tl);
    tk.flags = 0;
    giveBuf(tk);
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

uint64_t DataChecker::readBack(Device& dev, const CmdTicket& tk, const uint8_t* stamped) {
    const uint64_t per = kReadBackChunk / tk.bs ? kReadBackChunk / tk.bs : 1;
    if (!grow(scratch_, per * tk.bs)) return kNone;
    for (uint64_t done = 0; done < tk.tl; done += per) {
        const uint64_t n = tk.tl - done < per ? tk.tl - done : per;
        const uint64_t lba = tk.lba + done;
        uint8_t cdb[10] = {sbc::kRead, 0, uint8_t(lba >> 24), uint8_t(lba >> 16), uint8_t(lba >> 8),
                           uint8_t(lba), 0, uint8_t(n >> 8), uint8_t(n), 0};
        Command rc;
        rc.cdb = cdb;
        rc.cdbLen = 10;
        rc.opcode = sbc::kRead;
        rc.lba = lba;
        rc.tl = uint32_t(n);
        rc.readBuf = scratch_.p.get();
        rc.readLen = n * tk.bs;
        Outcome o;
        dev.backend().execute(rc, o);
        if (o.status != MQB_OK) return kNone;  // the medium's own error is not ours to report here
        if (!stamped) {
            const uint64_t bad = firstBadBlock(dev.data().journal(), scratch_.p.get(), lba, n, tk.bs);
            if (bad != kNone) return bad;
            continue;
        }
        for (uint64_t b = 0; b < n; ++b)
            if (std::memcmp(scratch_.p.get() + b * tk.bs, stamped + (done + b) * tk.bs, tk.bs) != 0)
                return lba + b;
    }
    return kNone;
}

void DataChecker::finish(Device& dev, Outcome& out, CmdTicket& tk) {
    if (tk.flags == 0) {
        giveBuf(tk);
        return;
    }
    DeviceData& dd = dev.data();
    WriteTracker* tr = dd.tracker();
    const bool good = out.status == MQB_OK;
    if (tk.flags & CmdTicket::kTracked) {
        if (WriteJournal* j = dd.journal()) {
            // What the blocks should now hold: nothing known after a failed
            // or unkeyed write; "some keyed write" when writes raced.
            const bool raced = (tk.flags & CmdTicket::kOverlap) || tr->changedSince(tk.lba, tk.tl, tk.gen, 1);
            const uint8_t v = !good || !(tk.flags & CmdTicket::kStamped) ? WriteJournal::kUnknown
                              : raced ? WriteJournal::kAmbiguous : WriteJournal::valueOf(tk.seq);
            j->fill(tk.lba, tk.tl, v);
            // A write that started meanwhile may already have recorded its
            // own value, which this store would have hidden.
            if (v != WriteJournal::kUnknown && v != WriteJournal::kAmbiguous &&
                tr->changedSince(tk.lba, tk.tl, tk.gen, 1))
                j->fill(tk.lba, tk.tl, WriteJournal::kAmbiguous);
        }
        tr->endWrite(tk.lba, tk.tl);
    }
    uint64_t bad = kNone;
    if ((tk.flags & CmdTicket::kCheck) && good) {
        const bool racy = (tk.flags & (CmdTicket::kRacy | CmdTicket::kOverlap)) ||
                          (tr && tr->changedSince(tk.lba, tk.tl, tk.gen, 0));
        const uint8_t* own = tk.buf >= 0 ? bufs_[size_t(tk.buf)].p.get() : nullptr;
        if (tk.opcode == sbc::kRead) {
            if (!racy) bad = firstBadBlock(dd.journal(), own, tk.lba, tk.tl, tk.bs);
        } else if (!racy) {
            bad = readBack(dev, tk, tk.opcode == sbc::kWrv ? own : nullptr);
        }
    }
    if (tk.opcode == sbc::kRead && tk.buf >= 0 && tk.userBuf) {
        const uint64_t bytes = uint64_t(tk.tl) * tk.bs;
        std::memcpy(tk.userBuf, bufs_[size_t(tk.buf)].p.get(), size_t(tk.userLen < bytes ? tk.userLen : bytes));
    }
    if (bad != kNone) {
        buildFixedSense(out, 0x0E, 0x1D, 0x00, true, 0, true,
                        bad > 0xFFFFFFFFULL ? 0xFFFFFFFFU : uint32_t(bad));
        dev.noteError();
        dd.noteMiscompare();
    }
    tk.flags = 0;
    giveBuf(tk);
}

}  // namespace mqb
