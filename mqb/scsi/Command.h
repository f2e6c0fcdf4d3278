// Command.h: the command and outcome records that pass from the channel
// through a device's front to its backend and queue, and back.
#pragma once
#include <cstdint>
#include "Scsi.h"

namespace mqb {

// One command as the channel hands it to a device: the parsed CDB fields plus
// the caller's data buffers. Nothing here is owned. `opcode` is what the
// command does: READ(16), WRITE(16), WRITE AND VERIFY(16) and VERIFY(16) come
// as their 10-byte opcodes, with `lba` and `tl` read from their own fields;
// `cdb` is what was sent.
struct Command {
    const uint8_t* cdb = nullptr;
    uint8_t        cdbLen = 0;
    uint8_t        opcode = 0;
    uint64_t       lba = 0;
    uint32_t       tl = 0;
    uint8_t*       readBuf = nullptr;
    uint64_t       readLen = 0;
    const uint8_t* writeBuf = nullptr;
    uint64_t       writeLen = 0;
};

// Largest sense a device hands back (what SPC allows in fixed or descriptor
// format); the simulated disk and files answer 32 bytes, pass-through devices
// whatever the device sent.
constexpr int kMaxSense = scsi::kMaxSense;

// How a command ended. `senseLen` is 0 unless `status` is a CHECK CONDITION.
// The sense bytes past senseLen are never initialised (nothing is cleared per
// command).
struct Outcome {
    int     status = 0;
    uint8_t senseLen = 0;
    uint8_t sense[kMaxSense];
};

}  // namespace mqb
