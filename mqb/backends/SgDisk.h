// SgDisk.h: a real SCSI device through the Linux SCSI generic driver
// (/dev/sgN). Opening reads its capacity; commands go through queues of
// asynchronous sg v3 commands (SgQueue), passed through unchanged; the
// device's own status and sense come back as the outcome.
#pragma once
#include <scsi/sg.h>
#include <memory>
#include <string>
#include "Backend.h"

namespace mqb {

class SgDisk : public Backend {
public:
    // Opens the device text's path (`/dev/sgN` or `/dev/sgN,timeout=SEC`)
    // read-write, checks it is a SCSI generic device and reads its capacity.
    // Returns null with a message in `err` when any step fails.
    static std::unique_ptr<Backend> open(const std::string& params, std::string& err);
    std::unique_ptr<Queue> openQueue(int depth, std::string& err) override;
    const char* queueKind() const override { return "sg"; }
    Geometry geometry() const override { return geo_; }
    const char* kind() const override { return "sg"; }
    uint32_t commandTimeoutSec() const override { return kTimeoutMs / 1000; }

    // Per-command time-out the device is given unless the device text says
    // `timeout=SEC` (1 to 3600); past it the command ends -14.
    static constexpr unsigned kTimeoutMs = 60000;
    unsigned timeoutMs() const { return timeoutMs_; }

private:
    SgDisk(std::string path, Geometry geo, unsigned timeoutMs)
        : path_(std::move(path)), geo_(geo), timeoutMs_(timeoutMs) {}

    // One synchronous SG_IO of `cdb` moving `len` bytes in direction `dir`
    // (SG_DXFER_*) within `timeoutMs`, its result in `out`.
    static void passThrough(int fd, const uint8_t* cdb, uint8_t cdbLen, int dir,
                            void* data, unsigned len, unsigned timeoutMs, Outcome& out);

    const std::string path_;
    const Geometry geo_;
    const unsigned timeoutMs_;
};

}  // namespace mqb
