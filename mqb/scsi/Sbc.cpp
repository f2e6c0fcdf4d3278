// Sbc.cpp: the SBC answers every block backend shares: sense data,
// the LBA range check and READ CAPACITY(10) data.
#include <algorithm>
#include <cstring>
#include "scsi/Sbc.h"
#include "MQBErr.h"

namespace mqb {

void buildFixedSense(Outcome& out, uint8_t key, scsi::Asc code, bool valid, uint64_t info,
                     uint16_t uec, int len) {
    if (len != scsi::kShortSense) len = scsi::kLongSense;
    if (valid && info > 0xFFFFFFFFULL) {
        const int total = len == scsi::kLongSense ? 32 : 20;
        std::memset(out.sense, 0, size_t(total));
        out.sense[0] = 0x72;
        out.sense[1] = uint8_t(key & 0x0F);
        out.sense[2] = code.asc;
        out.sense[3] = code.ascq;
        out.sense[7] = uint8_t(total - 8);
        uint8_t* d = out.sense + 8;  // information descriptor
        d[0] = 0x00, d[1] = 0x0A, d[2] = 0x80;
        scsi::putBe64(d + 4, info);
        if (total == 32) {  // vendor descriptor: the UEC
            d += 12;
            d[0] = 0x80, d[1] = 0x0A;
            scsi::putBe16(d + 2, uec);
        }
        out.senseLen = uint8_t(total);
        out.status = MQB_ERR_CHECK;
        return;
    }
    std::memset(out.sense, 0, size_t(len));
    out.sense[0] = uint8_t(0x70 | (valid ? 0x80 : 0));
    out.sense[2] = uint8_t(key & 0x0F);
    if (valid) scsi::putBe32(out.sense + 3, info > 0xFFFFFFFFULL ? 0xFFFFFFFFU : uint32_t(info));
    out.sense[7] = uint8_t(len - 8);  // additional sense length
    out.sense[12] = code.asc;
    out.sense[13] = code.ascq;
    if (len == scsi::kLongSense) scsi::putBe16(out.sense + 20, uec);
    out.senseLen = uint8_t(len);
    out.status = MQB_ERR_CHECK;
}

namespace sbc {

Transfer dataTransfer(const Command& c) {
    Transfer t;
    switch (c.opcode) {
    case scsi::kRead10:
    case scsi::kReadCapacity10:
    case scsi::kServiceActionIn16:
        t.dir = Transfer::Dir::In, t.buf = c.readBuf, t.len = c.readLen;
        break;
    case scsi::kVerify10:  // data-out only with BYTCHK: the blocks to compare
        if (!byteCheck(c)) break;
        [[fallthrough]];
    case scsi::kWrite10:
    case scsi::kWriteVerify10:
        t.dir = Transfer::Dir::Out, t.buf = const_cast<uint8_t*>(c.writeBuf), t.len = c.writeLen;
        break;
    default:
        break;
    }
    return t;
}

void outOfRange(Outcome& out) {
    buildFixedSense(out, scsi::kKeyIllegalRequest, scsi::kLbaOutOfRange);
}

void readCapacity(const Command& c, uint64_t blocks, uint32_t blockSize) {
    uint8_t d[8];
    const uint64_t last = blocks - 1;
    scsi::putBe32(d, last > 0xFFFFFFFFULL ? 0xFFFFFFFFU : uint32_t(last));
    scsi::putBe32(d + 4, blockSize);
    if (c.readBuf) std::memcpy(c.readBuf, d, size_t(std::min<uint64_t>(8, c.readLen)));
}

void invalidOpcode(Outcome& out) {
    buildFixedSense(out, scsi::kKeyIllegalRequest, scsi::kInvalidOpcode);
}

}  // namespace sbc
}  // namespace mqb
