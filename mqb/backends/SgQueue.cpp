// SgQueue.cpp: queued SCSI generic commands. A command is started with one
// write() of its sg v3 header on a descriptor that has room (one descriptor
// queues a few, typically 16; more are opened as the depth needs them) and
// finished by a read() once poll() says one is ready. The header carries the
// command's index as pack_id and its record as usr_ptr, so completions that
// come back in any order find their command. Sense lands in the command's own
// 252-byte buffer. The device's time-out (per command, in the header) comes
// back as a host or driver status and is mapped to -14.
#include "SgQueue.h"
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include "latency/SteadyClock.h"
#include <climits>
#include <cstring>
#include "MQBErr.h"

namespace mqb {

namespace {
// Transport (host) and low-level driver codes the sg driver reports.
constexpr uint16_t kDidTimeOut = 0x03;
constexpr uint16_t kDriverTimeout = 0x06, kDriverSense = 0x08, kDriverMask = 0x0F;

int64_t nowNs() { return int64_t(steadyNs()); }

// The real descriptor.
class SgFdPort : public SgPort {
public:
    SgFdPort(int fd, int capacity) : fd_(fd), capacity_(capacity) {}
    ~SgFdPort() override { ::close(fd_); }
    int start(sg_io_hdr_t& h) override {
        const ssize_t n = ::write(fd_, &h, sizeof h);
        return n == ssize_t(sizeof h) ? 0 : n < 0 ? -errno : -EIO;
    }
    int finish(sg_io_hdr_t& h) override {
        const ssize_t n = ::read(fd_, &h, sizeof h);
        return n == ssize_t(sizeof h) ? 0 : n < 0 ? -errno : -EIO;
    }
    int pollFd() const override { return fd_; }
    int capacity() const override { return capacity_; }

private:
    const int fd_;
    const int capacity_;
};
}  // namespace

std::unique_ptr<SgPort> openSgPort(const std::string& path, std::string& err) {
    const int fd = ::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        err = "cannot open \"" + path + "\": " + std::strerror(errno);
        return nullptr;
    }
    // With command queueing on, one descriptor holds SG_MAX_QUEUE commands;
    // without it, one. Reads take whichever command finished first.
    int on = 1, got = 0, anyId = 0;
    ::ioctl(fd, SG_SET_COMMAND_Q, &on);
    ::ioctl(fd, SG_SET_FORCE_PACK_ID, &anyId);
    const int cap = ::ioctl(fd, SG_GET_COMMAND_Q, &got) == 0 && got ? SG_MAX_QUEUE : 1;
    return std::make_unique<SgFdPort>(fd, cap);
}

void mapSgResult(const sg_io_hdr_t& h, Outcome& out) {
    out.senseLen = 0;
    const unsigned driver = h.driver_status & kDriverMask;
    if (h.host_status == kDidTimeOut || driver == kDriverTimeout) {
        out.status = MQB_ERR_TIMEOUT;
        return;
    }
    // DRIVER_SENSE only says sense came back; it goes with CHECK CONDITION.
    if (h.host_status != 0 || (driver != 0 && driver != kDriverSense)) {
        out.status = MQB_ERR_IO;
        return;
    }
    // Some drivers fill only the shifted masked_status; rebuild the full byte.
    const uint8_t status = h.status ? uint8_t(h.status & 0xFE) : uint8_t(h.masked_status << 1);
    switch (status) {
    case scsi::kStatusGood:
        out.status = MQB_OK;
        return;
    case scsi::kStatusCheck: {
        const unsigned len = std::min<unsigned>({h.sb_len_wr, h.mx_sb_len, unsigned(kMaxSense)});
        if (len == 0 || h.sbp == nullptr) {
            // Autosense failed: there is nothing to tell the caller about the error.
            out.status = MQB_ERR_IO;
            return;
        }
        if (h.sbp != out.sense) std::memmove(out.sense, h.sbp, len);
        out.senseLen = uint8_t(len);
        out.status = MQB_ERR_CHECK;
        return;
    }
    case scsi::kStatusBusy:
    case scsi::kStatusTaskSetFull:
        out.status = MQB_ERR_BUSY;
        return;
    default:  // RESERVATION CONFLICT, ACA ACTIVE, TASK ABORTED, ...
        out.status = MQB_ERR_IO;
        return;
    }
}

SgQueue::SgQueue(SgPortOpener open, int depth, unsigned timeoutMs)
    : open_(std::move(open)), cap_(depth > 0 ? depth : 1), timeoutMs_(timeoutMs),
      cmds_(new Cmd[size_t(cap_)]), free_(cap_), pending_(cap_), done_(cap_) {
    ports_.reserve(size_t(cap_));  // a Port never moves once made
    portFor();
}

SgQueue::~SgQueue() {
    // The device may still write into the callers' buffers: wait for what
    // was started (nothing more is), each wait bounded by the time-out.
    std::vector<pollfd> fds;
    while (inFlight_ > 0) {
        for (size_t pi = 0; pi < ports_.size(); ++pi) drain(ports_[pi], int(pi));
        if (inFlight_ == 0) break;
        fds.clear();
        for (Port& p : ports_)
            if (p.inFlight > 0) fds.push_back(pollfd{p.port->pollFd(), POLLIN, 0});
        const int rc = ::poll(fds.data(), fds.size(), int(timeoutMs_) + 1000);
        if (rc == 0 || (rc < 0 && errno != EINTR)) break;
    }
}

