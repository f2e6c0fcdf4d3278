// IscsiQueue.cpp: a channel's commands on one iSCSI session. The CDB goes to
// the target as the loop built it; data-in lands straight in the caller's read
// buffer and data-out is sent straight from its write buffer (libiscsi's
// iovector hooks), so nothing is copied per command on our side. Each slot
// keeps its task record from one command to the next and libiscsi takes its
// PDUs from its own allocation cache, so a command that succeeds allocates
// nothing. The session is used by one thread at a time, so it needs no lock.
#include "IscsiQueue.h"
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include "latency/SteadyClock.h"
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include "MQBErr.h"

#if MQB_HAVE_ISCSI
extern "C" {
#include <iscsi/iscsi.h>
#include <iscsi/scsi-lowlevel.h>
}
#endif

namespace mqb {

#if MQB_HAVE_ISCSI

namespace {
constexpr const char* kInitiatorName = "iqn.2026-01.org.kiv:initiator";
constexpr int kMaxDepth = 1024;
// The longest a log-out may take when a queue closes: a target that has
// stopped answering must not hold the caller for a whole command time-out.
constexpr int kLogoutTimeoutSec = 2;

// Opens and closes a TCP connection to the target's portal, waiting at most
// `timeoutSec`. Returns true when the portal accepts connections; otherwise
// false with the system's reason in `err`. libiscsi's own log-in reports a
// refused or unreachable portal only as a failed service call, so this check
// gives the user the transport's real message at once.
bool probePortal(const IscsiTarget& t, std::string& err) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* res = nullptr;
    const int gai = ::getaddrinfo(t.host.c_str(), std::to_string(t.port).c_str(), &hints, &res);
    if (gai != 0) {
        err = "cannot resolve " + t.host + ": " + ::gai_strerror(gai);
        return false;
    }
    int why = ETIMEDOUT;
    for (addrinfo* a = res; a; a = a->ai_next) {
        const int fd = ::socket(a->ai_family, a->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC,
                                a->ai_protocol);
        if (fd < 0) {
            why = errno;
            continue;
        }
        int rc = ::connect(fd, a->ai_addr, a->ai_addrlen);
        if (rc != 0 && errno == EINPROGRESS) {
            pollfd p{fd, POLLOUT, 0};
            rc = ::poll(&p, 1, t.timeoutSec * 1000);
            if (rc == 1) {
                int soErr = 0;
                socklen_t len = sizeof soErr;
                ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &soErr, &len);
                rc = soErr ? (errno = soErr, -1) : 0;
            } else {
                if (rc == 0) errno = ETIMEDOUT;
                rc = -1;
            }
        }
        if (rc != 0) why = errno;
        ::close(fd);
        if (rc == 0) {
            ::freeaddrinfo(res);
            return true;
        }
    }
    ::freeaddrinfo(res);
    err = "cannot connect to " + t.portal + ": " + std::strerror(why);
    return false;
}

int64_t nowNs() { return int64_t(steadyNs()); }
}  // namespace

struct IscsiQueue::Slot {
    IscsiQueue* owner = nullptr;
    scsi_task*  task = nullptr;  // owned; kept for the slot's next command
    bool        busy = false;    // a command is with libiscsi
    Outcome*    out = nullptr;
    uint64_t    token = 0;
    int64_t     deadline = 0;
    scsi_iovec  iov{};
};

IscsiQueue::IscsiQueue(iscsi_context* ctx, const IscsiTarget& target, int depth)
    : ctx_(ctx), lun_(target.lun), timeoutSec_(target.timeoutSec),
      timeoutNs_(int64_t(target.timeoutSec) * 1000000000LL),
      slots_(size_t(depth)), free_(depth), done_(depth) {
    for (Slot& s : slots_) s.owner = this;
}

// Keeps the process's rand() sequence where it was while libiscsi makes and
// logs in a session: libiscsi reseeds rand() and draws from it there, and the
// exerciser's loops draw their LBAs, lengths and commands from that same
// generator. For the object's life, rand() runs on a state of its own; the
// caller's state is put back untouched when it goes.
//
// The generator's state is one per process and test threads open their
// sessions at their first command, so the swap is serialised: one guard at a
// time holds the process-wide lock from initstate to setstate, and the scratch
// state it lends to libiscsi is process-wide too, never a frame another
// thread may already have left.
class RandStateGuard {
public:
    RandStateGuard() : hold_(lock()), saved_(initstate(1, scratch(), kScratch)) {}
    ~RandStateGuard() { setstate(saved_); }
    RandStateGuard(const RandStateGuard&) = delete;
    RandStateGuard& operator=(const RandStateGuard&) = delete;

private:
    static constexpr size_t kScratch = 128;
    static std::mutex& lock() {
        static std::mutex m;
        return m;
    }
    static char* scratch() {
        static char state[kScratch];
        return state;
    }
    std::lock_guard<std::mutex> hold_;
    char* saved_;
};

