// loop_run_test.cpp: a device loop's run against simulated disks: how many
// commands it makes, how full it keeps the queue, how it handles failed
// commands, halts and drains, and several loops in threads at once.
#include <thread>

#include "loop_harness.h"

namespace {

mqb::FaultRule checkEverywhere() {
    mqb::FaultRule f;
    f.kind = mqb::FaultRule::Kind::Check;
    return f;
}

void addFault(SimRig& rig, const mqb::FaultRule& f) {
    std::string err;
    ASSERT_GT(mqb::addFault(rig.dev, f, err), 0) << err;
}

}  // namespace

TEST(LoopRun, OperationCountAgainstQueueDepth) {
    SimRig rig;
    struct Case {
        int qd, ops;
        uint64_t commands;
    } cases[] = {{4, 100, 99}, {1, 100, 99}, {0, 100, 100}, {8, 8, 7}, {32, 500, 499}};
    for (const Case& k : cases) {
        mqb::reset(rig.dev);
        rig.trace();
        LoopCfg c;
        c.testType = 0;
        c.minTL = 1;
        c.maxTL = 32;
        c.readPct = c.writePct = c.wrvPct = c.verifyPct = 25;
        c.qDepth = k.qd;
        c.ops = k.ops;
        auto l = makeLoop(rig, c);
        l->run();
        auto s = rig.stats();
        EXPECT_EQ(s.commands, k.commands) << "qd " << k.qd;
        EXPECT_EQ(l->opsDone.load(), k.commands);
        EXPECT_EQ(l->outstanding, 0u);
        EXPECT_EQ(l->errCount.load(), 0);
        EXPECT_FALSE(l->running.load());
        uint64_t blocks = 0;
        for (const auto& t : rig.traced()) blocks += t.tl;
        EXPECT_EQ(l->blocksIssued.load(), blocks);
        EXPECT_EQ(s.reads + s.writes + s.wrvs + s.verifies, k.commands);
        EXPECT_GT(s.reads * s.writes * s.wrvs * s.verifies, 0u);  // the mix reached the disk
    }
}

TEST(LoopRun, KeepsTheQueueFullToItsDepth) {
    SimRig rig;
    for (int qd : {1, 2, 16, 128}) {
        mqb::reset(rig.dev);
        LoopCfg c;
        c.qDepth = qd;
        c.ops = 1000;
        auto l = makeLoop(rig, c);
        l->run();
        EXPECT_EQ(rig.stats().maxOutstanding, (uint64_t)qd);
    }
}

TEST(LoopRun, PackedBacksOffPastAMediumError) {
    SimRig rig("sim:blocks=10000");
    mqb::FaultRule f = checkEverywhere();
    f.lbaLo = f.lbaHi = 5000;
    f.info = true;
    f.count = 1;
    addFault(rig, f);
    rig.trace();
    LoopCfg c;
    c.testType = 3;
    c.minLba = 0;
    c.maxLba = 9000;
    auto l = makeLoop(rig, c);
    std::string out = captureStdout([&] { l->run(); });
    EXPECT_NE(out.find("Backing off next lba to: 00005001\n"), std::string::npos) << out;
    auto t = rig.traced();
    std::vector<uint64_t> around;
    for (size_t i = 0; i < t.size(); i++)
        if (t[i].lba >= 4992 && t[i].lba <= 5020) around.push_back(t[i].lba);
    EXPECT_EQ(around, (std::vector<uint64_t>{4992, 5000, 5001, 5009, 5017}));
    EXPECT_EQ(l->errCount.load(), 1);
    EXPECT_EQ(t.back().lba, 9001u);  // the pass still reaches its end
    EXPECT_EQ(t.back().tl, 0u);
}

TEST(LoopRun, RefusedSendsAreCountedAndTheRunGoesOn) {
    SimRig rig;
    mqb::FaultRule f = checkEverywhere();
    f.kind = mqb::FaultRule::Kind::Refuse;
    f.every = 3;
    addFault(rig, f);
    for (int qd : {1, 4}) {
        LoopCfg c;
        c.qDepth = qd;
        c.ops = 60;
        auto l = makeLoop(rig, c);
        l->run();
        // 59 commands made, one in three refused; every accepted one completes.
        EXPECT_EQ(l->errCount.load(), 19) << "qd " << qd;
        EXPECT_EQ(l->opsDone.load(), 59u - (uint32_t)l->errCount.load());
        EXPECT_EQ(l->outstanding, 0u);
        mqb::clearFaults(rig.dev);
        addFault(rig, f);
    }
}

