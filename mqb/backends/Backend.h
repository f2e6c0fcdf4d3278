// Backend.h: the small interface every device kind implements (the simulated
// disk, files and block devices, SCSI generic devices, iSCSI). The command
// and outcome records that pass through it and its queues (Queue.h) are in
// scsi/Command.h, the SBC answers the block backends share in scsi/Sbc.h.
#pragma once
#include <cstdint>
#include <memory>
#include <string>
#include "Scsi.h"
#include "scsi/Command.h"
#include "scsi/Sbc.h"

namespace mqb {

class Queue;

// What a device reports about its size. `blockSize` may be 0 (a disk that has
// not been asked for its capacity yet, or one configured to say 0).
struct Geometry {
    uint64_t blocks = 0;
    uint32_t blockSize = 0;
};

// One device. Its commands run through queues (one per channel, openQueue);
// the backend object itself holds what the queues share and must be safe to
// use from several queues on several threads at once.
class Backend {
public:
    virtual ~Backend() = default;
    // A new queue to this device holding up to `depth` commands, or null with
    // the reason in `err` when the device cannot give one (the channel then
    // refuses the command with MQB_ERR_NO_QUEUE).
    virtual std::unique_ptr<Queue> openQueue(int depth, std::string& err) = 0;
    // The kind of queue openQueue gives (Queue::kind), as far as the device
    // knows before one is opened.
    virtual const char* queueKind() const = 0;
    virtual Geometry geometry() const = 0;
    virtual const char* kind() const = 0;
    // True when data moves past the page cache (O_DIRECT).
    virtual bool direct() const { return false; }
    // How long the device may take over one command before it counts as
    // timed out: the most a delay fault may hold a completion back.
    virtual uint32_t commandTimeoutSec() const { return kDefaultCommandTimeoutSec; }
    static constexpr uint32_t kDefaultCommandTimeoutSec = 30;
};

}  // namespace mqb
