// KIVLoop.cpp: construction and destruction of a device loop, the device
// preparation that starts its run, and the class-wide buffers and counters.
#include "KIVLoop.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

#include "DeviceInfo.h"
#include "KIVControl.h"
#include "MQB.h"
#include "MQBErr.h"
#include "MQBManager.h"
#include "Scsi.h"
#include "scsi/Cdb.h"

uint8_t*             KIVLoop::read_buff = nullptr;
uint64_t             KIVLoop::read_buff_size = 0;
uint8_t*             KIVLoop::write_buff = nullptr;
uint64_t             KIVLoop::write_buff_size = 0;
std::atomic<int32_t> KIVLoop::skip_count{0};
std::atomic<int32_t> KIVLoop::reverse_count{0};
std::atomic<int32_t> KIVLoop::repeat_count{0};
std::atomic<int32_t> KIVLoop::rawio_counter{0};

namespace {

// The record holds 128 commands; a larger queue depth is cut with a warning.
constexpr int kMaxQueueDepth = 128;

// Serialises the first-time creation and growth of the class-wide buffers when
// several test threads prepare their devices at once. Never taken per command.
std::mutex& bufferMutex() {
    static std::mutex m;
    return m;
}

// Read buffers replaced while loops may still be reading into them. Never
// destroyed, like read_buff itself: at exit they stay reachable.
std::vector<uint8_t*>& retiredReadBuffers() {
    static auto* v = new std::vector<uint8_t*>();
    return *v;
}

// Turns one LBA bound of the configuration into an absolute LBA: a value in
// (0, 1.1) (or, for the upper bound, anything below 1.1) is a share of the
// capacity, anything else an LBA. Worked in 64 bits; negatives become 0.
int64_t resolveBound(double arg, uint64_t capacity, bool isUpper) {
    bool fraction = isUpper ? (arg < 1.1) : (arg > 0 && arg < 1.1);
    int64_t v;
    if (fraction) {
        double scaled = (double)capacity * arg;
        v = scaled <= 0 ? 0 : (int64_t)scaled;
        if ((uint64_t)v > capacity) v = (int64_t)capacity;
    } else {
        v = arg <= 0 ? 0 : (arg >= 9.2e18 ? INT64_MAX : (int64_t)arg);
    }
    return v;
}

}  // namespace

