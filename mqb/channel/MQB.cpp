// MQB.cpp: a channel to the device table: device selection, the ioctls, and
// the completion path. A command goes through the device's front (counters,
// trace, fault rules) and then into the channel's queue to that device
// (Queue.h), opened on the first command after the device was selected and
// kept for the channel's life. Sends since the last receive are handed to the
// device in one commit; receive() takes completions from the queue in
// batches and gives them out one at a time, in the order the device finished
// them. The channel knows no transport.
//
// Around the queue sit the channel's data checker and latency recorder: at
// send, before the device's front, the checker may swap the command's data
// buffers for its own (generated or keyed write data, a read to be checked)
// and the recorder stamps the time; as a completion leaves the queue the
// recorder takes its latency and the checker checks what came back, which may
// turn a good completion into MISCOMPARE. A VERIFY or WRITE AND VERIFY the
// checker judges goes back into the same queue as a READ of its blocks into
// the checker's buffer, and completes when that is back. A command a delay
// fault rule picked is held back by the channel until its extra time has
// passed, whatever the transport.
#include "MQB.h"
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <vector>
#include "verify/DataChecker.h"
#include "DeviceTable.h"
#include "latency/LatencyRecorder.h"
#include "MQBErr.h"
#include "Scsi.h"
#include "latency/SteadyClock.h"
#include "Device.h"
#include "backends/Queue.h"

namespace {

// Commands one channel holds at once (the largest queue depth ioctl 106
// takes). A power of two: the ready ring wraps with a mask.
constexpr int kQueueCap = 256;

// How long receive() waits on one queue before looking at the others, when
// commands are out on more than one device.
constexpr int64_t kPollNs = 1000000;

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

struct Lane;

// One command between send() and receive(). Its index is the token the queue
// hands back.
struct Slot {
    mqb::Device* dev;
    Lane*        lane;  // the queue holding the command; null once it left it
    bool         fromQueue;  // completed by the backend, not by the device's front
    mqb::ChannelCounters* counters;  // the channel's counters on `dev`
    uint32_t     tag;
    uint8_t      opcode;
    uint8_t      cdbLen;
    uint8_t      cdb[16];
    bool         used;      // between an accepted send and its receive
    bool         readBack;  // in the queue again: the data checker's read-back
    mqb::CmdTicket tk;      // the data checker's and latency recorder's state
    uint64_t     holdUntil; // steady-clock ns a delayed completion is held to
    mqb::Outcome out;
};

// The channel's queue to one device, with the commands the device holds.
struct Lane {
    mqb::Device*                device;
    mqb::ChannelCounters*       counters;  // this channel's counters on the device
    std::unique_ptr<mqb::Queue> queue;
    int                         uncommitted = 0;  // submitted since the last commit
    int                         atDevice = 0;     // committed and not yet reaped
};

}  // namespace

struct MQB::Impl {
    std::string  driver;
    int          devIdx = -1;
    mqb::Device* dev = nullptr;
    Lane*        lane = nullptr;  // lane of `dev`, once opened
    bool         cloneOk = true;
    int          logLevel = 0;

    Slot slots[kQueueCap];
    int  freeSlots[kQueueCap];  // stack of unused slot indexes
    int  nFree = kQueueCap;
    // Finished commands not yet received, in finishing order.
    int  ready[kQueueCap];
    int  readyHead = 0, readyCount = 0;
    // Commands in some lane's queue; sends not yet committed, over all lanes.
    int  inQueues = 0, uncommitted = 0;
    std::vector<std::unique_ptr<Lane>> lanes;  // one per device used, few
    uint64_t tokens[kQueueCap];
    // Completions a delay fault holds back, in no order (few at once).
    int  delayed[kQueueCap];
    int  nDelayed = 0;

    // Keyed / generated data and latency recording of this channel.
    mqb::DataChecker     data;
    mqb::LatencyRecorder lat;

    // The last completion received and the last failure's sense.
    bool     haveLast = false;
    uint32_t lastTag = 0;
    uint8_t  lastCdbLen = 0;
    uint8_t  lastCdb[16] = {};
    uint8_t  senseLen = 0;
    uint8_t  sense[mqb::kMaxSense] = {};

