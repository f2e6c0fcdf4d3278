// LatencyRecorder.cpp: per-channel latency recording.
#include "LatencyRecorder.h"
#include "channel/Device.h"

namespace mqb {

void LatencyRecorder::attach(Device* dev) {
    if (dev == dev_) return;
    detach();
    if (!dev) return;
    dev_ = dev;
    set_ = dev->data().acquireLatency();
}

void LatencyRecorder::detach() {
    if (dev_) dev_->data().releaseLatency(set_);
    dev_ = nullptr;
    set_ = nullptr;
}

int LatencyRecorder::kindOf(uint8_t opcode) {
    switch (opcode) {
    case scsi::kRead10: return DeviceData::kRead;
    case scsi::kWrite10:
    case scsi::kWriteVerify10: return DeviceData::kWrite;
    case scsi::kVerify10: return DeviceData::kVerify;
    default: return -1;
    }
}

void LatencyRecorder::record(const Device* dev, uint8_t opcode, uint64_t sendNs) {
    if (dev != dev_ || !set_) return;
    const int k = kindOf(opcode);
    if (k < 0) return;
    const uint64_t now = steadyNs();
    set_->kind[k].record(now > sendNs ? now - sendNs : 0);
}

}  // namespace mqb
