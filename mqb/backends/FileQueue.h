// FileQueue.h: a channel's queue to a file or block device. Each command is a
// small sequence of transfers (a read; a write; a write then a read-back; a
// verify read in pieces) run through the queue's own io_uring, or with
// pread/pwrite inside submit() when the kernel refuses io_uring. The ring is
// tied to the thread that submits first (single issuer, completions run when
// that thread enters the kernel) where the kernel offers it, with the disk's
// descriptors and the queue's bounce buffers registered with it.
#pragma once
#include <cstdint>
#include <memory>
#include "IndexRing.h"
#include "Queue.h"

namespace mqb {

class FileDisk;

class FileQueue : public Queue {
public:
    // With `useRing` false (or when the kernel refuses a ring) every command
    // runs synchronously inside submit().
    FileQueue(FileDisk& disk, int depth, bool useRing = true);
    // Waits until the kernel is done with every buffer it was given (see
    // takeOver() for a queue closed by another thread than its ring's).
    ~FileQueue() override;
    FileQueue(const FileQueue&) = delete;
    FileQueue& operator=(const FileQueue&) = delete;

    int submit(const Command& cmd, Outcome* out, uint64_t token) override;
    int commit() override;
    int reap(uint64_t* tokens, int min, int max, int64_t timeoutNs) override;
    int outstanding() const override { return cap_ - free_.available(); }

    // "io_uring", or "sync" for the synchronous fallback.
    const char* kind() const override { return ringUp_ ? "io_uring" : "sync"; }
    // True when commands go through io_uring (false: synchronous fallback).
    bool async() const override { return ringUp_; }
    // True when the ring is single-issuer with deferred completions and the
    // disk's descriptors are registered with it (known after the first
    // submit; false when the kernel does not offer them).
    bool tuned() const;

    // Whether a queue may use io_uring in this process: built with liburing,
    // the environment variable MQB_NO_IO_URING not set (or "0"), and the
    // kernel gives a ring (tried once).
    static bool ringAvailable();

    // Bytes of one bounce buffer: transfers the caller's buffers cannot make
    // directly (unaligned for O_DIRECT), read-backs and verify reads go
    // through it in pieces of at most this size.
    static constexpr uint64_t kBounce = 1 << 20;
    // The head of each bounce buffer registered with the ring: transfers that
    // fit in it move without the kernel pinning pages for each of them.
    static constexpr uint64_t kFixedBytes = 128 << 10;

private:
    enum class Phase : uint8_t { Read, Write, Check };
    // One transfer in progress: `len` bytes left at `off` of `fd`.
    struct Io {
        int      fd;
        bool     write;
        uint8_t* buf;
        uint64_t len;
        uint64_t off;
    };
    struct Op {
        uint64_t       token;
        Outcome*       out;
        uint64_t       lba;
        uint8_t*       dst;      // READ: the caller's data-in buffer
        uint64_t       dstLen;   //   and the bytes it takes
        const uint8_t* src;      // data-out buffer (WRITE, WRV, VERIFY with BYTCHK)
        uint64_t       srcLen;
        uint64_t       start;    // byte offset of the command's first block
        uint64_t       total;    // bytes of the current phase
        uint64_t       pos;      // bytes of the phase done before the current piece
        uint64_t       piece;    // bytes of the current piece
        Phase          phase;
        bool           wrv;      // WRITE AND VERIFY: a read-back follows the write
        bool           compare;  // BYTCHK: the read-back is compared with src
        bool           bounced;  // the read landed in the bounce buffer
        Io             io;
        bool           atKernel = false;  // io is prepared for or with the ring
        unsigned       regRing = 0;       // ring (generation) that has the bounce registered
        unsigned       refusedRing = 0;   // ring that refused to register it
        std::unique_ptr<uint8_t, void (*)(void*)> bounce{nullptr, nullptr};
    };

    // Sets up the first transfer of `op`; false when the command is already
    // answered (out filled).
    bool begin(Op& op, const Command& c);
    // Takes the result of op's transfer (bytes, or -errno); true when op.io
    // now holds the next transfer, false when the command is answered.
    bool advance(Op& op, int64_t res);
    bool startCheckPiece(Op& op);
    bool haveBounce(Op& op);
    void fail(Op& op, bool write);
    void finish(int i);
    void runSync(Op& op);

    FileDisk& disk_;
    const int cap_;
    const uint64_t bs_;
    std::unique_ptr<Op[]> ops_;
    FreeSlots free_;        // unused op indexes
    IndexRing<int> done_;   // finished ops not yet reaped, oldest first
    // The io_uring, when there is one (kept out of this header so that the
    // layout does not depend on how liburing was found).
    struct Ring;
    std::unique_ptr<Ring> ring_;
    bool ringUp_ = false;
    // Commands submitted to the ring since the last reap, and the commands
    // that reap handed back: commit() holds the new ones until they replace
    // all of those or kCommitBatch are waiting, so that a batch costs one
    // system call, or one per kCommitBatch commands.
    static constexpr unsigned kCommitBatch = 4;
    int sinceReap_ = 0, lastReaped_ = 0;
    void queueIo(int i);
    void takeCqes();
    // Makes the ring ready for the calling thread; false when there is none.
    bool ownRing();
    bool enableRing();
    void takeOver();
    int  fixedBuffer(int i, unsigned len);
};

}  // namespace mqb
