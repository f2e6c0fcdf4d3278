// SgQueue.h: a channel's queue to a SCSI generic device: asynchronous sg v3
// commands (write to start, read to finish) over as many descriptors of the
// device as the depth needs, matched back by pack_id and usr_ptr.
#pragma once
#include <scsi/sg.h>
#include <cstdint>
#include <memory>
#include <vector>
#include "IndexRing.h"
#include "Queue.h"
#include "SgPort.h"

namespace mqb {

// Turns a finished sg header into an outcome: GOOD -> 0; CHECK CONDITION
// with sense -> -16 and the sense bytes (at most kMaxSense, read from h.sbp);
// a host or driver time-out -> -14; BUSY or TASK SET FULL -> -15; anything
// else (other host/driver errors, other statuses, CHECK CONDITION without
// sense) -> -12. Pure: no device needed.
void mapSgResult(const sg_io_hdr_t& h, Outcome& out);

class SgQueue : public Queue {
public:
    // `open` gives the descriptors, the first one at once (none: every
    // command fails with -12), more when the depth passes what those queue.
    SgQueue(SgPortOpener open, int depth, unsigned timeoutMs);
    // Waits until the device has given back every command still out.
    ~SgQueue() override;

    int submit(const Command& cmd, Outcome* out, uint64_t token) override;
    // Starts every submitted command a descriptor has room for.
    int commit() override;
    int reap(uint64_t* tokens, int min, int max, int64_t timeoutNs) override;
    int outstanding() const override { return cap_ - free_.available(); }
    const char* kind() const override { return "sg"; }

    int ports() const { return int(ports_.size()); }

private:
    struct Cmd {
        uint64_t    token;
        Outcome*    out;
        sg_io_hdr_t h;
        int         port;  // descriptor it was started on, -1 before
        uint8_t     cdb[16];
        uint8_t     sense[kMaxSense];
    };
    struct Port {
        std::unique_ptr<SgPort> port;
        int inFlight = 0;
        bool full = false;  // refused a start since its last finish
    };
    int  portFor();
    void done(int i);
    void drain(Port& p, int pi);

    SgPortOpener open_;
    const int cap_;
    const unsigned timeoutMs_;
    std::unique_ptr<Cmd[]> cmds_;
    FreeSlots free_;
    IndexRing<int> pending_;  // submitted, not started, oldest first
    IndexRing<int> done_;     // finished, not reaped, oldest first
    int inFlight_ = 0;
    bool cannotOpen_ = false;
    std::vector<Port> ports_;
};

}  // namespace mqb
