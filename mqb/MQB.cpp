// MQB.cpp: a channel to the device table: device selection, the ioctls, and
// the fixed-size completion queue that send() fills and receive() drains.
// Data commands of file devices run through the channel's own io_uring (made
// on the first such command); they join the completion queue when the kernel
// completes them. Without io_uring they run synchronously inside send().
#include "MQB.h"
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <thread>
#include "DataChecker.h"
#include "DeviceTable.h"
#include "LatencyRecorder.h"
#include "MQBErr.h"
#include "backends/Device.h"
#if MQB_HAVE_URING
#include <liburing.h>
#endif

namespace {

constexpr int kQueueCap = 256;  // power of two: ring indexes wrap with a mask
constexpr uint8_t kOpReadCapacity = 0x25;

uint64_t nowNs() {
    return uint64_t(std::chrono::duration_cast<std::chrono::nanoseconds>(
                        std::chrono::steady_clock::now().time_since_epoch()).count());
}

uint32_t ld32(const unsigned char* p) {
    uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
}

uint64_t ld64(const unsigned char* p) {
    uint64_t v;
    std::memcpy(&v, p, 8);
    return v;
}

template <typename T>
T* ldPtr(const unsigned char* p) {
    T* v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// One command between send() and receive().
struct Slot {
    uint64_t     due;   // steady-clock ns when it finishes; 0 = at once
    mqb::Device* dev;
    uint32_t     tag;
    uint8_t      opcode;
    uint8_t      cdbLen;
    uint8_t      cdb[16];
    mqb::Outcome out;
    mqb::CmdTicket tk;  // data check and latency state of the command
};

#if MQB_HAVE_URING
constexpr unsigned kRingEntries = kQueueCap;  // one SQE per command the channel can hold
constexpr uint64_t kScratch = 256 * 1024;     // VERIFY reads its blocks here, in chunks

// A command handed to io_uring: its slot (copied into the completion queue
// when done) and what is left of its transfer.
struct AsyncOp {
    Slot            s;
    mqb::IoRequest  io;
};
#endif

}  // namespace

struct MQB::Impl {
    std::string  driver;
    int          devIdx = -1;
    mqb::Device* dev = nullptr;
    bool         cloneOk = true;
    int          logLevel = 0;

    // Completions, kept sorted by due time from ring[head] on.
    Slot ring[kQueueCap];
    int  head = 0;
    int  count = 0;

    // The last completion received and the last failure's sense.
    bool     haveLast = false;
    uint32_t lastTag = 0;
    uint8_t  lastCdbLen = 0;
    uint8_t  lastCdb[16] = {};
    uint8_t  senseLen = 0;
    uint8_t  sense[mqb::kMaxSense] = {};

    // Commands with the kernel, not yet in the completion queue.
    int  pending = 0;
    // Set once io_uring turned out to be unavailable: file devices then run
    // synchronously. Always set without liburing.
#if MQB_HAVE_URING
    bool asyncOff = false;
    bool ringUp = false;
    io_uring uring{};
    std::unique_ptr<AsyncOp[]> ops;      // kQueueCap entries; the SQE user_data indexes them
    std::unique_ptr<int[]> freeOps;      // stack of unused op indexes
    int  nFree = 0;
    std::unique_ptr<uint8_t[]> scratch;  // kScratch bytes, shared by every VERIFY
#else
    bool asyncOff = true;
#endif

    // Keyed / generated data and latency recording of this channel.
    mqb::DataChecker     data;
    mqb::LatencyRecorder lat;

