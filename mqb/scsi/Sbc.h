// Sbc.h: the SBC answers the block backends share (Sbc.cpp): which commands
// carry data and which way, the LBA range check, READ CAPACITY(10) data, the
// answer to an unknown opcode, and the one builder of fixed-format sense.
#pragma once
#include <cstdint>
#include "Scsi.h"
#include "scsi/Command.h"

namespace mqb {

// Shared SBC pieces of the block backends (Sbc.cpp).
namespace sbc {

// True for READ(10), WRITE(10), WRITE AND VERIFY(10) and VERIFY(10).
inline bool isDataCommand(uint8_t op) {
    return op == scsi::kRead10 || op == scsi::kWrite10 || op == scsi::kWriteVerify10 ||
           op == scsi::kVerify10;
}

// True when the command's BYTCHK bit asks for a compare with the data-out buffer.
inline bool byteCheck(const Command& c) { return c.cdbLen > 1 && (c.cdb[1] & scsi::kBytchk); }

// The data a command passed through to a real device carries, by its opcode:
// READ(10) and the READ CAPACITY commands bring data into the read buffer;
// WRITE(10), WRITE AND VERIFY(10) and a VERIFY(10) with BYTCHK send the write
// buffer; anything else moves none (dir None, null buffer, length 0).
struct Transfer {
    enum class Dir : uint8_t { None, In, Out };
    Dir      dir = Dir::None;
    uint8_t* buf = nullptr;
    uint64_t len = 0;
};
Transfer dataTransfer(const Command& cmd);

// Checks a data command against a disk of `blocks` blocks. A zero transfer
// length is no error by itself, but its LBA must still be on the disk. On
// failure fills `out` with ILLEGAL REQUEST / LBA OUT OF RANGE (outOfRange)
// and returns false. Inline: every data command of the sim and file disks
// passes here.
void outOfRange(Outcome& out);
inline bool checkRange(const Command& cmd, uint64_t blocks, Outcome& out) {
    if (cmd.lba < blocks && (cmd.tl == 0 || cmd.lba + cmd.tl - 1 < blocks)) return true;
    outOfRange(out);
    return false;
}

// Answers READ CAPACITY(10): last LBA (capped at 0xFFFFFFFF) and block size,
// 32-bit big-endian each, into as much of the read buffer as it holds.
void readCapacity(const Command& cmd, uint64_t blocks, uint32_t blockSize);

// Fills `out` with the answer to an opcode the disk does not know (05/20/00).
void invalidOpcode(Outcome& out);
}  // namespace sbc

// Builds sense into `out` and sets out.status to CHECK CONDITION (-16).
// Fixed format (0x70), `len` bytes (18, or 32 with the UEC in bytes 20-21),
// with `valid` the VALID bit and INFORMATION in bytes 3-6; an INFORMATION
// above 32 bits goes in descriptor format (0x72) instead: the information
// descriptor (VALID, 8 bytes) and, for the long form, our vendor descriptor
// 0x80 with the UEC in its bytes 2-3 (20 or 32 bytes in all).
void buildFixedSense(Outcome& out, uint8_t key, scsi::Asc code, bool valid = false,
                     uint64_t info = 0, uint16_t uec = 0, int len = scsi::kLongSense);

}  // namespace mqb
