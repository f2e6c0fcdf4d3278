// loop_harness.h: what the device loop tests share: a simulated disk behind a
// real MQBManager, the loop's configuration with test-friendly defaults, and
// helpers that read back what the disk received.
#pragma once
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "DeviceTable.h"
#include "KIVControl.h"
#include "KIVLoop.h"
#include "MQB.h"
#include "MQBManager.h"
#include "TestSupport.h"

// One simulated disk, selected on the manager's current "sim" channel, and the
// global control object initialised against that manager.
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
    void trace() const { mqb::traceClear(dev); mqb::traceStart(dev, 0); }
    std::vector<mqb::TraceEntry> traced() const {
        std::vector<mqb::TraceEntry> t;
        EXPECT_TRUE(mqb::traceGet(dev, t));
        return t;
    }
};

// The loop's constructor arguments, defaulting to a multi-threaded sequential
// read test so that no statistics pass (and so no Tcl) runs inside the loop.
struct LoopCfg {
    bool threadMode = true;
    int testType = 1;
    float mixRatio = 0;
    int readPct = 100, writePct = 0, wrvPct = 0, verifyPct = 0;
    double minLba = 0, maxLba = 1.0;
    int minTL = 8, maxTL = 8;
    int qDepth = 1;
    int ops = 0;
    int skipFreq = 0, reverseFreq = 0, repeatFreq = 0, rawioP = 0, randStream = 0;
    int dataBufferIdx = -1;
    bool hwCompare = false;
};

inline std::unique_ptr<KIVLoop> makeLoop(SimRig& rig, const LoopCfg& c) {
    auto l = std::make_unique<KIVLoop>(
        &control, &rig.mgr, rig.dev, c.threadMode, c.testType, c.mixRatio, 0, c.readPct,
        c.writePct, c.wrvPct, c.verifyPct, c.minLba, c.maxLba, c.minTL, c.maxTL, c.qDepth,
        c.ops, c.skipFreq, c.reverseFreq, c.repeatFreq, c.rawioP, c.randStream,
        c.dataBufferIdx);
    l->hwCompare = c.hwCompare;
    return l;
}

// Readies a constructed loop for direct loadFunc calls, the way run() does
// before its first command, without touching the device's settings.
inline void readyForCommands(KIVLoop& l) {
    KIVLoop::setSkipCount(0);
    KIVLoop::setReverseCount(0);
    KIVLoop::setRepeatCount(0);
    KIVLoop::setRawioCount(0);
    KIVLoop::reserveReadBuffer((uint64_t)l.blockSize * l.maxTL + 1000);
    if (KIVLoop::write_buff == nullptr) KIVLoop::generateRandomWriteBuffer();
    l.lastLba = l.minLba;
}

// One command sent and its completion taken; returns {lba, tl} as generated.
inline std::pair<uint64_t, uint64_t> step(KIVLoop& l) {
    l.loadFunc();
    std::pair<uint64_t, uint64_t> r{l.lastLba.load(), l.lastTL.load()};
    l.unloadFunc();
    return r;
}

// Gets the process's standard output written by `f`.
template <typename F>
std::string captureStdout(F f) {
    testing::internal::CaptureStdout();
    f();
    return testing::internal::GetCapturedStdout();
}

// Gets the Tcl puts output (control->print) written by `f`.
template <typename F>
std::string captureTcl(F f) {
    startTclCapture(testInterp());
    f();
    return stopTclCapture(testInterp());
}
