// KIVLoop_gen.cpp: choosing the next block and command of a device loop and
// building its CDB: the 10-byte form where it carries the block, else the
// 16-byte one. One call of loadFunc makes and sends one command.
//
// lastLba/lastTL are atomics only so that the statistics can read them from the
// interpreter's thread; this thread is their one writer, so every access here is
// a relaxed plain load or store.
#include "KIVLoop.h"

#include <cstdio>

#include "KIVControl.h"
#include "MQB.h"
#include "Scsi.h"
#include "scsi/Cdb.h"

namespace {

constexpr auto kRelaxed = std::memory_order_relaxed;
constexpr uint64_t kWriteBuffBytes = 1000000;

// 10-byte SCSI operation codes of the command codes shown as KIVControl::cmdstr.
constexpr uint8_t kOpcode[5] = {scsi::kRead10, scsi::kWrite10, 0x00, scsi::kWriteVerify10,
                                scsi::kVerify10};
enum { CMD_READ = 0, CMD_WRITE = 1, CMD_WRV = 3, CMD_VERIFY = 4 };

inline uint64_t draw() { return (uint64_t)KIVLoop::hirand(); }

// One more for a single-writer counter: a plain load and store, no lock prefix.
template <typename T, typename U>
inline void bump(std::atomic<T>& v, U by) {
    v.store(v.load(kRelaxed) + (T)by, kRelaxed);
}

}  // namespace

// Draws a transfer length from [minTL, maxTL). Makes no draw when the range is a
// single value, so a fixed length leaves the random sequence untouched.
uint64_t KIVLoop::drawTL() {
    if (maxTL > minTL) return draw() % (maxTL - minTL) + minTL;
    return minTL;
}

// Random LBA: below maxLba - maxTL, so the block ends before maxLba. The
// constructor keeps the divisor at 1 or more. One draw gives 31 bits, which
// the ranges a 10-byte CDB can address have always used; a range past 2^32
// takes two draws, so that all of it is reached.
static inline uint64_t randomLba(const KIVLoop* l) {
    const uint64_t span = l->maxLba - l->minLba - l->maxTL;
    uint64_t r = draw();
    if (span > scsi::kMaxLba10 + 1) r = (r << 31) | draw();
    return r % span + l->minLba;
}

// Shortens a transfer that would run past maxLba so the block ends on it.
static inline uint64_t clampTL(const KIVLoop* l, uint64_t lba, uint64_t tl) {
    if (lba > l->maxLba) return 0;
    if (lba + tl > l->maxLba) return l->maxLba + 1 - lba;
    return tl;
}

// Moves to the block after the last one, back to minLba past maxLba, with a new
// transfer length cut at maxLba. Updates lastLba and lastTL.
void KIVLoop::sequentialStep() {
    uint64_t lba = lastLba.load(kRelaxed) + lastTL.load(kRelaxed);
    if (lba > maxLba) lba = minLba;
    uint64_t tl = clampTL(this, lba, drawTL());
    lastLba.store(lba, kRelaxed);
    lastTL.store(tl, kRelaxed);
}

// The ordinary stream move: like the sequential step, but a random LBA when
// randStream is set.
void KIVLoop::streamAdvance() {
    uint64_t lba = randStream ? randomLba(this)
                              : lastLba.load(kRelaxed) + lastTL.load(kRelaxed);
    if (lba > maxLba) lba = minLba;
    uint64_t tl = clampTL(this, lba, drawTL());
    lastLba.store(lba, kRelaxed);
    lastTL.store(tl, kRelaxed);
}

// One step of the sequential stream test: a reversed pair every reverseFreq
// steps, a repeat run every repeatFreq steps, a one-block skip every skipFreq
// steps. The counters are shared by all loops, so each increment is atomic and
// its result is what the cadence compares.
void KIVLoop::streamStep() {
    int32_t skipN = skip_count.fetch_add(1, kRelaxed) + 1;
    int32_t revN = reverse_count.fetch_add(1, kRelaxed) + 1;
    int32_t repN = repeat_count.fetch_add(1, kRelaxed) + 1;

    if (revPending) {
        revPending = false;
        lastLba.store(revSavedLba, kRelaxed);
        lastTL.store(revSavedTL, kRelaxed);
    } else if (revN == reverseFreq) {
        // Issue the later block now and the earlier one next step.
        reverse_count.store(0, kRelaxed);
        sequentialStep();
        revSavedLba = lastLba.load(kRelaxed);
        revSavedTL = lastTL.load(kRelaxed);
        sequentialStep();
        lastRevLba = lastLba.load(kRelaxed);
        lastRevTL = lastTL.load(kRelaxed);
        haveLastRev = true;
        revPending = true;
    } else if (repeatActive) {
        lastLba.store(repeatLba, kRelaxed);
        lastTL.store(repeatTL, kRelaxed);
        if (--rawioLeft < 0) {
            // The run is over: the next one repeats as many times as this one.
            repeatActive = false;
            rawioLeft = rawio_counter.load(kRelaxed);
            rawio_counter.store(0, kRelaxed);
            repeat_count.store(0, kRelaxed);
        } else {
            rawio_counter.fetch_add(1, kRelaxed);
        }
    } else if (repN == repeatFreq) {
        repeat_count.store(0, kRelaxed);
        streamAdvance();
        repeatLba = lastLba.load(kRelaxed);
        repeatTL = lastTL.load(kRelaxed);
        repeatActive = true;
    } else {
        streamAdvance();
        // The early block of a reversed pair has been issued already.
        if (haveLastRev && lastLba.load(kRelaxed) == lastRevLba &&
            lastTL.load(kRelaxed) == lastRevTL)
            sequentialStep();
    }

    if (skipPending) {
        sequentialStep();
        skipPending = false;
    } else if (skipN == skipFreq) {
        skip_count.store(0, kRelaxed);
        skipPending = true;
    }
}

