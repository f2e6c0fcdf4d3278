// CmdTicket.h: what the data checker and the latency recorder remember about
// one command between its send and its completion. A channel keeps one per
// command in flight, next to the command itself.
#pragma once
#include <cstdint>

namespace mqb {

struct CmdTicket {
    enum Flag : uint8_t {
        kTracked = 1,    // a write registered with the device's write tracker
        kStamped = 2,    // its data are keyed blocks of sequence `seq`
        kOverlap = 4,    // another write over its blocks was in flight at send
        kCheck = 8,      // read back and check its blocks at completion
        kRacy = 16,      // a write over its blocks was in flight at send
    };
    uint64_t lba = 0;
    uint32_t tl = 0;
    uint32_t bs = 0;           // block size at send (0: not a checked command)
    uint8_t  opcode = 0;
    uint64_t sendNs = 0;       // steady clock at send; 0 when latency is not recorded
    uint64_t gen = 0;          // write tracker generation (own for a write, snapshot for a read)
    uint64_t seq = 0;          // keyed write sequence
    uint8_t* userBuf = nullptr;  // the caller's data-in buffer of a redirected read
    uint64_t userLen = 0;
    uint32_t delayUs = 0;      // extra latency a fault rule added
    int16_t  buf = -1;         // channel data buffer in use, or -1
    uint8_t  flags = 0;
};

}  // namespace mqb