// Binds the loop to an MQB object for its device, resolves the LBA range and
// the operation count and copies the user data buffer. A failure shows its
// reason through control->print and leaves running false, errCount -1.
KIVLoop::KIVLoop(KIVControl* control_, MQBManager* mqbManager, int deviceIdx_,
                 bool threadMode_, int testType_, float mixRatio_, int /*testCmd*/,
                 int readPct_, int writePct_, int wrvPct_, int verifyPct_, double minLbaArg,
                 double maxLbaArg, int minTL_, int maxTL_, int qDepth_, int ops_,
                 int skipFreq_, int reverseFreq_, int repeatFreq_, int rawioP,
                 int randStream_, int dataBufferIdx_)
    : running(true), stopRequested(false), lastLba(0), lastTL(0), lastCmd(2), outstanding(0), tag(0),
      blockSize(0), opsDone(0), blocksIssued(0), deviceIdx((uint32_t)deviceIdx_),
      hwCompare(false), errCount(0), errShown(false), revSavedLba(0), revSavedTL(0),
      repeatLba(0), repeatTL(0), revPending(false), skipPending(false),
      repeatActive(false), lastRevLba(0), lastRevTL(0), haveLastRev(false),
      lastStatSec(0), control(control_), threadMode(threadMode_), minLba(0), maxLba(0),
      minTL(0), maxTL(0), qDepth(0), ops(0), opsPercent(ops_ < 0), skipFreq(skipFreq_),
      reverseFreq(reverseFreq_), repeatFreq(repeatFreq_), rawioLeft(rawioP),
      randStream(randStream_), testType(testType_), mixRatio(mixRatio_),
      readPct(readPct_), writePct(writePct_), wrvPct(wrvPct_), verifyPct(verifyPct_),
      dataBufferIdx(dataBufferIdx_), userData(nullptr), mqb(nullptr), cdbForm(0) {
    char msg[256];
    memset(cdbs, 0, sizeof(cdbs));
    lastLba.store((uint32_t)(int64_t)minLbaArg, std::memory_order_relaxed);

    if (qDepth_ > kMaxQueueDepth) {
        snprintf(msg, sizeof msg, "KIV: <W> Queue depth %d is above 128, using 128", qDepth_);
        control->print(msg);
        qDepth_ = kMaxQueueDepth;
    }
    qDepth = qDepth_ < 0 ? 0 : (uint32_t)qDepth_;
    minTL = (uint64_t)(int64_t)minTL_;
    maxTL = (uint64_t)(int64_t)maxTL_;
    ops = (uint64_t)(ops_ < 0 ? -(int64_t)ops_ : ops_);

    auto fail = [&]() {
        control->print(msg);
        errCount.store(-1, std::memory_order_relaxed);
        running.store(false, std::memory_order_relaxed);
    };

    MQB* current = mqbManager ? mqbManager->getCurrentMQB() : nullptr;
    if (current == nullptr) {
        snprintf(msg, sizeof msg, "KIV: <E> Could not create an MQB object for device %d",
                 deviceIdx_);
        { fail(); return; }
    }
    if (current->isLocked(deviceIdx_)) {
        snprintf(msg, sizeof msg,
                 "KIV: <I> Could not start operations on device %d: Device Is Locked",
                 deviceIdx_);
        { fail(); return; }
    }

    if (!threadMode) {
        mqb = current;
        control->print("Using Vorlane's mqb object for testing... (single threaded)");
    } else {
        MQB* clone = nullptr;
        if (current->ioctl(MQB_IOCTL_CLONE, 1, &clone) == 0 && clone != nullptr) {
            mqb = clone;
            control->print("Created New Test Thread Using \\\"clone\\\" method");
        } else {
            char info[90] = {0};
            current->infoString(info, sizeof info);
            info[sizeof info - 1] = 0;
            char* colon = strchr(info, ':');
            if (colon) *colon = 0;
            mqb = createMQB(info, 0, 0, 0);
            control->print("Created New Test Thread Using \\\"new\\\" method");
        }
        if (mqb == nullptr) {
            snprintf(msg, sizeof msg, "KIV: <E> Could not create an MQB object for device %d",
                     deviceIdx_);
            { fail(); return; }
        }
    }

    if (mqb->setDeviceIndex(deviceIdx_) != 0) {
        snprintf(msg, sizeof msg, "KIV: <E> Could not set device!");
        { fail(); return; }
    }
    mqb->setLoggingLevel(0);
    DeviceInfo info;
    mqb->getDeviceInfo(&info);
    blockSize = info.blockSize;
    cdbForm = info.cdbForm;

    // Bounds in 64 bits; each command takes the CDB form that carries it.
    int64_t hi = resolveBound(maxLbaArg, info.capacity, true);
    int64_t lo = resolveBound(minLbaArg, info.capacity, false);
    // A range no wider than the largest transfer leaves the random draw nothing
    // to choose from (its divisor would be 0): walk it sequentially instead.
    if (hi - lo - (int64_t)maxTL < 1) {
        hi = lo + (int64_t)maxTL;
        testType = 1;
    }
    minLba = (uint64_t)lo;
    maxLba = (uint64_t)hi;

    // A forced form must carry every command of the run, the end-of-pass
    // command one past maxLba included; nothing is cut to fit.
    if (cdbForm == 10 && maxLba >= scsi::kMaxLba10) {
        snprintf(msg, sizeof msg,
                 "KIV: <E> Device %d: cdb=10 cannot carry LBA %llu; use cdb=16 or a smaller "
                 "-lba range",
                 deviceIdx_, (unsigned long long)maxLba + 1);
        { fail(); return; }
    }
    if (cdbForm == 10 && maxTL > scsi::kMaxTl10) {
        snprintf(msg, sizeof msg,
                 "KIV: <E> Device %d: cdb=10 cannot carry a transfer of %llu blocks; use "
                 "cdb=16 or a smaller -translen",
                 deviceIdx_, (unsigned long long)maxTL);
        { fail(); return; }
    }
    if (maxTL > scsi::kMaxTl16) {  // a negative length from the caller, sign-extended
        snprintf(msg, sizeof msg,
                 "KIV: <E> Transfer length %llu does not fit a 16-byte CDB",
                 (unsigned long long)maxTL);
        { fail(); return; }
    }

    if (opsPercent) {
        double pct = (double)-(int64_t)ops_ / 100.0;
        double count = ((double)(maxLba - minLba) * pct) / ((double)(minTL + maxTL) * 0.5);
        ops = (uint64_t)(int64_t)count;
        printf("Operation count set to %f%% -> %lld operations\n", pct * 100.0, (long long)ops);
        fflush(stdout);
    }

    if (dataBufferIdx >= 0) {
        unsigned long size = 0;
        if ((unsigned int)dataBufferIdx >= mqbManager->getBufferCount() ||
            mqbManager->getBufferSize((unsigned int)dataBufferIdx, size) < 0) {
            snprintf(msg, sizeof msg, "Error: selected user buffer out of range: %d",
                     dataBufferIdx);
            { fail(); return; }
        }
        size_t need = (size_t)blockSize * (size_t)maxTL;
        if (need > size) {
            snprintf(msg, sizeof msg,
                     "Error: selected user buffer size is less than largest write transfer "
                     "length: %zu < %zu",
                     (size_t)size, need);
            { fail(); return; }
        }
        userData = (uint8_t*)malloc(need ? need : 1);
        if (userData == nullptr) {
            snprintf(msg, sizeof msg,
                     "Error: could not allocate working buffer for user data, Out of Memory "
                     "(alloc size = %zu)",
                     need);
            { fail(); return; }
        }
        const unsigned char* src = mqbManager->getBufferDataPtr((unsigned int)dataBufferIdx);
        if (src && need) memcpy(userData, src, need);
    }

    printf("Init complete\n");
    fflush(stdout);
}

