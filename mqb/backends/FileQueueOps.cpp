// FileQueueOps.cpp: SBC data commands on a file or block device, one
// transfer at a time, the same whether io_uring or pread/pwrite carries them.
//
//   READ(10)          one read into the caller's buffer (or the bounce
//                     buffer, then copied, when O_DIRECT cannot use it)
//   WRITE(10)         one write of min(TL blocks, data-out length)
//   WRITE AND VERIFY  that write, then a read-back of the same blocks in
//                     bounce-sized pieces, compared with the data when BYTCHK
//   VERIFY(10)        reads of the TL blocks from the medium in pieces,
//                     compared with the data-out buffer when BYTCHK
//
// A failed or short transfer is MEDIUM ERROR (03/11/00 reading, 03/0C/00
// writing) with INFORMATION = the first LBA of the failing transfer; a
// difference is MISCOMPARE 0E/1D/00 with INFORMATION = the first LBA that
// differs. Range errors, a read-only file and transfers of nothing are
// answered in submit() without I/O.
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include "FileDisk.h"
#include "FileQueue.h"
#include "MQBErr.h"
#include "RelaxedCopy.h"

namespace mqb {

namespace {
bool aligned(const void* p, uint64_t len, uint32_t a) {
    return (reinterpret_cast<uintptr_t>(p) & (a - 1)) == 0 && (len & (a - 1)) == 0;
}
}  // namespace

// The op's bounce buffer, made on its first use and kept for the queue's
// life: at most one per op, never one per command.
bool FileQueue::haveBounce(Op& op) {
    if (op.bounce) return true;
    void* mem = nullptr;
    if (posix_memalign(&mem, 4096, kBounce) != 0) return false;
    op.bounce = std::unique_ptr<uint8_t, void (*)(void*)>(static_cast<uint8_t*>(mem), std::free);
    return true;
}

bool FileQueue::begin(Op& op, const Command& c) {
    Outcome& out = *op.out;
    out.status = MQB_OK;
    out.senseLen = 0;
    if (c.opcode == scsi::kReadCapacity10) {
        sbc::readCapacity(c, disk_.blocks(), disk_.blockSize());
        return false;
    }
    if (!sbc::isDataCommand(c.opcode)) {
        sbc::invalidOpcode(out);
        return false;
    }
    if (!sbc::checkRange(c, disk_.blocks(), out)) return false;
    const bool writes = c.opcode == scsi::kWrite10 || c.opcode == scsi::kWriteVerify10;
    if (writes && disk_.readOnly()) {
        buildFixedSense(out, scsi::kKeyDataProtect, scsi::kWriteProtected);
        return false;
    }
    const uint64_t bytes = uint64_t(c.tl) * bs_;
    const uint32_t align = disk_.alignment();
    op.lba = c.lba;
    op.start = c.lba * bs_;
    op.pos = 0;
    op.bounced = false;
    op.wrv = c.opcode == scsi::kWriteVerify10;
    op.compare = sbc::byteCheck(c) && c.writeBuf != nullptr;
    op.src = c.writeBuf;
    op.srcLen = c.writeBuf ? std::min(bytes, c.writeLen) : 0;
    switch (c.opcode) {
    case scsi::kRead10: {
        const uint64_t len = c.readBuf ? std::min(bytes, c.readLen) : 0;
        if (len == 0) return false;
        op.phase = Phase::Read;
        op.dst = c.readBuf;
        op.dstLen = len;
        op.total = op.piece = len;
        if (aligned(c.readBuf, len, align)) {
            op.io = Io{disk_.alignedFd(), false, c.readBuf, len, op.start};
        } else if (bytes <= kBounce && haveBounce(op)) {
            op.bounced = true;
            op.total = op.piece = bytes;
            op.io = Io{disk_.alignedFd(), false, op.bounce.get(), bytes, op.start};
        } else {
            op.io = Io{disk_.bufferedFd(), false, c.readBuf, len, op.start};
        }
        return true;
    }
    case scsi::kWrite10:
    case scsi::kWriteVerify10: {
        const uint64_t len = op.srcLen;
        if (len == 0) return false;
        op.phase = Phase::Write;
        op.total = op.piece = len;
        uint8_t* src = const_cast<uint8_t*>(c.writeBuf);  // the kernel only reads it
        if (aligned(src, len, align)) {
            op.io = Io{disk_.alignedFd(), true, src, len, op.start};
        } else if ((len & (align - 1)) == 0 && len <= kBounce && haveBounce(op)) {
            std::memcpy(op.bounce.get(), src, len);
            op.io = Io{disk_.alignedFd(), true, op.bounce.get(), len, op.start};
        } else {
            op.io = Io{disk_.bufferedFd(), true, src, len, op.start};
        }
        return true;
    }
    default:  // VERIFY(10)
        if (bytes == 0) return false;
        op.phase = Phase::Check;
        op.total = bytes;
        if (!haveBounce(op)) {
            out.status = MQB_ERR_NO_MEMORY;
            return false;
        }
        return startCheckPiece(op);
    }
}

// Next piece of a read-back or verify: into the bounce buffer, a multiple of
// the block size, through the aligned descriptor.
bool FileQueue::startCheckPiece(Op& op) {
    op.piece = std::min(op.total - op.pos, kBounce);
    op.io = Io{disk_.alignedFd(), false, op.bounce.get(), op.piece, op.start + op.pos};
    return true;
}

void FileQueue::fail(Op& op, bool write) {
    const uint64_t lba = op.lba + (op.io.off - op.start) / bs_;
    buildFixedSense(*op.out, scsi::kKeyMedium, write ? scsi::kWriteError : scsi::kUnrecoveredRead,
                    true, lba);
}

bool FileQueue::advance(Op& op, int64_t res) {
    if (res == -EINTR || res == -EAGAIN) return true;  // the same transfer again
    if (res <= 0) {  // an error, or end of file inside the device's range
        fail(op, op.io.write);
        return false;
    }
    op.io.buf += res;
    op.io.off += uint64_t(res);
    op.io.len -= uint64_t(res);
    if (op.io.len > 0) return true;
    switch (op.phase) {
    case Phase::Read:
        if (op.bounced) relaxedCopy(op.dst, op.bounce.get(), op.dstLen);
        return false;
    case Phase::Write:
        if (!op.wrv) return false;
        // Read back what was written, rounded up to whole blocks.
        op.phase = Phase::Check;
        op.total = (op.srcLen + bs_ - 1) / bs_ * bs_;
        op.pos = 0;
        if (!haveBounce(op)) {
            op.out->status = MQB_ERR_NO_MEMORY;
            return false;
        }
        return startCheckPiece(op);
    case Phase::Check:
        if (op.compare && op.pos < op.srcLen) {
            const uint64_t n = std::min(op.piece, op.srcLen - op.pos);
            const uint8_t* a = op.bounce.get();
            const uint8_t* b = op.src + op.pos;
            if (std::memcmp(a, b, n) != 0) {
                uint64_t i = 0;
                while (a[i] == b[i]) ++i;
                buildFixedSense(*op.out, scsi::kKeyMiscompare, scsi::kMiscompareVerify, true,
                                op.lba + (op.pos + i) / bs_);
                return false;
            }
        }
        op.pos += op.piece;
        return op.pos < op.total && startCheckPiece(op);
    }
    return false;
}

// Carries `op` out on this thread with pread/pwrite.
void FileQueue::runSync(Op& op) {
    int64_t res;
    do {
        const Io& io = op.io;
        const ssize_t n = io.write ? ::pwrite(io.fd, io.buf, io.len, off_t(io.off))
                                   : ::pread(io.fd, io.buf, io.len, off_t(io.off));
        res = n < 0 ? -errno : n;
    } while (advance(op, res));
}

}  // namespace mqb
