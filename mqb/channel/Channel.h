// Channel.h: the inside of an MQB channel, shared by its public calls
// (MQB.cpp) and its completion engine (Completion.cpp): the slots of the
// commands between send and receive, the lanes (one queue per device used),
// the ready ring of finished commands and the completions a delay fault holds
// back. Private to the library.
#pragma once
#include <cstdint>
#include <memory>
#include <vector>
#include "DeviceTable.h"
#include "MQB.h"
#include "backends/IndexRing.h"
#include "backends/Queue.h"
#include "channel/CmdTicket.h"
#include "channel/Device.h"
#include "latency/LatencyRecorder.h"
#include "verify/DataChecker.h"

namespace mqb {

// Commands one channel holds at once (the largest queue depth ioctl 106
// takes).
constexpr int kQueueCap = 256;

// How long receive() waits on one queue before looking at the others, when
// commands are out on more than one device.
constexpr int64_t kPollNs = 1000000;

struct Lane;

// One command between send() and receive(). Its index is the token the queue
// hands back.
struct Slot {
    Device*      dev;
    Lane*        lane;  // the queue holding the command; null once it left it
    bool         fromQueue;  // completed by the backend, not by the device's front
    mqb::ChannelCounters* counters;  // the channel's counters on `dev`
    uint32_t     tag;
    uint8_t      opcode;
    uint8_t      cdbLen;
    uint8_t      cdb[16];
    bool         used;      // between an accepted send and its receive
    bool         readBack;  // in the queue again: the data checker's read-back
    mqb::CmdTicket tk;      // the data checker's and latency recorder's state
    uint64_t     holdUntil; // steady-clock ns a delayed completion is held to
    mqb::Outcome out;
};

// The channel's queue to one device, with the commands the device holds.
struct Lane {
    mqb::Device*                device;
    mqb::ChannelCounters*       counters;  // this channel's counters on the device
    std::unique_ptr<mqb::Queue> queue;
    int                         uncommitted = 0;  // submitted since the last commit
    int                         atDevice = 0;     // committed and not yet reaped
};

}  // namespace mqb

struct MQB::Impl {
    using Lane = mqb::Lane;
    using Slot = mqb::Slot;
    std::string  driver;
    int          devIdx = -1;
    mqb::Device* dev = nullptr;
    Lane*        lane = nullptr;  // lane of `dev`, once opened
    bool         cloneOk = true;
    int          logLevel = 0;

    Slot slots[mqb::kQueueCap];
    mqb::FreeSlots freeSlots{mqb::kQueueCap};  // unused slot indexes
    // Finished commands not yet received, in finishing order.
    mqb::IndexRing<int> ready{mqb::kQueueCap};
    // Commands in some lane's queue; sends not yet committed, over all lanes.
    int  inQueues = 0, uncommitted = 0;
    std::vector<std::unique_ptr<Lane>> lanes;  // one per device used, few
    uint64_t tokens[mqb::kQueueCap];
    // Completions a delay fault holds back, in no order (few at once).
    int  delayed[mqb::kQueueCap];
    int  nDelayed = 0;

    // Keyed / generated data and latency recording of this channel.
    mqb::DataChecker     data;
    mqb::LatencyRecorder lat;

    // The last completion received and the last failure's sense.
    bool     haveLast = false;
    uint32_t lastTag = 0;
    uint8_t  lastCdbLen = 0;
    uint8_t  lastCdb[16] = {};
    uint8_t  senseLen = 0;
    uint8_t  sense[mqb::kMaxSense] = {};

    explicit Impl(const std::string& d) : driver(d) {
        for (Slot& s : slots) s.used = false;
    }

    void pushReady(int slot) { ready.push(slot); }
    // A command is done at the device: its latency is recorded, its data
    // checked (which may change its outcome) and it is ready to be received.
    void complete(int idx) {
        Slot& s = slots[idx];
        lat.onComplete(s.dev, s.opcode, s.tk);
        data.onComplete(*s.dev, s.out, s.tk);
        pushReady(idx);
    }
    void promoteDue();
    uint64_t earliestHold() const;
    Lane* laneOf(mqb::Device* d);
    void commitAll();
    int  collect();
    void reapLane(Lane& l, int min, int64_t timeoutNs);
    void failLane(Lane& l, int status);
    // Counts a lane's uncommitted commands as at the device, and hands them
    // to it unless the caller is about to reap (a reap commits by itself).
    // Inline: it runs once per receive.
    void commitLane(Lane& l, bool reapFollows) {
        if (l.uncommitted == 0) return;
        l.device->enter(*l.counters, uint64_t(l.uncommitted));
        l.atDevice += l.uncommitted;
        uncommitted -= l.uncommitted;
        l.uncommitted = 0;
        // A failed commit is retried by the next commit or reap.
        if (!reapFollows) l.queue->commit();
    }
};