// Takes every completion still outstanding, frees the user data copy, turns
// queueing, fast reads and the data mode back off and releases an owned MQB.
KIVLoop::~KIVLoop() {
    while (outstanding > 0) unloadFunc();
    free(userData);
    userData = nullptr;
    if (mqb) {
        int a = 0, b = 0;
        mqb->ioctl(MQB_IOCTL_QUEUEING, 2, &a, &b);
        unsigned char off = 1;
        mqb->ioctl(MQB_IOCTL_FAST_READS, 1, &off);
        int mode = MQB_DATA_OFF, arg = 0;
        unsigned char flag = 0;
        mqb->ioctl(MQB_IOCTL_DATA_MODE, 3, &mode, &arg, &flag);
        if (threadMode) {
            deleteMQB(mqb);
            mqb = nullptr;
        }
    }
}

// Queueing, fast reads and data mode on the device, then the geometry and the
// shared buffers. Returns false when queueing cannot be set up; the run then
// ends without sending anything. Messages go through printThreaded.
bool KIVLoop::prepareDevice() {
    char msg[160];
    if (qDepth > 1) {
        int enable = 1, arg = 0;
        if (mqb->ioctl(MQB_IOCTL_QUEUEING, 2, &enable, &arg) != 0) {
            snprintf(msg, sizeof msg, "KIV: Could not initiate queuing on device: %d\n",
                     mqb->getCurrentDeviceIndex());
            control->printThreaded(msg);
            snprintf(msg, sizeof msg, "KIV: Aborting ops on device: %d",
                     mqb->getCurrentDeviceIndex());
            control->printThreaded(msg);
            return false;
        }
        int depth = (int)qDepth;
        int rc = mqb->ioctl(MQB_IOCTL_MAX_DEPTH, 1, &depth);
        if (rc != 0) {
            snprintf(msg, sizeof msg, "KIV: Could not set max queue depth to: %d err = %d\n",
                     depth, rc);
            control->printThreaded(msg);
            return false;
        }
    }

    unsigned char fast = 0;
    control->printThreaded(mqb->ioctl(MQB_IOCTL_FAST_READS, 1, &fast) == 0
                               ? "KIV: <I> Activated Fast Reads"
                               : "KIV: <I> Could not activate fast reads");

    int mode = MQB_DATA_GENERATE;
    if (hwCompare) mode = MQB_DATA_KEYED;
    if (dataBufferIdx >= 0) mode = MQB_DATA_REPEAT;
    int arg = 0;
    unsigned char flag = 0;
    const int modeRc = mqb->ioctl(MQB_IOCTL_DATA_MODE, 3, &mode, &arg, &flag);
    if (modeRc == MQB_ERR_NO_MEMORY) {
        snprintf(msg, sizeof msg,
                 "KIV: <E> Could not allocate the data check of device %d, Out Of Memory",
                 mqb->getCurrentDeviceIndex());
        control->printThreaded(msg);
        return false;
    }
    if (modeRc > 0) {
        snprintf(msg, sizeof msg,
                 "KIV: <W> No memory for the lost-write journal of device %d: "
                 "checking without it",
                 mqb->getCurrentDeviceIndex());
        control->printThreaded(msg);
    }
    bool ok = modeRc >= 0;
    if (dataBufferIdx < 0)
        control->printThreaded(ok ? "KIV: <I> Activated Hardware data generation"
                                  : "KIV: <I> Using software generated random data");
    else
        control->printThreaded(ok ? "KIV: <I> Activated Hardware Asisted Data Repeat"
                                  : "KIV: <I> Using User Specified Data Repeat");

    DeviceInfo info;
    mqb->getDeviceInfo(&info);
    blockSize = info.blockSize;

    // run() sized the shared buffer before any loop started; a block size
    // learnt since then may need more.
    const uint64_t need = readBufferNeed();
    if (!reserveReadBuffer(need)) {
        snprintf(msg, sizeof msg,
                 "KIV: <E> Could not allocate a read buffer of %llu bytes for device %d, "
                 "Out Of Memory",
                 (unsigned long long)need, mqb->getCurrentDeviceIndex());
        control->printThreaded(msg);
        return false;
    }
    if (dataBufferIdx < 0) {
        std::lock_guard<std::mutex> lock(bufferMutex());
        if (write_buff == nullptr) generateRandomWriteBuffer();
    }
    return true;
}