std::unique_ptr<IscsiQueue> IscsiQueue::open(const IscsiTarget& target, int depth,
                                             std::string& err) {
    if (depth < 1 || depth > kMaxDepth) {
        err = "iSCSI queue depth must be 1 to " + std::to_string(kMaxDepth);
        return nullptr;
    }
    if (!probePortal(target, err)) return nullptr;
    RandStateGuard keepRand;
    iscsi_context* ctx = iscsi_create_context(kInitiatorName);
    if (!ctx) {
        err = "cannot create an iSCSI context";
        return nullptr;
    }
    iscsi_set_targetname(ctx, target.iqn.c_str());
    iscsi_set_session_type(ctx, ISCSI_SESSION_NORMAL);
    iscsi_set_header_digest(ctx, ISCSI_HEADER_DIGEST_NONE_CRC32C);
    // libiscsi's own PDU time-out bounds the login; the queue keeps its own
    // deadlines for commands. A dropped session must fail its commands, not
    // be logged in again behind the caller's back.
    iscsi_set_timeout(ctx, target.timeoutSec);
    iscsi_set_noautoreconnect(ctx, 1);
    if (iscsi_full_connect_sync(ctx, target.portal.c_str(), target.lun) != 0) {
        err = "cannot log in to " + target.iqn + " LUN " + std::to_string(target.lun) + " at " +
              target.portal + ": " + iscsi_get_error(ctx);
        iscsi_destroy_context(ctx);
        return nullptr;
    }
    return std::unique_ptr<IscsiQueue>(new IscsiQueue(ctx, target, depth));
}

IscsiQueue::~IscsiQueue() {
    closing_ = true;
    if (inFlight_ > 0) iscsi_scsi_cancel_all_tasks(ctx_);
    if (!lost_) {
        iscsi_set_timeout(ctx_, std::min(timeoutSec_, kLogoutTimeoutSec));
        iscsi_logout_sync(ctx_);
    }
    iscsi_destroy_context(ctx_);
    for (Slot& s : slots_) scsi_free_scsi_task(s.task);
}

int IscsiQueue::submit(const Command& cmd, Outcome* out, uint64_t token) {
    out->senseLen = 0;
    if (cmd.cdb == nullptr || cmd.cdbLen == 0 || cmd.cdbLen > 16) return out->status = MQB_ERR_RECORD;
    if (lost_) return out->status = MQB_ERR_TIMEOUT;
    if (free_.available() == 0) return out->status = MQB_ERR_QUEUE_FULL;

    const sbc::Transfer t = sbc::dataTransfer(cmd);
    int dir = t.dir == sbc::Transfer::Dir::In    ? SCSI_XFER_READ
              : t.dir == sbc::Transfer::Dir::Out ? SCSI_XFER_WRITE
                                                 : SCSI_XFER_NONE;
    void* const buf = t.buf;
    const uint64_t len = t.len;
    if (len > uint64_t(INT_MAX)) return out->status = MQB_ERR_TRANSFER;
    if (len > 0 && buf == nullptr) return out->status = MQB_ERR_RECORD;
    if (len == 0) dir = SCSI_XFER_NONE;

    const int idx = free_.next();
    Slot& s = slots_[size_t(idx)];
    // What scsi_create_task does, on the slot's own record: allocated at its
    // first command (or after libiscsi hung memory of its own on it).
    if (!s.task) s.task = static_cast<scsi_task*>(std::malloc(sizeof(scsi_task)));
    if (!s.task) return out->status = MQB_ERR_NO_MEMORY;
    scsi_task* task = s.task;
    std::memset(task, 0, sizeof *task);
    std::memcpy(task->cdb, cmd.cdb, cmd.cdbLen);
    task->cdb_size = cmd.cdbLen;
    task->xfer_dir = dir;
    task->expxferlen = int(len);
    free_.take();
    s.busy = true;
    s.out = out;
    s.token = token;
    s.deadline = nowNs() + timeoutNs_;
    if (s.deadline < firstDeadline_) firstDeadline_ = s.deadline;
    if (len > 0) {
        s.iov.iov_base = buf;
        s.iov.iov_len = size_t(len);
        if (dir == SCSI_XFER_READ) scsi_task_set_iov_in(task, &s.iov, 1);
        else scsi_task_set_iov_out(task, &s.iov, 1);
    }
    if (iscsi_scsi_command_async(ctx_, lun_, task, onDone, nullptr, &s) != 0) {
        recycle(s);
        return out->status = MQB_ERR_IO;
    }
    ++inFlight_;
    ++outstanding_;
    ++sinceReap_;
    uncommitted_ = true;
    return MQB_OK;
}

