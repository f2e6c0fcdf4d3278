// CmdTicket.h: what a channel keeps next to each command in flight for the
// latency recorder and the data checker. Kept small: it sits in every slot of
// the channel's completion queue, and the zero-latency loop touches one slot
// per command.
#pragma once
#include <cstdint>

namespace mqb {

struct CmdTicket {
    uint64_t sendNs = 0;   // steady clock at send; 0 when latency is not recorded
    uint32_t delayUs = 0;  // extra latency a delay fault rule added
    int16_t  rec = -1;     // the data checker's record of the command, or -1
};

}  // namespace mqb
