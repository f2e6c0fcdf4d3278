// SgDisk.cpp: SCSI generic passthrough. Opening checks the device and reads
// its capacity with synchronous SG_IO; the channels' commands then go through
// queues (SgQueue) of asynchronous sg v3 commands, each queue on descriptors
// of its own, the caller's CDB passed as it is.
#include "SgDisk.h"
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include "DeviceText.h"
#include "MQBErr.h"
#include "SenseParser.h"
#include "SgQueue.h"

namespace mqb {

namespace {
// First sg driver version with the SG_IO interface.
constexpr int kMinSgVersion = 30000;

bool isUnitAttention(const Outcome& o) {
    SenseParser::Kcq kcq;
    SenseParser::getKcq(o.sense, o.senseLen, kcq);
    return o.status == MQB_ERR_CHECK && kcq.key == scsi::kKeyUnitAttention;
}
}  // namespace

void SgDisk::passThrough(int fd, const uint8_t* cdb, uint8_t cdbLen, int dir, void* data,
                         unsigned len, unsigned timeoutMs, Outcome& out) {
    sg_io_hdr_t h;
    std::memset(&h, 0, sizeof h);
    h.interface_id = 'S';
    h.cmdp = const_cast<unsigned char*>(cdb);
    h.cmd_len = cdbLen;
    h.dxfer_direction = len ? dir : SG_DXFER_NONE;
    h.dxferp = len ? data : nullptr;
    h.dxfer_len = len;
    h.sbp = out.sense;
    h.mx_sb_len = kMaxSense;
    h.timeout = timeoutMs;
    if (::ioctl(fd, SG_IO, &h) < 0) {
        out.status = MQB_ERR_IO;
        out.senseLen = 0;
        return;
    }
    mapSgResult(h, out);
}

std::unique_ptr<Backend> SgDisk::open(const std::string& params, std::string& err) {
    std::string path = params;
    uint64_t timeoutSec = kTimeoutMs / 1000;
    if (!devtext::takeTrailingOption(path, "timeout", 1, 3600, timeoutSec, err)) {
        err += " (1 to 3600 seconds)";
        return nullptr;
    }
    const unsigned timeoutMs = unsigned(timeoutSec) * 1000;
    if (path.empty()) {
        err = "sg device needs a path";
        return nullptr;
    }
    const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        err = "cannot open \"" + path + "\": " + std::strerror(errno);
        return nullptr;
    }
    int version = 0;
    if (::ioctl(fd, SG_GET_VERSION_NUM, &version) < 0 || version < kMinSgVersion) {
        ::close(fd);
        err = "\"" + path + "\" is not a SCSI generic device";
        return nullptr;
    }

    // READ CAPACITY(10); the first command after a reset or a medium change
    // may draw a UNIT ATTENTION, so that one is retried a few times.
    uint8_t data[32] = {};
    uint8_t cdb10[10] = {scsi::kReadCapacity10};
    Outcome out;
    for (int tries = 0; tries < 4; ++tries) {
        passThrough(fd, cdb10, sizeof cdb10, SG_DXFER_FROM_DEV, data, 8, timeoutMs, out);
        if (!isUnitAttention(out)) break;
    }
    Geometry geo;
    if (out.status == MQB_OK && scsi::be32(data) == 0xFFFFFFFFU) {
        // Too large for 10 bytes: READ CAPACITY(16) gives a 64-bit last LBA.
        uint8_t cdb16[16] = {scsi::kServiceActionIn16, scsi::kSaReadCapacity16};
        cdb16[13] = sizeof data;
        passThrough(fd, cdb16, sizeof cdb16, SG_DXFER_FROM_DEV, data, sizeof data, timeoutMs,
                    out);
        geo.blocks = scsi::be64(data) + 1;
        geo.blockSize = scsi::be32(data + 8);
    } else {
        geo.blocks = uint64_t(scsi::be32(data)) + 1;
        geo.blockSize = scsi::be32(data + 4);
    }
    if (out.status != MQB_OK) {
        ::close(fd);
        err = "READ CAPACITY on \"" + path + "\" failed: " + MQBErr::errStr(out.status);
        if (out.status == MQB_ERR_CHECK) {
            SenseParser::Kcq kcq;
            SenseParser::getKcq(out.sense, out.senseLen, kcq);
            char text[32];
            std::snprintf(text, sizeof text, " (sense %02X/%02X/%02X)", kcq.key, kcq.asc, kcq.ascq);
            err += text;
        }
        return nullptr;
    }
    ::close(fd);
    return std::unique_ptr<Backend>(new SgDisk(path, geo, timeoutMs));
}

std::unique_ptr<Queue> SgDisk::openQueue(int depth, std::string&) {
    const std::string path = path_;
    return std::make_unique<SgQueue>(
        [path]() {
            std::string err;
            return openSgPort(path, err);
        },
        depth, timeoutMs_);
}

}  // namespace mqb
