// Sbc.cpp: the SBC answers every block backend shares: fixed-format sense,
// the LBA range check and READ CAPACITY(10) data.
#include <algorithm>
#include <cstring>
#include "Backend.h"
#include "MQBErr.h"

namespace mqb {

namespace {
void putBe32(uint8_t* p, uint32_t v) {
    p[0] = uint8_t(v >> 24);
    p[1] = uint8_t(v >> 16);
    p[2] = uint8_t(v >> 8);
    p[3] = uint8_t(v);
}
}  // namespace

void buildFixedSense(Outcome& out, uint8_t key, uint8_t asc, uint8_t ascq,
                     bool hasUec, uint16_t uec, bool valid, uint32_t info) {
    const int len = hasUec ? 32 : 18;
    std::memset(out.sense, 0, size_t(len));
    out.sense[0] = uint8_t(0x70 | (valid ? 0x80 : 0));
    out.sense[2] = uint8_t(key & 0x0F);
    if (valid) putBe32(out.sense + 3, info);
    out.sense[7] = uint8_t(len - 8);  // additional sense length
    out.sense[12] = asc;
    out.sense[13] = ascq;
    if (hasUec) {
        out.sense[20] = uint8_t(uec >> 8);
        out.sense[21] = uint8_t(uec);
    }
    out.senseLen = uint8_t(len);
    out.status = MQB_ERR_CHECK;
}

namespace sbc {

bool checkRange(const Command& c, uint64_t blocks, Outcome& out) {
    if (c.lba < blocks && (c.tl == 0 || c.lba + c.tl - 1 < blocks)) return true;
    buildFixedSense(out, 0x05, 0x21, 0x00, false, 0, false, 0);
    return false;
}

void readCapacity(const Command& c, uint64_t blocks, uint32_t blockSize) {
    uint8_t d[8];
    const uint64_t last = blocks - 1;
    putBe32(d, last > 0xFFFFFFFFULL ? 0xFFFFFFFFU : uint32_t(last));
    putBe32(d + 4, blockSize);
    if (c.readBuf) std::memcpy(c.readBuf, d, size_t(std::min<uint64_t>(8, c.readLen)));
}

}  // namespace sbc
}  // namespace mqb
