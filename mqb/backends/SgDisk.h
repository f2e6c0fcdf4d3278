// SgDisk.h: a real SCSI device through the Linux SCSI generic driver
// (/dev/sgN). Each command is passed through unchanged with one synchronous
// SG_IO ioctl on the caller's thread; the device's own status and sense come
// back as the outcome.
#pragma once
#include <scsi/sg.h>
#include <memory>
#include <string>
#include "Backend.h"
#include "MQBExport.h"

namespace mqb {

// Turns a completed SG_IO header into an outcome: GOOD -> 0; CHECK CONDITION
// with sense -> -16 and the sense bytes (at most kMaxSense, read from h.sbp);
// a host or driver time-out -> -14; BUSY or TASK SET FULL -> -15; anything
// else (other host/driver errors, other statuses, CHECK CONDITION without
// sense) -> -12. Pure: no device needed. Exported for its unit test.
MQB_API void mapSgResult(const sg_io_hdr_t& h, Outcome& out);

class SgDisk : public Backend {
public:
    // Opens `path` read-write, checks it is a SCSI generic device and reads
    // its capacity. Returns null with a message in `err` when any step fails.
    static std::unique_ptr<Backend> open(const std::string& path, std::string& err);
    ~SgDisk() override;
    void execute(const Command& cmd, Outcome& out) override;
    Geometry geometry() const override { return geo_; }
    const char* kind() const override { return "sg"; }

    static constexpr unsigned kTimeoutMs = 60000;

private:
    SgDisk(int fd, Geometry geo) : fd_(fd), geo_(geo) {}

    // One SG_IO of `cdb` moving `len` bytes in direction `dir` (SG_DXFER_*).
    static void passThrough(int fd, const uint8_t* cdb, uint8_t cdbLen, int dir,
                            void* data, unsigned len, Outcome& out);

    const int fd_;
    const Geometry geo_;
};

}  // namespace mqb
