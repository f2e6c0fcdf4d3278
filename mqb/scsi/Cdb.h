// Cdb.h: the LBA and transfer length fields of a CDB, found by its operation
// code's group: the 10-byte form (groups 1 and 2: LBA in bytes 2-5, length in
// bytes 7-8), the 12-byte form (group 5: LBA 2-5, length 6-9) and the 16-byte
// form (group 4: LBA 2-9, length 10-13). The 6-byte form and the vendor
// groups carry no fields the library reads.
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

}  // namespace scsi
