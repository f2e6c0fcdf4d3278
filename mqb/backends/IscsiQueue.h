// IscsiQueue.h: one iSCSI session used as a channel's asynchronous queue.
// Commands are queued on the session by submit(), written to the socket by
// commit() once per batch (when the commands of the last reap have all been
// replaced) or by the next reap, and completed by reap(), which drives the
// session's event loop (poll on its socket, then libiscsi's service call). A command the target
// leaves unanswered past the time-out, or a session the target drops, ends
// every outstanding command with a time-out status; the session is then dead
// and refuses further commands.
#pragma once
#include <cstdint>
#include <memory>
#include <string>
#include <vector>
#include "IscsiDisk.h"
#include "IndexRing.h"
#include "Queue.h"

struct iscsi_context;

namespace mqb {

class IscsiQueue : public Queue {
public:
    // Logs in to `target` (blocking, bounded by its time-out) and makes room
    // for `depth` commands in flight (1 to 1024). Returns null with the
    // transport's message in `err` when the login fails.
    static std::unique_ptr<IscsiQueue> open(const IscsiTarget& target, int depth,
                                            std::string& err);
    // Drops whatever is still in flight (its outcomes are not written), logs
    // out of a live session and closes it.
    ~IscsiQueue() override;

    int submit(const Command& cmd, Outcome* out, uint64_t token) override;
    int commit() override;
    int reap(uint64_t* tokens, int min, int max, int64_t timeoutNs) override;
    int outstanding() const override { return outstanding_; }
    const char* kind() const override { return "iscsi"; }

    // True once the session was lost (dropped, or a command timed out).
    bool lost() const { return lost_; }
    // Why the session was lost; empty while it is alive.
    const std::string& lossReason() const { return lossReason_; }

    IscsiQueue(const IscsiQueue&) = delete;
    IscsiQueue& operator=(const IscsiQueue&) = delete;

private:
    struct Slot;

    IscsiQueue(iscsi_context* ctx, const IscsiTarget& target, int depth);

    // libiscsi's completion callback; `slot` is the command's Slot.
    static void onDone(iscsi_context* ctx, int status, void* data, void* slot);
    // Records `slot`'s outcome (unless the queue is closing), frees its task
    // and hands its token to reap.
    void finish(Slot& slot, int status);
    // Makes `slot` idle again: frees what libiscsi left on its task record
    // (or the record itself when libiscsi hung its own memory on it).
    void recycle(Slot& slot);
    // Waits on the socket up to `waitMs` (0: only look) and lets libiscsi
    // process what came. Marks the session lost when the socket reports the
    // peer gone or libiscsi gives up on it.
    void pollOnce(int waitMs);
    // Ends every command in flight with -14 and marks the session dead.
    void markLost(const char* why);
    // Writes what libiscsi has queued for the socket (commit's work, now).
    int flush();
    // The earliest deadline of the commands in flight (INT64_MAX: none),
    // given the time `now`.
    int64_t firstDeadline(int64_t now);
    // Moves finished tokens to `tokens[n..max)`; returns the new n.
    int take(uint64_t* tokens, int n, int max);

    iscsi_context* ctx_;
    const int lun_;
    const int timeoutSec_;
    const int64_t timeoutNs_;
    std::vector<Slot> slots_;
    FreeSlots free_;                 // indexes of idle slots
    IndexRing<uint64_t> done_;       // finished tokens not yet reaped, oldest first
    int inFlight_ = 0;               // with the target (callback not yet run)
    int64_t firstDeadline_ = INT64_MAX;  // at or below the earliest deadline in flight
    int outstanding_ = 0;            // submitted and not yet reaped
    bool uncommitted_ = false;
    int lastReaped_ = 0;             // tokens the last reap handed back
    int sinceReap_ = 0;              // commands submitted since then
    bool lost_ = false;
    // Set by a callback when libiscsi gave up on a command (time-out, dropped
    // connection); the session is marked lost once libiscsi has returned.
    const char* failure_ = nullptr;
    bool closing_ = false;
    std::string lossReason_;
};

}  // namespace mqb
