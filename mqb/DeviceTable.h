// DeviceTable.h: the process-wide table of devices, and the controls the host
// (the `mqb` Tcl command) uses on them: adding, locking, fault rules, counters
// and the command trace. Every function here is safe to call from any thread.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

// Everything declared here is part of libMQB.so's exported interface: the host
// drives the device table through it.
#pragma GCC visibility push(default)
namespace mqb {

// A scripted fault of the simulated disk. A rule matches a command of its `op`
// kind whose blocks overlap [lbaLo, lbaHi]; it fires on every `every`-th match,
// at most `count` times (0 = no limit).
struct FaultRule {
    enum class Op { Read, Write, Wrv, Verify, Any };
    enum class Kind { Check, Timeout, Refuse, Status, Delay };
    int      id = 0;                 // assigned by addFault
    Op       op = Op::Any;
    uint64_t lbaLo = 0;
    uint64_t lbaHi = UINT64_MAX;
    uint32_t every = 1;
    uint64_t count = 0;
    Kind     kind = Kind::Check;     // Check: CHECK CONDITION at completion with the
                                     // sense below; Timeout: completes with -14;
                                     // Refuse: send returns -16, sense via errInfo;
                                     // Status: completes with `status`, no sense;
                                     // Delay: completes normally `delayUs` later
    int      status = 0;             // for Kind::Status, a negative code
    uint32_t delayUs = 0;            // for Kind::Delay
    uint8_t  key = 0x03, asc = 0x11, ascq = 0x00;
    bool     hasUec = false;         // a UEC was given (it is 0 otherwise)
    uint16_t uec = 0;                // vendor code in bytes 20-21 of 32-byte sense
    uint8_t  senseLen = 32;          // 32 (with the UEC) or 18
    bool     info = false;           // VALID + INFORMATION = first LBA in range
    uint64_t matches = 0;            // bookkeeping: matches seen
    uint64_t fired = 0;              // bookkeeping: times fired
};

// Counters since the device was added or reset.
struct DeviceStats {
    uint64_t commands = 0, reads = 0, writes = 0, wrvs = 0, verifies = 0, other = 0;
    uint64_t blocksRead = 0, blocksWritten = 0, errors = 0;
    uint64_t maxOutstanding = 0;     // most commands in flight at once on the device
    bool     queueing = false;       // last ioctl 104 state
    int      maxQueueDepth = 0;      // last ioctl 106 value
    bool     fastReads = false;      // last ioctl 119 state
    int      dataMode = 0;           // last ioctl 118 mode
    uint64_t miscompares = 0;        // commands failed by the keyed data check
    // ... by what their first bad block held: a valid block of an older
    // write, a valid block of another LBA, a block failing its CRC (torn or
    // corrupt), a block without a stamp where the journal knows a write
    uint64_t staleBlocks = 0, wrongLbaBlocks = 0, tornBlocks = 0, unstampedBlocks = 0;
};

// One command as the device received it (arrival order).
struct TraceEntry {
    uint8_t  opcode;
    uint64_t lba;
    uint32_t tl;
    uint32_t tag;
};

struct DeviceSummary {
    std::string deviceText;          // as given to addDevice (mqb info: spec)
    std::string backend;             // "sim", "file", "sg", "iscsi"
    uint64_t    blocks = 0;          // capacity as DeviceInfo reports it (last LBA)
    uint32_t    blockSize = 0;
    bool        locked = false;
    bool        direct = false;      // data bypasses the page cache (file: with O_DIRECT)
    bool        journal = false;     // keeps a lost-write journal (within journalmax)
    std::string queue;               // "sim", "io_uring", "sync", "sg", "iscsi"
    std::string queueError;          // why the last queue could not be opened, or ""
};

// Adds a device from a device text ("sim", "sim:blocks=1000,bs=4096", ...).
// Returns its index (0, 1, 2, ... in order), or -1 with a message in `err`.
int addDevice(const std::string& deviceText, std::string& err);
int deviceCount();
bool deviceSummary(int idx, DeviceSummary& out);
bool setLocked(int idx, bool locked);

// Returns the rule id (1, 2, ...), or -1 with `err` for a bad index or rule.
int  addFault(int idx, const FaultRule& rule, std::string& err);
bool clearFaults(int idx);
bool listFaults(int idx, std::vector<FaultRule>& out);

bool stats(int idx, DeviceStats& out);
// The largest trace limit: a record of 24 bytes a command, and several
// hundred bytes each once returned as a Tcl list, must stay far below the
// memory of a test machine.
constexpr uint64_t kMaxTraceLimit = 2000000;
// Starts recording up to `limit` commands (0 = 1,000,000; above
// kMaxTraceLimit, kMaxTraceLimit); keeps earlier entries.
bool traceStart(int idx, uint64_t limit);
bool traceStop(int idx);
bool traceGet(int idx, std::vector<TraceEntry>& out);
bool traceClear(int idx);
// Clears counters, trace and fault rules.
bool reset(int idx);

// Removes every device (tests and process teardown only; no MQB may be in use).
void clearAllDevices();

}  // namespace mqb
#pragma GCC visibility pop
