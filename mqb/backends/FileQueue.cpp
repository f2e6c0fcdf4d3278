// FileQueue.cpp: the file queue: its slots, its io_uring (single-issuer with
// deferred completions and registered descriptors and buffers where the
// kernel offers them, a plain ring where not, pread/pwrite where there is no
// ring), submit, commit and reap. What each command transfers is in
// FileQueueOps.cpp.
#include "FileQueue.h"
#include <pthread.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>
#include "FileDisk.h"
#include "MQBErr.h"
#include "RelaxedCopy.h"
#if MQB_HAVE_URING
#include <liburing.h>
#endif

namespace mqb {

#if MQB_HAVE_URING
// The ring and what is registered with it. A single-issuer ring is made
// disabled and enabled by the first thread that submits, which it is then
// tied to: only that thread may submit, and completions run (in a batch)
// only when that thread enters the kernel. Another thread taking the queue
// over gets a ring of its own (takeOver()).
struct FileQueue::Ring {
    io_uring ring{};
    pthread_t owner{};
    bool enabled = false;       // bound to `owner`, descriptors registered
    bool singleIssuer = false;  // IORING_SETUP_SINGLE_ISSUER | DEFER_TASKRUN
    bool fixedFiles = false;    // index 0: the aligned descriptor, 1: the buffered one
    bool fixedBufs = false;     // one sparse buffer slot per op
    unsigned gen = 0;           // tells this ring's buffer registrations from older ones'
    int withKernel = 0;  // ops with an SQE prepared or submitted, CQE not seen
};

namespace {
// Rings made by this process so far: the generation of the next one.
unsigned nextRingGen() {
    static std::atomic<unsigned> gen{0};
    return gen.fetch_add(1, std::memory_order_relaxed) + 1;
}

// Keeps a buffer the kernel may still write to the process's end (a ring
// closed with transfers in flight finishes them on its own time).
void keepForKernel(std::unique_ptr<uint8_t, void (*)(void*)> buf) {
    static std::mutex lock;
    static auto* kept = new std::vector<std::unique_ptr<uint8_t, void (*)(void*)>>;
    std::lock_guard<std::mutex> hold(lock);
    kept->push_back(std::move(buf));
}

// Sets up `r` with room for `entries` SQEs: single-issuer, with deferred
// completions and disabled until its thread enables it, where the kernel
// offers that (6.1 on), else a plain ring. Returns 0 or -errno; sets
// `singleIssuer`.
int setUpRing(io_uring* r, unsigned entries, bool& singleIssuer) {
    singleIssuer = true;
    const unsigned tuned = IORING_SETUP_SINGLE_ISSUER | IORING_SETUP_DEFER_TASKRUN |
                           IORING_SETUP_R_DISABLED;
    if (io_uring_queue_init(entries, r, tuned) == 0) return 0;
    singleIssuer = false;
    return io_uring_queue_init(entries, r, 0);
}
}  // namespace
#else
struct FileQueue::Ring {};
#endif

bool FileQueue::ringAvailable() {
#if MQB_HAVE_URING
    static const bool ok = [] {
        const char* off = std::getenv("MQB_NO_IO_URING");
        if (off && *off && std::strcmp(off, "0") != 0) return false;
        io_uring probe;
        if (io_uring_queue_init(1, &probe, 0) != 0) return false;
        io_uring_queue_exit(&probe);
        return true;
    }();
    return ok;
#else
    return false;
#endif
}

FileQueue::FileQueue(FileDisk& disk, int depth, bool useRing)
    : disk_(disk), cap_(depth > 0 ? depth : 1), bs_(disk.blockSize()),
      ops_(new Op[size_t(cap_)]), free_(cap_), done_(cap_) {
#if MQB_HAVE_URING
    // One SQE per op is all the queue ever needs: an op has one transfer in
    // flight at a time.
    if (useRing) {
        ring_ = std::make_unique<Ring>();
        ringUp_ = setUpRing(&ring_->ring, unsigned(cap_), ring_->singleIssuer) == 0;
        if (!ringUp_) ring_.reset();
    }
#else
    (void)useRing;
#endif
}

FileQueue::~FileQueue() {
#if MQB_HAVE_URING
    if (!ring_) return;
    if (ring_->enabled && ring_->singleIssuer && !pthread_equal(ring_->owner, pthread_self()))
        takeOver();  // this thread cannot wait on the ring's completions
    if (!ring_) return;
    io_uring* r = &ring_->ring;
    if (ring_->enabled) io_uring_submit(r);
    while (ring_->withKernel > 0) {
        io_uring_cqe* cqe = nullptr;
        const int rc = io_uring_wait_cqe(r, &cqe);
        if (rc == -EINTR) continue;
        if (rc < 0) break;
        io_uring_cqe_seen(r, cqe);
        --ring_->withKernel;
    }
    io_uring_queue_exit(r);
#endif
}


void FileQueue::finish(int i) { done_.push(i); }

int FileQueue::submit(const Command& cmd, Outcome* out, uint64_t token) {
    if (free_.available() == 0) return MQB_ERR_QUEUE_FULL;
#if MQB_HAVE_URING
    if (ringUp_ && !ownRing()) ringUp_ = false;  // no ring for this thread: synchronous from now
#endif
    const int i = free_.take();
    Op& op = ops_[i];
    op.token = token;
    op.out = out;
    if (!begin(op, cmd)) {
        finish(i);
        return MQB_OK;
    }
#if MQB_HAVE_URING
    if (ringUp_) {
        queueIo(i);
        ++sinceReap_;
        return MQB_OK;
    }
#endif
    runSync(op);
    finish(i);
    return MQB_OK;
}

#if MQB_HAVE_URING
bool FileQueue::tuned() const {
    return ringUp_ && ring_->enabled && ring_->singleIssuer && ring_->fixedFiles;
}

// Binds a disabled single-issuer ring to the calling thread and registers the
// disk's descriptors and a sparse table of one buffer per op. A plain ring
// gets the same registrations. What the kernel refuses to register is used
// unregistered. Returns false when the ring cannot be enabled.
bool FileQueue::enableRing() {
    Ring& g = *ring_;
    io_uring* r = &g.ring;
    // (liburing 2.3 declares io_uring_enable_rings but does not export it.)
    if (g.singleIssuer &&
        ::syscall(__NR_io_uring_register, r->ring_fd, IORING_REGISTER_ENABLE_RINGS, nullptr, 0) < 0)
        return false;
    g.owner = pthread_self();
    g.gen = nextRingGen();
    const int fds[2] = {disk_.alignedFd(), disk_.bufferedFd()};
    g.fixedFiles = io_uring_register_files(r, fds, fds[0] == fds[1] ? 1 : 2) == 0;
    g.fixedBufs = io_uring_register_buffers_sparse(r, unsigned(cap_)) == 0;
    g.enabled = true;
    return true;
}

// Another thread than the ring's takes the queue over: the old ring goes and
// a new one, not yet bound, takes its place (none when the kernel refuses it:
// the queue is then synchronous). The old ring's transfers still with the
// kernel cannot be waited on from here (their completions run only on the
// ring's thread): closing the ring leaves them to the kernel, their commands
// end with MQB_ERR_IO, and their ops' bounce buffers are left to the kernel
// too (kept, never freed, as it may still write them).
void FileQueue::takeOver() {
    Ring& g = *ring_;
    io_uring_queue_exit(&g.ring);
    for (int i = 0; i < cap_; ++i) {
        Op& op = ops_[i];
        if (!op.atKernel) continue;
        op.atKernel = false;
        keepForKernel(std::move(op.bounce));
        op.out->status = MQB_ERR_IO;
        op.out->senseLen = 0;
        finish(i);
    }
    g = Ring{};
    if (setUpRing(&g.ring, unsigned(cap_), g.singleIssuer) != 0) {
        ring_.reset();
        ringUp_ = false;
    }
}

bool FileQueue::ownRing() {
    if (ring_->enabled) {
        if (!ring_->singleIssuer || pthread_equal(ring_->owner, pthread_self())) return true;
        takeOver();
        if (!ringUp_) return false;
    }
    return enableRing();
}

// The index of op i's registered bounce buffer when its current transfer of
// `len` bytes lies in it, registering the buffer with this ring on its first
// use; -1 when the transfer goes unregistered.
int FileQueue::fixedBuffer(int i, unsigned len) {
    Ring& g = *ring_;
    Op& op = ops_[i];
    const uint8_t* b = op.bounce.get();
    if (!g.fixedBufs || !b || op.io.buf < b || op.io.buf + len > b + kFixedBytes) return -1;
    if (op.regRing != g.gen) {
        if (op.refusedRing == g.gen) return -1;
        iovec iov{op.bounce.get(), kFixedBytes};
        if (io_uring_register_buffers_update_tag(&g.ring, unsigned(i), &iov, nullptr, 1) != 1) {
            op.refusedRing = g.gen;  // over the locked-memory limit, say: not again
            return -1;
        }
        op.regRing = g.gen;
    }
    return i;
}

// Prepares the SQE of op i's current transfer; the next submit hands it over.
void FileQueue::queueIo(int i) {
    Ring& g = *ring_;
    io_uring* r = &g.ring;
    io_uring_sqe* sqe = io_uring_get_sqe(r);
    if (!sqe) {  // cannot happen with one SQE per op, but never drop a transfer
        io_uring_submit(r);
        sqe = io_uring_get_sqe(r);
    }
    Op& op = ops_[i];
    const Io& io = op.io;
    // A piece larger than one SQE moves is continued by advance().
    const unsigned len = unsigned(std::min<uint64_t>(io.len, 1u << 30));
    const int fd = !g.fixedFiles ? io.fd : io.fd == disk_.alignedFd() ? 0 : 1;
    const int buf = fixedBuffer(i, len);
    if (buf >= 0) {
        if (io.write)
            io_uring_prep_write_fixed(sqe, fd, io.buf, len, io.off, buf);
        else
            io_uring_prep_read_fixed(sqe, fd, io.buf, len, io.off, buf);
    } else if (io.write) {
        io_uring_prep_write(sqe, fd, io.buf, len, io.off);
    } else {
        io_uring_prep_read(sqe, fd, io.buf, len, io.off);
    }
    if (g.fixedFiles) sqe->flags |= IOSQE_FIXED_FILE;
    io_uring_sqe_set_data64(sqe, uint64_t(i));
    op.atKernel = true;
    ++g.withKernel;
}

// Takes every CQE the kernel has posted: continues the ops that have more to
// move, finishes the rest.
void FileQueue::takeCqes() {
    io_uring* r = &ring_->ring;
    io_uring_cqe* cqes[32];
    for (;;) {
        const unsigned n = io_uring_peek_batch_cqe(r, cqes, 32);
        if (n == 0) break;
        for (unsigned k = 0; k < n; ++k) {
            const int i = int(io_uring_cqe_get_data64(cqes[k]));
            const int res = cqes[k]->res;
            --ring_->withKernel;
            ops_[i].atKernel = false;
            if (advance(ops_[i], res))
                queueIo(i);
            else
                finish(i);
        }
        io_uring_cq_advance(r, n);
    }
}
#else
bool FileQueue::tuned() const { return false; }
void FileQueue::queueIo(int) {}
void FileQueue::takeCqes() {}
#endif

// The channel commits after each command it sends; the ring is entered once
// the commands the last reap handed back have all been replaced or kCommitBatch
// of them wait (else by the next reap, which submits and waits in one call),
// not once per command. Holding a whole large batch would leave the device
// short of commands while the caller works through the completions.
int FileQueue::commit() {
#if MQB_HAVE_URING
    if (ringUp_ && ring_->enabled && io_uring_sq_ready(&ring_->ring) > 0) {
        if (sinceReap_ < lastReaped_ && io_uring_sq_ready(&ring_->ring) < kCommitBatch)
            return MQB_OK;
        // With deferred completions the same call also runs those that came
        // in, so the next reap finds them without entering the kernel.
        io_uring* r = &ring_->ring;
        const int rc = ring_->singleIssuer ? io_uring_submit_and_get_events(r) : io_uring_submit(r);
        return rc < 0 && rc != -EBUSY && rc != -EAGAIN && rc != -EINTR ? MQB_ERR_IO : MQB_OK;
    }
#endif
    return MQB_OK;
}

int FileQueue::reap(uint64_t* tokens, int min, int max, int64_t timeoutNs) {
    if (min > max) min = max;
#if MQB_HAVE_URING
    // Commands another thread left with the kernel end here (takeOver).
    if (ringUp_ && ring_->enabled && ring_->singleIssuer &&
        !pthread_equal(ring_->owner, pthread_self()))
        takeOver();
    if (ringUp_ && ring_->enabled) {
        io_uring* r = &ring_->ring;
        // Deferred completions are posted only when this thread enters the
        // kernel: a look at what is ready enters once.
        if (min == 0 && ring_->singleIssuer && ring_->withKernel > 0 && io_uring_cq_ready(r) == 0)
            io_uring_get_events(r);
        takeCqes();
        while (done_.size() < min && ring_->withKernel > 0) {
            io_uring_cqe* cqe = nullptr;
            int rc;
            if (timeoutNs < 0) {
                rc = io_uring_submit_and_wait(r, 1);
            } else {
                __kernel_timespec ts{};
                ts.tv_sec = timeoutNs / 1000000000;
                ts.tv_nsec = timeoutNs % 1000000000;
                rc = io_uring_submit_and_wait_timeout(r, &cqe, 1, &ts, nullptr);
                if (rc == -ETIME) {
                    takeCqes();
                    break;
                }
            }
            if (rc < 0 && rc != -EINTR && rc != -EBUSY && rc != -EAGAIN) {
                if (done_.empty()) return MQB_ERR_IO;
                break;
            }
            takeCqes();
            if (timeoutNs == 0) break;
        }
        // Continuations queued while taking completions go to the kernel now,
        // so a command never waits for the channel's next batch.
        if (io_uring_sq_ready(r) > 0) io_uring_submit(r);
    }
#endif
    (void)timeoutNs;
    int n = 0;
    while (n < max && !done_.empty()) {
        const int i = done_.pop();
        tokens[n++] = ops_[i].token;
        free_.give(i);
    }
    lastReaped_ = n;
    sinceReap_ = 0;
    return n;
}

}  // namespace mqb