    explicit Impl(const std::string& d) : driver(d) {
        for (int i = 0; i < kQueueCap; ++i) {
            freeSlots[i] = kQueueCap - 1 - i;
            slots[i].used = false;
        }
    }

    void pushReady(int slot) {
        ready[(readyHead + readyCount) & (kQueueCap - 1)] = slot;
        ++readyCount;
    }
    // A command is done at the device: its latency is recorded, its data
    // checked (which may change its outcome) and it is ready to be received.
    void complete(int idx) {
        Slot& s = slots[idx];
        lat.onComplete(s.dev, s.opcode, s.tk);
        data.onComplete(*s.dev, s.out, s.tk);
        pushReady(idx);
    }
    void promoteDue();
    uint64_t earliestHold() const;
    Lane* laneOf(mqb::Device* d);
    void commitAll();
    int  collect();
    void reapLane(Lane& l, int min, int64_t timeoutNs);
    void failLane(Lane& l, int status);
};

namespace {
// Counts a lane's uncommitted commands as at the device, and hands them to
// it unless the caller is about to reap (a reap commits by itself).
void commitLane(MQB::Impl& m, Lane& l, bool reapFollows) {
    if (l.uncommitted == 0) return;
    l.device->enter(*l.counters, uint64_t(l.uncommitted));
    l.atDevice += l.uncommitted;
    m.uncommitted -= l.uncommitted;
    l.uncommitted = 0;
    if (!reapFollows) l.queue->commit();  // a failed commit is retried by the next commit or reap
}
}  // namespace

// The lane of device `d`, opening its queue the first time. Null when the
// device gives no queue.
Lane* MQB::Impl::laneOf(mqb::Device* d) {
    for (auto& l : lanes)
        if (l->device == d) return l.get();
    std::unique_ptr<mqb::Queue> q = d->backend().openQueue(kQueueCap);
    if (!q) return nullptr;
    auto l = std::make_unique<Lane>();
    l->device = d;
    l->counters = d->attachChannel();
    l->queue = std::move(q);
    lanes.push_back(std::move(l));
    return lanes.back().get();
}

void MQB::Impl::commitAll() {
    for (auto& l : lanes) commitLane(*this, *l, false);
}

// Reaps what lane `l` has finished (at least `min`, waiting up to
// `timeoutNs`) onto the ready ring.
void MQB::Impl::reapLane(Lane& l, int min, int64_t timeoutNs) {
    commitLane(*this, l, true);
    const int n = l.queue->reap(tokens, min, kQueueCap, timeoutNs);
    if (n < 0) {
        failLane(l, n);
        return;
    }
    uint64_t now = 0;
    int again = 0;  // read-backs sent to the same queue
    for (int i = 0; i < n; ++i) {
        Slot& s = slots[tokens[i]];
        s.lane = nullptr;
        if (s.tk.rec >= 0 && !s.readBack) {
            // A VERIFY or WRITE AND VERIFY under keyed compare goes back to
            // the device for its blocks before it counts as done.
            mqb::Command rc;
            mqb::Outcome* rcOut = nullptr;
            if (data.readBackCommand(*s.dev, s.out, s.tk, rc, rcOut)) {
                if (l.queue->submit(rc, rcOut, tokens[i]) == MQB_OK) {
                    s.lane = &l;
                    s.readBack = true;
                    ++again;
                    continue;
                }
                data.cancelReadBack(s.tk);
            }
        }
        if (s.tk.delayUs == 0) {
            complete(int(tokens[i]));
            continue;
        }
        // A delay fault rule picked it: held from now for the rule's time, at
        // most for the device's command time-out. A longer delay ends as a
        // real device's silence would: a time-out, when the time-out is up.
        if (now == 0) now = mqb::steadyNs();
        const uint64_t limit = uint64_t(l.device->backend().commandTimeoutSec()) * 1000000000ULL;
        uint64_t hold = uint64_t(s.tk.delayUs) * 1000;
        if (hold > limit) {
            hold = limit;
            s.out.status = MQB_ERR_TIMEOUT;
            s.out.senseLen = 0;
        }
        s.holdUntil = now + hold;
        delayed[nDelayed++] = int(tokens[i]);
    }
    l.atDevice -= n;
    inQueues -= n;
    l.device->leave(*l.counters, uint64_t(n));
    if (again > 0) {  // rarely: keeps the usual path free of these stores and loads
        l.uncommitted += again;
        uncommitted += again;
        inQueues += again;
    }
}

