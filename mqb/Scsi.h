// Scsi.h: the SCSI constants the device library and the extension share
// (operation codes, status bytes, sense keys, the additional sense codes we
// produce) and the big-endian loads and stores CDBs and sense are made of.
#pragma once
#include <cstdint>

namespace scsi {

// Operation codes (SPC/SBC).
constexpr uint8_t kReadCapacity10 = 0x25;
constexpr uint8_t kRead10 = 0x28;
constexpr uint8_t kWrite10 = 0x2A;
constexpr uint8_t kWriteVerify10 = 0x2E;
constexpr uint8_t kVerify10 = 0x2F;
constexpr uint8_t kRead16 = 0x88;
constexpr uint8_t kWrite16 = 0x8A;
constexpr uint8_t kWriteVerify16 = 0x8E;
constexpr uint8_t kVerify16 = 0x8F;
constexpr uint8_t kServiceActionIn16 = 0x9E;  // READ CAPACITY(16) is its action 0x10
constexpr uint8_t kSaReadCapacity16 = 0x10;

// BYTCHK: byte 1 bit 1 of WRITE AND VERIFY and VERIFY, 10- and 16-byte alike.
constexpr uint8_t kBytchk = 0x02;

// Status bytes (SAM), reserved bits masked off.
constexpr uint8_t kStatusGood = 0x00;
constexpr uint8_t kStatusCheck = 0x02;
constexpr uint8_t kStatusBusy = 0x08;
constexpr uint8_t kStatusReservationConflict = 0x18;
constexpr uint8_t kStatusTaskSetFull = 0x28;

// Sense keys.
constexpr uint8_t kKeyRecovered = 0x01;
constexpr uint8_t kKeyNotReady = 0x02;
constexpr uint8_t kKeyMedium = 0x03;
constexpr uint8_t kKeyIllegalRequest = 0x05;
constexpr uint8_t kKeyUnitAttention = 0x06;
constexpr uint8_t kKeyDataProtect = 0x07;
constexpr uint8_t kKeyMiscompare = 0x0E;

// Additional sense code and qualifier pairs we answer with.
struct Asc {
    uint8_t asc, ascq;
};
constexpr Asc kWriteError{0x0C, 0x00};
constexpr Asc kUnrecoveredRead{0x11, 0x00};
constexpr Asc kMiscompareVerify{0x1D, 0x00};
constexpr Asc kInvalidOpcode{0x20, 0x00};
constexpr Asc kLbaOutOfRange{0x21, 0x00};
constexpr Asc kWriteProtected{0x27, 0x00};
constexpr Asc kSpaceAllocFailed{0x27, 0x07};

// Fixed-format sense sizes: the short form and ours, with the vendor UEC.
constexpr int kShortSense = 18;
constexpr int kLongSense = 32;

inline uint16_t be16(const uint8_t* p) { return uint16_t((p[0] << 8) | p[1]); }
inline uint32_t be32(const uint8_t* p) {
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}
inline uint64_t be64(const uint8_t* p) { return (uint64_t(be32(p)) << 32) | be32(p + 4); }

inline void putBe16(uint8_t* p, uint16_t v) {
    p[0] = uint8_t(v >> 8);
    p[1] = uint8_t(v);
}
inline void putBe32(uint8_t* p, uint32_t v) {
    p[0] = uint8_t(v >> 24);
    p[1] = uint8_t(v >> 16);
    p[2] = uint8_t(v >> 8);
    p[3] = uint8_t(v);
}
inline void putBe64(uint8_t* p, uint64_t v) {
    putBe32(p, uint32_t(v >> 32));
    putBe32(p + 4, uint32_t(v));
}

// The block data commands come in two CDB forms with the same flag byte:
//   10-byte: opcode, flags, LBA in bytes 2-5 (32 bits), group, length in
//            bytes 7-8 (16 bits), control.
//   16-byte: opcode, flags, LBA in bytes 2-9 (64 bits), length in bytes
//            10-13 (32 bits), group, control.
// The 10-byte form carries a command only when no block of it lies at or past
// 2^32 and its length fits 16 bits.
constexpr uint64_t kMaxLba10 = 0xFFFFFFFFULL;
constexpr uint64_t kMaxTl10 = 0xFFFF;
constexpr uint64_t kMaxTl16 = 0xFFFFFFFFULL;

inline bool fits10(uint64_t lba, uint64_t tl) {
    return lba <= kMaxLba10 && tl <= kMaxTl10 && lba + tl <= kMaxLba10 + 1;
}

// The 10-byte opcode of a READ, WRITE, WRITE AND VERIFY or VERIFY in either
// form; any other opcode unchanged.
constexpr uint8_t dataFamily(uint8_t op) {
    switch (op) {
    case kRead16: return kRead10;
    case kWrite16: return kWrite10;
    case kWriteVerify16: return kWriteVerify10;
    case kVerify16: return kVerify10;
    default: return op;
    }
}

// The 16-byte opcode of a 10-byte data command (0 for anything else).
constexpr uint8_t sixteenOf(uint8_t op10) {
    switch (op10) {
    case kRead10: return kRead16;
    case kWrite10: return kWrite16;
    case kWriteVerify10: return kWriteVerify16;
    case kVerify10: return kVerify16;
    default: return 0;
    }
}

constexpr bool isData10(uint8_t op) {
    return op == kRead10 || op == kWrite10 || op == kWriteVerify10 || op == kVerify10;
}
constexpr bool isData16(uint8_t op) { return isData10(dataFamily(op)) && op != dataFamily(op); }

// Writes the data command `op10` (a 10-byte opcode) for `lba`/`tl` into `cdb`
// (16 bytes of room) with `flags` in byte 1: the 16-byte form when `sixteen`,
// else the 10-byte one, whose fields take the low bits. Bytes past the form's
// length are left alone. Returns the CDB length, 10 or 16.
inline uint8_t putDataCdb(uint8_t* cdb, uint8_t op10, uint8_t flags, uint64_t lba, uint64_t tl,
                          bool sixteen) {
    if (sixteen) {
        cdb[0] = sixteenOf(op10);
        cdb[1] = flags;
        putBe64(cdb + 2, lba);
        putBe32(cdb + 10, uint32_t(tl));
        cdb[14] = 0;
        cdb[15] = 0;
        return 16;
    }
    cdb[0] = op10;
    cdb[1] = flags;
    putBe32(cdb + 2, uint32_t(lba));
    cdb[6] = 0;
    putBe16(cdb + 7, uint16_t(tl));
    cdb[9] = 0;
    return 10;
}

// Reads LBA and transfer length of a data command in either form, by its
// opcode. Returns false (leaving both alone) for another opcode or a CDB too
// short for its form.
inline bool getDataCdb(const uint8_t* cdb, uint8_t cdbLen, uint64_t& lba, uint32_t& tl) {
    if (cdbLen >= 10 && isData10(cdb[0])) {
        lba = be32(cdb + 2);
        tl = be16(cdb + 7);
        return true;
    }
    if (cdbLen >= 16 && isData16(cdb[0])) {
        lba = be64(cdb + 2);
        tl = be32(cdb + 10);
        return true;
    }
    return false;
}

}  // namespace scsi
