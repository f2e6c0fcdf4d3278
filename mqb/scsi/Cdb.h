// Cdb.h: the LBA and transfer length fields of a CDB, found by its operation
// code's group: the 10-byte form (groups 1 and 2: LBA in bytes 2-5, length in
// bytes 7-8), the 12-byte form (group 5: LBA 2-5, length 6-9) and the 16-byte
// form (group 4: LBA 2-9, length 10-13). The 6-byte form and the vendor
// groups carry no fields the library reads. Below them, the block data
// commands (READ, WRITE, WRITE AND VERIFY, VERIFY) in their 10- and 16-byte
// forms: which form a command needs, and writing and reading one.
#pragma once
#include <cstdint>
#include "Scsi.h"

namespace scsi {

// The CDB length of an operation code's group (SPC): 6, 10, 12 or 16, or 0
// for the vendor-specific groups 6 and 7.
constexpr int cdbFormLength(uint8_t opcode) {
    switch (opcode >> 5) {
    case 0: return 6;
    case 1: case 2: return 10;
    case 4: return 16;
    case 5: return 12;
    default: return 0;
    }
}

// Sets `lba` and `tl` from the CDB's fields when its opcode's form has them
// and `len` bytes hold them; otherwise sets both to 0. Returns whether the
// fields were read.
inline bool lbaAndLength(const uint8_t* cdb, int len, uint64_t& lba, uint32_t& tl) {
    lba = 0;
    tl = 0;
    switch (cdbFormLength(cdb[0])) {
    case 10:
        if (len < 9) return false;
        lba = be32(cdb + 2);
        tl = be16(cdb + 7);
        return true;
    case 12:
        if (len < 10) return false;
        lba = be32(cdb + 2);
        tl = be32(cdb + 6);
        return true;
    case 16:
        if (len < 14) return false;
        lba = be64(cdb + 2);
        tl = be32(cdb + 10);
        return true;
    default:
        return false;
    }
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
    if (!isData10(dataFamily(cdb[0])) || cdbLen < cdbFormLength(cdb[0])) return false;
    return lbaAndLength(cdb, cdbLen, lba, tl);
}

}  // namespace scsi
