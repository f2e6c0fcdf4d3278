// loop_harness.h: the device loop tests' simulated disk behind a real MQBManager,
// loop configuration with test-friendly defaults, and command helpers.
#pragma once
#include <gtest/gtest.h>

#include "DeviceTable.h"
#include "KIVControl.h"
#include "KIVLoop.h"
#include "MQBManager.h"
#include "TestSupport.h"

// One simulated disk on the manager's current "sim" channel; control set up on it.
struct SimRig {
    MQBManager mgr;
    int dev = -1;
    explicit SimRig(const std::string& spec = "sim:blocks=100000") {
        std::string err;
        dev = mqb::addDevice(spec, err);
        EXPECT_GE(dev, 0) << err;
        mgr.setCurrentMQB(std::make_unique<MQB>("sim"));
        mgr.getCurrentMQB()->setDeviceIndex(dev);
        control.init(&mgr, testInterp());
        Tcl_SetVar(testInterp(), "kiv_run", "1", TCL_GLOBAL_ONLY);
    }
    ~SimRig() { mqb::reset(dev); }
    mqb::DeviceStats stats() const {
        mqb::DeviceStats s;
        EXPECT_TRUE(mqb::stats(dev, s));
        return s;
    }
};

// Loop arguments; by default a threaded sequential read test, so no Tcl runs in it.
struct LoopCfg {
    bool threadMode = true, hwCompare = false;
    int testType = 1, readPct = 100, writePct = 0, wrvPct = 0, verifyPct = 0;
    float mixRatio = 0;
    double minLba = 0, maxLba = 1.0;
    int minTL = 8, maxTL = 8, qDepth = 1, ops = 0, dataBufferIdx = -1;
    int skipFreq = 0, reverseFreq = 0, repeatFreq = 0, rawioP = 0, randStream = 0;
    LoopCfg& type(int t, float ratio = 0) { testType = t; mixRatio = ratio; return *this; }
    LoopCfg& lba(double lo, double hi) { minLba = lo; maxLba = hi; return *this; }
    LoopCfg& tl(int lo, int hi) { minTL = lo; maxTL = hi; return *this; }
    LoopCfg& mix(int r, int w, int v, int f) {
        readPct = r, writePct = w, wrvPct = v, verifyPct = f;
        return *this;
    }
    LoopCfg& depth(int qd, int n) { qDepth = qd; ops = n; return *this; }
    LoopCfg& buf(int idx, bool hwc = false) { dataBufferIdx = idx; hwCompare = hwc; return *this; }
};

inline std::unique_ptr<KIVLoop> makeLoop(SimRig& rig, const LoopCfg& c) {
    auto l = std::make_unique<KIVLoop>(
        &control, &rig.mgr, rig.dev, c.threadMode, c.testType, c.mixRatio, 0,
        c.readPct, c.writePct, c.wrvPct, c.verifyPct, c.minLba, c.maxLba, c.minTL, c.maxTL,
        c.qDepth, c.ops, c.skipFreq, c.reverseFreq, c.repeatFreq, c.rawioP, c.randStream,
        c.dataBufferIdx);
    l->hwCompare = c.hwCompare;
    return l;
}

// A loop readied for direct loadFunc calls as run() readies it, minus device settings.
inline std::unique_ptr<KIVLoop> readyLoop(SimRig& rig, const LoopCfg& c) {
    auto l = makeLoop(rig, c);
    for (auto reset : {KIVLoop::setSkipCount, KIVLoop::setReverseCount, KIVLoop::setRepeatCount,
                       KIVLoop::setRawioCount}) reset(0);  // the stream counters all loops share
    KIVLoop::reserveReadBuffer((uint64_t)l->blockSize * l->maxTL + 1000);
    if (KIVLoop::write_buff == nullptr) KIVLoop::generateRandomWriteBuffer();
    l->lastLba = l->minLba;
    return l;
}