// The channel commits after each command it sends; the socket is written once
// the commands the last reap handed back have all been replaced (or by the
// next reap), so a batch goes out in one service call, not one per command.
int IscsiQueue::commit() {
    if (sinceReap_ < lastReaped_) return MQB_OK;
    return flush();
}

int IscsiQueue::flush() {
    uncommitted_ = false;
    if (lost_ || inFlight_ == 0) return MQB_OK;
    // The socket is non-blocking: libiscsi writes what the kernel takes now
    // and keeps the rest for the next service call.
    // A session lost here has ended its commands with -14; reap hands them
    // back, so the commit itself has nothing to report.
    if ((iscsi_which_events(ctx_) & POLLOUT) && iscsi_service(ctx_, POLLOUT) < 0)
        markLost(iscsi_get_error(ctx_));
    else if (failure_)
        markLost(failure_);
    return MQB_OK;
}

int IscsiQueue::take(uint64_t* tokens, int n, int max) {
    while (n < max && !done_.empty()) {
        tokens[n++] = done_.pop();
        --outstanding_;
    }
    return n;
}

int IscsiQueue::reap(uint64_t* tokens, int min, int max, int64_t timeoutNs) {
    if (uncommitted_) flush();
    if (max <= 0) return 0;
    min = std::min(min, max);
    const int64_t start = nowNs();
    const int64_t until = timeoutNs < 0 ? INT64_MAX : start + timeoutNs;
    int n = take(tokens, 0, max);
    bool looked = false;
    while (inFlight_ > 0 && (n < min || !looked)) {
        const int64_t now = looked ? nowNs() : start;
        // The command that has waited longest decides when the session is
        // given up: a target that stops answering ends everything in flight.
        const int64_t first = firstDeadline(now);
        if (first <= now) {
            markLost(("no answer from the target within " + std::to_string(timeoutSec_) + " s")
                         .c_str());
            break;
        }
        int64_t waitNs = std::min(first, until) - now;
        if (n >= min) waitNs = 0;  // enough already: only pick up what is ready
        if (waitNs < 0) waitNs = 0;
        // Round up so a short wait does not turn into a busy loop of zero waits.
        const int waitMs = int(std::min<int64_t>((waitNs + 999999) / 1000000, 1000));
        pollOnce(waitMs);
        looked = true;
        n = take(tokens, n, max);
        if (n < min && nowNs() >= until) break;
    }
    n = take(tokens, n, max);
    lastReaped_ = n;
    sinceReap_ = 0;
    return n;
}

// Deadlines grow in submit order, so the bound kept in firstDeadline_ stays
// at or below the earliest deadline in flight as commands finish: the slots
// are scanned only once that bound has been reached, not on every reap.
int64_t IscsiQueue::firstDeadline(int64_t now) {
    if (firstDeadline_ > now) return firstDeadline_;
    int64_t first = INT64_MAX;
    for (const Slot& s : slots_)
        if (s.busy && s.deadline < first) first = s.deadline;
    firstDeadline_ = first;
    return first;
}

void IscsiQueue::pollOnce(int waitMs) {
    const int fd = iscsi_get_fd(ctx_);
    if (fd < 0) {
        markLost("the iSCSI connection is closed");
        return;
    }
    pollfd p{};
    p.fd = fd;
    p.events = short(iscsi_which_events(ctx_) | POLLRDHUP);
    const int rc = ::poll(&p, 1, waitMs);
    if (rc < 0) return;  // interrupted: the caller looks again
    // Service even without events: libiscsi scans its own PDU time-outs there.
    const int revents = rc > 0 ? p.revents : 0;
    if (iscsi_service(ctx_, revents & ~POLLRDHUP) < 0 || failure_) {
        markLost(failure_ ? failure_ : iscsi_get_error(ctx_));
        return;
    }
    // What the peer sent before it went has been processed above; nothing
    // more can come on this connection.
    if (revents & (POLLERR | POLLHUP | POLLNVAL | POLLRDHUP)) {
        if (!lost_) markLost("the target closed the iSCSI connection");
    }
}