// The lane's transport can no longer be waited on: every command it holds
// completes with `status`.
void MQB::Impl::failLane(Lane& l, int status) {
    for (int i = 0; i < kQueueCap; ++i) {
        Slot& s = slots[i];
        if (s.lane != &l) continue;
        s.lane = nullptr;
        if (!s.readBack) {  // a read-back's command itself completed well
            s.out.status = status;
            s.out.senseLen = 0;
        }
        complete(i);
        --inQueues;
    }
    l.device->leave(*l.counters, uint64_t(l.atDevice));
    uncommitted -= l.uncommitted;
    l.atDevice = l.uncommitted = 0;
}

// Moves every held completion whose time has come to the ready ring.
void MQB::Impl::promoteDue() {
    const uint64_t now = mqb::steadyNs();
    for (int i = 0; i < nDelayed;) {
        if (slots[delayed[i]].holdUntil <= now) {
            complete(delayed[i]);
            delayed[i] = delayed[--nDelayed];
        } else {
            ++i;
        }
    }
}

// The time the first held completion is due (steady-clock ns); nDelayed > 0.
uint64_t MQB::Impl::earliestHold() const {
    uint64_t t = UINT64_MAX;
    for (int i = 0; i < nDelayed; ++i)
        if (slots[delayed[i]].holdUntil < t) t = slots[delayed[i]].holdUntil;
    return t;
}

// Fills the ready ring from the queues and the held completions, waiting for
// at least one. With one device busy this is one reap that blocks (until the
// first held completion is due, when there is one); with several, each is
// looked at in turn and waited on briefly.
int MQB::Impl::collect() {
    if (nDelayed == 0) {
        // The usual case, one device busy and nothing held: one blocking reap.
        Lane* busy = nullptr;
        int nBusy = 0;
        for (auto& l : lanes)
            if (l->atDevice + l->uncommitted > 0) busy = l.get(), ++nBusy;
        if (nBusy == 1) {
            // Loops only while read-backs went back to the queue.
            do {
                reapLane(*busy, 1, -1);
            } while (readyCount == 0 && nDelayed == 0 && busy->atDevice + busy->uncommitted > 0);
            if (readyCount > 0) return MQB_OK;
            if (nDelayed == 0) return MQB_ERR_IO;  // an unbounded reap that brought nothing back
        }
    }
    for (;;) {
        if (nDelayed > 0) promoteDue();
        if (readyCount > 0) return MQB_OK;
        int64_t wait = -1;  // how long a reap may block: until the next hold ends
        if (nDelayed > 0) {
            const uint64_t due = earliestHold(), now = mqb::steadyNs();
            wait = due > now ? int64_t(due - now) : 0;
        }
        Lane* busy = nullptr;
        int nBusy = 0;
        for (auto& l : lanes)
            if (l->atDevice + l->uncommitted > 0) busy = l.get(), ++nBusy;
        if (nBusy == 0) {
            if (nDelayed == 0) return MQB_ERR_IO;
            mqb::sleepUntilNs(earliestHold());
            continue;
        }
        if (nBusy == 1) {
            reapLane(*busy, 1, wait);
            if (wait < 0 && readyCount == 0 && nDelayed == 0 &&
                busy->atDevice + busy->uncommitted == 0)
                return MQB_ERR_IO;  // an unbounded reap that brought nothing back
            continue;
        }
        for (auto& l : lanes)
            if (l->atDevice + l->uncommitted > 0) reapLane(*l, 0, 0);
        if (readyCount > 0) continue;
        const int64_t poll = wait >= 0 && wait < kPollNs ? wait : kPollNs;
        for (auto& l : lanes) {
            if (l->atDevice + l->uncommitted == 0) continue;
            reapLane(*l, 1, poll);
            if (readyCount > 0 || nDelayed > 0) break;
        }
    }
}

