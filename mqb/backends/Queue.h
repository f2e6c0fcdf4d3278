// Queue.h: the queue a backend opens for one channel, the way a storage
// engine talks to its transport: submit commands, commit them to the device
// in one batch, reap completions with a time-out. A queue says what it is
// (kind) and whether the device works on its commands while the caller goes
// on (async). A channel (MQB.cpp)
// holds one queue per selected device and knows no transport; every
// transport (simulated disk, file, SCSI generic, iSCSI) implements this.
#pragma once
#include <cstdint>
#include "Backend.h"

namespace mqb {

// One channel's queue to one device. Used by one thread at a time (the
// channel's); several queues of one device may run on several threads at once.
// No call allocates, locks a shared lock or formats text per command.
class Queue {
public:
    virtual ~Queue() = default;

    // Takes `cmd` for the device. Returns 0 when the command was accepted: its
    // outcome will be written to `*out` and `token` handed back by reap().
    // `cmd`'s buffers and `*out` stay valid until then; `cmd` itself may go
    // once submit returns. Returns a negative status (nothing queued, `*out`
    // may hold sense) when the command cannot be accepted. An asynchronous
    // queue never blocks here; one that is not runs the command inside submit.
    virtual int submit(const Command& cmd, Outcome* out, uint64_t token) = 0;

    // Hands every command submitted since the last commit to the device, in
    // one system call where the transport allows. A transport may hold them
    // until the commands its last reap handed back have all been replaced,
    // so that a batch goes out at once (the next reap hands over whatever is
    // held). Returns 0 or a negative status (the commands stay queued and are
    // retried by the next commit or reap).
    virtual int commit() = 0;

    // Collects finished commands: writes up to `max` tokens into `tokens`,
    // waiting until at least `min` have finished or `timeoutNs` has passed
    // (negative: no limit; 0: only what is ready). Commits anything still
    // uncommitted first. Returns the number of tokens written, which is
    // below `min` only on a time-out, or a negative status when the transport
    // can no longer be waited on (its commands are then lost to it).
    virtual int reap(uint64_t* tokens, int min, int max, int64_t timeoutNs) = 0;

    // Commands submitted and not yet reaped.
    virtual int outstanding() const = 0;

    // What carries the commands: "sim", "io_uring", "sync", "sg", "iscsi".
    virtual const char* kind() const = 0;
    // False when every command runs to its end inside submit().
    virtual bool async() const { return true; }
};

}  // namespace mqb