void IscsiQueue::markLost(const char* why) {
    if (!lost_) lossReason_ = why && *why ? why : "the iSCSI session failed";
    lost_ = true;
    // Cancelling runs each command's callback, which records -14 for it.
    if (inFlight_ > 0) iscsi_scsi_cancel_all_tasks(ctx_);
    for (Slot& s : slots_)
        if (s.busy) finish(s, SCSI_STATUS_CANCELLED);
}

void IscsiQueue::recycle(Slot& s) {
    if (s.task->mem) {
        // libiscsi allocated something onto the record: let it free the lot.
        scsi_free_scsi_task(s.task);
        s.task = nullptr;
    } else {
        std::free(s.task->datain.data);  // sense of a CHECK CONDITION, if any
        s.task->datain.data = nullptr;
    }
    s.busy = false;
    s.out = nullptr;
    free_.give(int(&s - slots_.data()));
}

void IscsiQueue::onDone(iscsi_context*, int status, void*, void* slot) {
    Slot& s = *static_cast<Slot*>(slot);
    s.owner->finish(s, status);
}

void IscsiQueue::finish(Slot& s, int status) {
    if (!s.busy) return;
    scsi_task* task = s.task;
    if (!closing_) {
        Outcome& out = *s.out;
        out.senseLen = 0;
        switch (status) {
        case SCSI_STATUS_GOOD:
            out.status = MQB_OK;
            break;
        case SCSI_STATUS_CHECK_CONDITION: {
            // libiscsi keeps the response's data segment as it came: a 2-byte
            // sense length, then the sense bytes.
            const scsi_data& d = task->datain;
            unsigned len = 0;
            if (d.data && d.size >= 2) {
                len = (unsigned(d.data[0]) << 8) | d.data[1];
                len = std::min({len, unsigned(d.size - 2), unsigned(kMaxSense)});
            }
            if (len == 0) {
                out.status = MQB_ERR_IO;  // no sense to explain the failure
            } else {
                std::memcpy(out.sense, d.data + 2, len);
                out.senseLen = uint8_t(len);
                out.status = MQB_ERR_CHECK;
            }
            break;
        }
        case SCSI_STATUS_BUSY:
        case SCSI_STATUS_TASK_SET_FULL:
            out.status = MQB_ERR_BUSY;
            break;
        case SCSI_STATUS_CANCELLED:
            // Not cancelled by markLost: libiscsi dropped the connection.
            if (!lost_) failure_ = "the iSCSI connection to the target was lost";
            out.status = MQB_ERR_TIMEOUT;
            break;
        case SCSI_STATUS_TIMEOUT:
            failure_ = "no answer from the target within the time-out";
            out.status = MQB_ERR_TIMEOUT;
            break;
        default:  // RESERVATION CONFLICT, TASK ABORTED, transport errors, ...
            out.status = MQB_ERR_IO;
            break;
        }
    }
    recycle(s);
    --inFlight_;
    if (!closing_) {
        done_.push(s.token);
    }
}

#else  // built without libiscsi: a queue can never be opened

struct IscsiQueue::Slot {};

IscsiQueue::IscsiQueue(iscsi_context* ctx, const IscsiTarget& target, int depth)
    : ctx_(ctx), lun_(target.lun), timeoutSec_(target.timeoutSec), timeoutNs_(0),
      free_(depth), done_(depth) {}

std::unique_ptr<IscsiQueue> IscsiQueue::open(const IscsiTarget&, int, std::string& err) {
    err = "iscsi:// devices are not available: this build of libMQB has no libiscsi";
    return nullptr;
}

IscsiQueue::~IscsiQueue() = default;
int IscsiQueue::submit(const Command&, Outcome* out, uint64_t) {
    out->senseLen = 0;
    return out->status = MQB_ERR_UNSUPPORTED;
}
int IscsiQueue::commit() { return MQB_ERR_UNSUPPORTED; }
int IscsiQueue::flush() { return MQB_ERR_UNSUPPORTED; }
int IscsiQueue::reap(uint64_t*, int, int, int64_t) { return MQB_ERR_UNSUPPORTED; }

#endif

}  // namespace mqb