// Chooses the next block and command type, fills the record of the next tag
// and sends it. Accepted: outstanding and blocksIssued grow. Refused: errCount
// grows and testErr reports it. Clears running at the end of a packed pass or
// for an unknown test type. Allocates nothing.
void KIVLoop::loadFunc() {
    tag++;
    CDBStruct& rec = cdbs[tag % 128];
    rec.recLen = sizeof(CDBStruct);
    rec.one = 1;

    if (testType > 4 || testType < 0) {
        printf("KIV: <E> Unknown test mode!, aborting thread");
        fflush(stdout);
        running.store(false, kRelaxed);
        return;
    }

    switch (testType) {
    case 0: {
        uint64_t lba = randomLba(this);
        lastLba.store(lba, kRelaxed);
        lastTL.store(drawTL(), kRelaxed);
        break;
    }
    case 1:
        sequentialStep();
        break;
    case 2: {
        float x = (float)draw() * (1.0f / 2147483648.0f);
        uint64_t lba;
        if (x <= mixRatio) {
            lba = randomLba(this);
        } else {
            lba = lastLba.load(kRelaxed) + lastTL.load(kRelaxed);
            if (lba >= maxLba - maxTL) lba = minLba;
        }
        lastLba.store(lba, kRelaxed);
        lastTL.store(drawTL(), kRelaxed);
        break;
    }
    case 3: {
        // The step past maxLba still sends its (zero-length) command.
        uint64_t lba = lastLba.load(kRelaxed) + lastTL.load(kRelaxed);
        if (lba > maxLba) running.store(false, kRelaxed);
        lastLba.store(lba, kRelaxed);
        lastTL.store(clampTL(this, lba, maxTL), kRelaxed);
        break;
    }
    default:
        streamStep();
        break;
    }

    uint32_t d = (uint32_t)(draw() % 100) + 1;
    uint32_t cmd;
    if (d <= (uint32_t)readPct)
        cmd = CMD_READ;
    else if (d <= (uint32_t)(readPct + writePct))
        cmd = CMD_WRITE;
    else if (d <= (uint32_t)(readPct + writePct + wrvPct))
        cmd = CMD_WRV;
    else
        cmd = CMD_VERIFY;

    const uint64_t lba = lastLba.load(kRelaxed);
    const uint64_t tl = lastTL.load(kRelaxed);
    const uint64_t bytes = (uint64_t)blockSize * tl;
    lastCmd.store(cmd, kRelaxed);

    // 16 bytes only where forced or where the 10-byte form cannot carry the
    // block (a block at or past 2^32, more than 65,535 blocks). A run refuses
    // a forced 10 that would not carry its range (constructor).
    const bool sixteen = cdbForm == 16 || (cdbForm == 0 && !scsi::fits10(lba, tl));
    rec.cdbLen = scsi::putDataCdb(rec.cdb, kOpcode[cmd], 0, lba, tl, sixteen);
    rec.tag = tag;

    switch (cmd) {
    case CMD_READ:
        rec.readBuf = read_buff;
        rec.readLen = bytes;
        rec.writeBuf = nullptr;
        rec.writeLen = 0;
        break;
    case CMD_VERIFY:
        rec.readBuf = nullptr;
        rec.readLen = 0;
        rec.writeBuf = nullptr;
        rec.writeLen = 0;
        break;
    default:
        rec.readBuf = nullptr;
        rec.readLen = 0;
        if (userData) {
            // The user copy holds blockSize * maxTL bytes, so every transfer fits.
            rec.writeBuf = userData;
            rec.writeLen = bytes;
        } else if (bytes < kWriteBuffBytes) {
            uint64_t off = draw() % (kWriteBuffBytes - bytes);
            rec.writeBuf = write_buff ? write_buff + off : nullptr;
            rec.writeLen = bytes;
        } else {
            // Larger transfers carry the whole buffer; the device's data mode
            // supplies the rest.
            rec.writeBuf = write_buff;
            rec.writeLen = kWriteBuffBytes;
        }
        break;
    }

    int status = mqb->send(reinterpret_cast<unsigned char*>(&rec));
    if (status == 0) {
        outstanding++;
        bump(blocksIssued, tl);
        return;
    }
    unsigned char sense[scsi::kMaxSense];
    int size = (int)sizeof sense;
    int length = 0;
    if (status == -16) mqb->errInfo(MQB_INFO_SENSE, 3, sense, &size, &length);
    bump(errCount, 1);
    control->testErr(this, status, sense, length, &rec);
}