TEST(LoopRun, HaltOnErrorDrainsTheCommandsInFlight) {
    SimRig rig;
    addFault(rig, checkEverywhere());
    control.haltOnError(true);
    LoopCfg c;
    c.qDepth = 8;
    c.ops = 0;  // no limit: only the halt ends it
    auto l = makeLoop(rig, c);
    l->run();
    control.haltOnError(false);
    auto s = rig.stats();
    EXPECT_FALSE(l->running.load());
    EXPECT_EQ(l->outstanding, 0u);
    EXPECT_GE(l->opsDone.load(), 8u);
    EXPECT_LE(l->opsDone.load(), 16u);
    EXPECT_EQ(s.commands, l->opsDone.load());  // every command sent was received
    EXPECT_EQ(l->errCount.load(), (int32_t)l->opsDone.load());
}

TEST(LoopRun, DestructorDrainsWhatIsOutstanding) {
    SimRig rig;
    LoopCfg c;
    c.threadMode = false;
    auto l = makeLoop(rig, c);
    readyForCommands(*l);
    for (int i = 0; i < 5; i++) l->loadFunc();
    EXPECT_EQ(l->outstanding, 5u);
    EXPECT_EQ(rig.mgr.getCurrentMQB()->outstanding(), 5);
    l.reset();
    EXPECT_EQ(rig.mgr.getCurrentMQB()->outstanding(), 0);
}

TEST(LoopRun, SingleThreadedRunStopsWhenKivRunIsCleared) {
    SimRig rig("sim:blocks=100000,latency=200");
    LoopCfg c;
    c.threadMode = false;
    c.qDepth = 4;
    auto l = makeLoop(rig, c);
    control.loops[0] = l.get();
    control.numDevices = 1;
    Tcl_SetVar(testInterp(), "kiv_run", "0", TCL_GLOBAL_ONLY);
    l->run();  // a statistics pass within a couple of seconds sees kiv_run 0
    Tcl_SetVar(testInterp(), "kiv_run", "1", TCL_GLOBAL_ONLY);
    control.loops[0] = nullptr;
    EXPECT_FALSE(l->running.load());
    EXPECT_EQ(l->outstanding, 0u);
    EXPECT_GT(l->opsDone.load(), 0u);
}

TEST(LoopRun, LoopsInThreadsShareDevices) {
    SimRig a;
    std::string err;
    int devB = mqb::addDevice("sim:blocks=50000,bs=4096", err);
    ASSERT_GE(devB, 0);
    std::vector<std::unique_ptr<KIVLoop>> loops;
    for (int i = 0; i < 4; i++) {
        LoopCfg c;
        c.testType = i;  // random, sequential, mixed, packed
        c.mixRatio = 0.5f;
        c.minTL = 1;
        c.maxTL = 16;
        c.readPct = 40;
        c.writePct = 30;
        c.wrvPct = 10;
        c.verifyPct = 20;
        c.qDepth = 8;
        c.ops = 3000;
        auto l = std::make_unique<KIVLoop>(
            &control, &a.mgr, i % 2 ? devB : a.dev, true, c.testType, c.mixRatio, 0, c.readPct,
            c.writePct, c.wrvPct, c.verifyPct, c.minLba, c.maxLba, c.minTL, c.maxTL, c.qDepth,
            c.ops, 0, 0, 0, 0, 0, -1);
        ASSERT_TRUE(l->running.load());
        KIVLoop::reserveReadBuffer((uint64_t)l->blockSize * l->maxTL + 1000);
        loops.push_back(std::move(l));
    }
    std::vector<std::thread> threads;
    for (auto& l : loops) threads.emplace_back([&l] { l->run(); });
    for (auto& t : threads) t.join();
    uint64_t done = 0;
    for (auto& l : loops) {
        EXPECT_EQ(l->outstanding, 0u);
        EXPECT_EQ(l->errCount.load(), 0);
        done += l->opsDone.load();
    }
    mqb::DeviceStats sb;
    ASSERT_TRUE(mqb::stats(devB, sb));
    EXPECT_EQ(a.stats().commands + sb.commands, done);
    loops.clear();
    mqb::reset(devB);
}
