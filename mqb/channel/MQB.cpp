// MQB.cpp: the public calls of a channel to the device table: device
// selection, the ioctls, send and receive, and what the extension asks about
// the last completion. A command goes through the device's front (counters,
// trace, fault rules) and then into the channel's queue to that device
// (Queue.h), opened on the first command after the device was selected and
// kept for the channel's life; the completion engine (Completion.cpp) hands it
// back. The channel knows no transport.
//
// Around the queue sit the channel's data checker and latency recorder: at
// send, before the device's front, the checker may swap the command's data
// buffers for its own (generated or keyed write data, a read to be checked)
// and the recorder stamps the time; the completion engine gives them each
// completion as it leaves the queue.
#include "MQB.h"
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include "channel/Channel.h"
#include "channel/Record.h"
#include "MQBErr.h"
#include "Scsi.h"

using mqb::kQueueCap;
using Slot = mqb::Slot;
using Lane = mqb::Lane;

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
        if (*mode != MQB_DATA_OFF && *mode != MQB_DATA_GENERATE && *mode != MQB_DATA_KEYED &&
            *mode != MQB_DATA_REPEAT) { rc = MQB_ERR_PARAM; break; }
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
    const int check = mqb::checkRecord(record);
    if (check != MQB_OK) return check;
    mqb::Device* d = m.dev;
    if (!d) return MQB_ERR_NO_DEVICE;
    if (d->locked()) return MQB_ERR_LOCKED;
    if (m.freeSlots.available() == 0) return MQB_ERR_QUEUE_FULL;

    const int idx = m.freeSlots.next();
    Slot& s = m.slots[idx];
    mqb::Command c;
    s.tag = mqb::decodeRecord(record, s.cdb, c);
    s.cdbLen = c.cdbLen;
    s.opcode = c.opcode;
    s.dev = d;
    s.lane = nullptr;
    s.fromQueue = false;
    s.readBack = false;

    Lane* l = m.lane;
    if (!l && !(l = m.lane = m.laneOf(d))) return MQB_ERR_NO_QUEUE;
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
        m.freeSlots.take();
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
    m.freeSlots.take();
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
// receiveInfo and its sense (or none) for errInfo. Returns
// MQB_ERR_IO when commands are with a transport that cannot be waited on.
int MQB::receive() {
    Impl& m = *impl_;
    if (m.ready.size() + m.inQueues + m.nDelayed == 0) return MQB_ERR_NOTHING_OUT;
    if (m.nDelayed > 0) m.promoteDue();
    if (m.ready.empty()) {
        const int rc = m.collect();
        if (rc != MQB_OK) return rc;
    } else if (m.uncommitted > 0) {
        m.commitAll();
    }
    const int idx = m.ready.pop();
    m.freeSlots.give(idx);
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
    return s.out.status;
}

namespace {
// Copies at most `room` of the `have` bytes at `src` to `dst`; returns how many.
int copyCapped(unsigned char* dst, int room, const unsigned char* src, int have) {
    const int n = room < have ? room : have;
    std::memcpy(dst, src, size_t(n));
    return n;
}
}  // namespace

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
            *len = copyCapped(cdb, *len, m.lastCdb, m.lastCdbLen);
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
            *length = copyCapped(buf, *size, m.sense, m.senseLen);
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
int MQB::outstanding() const { return kQueueCap - impl_->freeSlots.available(); }

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