void KIVLoop::requestStop() {
    stopRequested.store(true, std::memory_order_relaxed);
    running.store(false, std::memory_order_relaxed);
}

void KIVLoop::setSkipCount(int n) { skip_count.store(n, std::memory_order_relaxed); }
void KIVLoop::setReverseCount(int n) { reverse_count.store(n, std::memory_order_relaxed); }
void KIVLoop::setRepeatCount(int n) { repeat_count.store(n, std::memory_order_relaxed); }
void KIVLoop::setRawioCount(int) { rawio_counter.store(0, std::memory_order_relaxed); }

// Grows read_buff to at least `need` bytes; never shrinks it. The buffer it
// replaces is retired, not freed, so reads landing in it stay valid. Returns
// false when the allocation fails (or `need` does not fit a size_t); the old
// buffer then stays in place.
bool KIVLoop::reserveReadBuffer(uint64_t need) {
    std::lock_guard<std::mutex> lock(bufferMutex());
    if (read_buff != nullptr && read_buff_size >= need) return true;
    if (need > SIZE_MAX) return false;
    // Page-aligned, so that a device doing direct I/O reads straight into it.
    void* mem = nullptr;
    if (posix_memalign(&mem, 4096, need ? (size_t)need : 1) != 0) return false;
    uint8_t* fresh = (uint8_t*)mem;
    if (read_buff != nullptr) retiredReadBuffers().push_back(read_buff);
    read_buff = fresh;
    read_buff_size = need;
    return true;
}

void KIVLoop::releaseRetiredReadBuffers() {
    std::lock_guard<std::mutex> lock(bufferMutex());
    for (uint8_t* b : retiredReadBuffers()) free(b);
    retiredReadBuffers().clear();
}
