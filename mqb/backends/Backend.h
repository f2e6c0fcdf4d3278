// Backend.h: the small interface every device kind implements (the simulated
// disk, files and block devices, SCSI generic devices), and the command and
// outcome records that pass through it and its queues (Queue.h).
#pragma once
#include <cstdint>
#include <memory>
#include <string>
#include "Scsi.h"

namespace mqb {

class Queue;

// One command as the channel hands it to a device: the parsed CDB fields plus
// the caller's data buffers. Nothing here is owned.
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

// What a device reports about its size. `blockSize` may be 0 (a disk that has
// not been asked for its capacity yet, or one configured to say 0).
struct Geometry {
    uint64_t blocks = 0;
    uint32_t blockSize = 0;
};

// One device. Its commands run through queues (one per channel, openQueue);
// the backend object itself holds what the queues share and must be safe to
// use from several queues on several threads at once.
class Backend {
public:
    virtual ~Backend() = default;
    // A new queue to this device holding up to `depth` commands, or null with
    // the reason in `err` when the device cannot give one (the channel then
    // refuses the command with MQB_ERR_NO_QUEUE).
    virtual std::unique_ptr<Queue> openQueue(int depth, std::string& err) = 0;
    // The kind of queue openQueue gives (Queue::kind), as far as the device
    // knows before one is opened.
    virtual const char* queueKind() const = 0;
    virtual Geometry geometry() const = 0;
    virtual const char* kind() const = 0;
    // True when data moves past the page cache (O_DIRECT).
    virtual bool direct() const { return false; }
};

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
// failure fills `out` with ILLEGAL REQUEST / LBA OUT OF RANGE and returns false.
bool checkRange(const Command& cmd, uint64_t blocks, Outcome& out);

// Answers READ CAPACITY(10): last LBA (capped at 0xFFFFFFFF) and block size,
// 32-bit big-endian each, into as much of the read buffer as it holds.
void readCapacity(const Command& cmd, uint64_t blocks, uint32_t blockSize);

// Fills `out` with the answer to an opcode the disk does not know (05/20/00).
void invalidOpcode(Outcome& out);
}  // namespace sbc

// Builds fixed-format sense (0x70) into `out`: `len` bytes (18, or 32 with
// the UEC in bytes 20-21). With `valid`, sets the VALID bit and INFORMATION
// (bytes 3-6, capped at 0xFFFFFFFF). Sets out.status to CHECK CONDITION (-16).
void buildFixedSense(Outcome& out, uint8_t key, scsi::Asc code, bool valid = false,
                     uint64_t info = 0, uint16_t uec = 0, int len = scsi::kLongSense);

}  // namespace mqb