    explicit Impl(const std::string& d) : driver(d) {}
};

namespace {

// Moves the slot at `pos` (the tail) towards the head until the queue is
// ordered by due time again; equal times stay in arrival order.
void insertSorted(MQB::Impl& m, int pos) {
    while (pos != m.head) {
        const int prev = (pos - 1) & (kQueueCap - 1);
        if (m.ring[prev].due <= m.ring[pos].due) break;
        std::swap(m.ring[prev], m.ring[pos]);
        pos = prev;
    }
    ++m.count;
}

#if MQB_HAVE_URING
// Makes the channel's io_uring and its fixed buffers. Returns false (and
// switches the channel to synchronous I/O for good) when the kernel refuses.
bool startRing(MQB::Impl& m) {
    if (m.ringUp) return true;
    if (io_uring_queue_init(kRingEntries, &m.uring, 0) < 0) {
        m.asyncOff = true;
        return false;
    }
    m.ringUp = true;
    m.ops.reset(new AsyncOp[kQueueCap]);
    m.freeOps.reset(new int[kQueueCap]);
    m.scratch.reset(new uint8_t[kScratch]);
    for (int i = 0; i < kQueueCap; ++i) m.freeOps[i] = kQueueCap - 1 - i;
    m.nFree = kQueueCap;
    return true;
}

// Queues the next piece of op `i`'s transfer and submits it. Never fails:
// there is an SQE for every op, and an SQE the kernel could not take yet is
// submitted again before the channel waits.
void queueIo(MQB::Impl& m, int i) {
    AsyncOp& op = m.ops[i];
    io_uring_sqe* sqe = io_uring_get_sqe(&m.uring);
    if (!sqe) {
        io_uring_submit(&m.uring);
        sqe = io_uring_get_sqe(&m.uring);
    }
    const uint64_t cap = op.io.kind == mqb::IoRequest::Kind::Verify ? kScratch : 1u << 30;
    const unsigned len = unsigned(op.io.len < cap ? op.io.len : cap);
    if (op.io.kind == mqb::IoRequest::Kind::Write)
        io_uring_prep_write(sqe, op.io.fd, op.io.buf, len, op.io.off);
    else
        io_uring_prep_read(sqe, op.io.fd,
                           op.io.kind == mqb::IoRequest::Kind::Verify ? m.scratch.get() : op.io.buf,
                           len, op.io.off);
    io_uring_sqe_set_data64(sqe, uint64_t(i));
    io_uring_submit(&m.uring);
}

// Takes one kernel completion. A partial transfer (or an interrupted one) is
// continued with a new SQE; a finished or failed op moves into the
// completion queue, due now, with MEDIUM ERROR sense when it failed. Marks
// the CQE seen.
void takeCqe(MQB::Impl& m, io_uring_cqe* cqe) {
    const int i = int(io_uring_cqe_get_data64(cqe));
    const int res = cqe->res;
    io_uring_cqe_seen(&m.uring, cqe);
    AsyncOp& op = m.ops[i];
    bool failed = false;
    if (res == -EINTR || res == -EAGAIN) {
        queueIo(m, i);
        return;
    }
    if (res <= 0) {
        failed = true;  // an error, or end of file inside the device's range
    } else {
        op.io.off += uint64_t(res);
        op.io.len -= uint64_t(res);
        if (op.io.kind != mqb::IoRequest::Kind::Verify) op.io.buf += res;
        if (op.io.len > 0) {
            queueIo(m, i);
            return;
        }
    }
    if (failed) {
        const bool write = op.io.kind == mqb::IoRequest::Kind::Write;
        mqb::buildFixedSense(op.s.out, 0x03, write ? 0x0C : 0x11, 0x00, false, 0, false, 0);
        op.s.dev->noteError();
    }
    op.s.due = nowNs() + uint64_t(op.s.tk.delayUs) * 1000;  // a delay fault postpones it
    const int pos = (m.head + m.count) & (kQueueCap - 1);
    m.ring[pos] = op.s;
    insertSorted(m, pos);
    --m.pending;
    m.freeOps[m.nFree++] = i;
}

// Takes every completion the kernel already has, without waiting.
void reapReady(MQB::Impl& m) {
    io_uring_cqe* cqe;
    while (m.pending > 0 && io_uring_peek_cqe(&m.uring, &cqe) == 0) takeCqe(m, cqe);
}

// Makes sure the head of the completion queue is the earliest completion:
// takes what the kernel has, then waits for the kernel while the queue is
// empty or its head is not due yet (a simulated latency). Returns false when
// the kernel cannot be waited on and the queue is still empty.
bool awaitHead(MQB::Impl& m) {
    reapReady(m);
    while (m.pending > 0) {
        io_uring_submit(&m.uring);  // anything the kernel could not take before
        io_uring_cqe* cqe = nullptr;
        int rc;
        if (m.count > 0) {
            const uint64_t due = m.ring[m.head].due, now = nowNs();
            if (due <= now) break;
            __kernel_timespec ts{};
            ts.tv_sec = int64_t((due - now) / 1000000000u);
            ts.tv_nsec = int64_t((due - now) % 1000000000u);
            rc = io_uring_wait_cqe_timeout(&m.uring, &cqe, &ts);
            if (rc == -ETIME) break;
        } else {
            rc = io_uring_wait_cqe(&m.uring, &cqe);
        }
        if (rc == -EINTR) continue;
        if (rc < 0) break;
        takeCqe(m, cqe);
        reapReady(m);
    }
    return m.count > 0;
}

// Waits for every op still with the kernel and drops it, then frees the ring.
// The kernel must be done with the callers' buffers before the channel goes.
void stopRing(MQB::Impl& m) {
    if (!m.ringUp) return;
    io_uring_submit(&m.uring);
    while (m.pending > 0) {
        io_uring_cqe* cqe = nullptr;
        const int rc = io_uring_wait_cqe(&m.uring, &cqe);
        if (rc == -EINTR) continue;
        if (rc < 0) break;
        Slot& dropped = m.ops[io_uring_cqe_get_data64(cqe)].s;
        m.data.onDrop(*dropped.dev, dropped.tk);  // hook: release its buffer and write tracking
        dropped.dev->leave();
        io_uring_cqe_seen(&m.uring, cqe);
        --m.pending;
    }
    io_uring_queue_exit(&m.uring);
    m.ringUp = false;
}
#endif

}  // namespace

MQB::MQB(const std::string& driver) : impl_(std::make_unique<Impl>(driver)) {}

// Commands still in flight are dropped: the devices only need to know they
// are no longer outstanding. Those with the kernel are waited for first.
MQB::~MQB() {
    Impl& m = *impl_;
#if MQB_HAVE_URING
    stopRing(m);
#endif
    for (int i = 0; i < m.count; ++i) {
        Slot& s = m.ring[(m.head + i) & (kQueueCap - 1)];
        m.data.onDrop(*s.dev, s.tk);  // hook: release its buffer and write tracking
        s.dev->leave();
    }
}

bool MQB::isLocked(int deviceIdx) {
    mqb::Device* d = mqb::deviceAt(deviceIdx);
    return d == nullptr || d->locked();
}

// Carries out one ioctl. The pointers after `count` depend on the code (see
// MQBIoctl); a wrong count or a null pointer is MQB_ERR_PARAM. The device
// ioctls need a selected device and leave their state in its counters.
int MQB::ioctl(int code, int count, ...) {
    Impl& m = *impl_;
    va_list ap;
    va_start(ap, count);
    int rc = MQB_OK;
    switch (code) {
    case MQB_IOCTL_CLONE: {
        MQB** out = count == 1 ? va_arg(ap, MQB**) : nullptr;
        if (!out) { rc = MQB_ERR_PARAM; break; }
        if (!m.cloneOk) { rc = MQB_ERR_UNSUPPORTED; break; }
        auto c = std::make_unique<MQB>(m.driver);
        c->impl_->cloneOk = m.cloneOk;
        c->impl_->logLevel = m.logLevel;
        if (m.devIdx >= 0) c->setDeviceIndex(m.devIdx);
        *out = c.release();  // the caller frees it with deleteMQB
        break;
    }
    case MQB_IOCTL_QUEUEING: {
        int* enable = count == 2 ? va_arg(ap, int*) : nullptr;
        int* arg = enable ? va_arg(ap, int*) : nullptr;
        if (!enable || !arg) { rc = MQB_ERR_PARAM; break; }
        if (!m.dev) { rc = MQB_ERR_NO_DEVICE; break; }
        m.dev->noteQueueing(*enable != 0);
        break;
    }
    case MQB_IOCTL_MAX_DEPTH: {
        int* depth = count == 1 ? va_arg(ap, int*) : nullptr;
        if (!depth || *depth < 1 || *depth > kQueueCap) { rc = MQB_ERR_PARAM; break; }
        if (!m.dev) { rc = MQB_ERR_NO_DEVICE; break; }
        m.dev->noteMaxDepth(*depth);
        break;
    }
    case MQB_IOCTL_FAST_READS: {
        unsigned char* v = count == 1 ? va_arg(ap, unsigned char*) : nullptr;
        if (!v || *v > 1) { rc = MQB_ERR_PARAM; break; }
        if (!m.dev) { rc = MQB_ERR_NO_DEVICE; break; }
        m.dev->noteFastReads(*v == 0);
        break;
    }
    case MQB_IOCTL_DATA_MODE: {
        int* mode = count == 3 ? va_arg(ap, int*) : nullptr;
        int* arg = mode ? va_arg(ap, int*) : nullptr;
        unsigned char* flag = arg ? va_arg(ap, unsigned char*) : nullptr;
        if (!mode || !arg || !flag) { rc = MQB_ERR_PARAM; break; }
        if (*mode != 0 && *mode != 3 && *mode != 6 && *mode != 11) { rc = MQB_ERR_PARAM; break; }
        if (!m.dev) { rc = MQB_ERR_NO_DEVICE; break; }
        m.dev->noteDataMode(*mode);
        m.dev->data().setMode(*mode, m.dev->backend().geometry());  // hook: keyed data state
        break;
    }
    default:
        rc = MQB_ERR_IOCTL;
        break;
    }
    va_end(ap);
    return rc;
}

// Writes "<driver>:MQB channel, device <idx> of <count>" into buf, cut to
// size - 1 characters. Returns the length written.
int MQB::infoString(char* buf, int size) {
    if (!buf || size <= 0) return MQB_ERR_PARAM;
    int n = std::snprintf(buf, size_t(size), "%s:MQB channel, device %d of %d",
                          impl_->driver.c_str(), impl_->devIdx, mqb::deviceCount());
    if (n < 0) {
        buf[0] = '\0';
        return 0;
    }
    return n < size ? n : size - 1;
}

int MQB::setDeviceIndex(int deviceIdx) {
    mqb::Device* d = mqb::deviceAt(deviceIdx);
    if (!d) return MQB_ERR_DEV_RANGE;
    impl_->dev = d;
    impl_->devIdx = deviceIdx;
    impl_->lat.attach(d);  // hook: record latency into this device's histograms
    return MQB_OK;
}

void MQB::setLoggingLevel(int level) { impl_->logLevel = level; }

int MQB::getDeviceInfo(DeviceInfo* info) {
    if (!info) return MQB_ERR_PARAM;
    *info = DeviceInfo();
    mqb::Device* d = impl_->dev;
    if (!d) return MQB_ERR_NO_DEVICE;
    const mqb::Geometry g = d->backend().geometry();
    info->capacity = g.blocks ? g.blocks - 1 : 0;
    info->blockSize = g.blockSize;
    info->index = impl_->devIdx;
    std::snprintf(info->backend, sizeof info->backend, "%s", d->backend().kind());
    return MQB_OK;
}

int MQB::getCurrentDeviceIndex() { return impl_->devIdx; }

int MQB::deviceCount() { return mqb::deviceCount(); }

// Queues the command of `record`. The device decides its outcome now; the
// completion is placed in the ring by due time (arrival + device latency), so
// a run of equal-latency commands only ever appends. Reads the clock only for
// a device with latency. A data command the device hands back as I/O goes to
// the channel's io_uring instead and joins the ring when the kernel is done.
int MQB::send(unsigned char* record) {
    Impl& m = *impl_;
    if (!record) return MQB_ERR_PARAM;
    if (ld32(record + mqbrec::kRecLen) != uint32_t(mqbrec::kSize)) return MQB_ERR_RECORD;
    const uint8_t cdbLen = record[mqbrec::kCdbLen];
    if (cdbLen == 0 || cdbLen > 16) return MQB_ERR_RECORD;
    mqb::Device* d = m.dev;
    if (!d) return MQB_ERR_NO_DEVICE;
    if (d->locked()) return MQB_ERR_LOCKED;
    if (m.count + m.pending == kQueueCap) return MQB_ERR_QUEUE_FULL;

    int pos = (m.head + m.count) & (kQueueCap - 1);
    Slot& s = m.ring[pos];
    std::memcpy(s.cdb, record + mqbrec::kCdb, 16);
    s.cdbLen = cdbLen;
    s.opcode = s.cdb[0];
    s.tag = ld32(record + mqbrec::kTag);
    s.dev = d;

    mqb::Command c;
    c.cdb = s.cdb;
    c.cdbLen = cdbLen;
    c.opcode = s.opcode;
    if (cdbLen >= 9) {
        c.lba = (uint64_t(s.cdb[2]) << 24) | (uint64_t(s.cdb[3]) << 16) |
                (uint64_t(s.cdb[4]) << 8) | s.cdb[5];
        c.tl = (uint32_t(s.cdb[7]) << 8) | s.cdb[8];
    }
    c.readBuf = ldPtr<uint8_t>(record + mqbrec::kReadBuf);
    c.readLen = ld64(record + mqbrec::kReadLen);
    c.writeBuf = ldPtr<const uint8_t>(record + mqbrec::kWriteBuf);
    c.writeLen = ld64(record + mqbrec::kWriteLen);

    // Hook at send: the time, then generated / keyed write data in the
    // channel's buffers and a channel buffer for a read that will be checked.
    s.tk.delayUs = 0;
    m.lat.onSend(d->data(), s.tk);
    m.data.onSend(*d, c, s.tk);
    mqb::IoRequest io;
    if (!d->submit(c, s.tag, s.out, m.asyncOff ? nullptr : &io, &s.tk.delayUs)) {
        m.data.onDrop(*d, s.tk);  // hook: the refused command never reached the device
        m.senseLen = s.out.senseLen;
        std::memcpy(m.sense, s.out.sense, s.out.senseLen);
        return s.out.status;
    }
    d->enter();
    if (io.kind != mqb::IoRequest::Kind::None) {
#if MQB_HAVE_URING
        if (startRing(m)) {
            const int i = m.freeOps[--m.nFree];
            m.ops[i].s = s;
            m.ops[i].io = io;
            ++m.pending;
            queueIo(m, i);
            return MQB_OK;
        }
#endif
        d->backend().execute(c, s.out);  // no io_uring after all: synchronous I/O
        if (s.out.status != MQB_OK) d->noteError();
    }
    const uint64_t lat = uint64_t(d->backend().latencyUs()) + s.tk.delayUs;  // delay fault included
    s.due = lat ? nowNs() + lat * 1000 : 0;
    insertSorted(m, pos);
    return MQB_OK;
}

// Takes the earliest completion, sleeping until it is due (or waiting for the
// kernel when only io_uring commands are out). Remembers its tag and CDB for
// receiveInfo and its sense (or none) for errInfo. A completed READ
// CAPACITY(10) tells the device its block size is now known. Returns
// MQB_ERR_IO when commands are with a kernel that cannot be waited on.
int MQB::receive() {
    Impl& m = *impl_;
    if (m.count + m.pending == 0) return MQB_ERR_NOTHING_OUT;
#if MQB_HAVE_URING
    if (m.pending > 0 && !awaitHead(m)) return MQB_ERR_IO;
#endif
    Slot& s = m.ring[m.head];
    if (s.due != 0) {
        const uint64_t now = nowNs();
        if (now < s.due) std::this_thread::sleep_for(std::chrono::nanoseconds(s.due - now));
    }
    m.head = (m.head + 1) & (kQueueCap - 1);
    --m.count;
    // Hook at completion: latency by kind, then the journal update of a
    // write and the check of a reader's blocks (may turn the outcome into
    // MISCOMPARE).
    m.lat.onComplete(s.dev, s.opcode, s.tk);
    m.data.onComplete(*s.dev, s.out, s.tk);
    s.dev->leave();
    m.haveLast = true;
    m.lastTag = s.tag;
    m.lastCdbLen = s.cdbLen;
    std::memcpy(m.lastCdb, s.cdb, 16);
    m.senseLen = s.out.senseLen;
    if (s.out.senseLen) std::memcpy(m.sense, s.out.sense, s.out.senseLen);
    if (s.opcode == kOpReadCapacity && s.out.status == MQB_OK) s.dev->backend().capacityRead();
    return s.out.status;
}

int MQB::receiveInfo(int code, int count, ...) {
    Impl& m = *impl_;
    va_list ap;
    va_start(ap, count);
    int rc = MQB_OK;
    if (code == MQB_INFO_TAG) {
        int* tag = count == 1 ? va_arg(ap, int*) : nullptr;
        if (!tag) rc = MQB_ERR_PARAM;
        else if (!m.haveLast) rc = MQB_ERR_NOTHING_OUT;
        else *tag = int(m.lastTag);
    } else if (code == MQB_INFO_CDB) {
        unsigned char* cdb = count == 2 ? va_arg(ap, unsigned char*) : nullptr;
        int* len = cdb ? va_arg(ap, int*) : nullptr;
        if (!cdb || !len || *len < 0) {
            rc = MQB_ERR_PARAM;
        } else if (!m.haveLast) {
            rc = MQB_ERR_NOTHING_OUT;
        } else {
            const int n = *len < m.lastCdbLen ? *len : m.lastCdbLen;
            std::memcpy(cdb, m.lastCdb, size_t(n));
            *len = n;
        }
    } else {
        rc = MQB_ERR_PARAM;
    }
    va_end(ap);
    return rc;
}

// errInfo(100, 3, buf, &size, &length): copies the last failure's sense (at
// most *size bytes) and sets *length to the bytes copied, 0 when the last
// completion carried none.
int MQB::errInfo(int code, int count, ...) {
    Impl& m = *impl_;
    va_list ap;
    va_start(ap, count);
    int rc = MQB_OK;
    if (code == MQB_INFO_SENSE && count == 3) {
        unsigned char* buf = va_arg(ap, unsigned char*);
        int* size = va_arg(ap, int*);
        int* length = va_arg(ap, int*);
        if (!buf || !size || !length || *size < 0) {
            rc = MQB_ERR_PARAM;
        } else {
            const int n = *size < m.senseLen ? *size : m.senseLen;
            std::memcpy(buf, m.sense, size_t(n));
            *length = n;
        }
    } else {
        rc = MQB_ERR_PARAM;
    }
    va_end(ap);
    return rc;
}

const std::string& MQB::driver() const { return impl_->driver; }
void MQB::setDriver(const std::string& driver) { impl_->driver = driver; }
void MQB::setCloneAllowed(bool allowed) { impl_->cloneOk = allowed; }
bool MQB::cloneAllowed() const { return impl_->cloneOk; }
int MQB::outstanding() const { return impl_->count + impl_->pending; }

MQB* createMQB(const char* name, int, int, int) {
    if (!name || !*name) return nullptr;
    return new MQB(name);
}

void deleteMQB(MQB* mqb) { delete mqb; }
