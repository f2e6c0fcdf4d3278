// SgDisk.cpp: SCSI generic passthrough. The caller's CDB goes to the device
// as it is; the data direction follows the opcode. Sense lands in a buffer on
// the stack, so a command allocates nothing and the object keeps no mutable
// state: several threads may issue SG_IO on the one descriptor at once.
#include "SgDisk.h"
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include "MQBErr.h"

namespace mqb {

namespace {
// Full SCSI status bytes (SAM), with the reserved bits masked off.
constexpr uint8_t kGood = 0x00, kCheck = 0x02, kBusy = 0x08, kTaskSetFull = 0x28;
// Transport (host) and low-level driver codes the sg driver reports.
constexpr uint16_t kDidTimeOut = 0x03;
constexpr uint16_t kDriverTimeout = 0x06, kDriverSense = 0x08, kDriverMask = 0x0F;
// First sg driver version with the SG_IO interface.
constexpr int kMinSgVersion = 30000;
constexpr uint8_t kReadCapacity16 = 0x9E, kServiceActionIn16 = 0x10;

uint32_t be32(const uint8_t* p) {
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}

// Sense key, code and qualifier of fixed (0x70/0x71) or descriptor
// (0x72/0x73) sense; zeros for what the sense is too short to hold.
void senseKcq(const Outcome& o, uint8_t kcq[3]) {
    const bool desc = (o.sense[0] & 0x7F) >= 0x72;
    const int at[3] = {desc ? 1 : 2, desc ? 2 : 12, desc ? 3 : 13};
    for (int i = 0; i < 3; ++i) kcq[i] = o.senseLen > at[i] ? o.sense[at[i]] : 0;
    kcq[0] &= 0x0F;
}

bool isUnitAttention(const Outcome& o) {
    uint8_t kcq[3];
    senseKcq(o, kcq);
    return o.status == MQB_ERR_CHECK && kcq[0] == 0x06;
}
}  // namespace

void mapSgResult(const sg_io_hdr_t& h, Outcome& out) {
    out.senseLen = 0;
    const unsigned driver = h.driver_status & kDriverMask;
    if (h.host_status == kDidTimeOut || driver == kDriverTimeout) {
        out.status = MQB_ERR_TIMEOUT;
        return;
    }
    // DRIVER_SENSE only says sense came back; it goes with CHECK CONDITION.
    if (h.host_status != 0 || (driver != 0 && driver != kDriverSense)) {
        out.status = MQB_ERR_IO;
        return;
    }
    // Some drivers fill only the shifted masked_status; rebuild the full byte.
    const uint8_t status = h.status ? uint8_t(h.status & 0xFE) : uint8_t(h.masked_status << 1);
    switch (status) {
    case kGood:
        out.status = MQB_OK;
        return;
    case kCheck: {
        const unsigned len = std::min<unsigned>({h.sb_len_wr, h.mx_sb_len, unsigned(kMaxSense)});
        if (len == 0 || h.sbp == nullptr) {
            // Autosense failed: there is nothing to tell the caller about the error.
            out.status = MQB_ERR_IO;
            return;
        }
        std::memcpy(out.sense, h.sbp, len);
        out.senseLen = uint8_t(len);
        out.status = MQB_ERR_CHECK;
        return;
    }
    case kBusy:
    case kTaskSetFull:
        out.status = MQB_ERR_BUSY;
        return;
    default:  // RESERVATION CONFLICT, ACA ACTIVE, TASK ABORTED, ...
        out.status = MQB_ERR_IO;
        return;
    }
}

void SgDisk::passThrough(int fd, const uint8_t* cdb, uint8_t cdbLen, int dir, void* data,
                         unsigned len, Outcome& out) {
    uint8_t sense[kMaxSense];
    sg_io_hdr_t h;
    std::memset(&h, 0, sizeof h);
    h.interface_id = 'S';
    h.cmdp = const_cast<unsigned char*>(cdb);
    h.cmd_len = cdbLen;
    h.dxfer_direction = len ? dir : SG_DXFER_NONE;
    h.dxferp = len ? data : nullptr;
    h.dxfer_len = len;
    h.sbp = sense;
    h.mx_sb_len = sizeof sense;
    h.timeout = kTimeoutMs;
    if (::ioctl(fd, SG_IO, &h) < 0) {
        out.status = MQB_ERR_IO;
        out.senseLen = 0;
        return;
    }
    mapSgResult(h, out);
}

std::unique_ptr<Backend> SgDisk::open(const std::string& path, std::string& err) {
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
    uint8_t cdb10[10] = {sbc::kReadCapacity};
    Outcome out;
    for (int tries = 0; tries < 4; ++tries) {
        passThrough(fd, cdb10, sizeof cdb10, SG_DXFER_FROM_DEV, data, 8, out);
        if (!isUnitAttention(out)) break;
    }
    Geometry geo;
    if (out.status == MQB_OK && be32(data) == 0xFFFFFFFFU) {
        // Too large for 10 bytes: READ CAPACITY(16) gives a 64-bit last LBA.
        uint8_t cdb16[16] = {kReadCapacity16, kServiceActionIn16};
        cdb16[13] = sizeof data;
        passThrough(fd, cdb16, sizeof cdb16, SG_DXFER_FROM_DEV, data, sizeof data, out);
        geo.blocks = ((uint64_t(be32(data)) << 32) | be32(data + 4)) + 1;
        geo.blockSize = be32(data + 8);
    } else {
        geo.blocks = uint64_t(be32(data)) + 1;
        geo.blockSize = be32(data + 4);
    }
    if (out.status != MQB_OK) {
        ::close(fd);
        err = "READ CAPACITY on \"" + path + "\" failed: " + MQBErr::errStr(out.status);
        if (out.status == MQB_ERR_CHECK) {
            uint8_t kcq[3];
            senseKcq(out, kcq);
            char text[32];
            std::snprintf(text, sizeof text, " (sense %02X/%02X/%02X)", kcq[0], kcq[1], kcq[2]);
            err += text;
        }
        return nullptr;
    }
    return std::unique_ptr<Backend>(new SgDisk(fd, geo));
}

SgDisk::~SgDisk() { ::close(fd_); }

void SgDisk::execute(const Command& c, Outcome& out) {
    if (c.cdb == nullptr || c.cdbLen == 0 || c.cdbLen > 16) {
        out.status = MQB_ERR_RECORD;
        out.senseLen = 0;
        return;
    }
    int dir = SG_DXFER_NONE;
    void* data = nullptr;
    uint64_t len = 0;
    switch (c.opcode) {
    case sbc::kRead:
    case sbc::kReadCapacity:
    case kReadCapacity16:
        dir = SG_DXFER_FROM_DEV, data = c.readBuf, len = c.readBuf ? c.readLen : 0;
        break;
    case sbc::kWrite:
    case sbc::kWrv:
        dir = SG_DXFER_TO_DEV, data = const_cast<uint8_t*>(c.writeBuf),
        len = c.writeBuf ? c.writeLen : 0;
        break;
    default:  // VERIFY(10) and anything else moves no data
        break;
    }
    if (len > UINT_MAX) {
        out.status = MQB_ERR_TRANSFER;
        out.senseLen = 0;
        return;
    }
    passThrough(fd_, c.cdb, c.cdbLen, dir, data, unsigned(len), out);
}

}  // namespace mqb
