// Backend.h: the small interface every device kind implements (the simulated
// disk, files, SCSI generic devices and iSCSI LUNs), and the command/outcome
// records that pass through it.
#pragma once
#include <cstdint>
#include <memory>

namespace mqb {

// One command as the device layer hands it to a backend: the parsed CDB fields
// plus the caller's data buffers. Nothing here is owned.
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

// The I/O a backend asks the channel to carry out asynchronously for one
// accepted data command: `len` bytes at byte offset `off` of `fd`. A Verify
// reads into the channel's own scratch (its data is thrown away), so `buf` is
// null for it. Kind None means the command runs synchronously in execute().
struct IoRequest {
    enum class Kind : uint8_t { None, Read, Write, Verify };
    Kind     kind = Kind::None;
    int      fd = -1;
    uint8_t* buf = nullptr;
    uint64_t len = 0;
    uint64_t off = 0;
};

// Largest sense a backend passes on: the simulated disk's fixed format with the
// vendor UEC is 32 bytes, a pass-through device may send up to 252.
constexpr int kMaxSense = 252;

// How a command ended. `senseLen` is 0 unless `status` is a CHECK CONDITION.
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

// One device. execute() carries a command out to its final outcome (the caller
// decides when that outcome is delivered); it never allocates on the data path
// unless the backend keeps data and has to grow its store. Must be safe to call
// from several threads at once.
class Queue;

class Backend {
public:
    virtual ~Backend() = default;
    virtual void execute(const Command& cmd, Outcome& out) = 0;
    // For a backend whose data commands can run as asynchronous file I/O:
    // fills `io` and returns true when `cmd` is such a command and will
    // succeed as far as can be told before the I/O (in range, writable, some
    // bytes to move). Returns false, leaving `io` alone, for anything that
    // execute() is to answer instead.
    virtual bool prepareAsync(const Command& cmd, IoRequest& io) { (void)cmd, (void)io; return false; }
    virtual Geometry geometry() const = 0;
    // Latency added to every command, in microseconds (0: due at once).
    virtual uint32_t latencyUs() const { return 0; }
    // Called when a READ CAPACITY(10) has completed on the device.
    virtual void capacityRead() {}
    virtual const char* kind() const = 0;
    // Opens an asynchronous queue of up to `depth` commands in flight for one
    // channel (Queue.h). Returns null when the backend has no queue of its own
    // or the queue cannot be opened; the caller then uses execute().
    virtual std::unique_ptr<Queue> openQueue(int depth);
};

// Shared SBC pieces of the block backends (Sbc.cpp).
namespace sbc {
constexpr uint8_t kReadCapacity = 0x25, kRead = 0x28, kWrite = 0x2A, kWrv = 0x2E, kVerify = 0x2F;

// True for READ(10), WRITE(10), WRITE AND VERIFY(10) and VERIFY(10).
inline bool isDataCommand(uint8_t op) {
    return op == kRead || op == kWrite || op == kWrv || op == kVerify;
}

// Checks a data command against a disk of `blocks` blocks. A zero transfer
// length is no error by itself, but its LBA must still be on the disk. On
// failure fills `out` with ILLEGAL REQUEST / LBA OUT OF RANGE and returns false.
bool checkRange(const Command& cmd, uint64_t blocks, Outcome& out);

// Answers READ CAPACITY(10): last LBA (capped at 0xFFFFFFFF) and block size,
// 32-bit big-endian each, into as much of the read buffer as it holds.
void readCapacity(const Command& cmd, uint64_t blocks, uint32_t blockSize);
}  // namespace sbc

// Builds fixed-format sense (0x70) into `out`: 18 bytes, or 32 with the UEC in
// bytes 20-21. With `valid`, sets the VALID bit and INFORMATION (bytes 3-6).
// Sets out.status to CHECK CONDITION (-16).
void buildFixedSense(Outcome& out, uint8_t key, uint8_t asc, uint8_t ascq,
                     bool hasUec, uint16_t uec, bool valid, uint32_t info);

}  // namespace mqb