int SgQueue::submit(const Command& c, Outcome* out, uint64_t token) {
    if (free_.available() == 0) return MQB_ERR_QUEUE_FULL;
    if (c.cdb == nullptr || c.cdbLen == 0 || c.cdbLen > 16) return MQB_ERR_RECORD;
    const sbc::Transfer t = sbc::dataTransfer(c);
    const int dir = t.dir == sbc::Transfer::Dir::In    ? SG_DXFER_FROM_DEV
                    : t.dir == sbc::Transfer::Dir::Out ? SG_DXFER_TO_DEV
                                                       : SG_DXFER_NONE;
    void* const data = t.buf;
    const uint64_t len = t.buf ? t.len : 0;
    if (len > UINT_MAX) return MQB_ERR_TRANSFER;
    const int i = free_.take();
    Cmd& k = cmds_[i];
    k.token = token;
    k.out = out;
    k.port = -1;
    std::memcpy(k.cdb, c.cdb, c.cdbLen);
    std::memset(&k.h, 0, sizeof k.h);
    k.h.interface_id = 'S';
    k.h.cmdp = k.cdb;
    k.h.cmd_len = c.cdbLen;
    k.h.dxfer_direction = len ? dir : SG_DXFER_NONE;
    k.h.dxferp = len ? data : nullptr;
    k.h.dxfer_len = unsigned(len);
    k.h.sbp = k.sense;
    k.h.mx_sb_len = kMaxSense;
    k.h.timeout = timeoutMs_;
    k.h.pack_id = i;
    k.h.usr_ptr = &k;
    pending_.push(i);
    return MQB_OK;
}

// A descriptor with room for one more command, opening another when all are
// full and the depth is not yet covered. -1 when there is none.
int SgQueue::portFor() {
    int held = 0;
    for (size_t pi = 0; pi < ports_.size(); ++pi) {
        Port& p = ports_[pi];
        if (!p.full && p.inFlight < p.port->capacity()) return int(pi);
        held += p.port->capacity();
    }
    if (cannotOpen_ || held >= cap_ || ports_.size() == ports_.capacity()) return -1;
    std::unique_ptr<SgPort> p = open_();
    if (!p) {
        cannotOpen_ = ports_.empty();  // with none at all, every command fails
        return -1;
    }
    ports_.push_back(Port{std::move(p), 0, false});
    return int(ports_.size()) - 1;
}

void SgQueue::done(int i) { done_.push(i); }

int SgQueue::commit() {
    while (!pending_.empty()) {
        const int i = pending_.front();
        Cmd& k = cmds_[i];
        const int pi = portFor();
        if (pi < 0) {
            if (inFlight_ > 0) break;  // they start as earlier ones finish
            // Nothing out and nowhere to start it: it can never complete.
            k.out->status = MQB_ERR_IO;
            k.out->senseLen = 0;
        } else {
            Port& p = ports_[size_t(pi)];
            const int rc = p.port->start(k.h);
            if (rc == -EAGAIN || rc == -EDOM) {
                p.full = true;
                if (p.inFlight == 0) {  // refused while empty: it will never take one
                    k.out->status = MQB_ERR_BUSY;
                    k.out->senseLen = 0;
                } else {
                    continue;
                }
            } else if (rc == 0) {
                k.port = pi;
                ++p.inFlight;
                ++inFlight_;
                pending_.pop();
                continue;
            } else {
                k.out->status = MQB_ERR_IO;
                k.out->senseLen = 0;
            }
        }
        done(i);
        pending_.pop();
    }
    return MQB_OK;
}

// Takes every finished command port `p` has.
void SgQueue::drain(Port& p, int pi) {
    sg_io_hdr_t h;
    while (p.inFlight > 0) {
        std::memset(&h, 0, sizeof h);
        if (p.port->finish(h) != 0) return;
        const int i = h.pack_id;
        if (i < 0 || i >= cap_ || h.usr_ptr != &cmds_[i] || cmds_[i].port != pi) continue;  // not ours
        Cmd& k = cmds_[i];
        k.port = -1;
        --p.inFlight;
        --inFlight_;
        p.full = false;
        h.sbp = k.sense;
        mapSgResult(h, *k.out);
        done(i);
    }
}

int SgQueue::reap(uint64_t* tokens, int min, int max, int64_t timeoutNs) {
    if (min > max) min = max;
    commit();
    const int64_t deadline = timeoutNs < 0 ? INT64_MAX : nowNs() + timeoutNs;
    pollfd fds[64];
    for (;;) {
        for (size_t pi = 0; pi < ports_.size(); ++pi) drain(ports_[pi], int(pi));
        commit();  // room freed: start what waited
        if (done_.size() >= min || inFlight_ == 0) break;
        nfds_t n = 0;
        for (Port& p : ports_)
            if (p.inFlight > 0 && n < 64) fds[n++] = pollfd{p.port->pollFd(), POLLIN, 0};
        const int64_t now = nowNs();
        if (now >= deadline) break;
        const int64_t waitMs = deadline == INT64_MAX ? -1 : (deadline - now + 999999) / 1000000;
        const int rc = ::poll(fds, n, int(std::min<int64_t>(waitMs, INT_MAX)));
        if (rc < 0 && errno != EINTR) {
            if (done_.empty()) return MQB_ERR_IO;
            break;
        }
    }
    int n = 0;
    while (n < max && !done_.empty()) {
        const int i = done_.pop();
        tokens[n++] = cmds_[i].token;
        free_.give(i);
    }
    return n;
}

}  // namespace mqb