MQB::MQB(const std::string& driver) : impl_(std::make_unique<Impl>(driver)) {}

// Commands still in flight are dropped: the devices only need to know they
// are no longer outstanding. Each queue waits, as it closes, until its
// transport is done with the callers' buffers and the data checker's; then
// the checker forgets every command it still followed.
MQB::~MQB() {
    Impl& m = *impl_;
    for (auto& l : m.lanes) {
        l->device->leave(*l->counters, uint64_t(l->atDevice));
        l->queue.reset();  // done with the callers' buffers before the counters go back
        l->device->detachChannel(l->counters);
    }
    for (Slot& s : m.slots)
        if (s.used) m.data.onDrop(*s.dev, s.tk);
}

// A device that does not exist is not locked: the caller finds out when it
// tries to select it.
bool MQB::isLocked(int deviceIdx) {
    mqb::Device* d = mqb::deviceAt(deviceIdx);
    return d != nullptr && d->locked();
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
        rc = m.dev->data().setMode(*mode, m.dev->backend().geometry());
        if (rc >= 0) m.dev->noteDataMode(*mode);
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
    Impl& m = *impl_;
    m.dev = d;
    m.devIdx = deviceIdx;
    m.lane = nullptr;  // found or opened by the next send
    m.lat.attach(d);   // record latency into this device's histograms
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
    info->cdbForm = d->cdbForm();
    std::snprintf(info->backend, sizeof info->backend, "%s", d->backend().kind());
    return MQB_OK;
}

int MQB::getCurrentDeviceIndex() { return impl_->devIdx; }

int MQB::deviceCount() { return mqb::deviceCount(); }

// Queues the command of `record`: the device's front may answer or refuse
// it; otherwise it goes into the channel's queue to the device, which gets it
// with the next commit (the next receive). Nothing here allocates, except the
// first command to a newly selected device, which opens its queue.
int MQB::send(unsigned char* record) {
    Impl& m = *impl_;
    if (!record) return MQB_ERR_PARAM;
    if (ld32(record + mqbrec::kRecLen) != uint32_t(mqbrec::kSize)) return MQB_ERR_RECORD;
    const uint8_t cdbLen = record[mqbrec::kCdbLen];
    if (cdbLen == 0 || cdbLen > 16) return MQB_ERR_RECORD;
    mqb::Device* d = m.dev;
    if (!d) return MQB_ERR_NO_DEVICE;
    if (d->locked()) return MQB_ERR_LOCKED;
    if (m.nFree == 0) return MQB_ERR_QUEUE_FULL;

    const int idx = m.freeSlots[m.nFree - 1];
    Slot& s = m.slots[idx];
    std::memcpy(s.cdb, record + mqbrec::kCdb, 16);
    s.cdbLen = cdbLen;
    // What the command does: a 16-byte data command as its 10-byte kind (the
    // CDB keeps what was sent, for the trace and the pass-through devices).
    s.opcode = scsi::dataFamily(s.cdb[0]);
    s.tag = ld32(record + mqbrec::kTag);
    s.dev = d;
    s.lane = nullptr;
    s.fromQueue = false;
    s.readBack = false;

    mqb::Command c;
    c.cdb = s.cdb;
    c.cdbLen = cdbLen;
    c.opcode = s.opcode;
    if (!scsi::getDataCdb(s.cdb, cdbLen, c.lba, c.tl)) {
        if (s.opcode != s.cdb[0]) c.opcode = s.opcode = s.cdb[0];  // 16-byte opcode, short CDB
        if (cdbLen >= 9) {
            c.lba = scsi::be32(s.cdb + 2);
            c.tl = scsi::be16(s.cdb + 7);
        }
    }
    c.readBuf = ldPtr<uint8_t>(record + mqbrec::kReadBuf);
    c.readLen = ld64(record + mqbrec::kReadLen);
    c.writeBuf = ldPtr<const uint8_t>(record + mqbrec::kWriteBuf);
    c.writeLen = ld64(record + mqbrec::kWriteLen);

    Lane* l = m.lane;
    if (!l && !(l = m.lane = m.laneOf(d))) return MQB_ERR_NO_MEMORY;
    s.counters = l->counters;
    // The send time, then generated or keyed write data in the checker's
    // buffers, or a buffer of its own for a read it will check.
    s.tk.delayUs = 0;
    m.lat.onSend(d->data(), s.tk);
    m.data.onSend(*d, c, s.tk);
    switch (d->admit(c, s.tag, s.out, *l->counters, &s.tk.delayUs)) {
    case mqb::Device::Admit::Refused:
        m.data.onDrop(*d, s.tk);
        m.senseLen = s.out.senseLen;
        std::memcpy(m.sense, s.out.sense, s.out.senseLen);
        l->counters->sense.note(s.out.sense, s.out.senseLen);
        return s.out.status;
    case mqb::Device::Admit::Answered:
        --m.nFree;
        s.used = true;
        m.complete(idx);
        return MQB_OK;
    case mqb::Device::Admit::Pass:
        break;
    }
    const int rc = l->queue->submit(c, &s.out, uint64_t(idx));
    if (rc != MQB_OK) {
        // Not accepted: nothing is queued; the queue may have left sense.
        if (rc == MQB_ERR_CHECK) {
            m.senseLen = s.out.senseLen;
            std::memcpy(m.sense, s.out.sense, s.out.senseLen);
            l->counters->sense.note(s.out.sense, s.out.senseLen);
        }
        mqb::ChannelCounters::bump(l->counters->errors);
        m.data.onDrop(*d, s.tk);
        return rc;
    }
    --m.nFree;
    s.used = true;
    s.lane = l;
    s.fromQueue = true;
    ++l->uncommitted;
    ++m.uncommitted;
    ++m.inQueues;
    return MQB_OK;
}

