// LatencyRecorder.h: a channel's latency recording. While the channel has a
// device selected it borrows one set of histograms from that device (read,
// write and write-and-verify, verify) and records each command's time from
// send to the moment the channel hands its completion over. Reads the clock
// only when the device records latency.
#pragma once
#include "latency/SteadyClock.h"
#include <cstdint>
#include "channel/CmdTicket.h"
#include "channel/DeviceData.h"

namespace mqb {

class Device;

class LatencyRecorder {
public:
    LatencyRecorder() = default;
    ~LatencyRecorder() { detach(); }
    LatencyRecorder(const LatencyRecorder&) = delete;
    LatencyRecorder& operator=(const LatencyRecorder&) = delete;

    // Records into `dev`'s histograms from now on (null: nowhere).
    void attach(Device* dev);
    void detach();

    // The histogram kind of an opcode, or -1 for commands not recorded.
    static int kindOf(uint8_t opcode);

    // At send: stamps the ticket with the time, or 0 when not recording.
    void onSend(DeviceData& dd, CmdTicket& tk) { tk.sendNs = dd.latencyOn() ? steadyNs() : 0; }
    // At completion: records the command when it was stamped at send and
    // belongs to the attached device.
    void onComplete(const Device* dev, uint8_t opcode, const CmdTicket& tk) {
        if (tk.sendNs != 0) record(dev, opcode, tk.sendNs);
    }

private:
    void record(const Device* dev, uint8_t opcode, uint64_t sendNs);

    Device* dev_ = nullptr;
    DeviceData::LatencySet* set_ = nullptr;
};

}  // namespace mqb