// Takes the next completion: commits what was sent since the last receive,
// then serves the ready ring, filling it from the queues (waiting for the
// device) when it is empty. Remembers the completion's tag and CDB for
// receiveInfo and its sense (or none) for errInfo. A completed READ
// CAPACITY(10) tells the device its block size is now known. Returns
// MQB_ERR_IO when commands are with a transport that cannot be waited on.
int MQB::receive() {
    Impl& m = *impl_;
    if (m.readyCount + m.inQueues + m.nDelayed == 0) return MQB_ERR_NOTHING_OUT;
    if (m.nDelayed > 0) m.promoteDue();
    if (m.readyCount == 0) {
        const int rc = m.collect();
        if (rc != MQB_OK) return rc;
    } else if (m.uncommitted > 0) {
        m.commitAll();
    }
    const int idx = m.ready[m.readyHead];
    m.readyHead = (m.readyHead + 1) & (kQueueCap - 1);
    --m.readyCount;
    m.freeSlots[m.nFree++] = idx;
    Slot& s = m.slots[idx];
    s.used = false;
    m.haveLast = true;
    m.lastTag = s.tag;
    m.lastCdbLen = s.cdbLen;
    std::memcpy(m.lastCdb, s.cdb, 16);
    m.senseLen = s.out.senseLen;
    if (s.out.senseLen) std::memcpy(m.sense, s.out.sense, s.out.senseLen);
    if (s.out.status != MQB_OK) {
        if (s.fromQueue) mqb::ChannelCounters::bump(s.counters->errors);
        if (s.out.senseLen) s.counters->sense.note(s.out.sense, s.out.senseLen);
    }
    if (s.opcode == scsi::kReadCapacity10 && s.out.status == MQB_OK) s.dev->backend().capacityRead();
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
int MQB::outstanding() const { return kQueueCap - impl_->nFree; }

int MQB::commit() {
    Impl& m = *impl_;
    if (m.uncommitted > 0) m.commitAll();
    return MQB_OK;
}

MQB* createMQB(const char* name, int, int, int) {
    if (!name || !*name) return nullptr;
    return new MQB(name);
}

void deleteMQB(MQB* mqb) { delete mqb; }
