// loop_run_test.cpp: device loop runs on simulated disks: command counts, queue
// fill, failed commands, halts and drains, and loops in threads at once.
#include <thread>

#include "loop_harness.h"

static void addFault(SimRig& rig, mqb::FaultRule::Kind kind, uint32_t n = 1, int64_t lba = -1) {
    mqb::FaultRule f;  // on every n-th command
    f.kind = kind, f.every = n;
    if (lba >= 0) f.lbaLo = f.lbaHi = lba, f.info = true, f.count = 1;  // once, with INFORMATION
    std::string err;
    ASSERT_GT(mqb::addFault(rig.dev, f, err), 0) << err;
}

TEST(LoopRun, OperationCountAndQueueFill) {
    SimRig rig;
    struct { int qd, ops; uint64_t commands, maxOutstanding; } cases[] = {
        {4, 100, 99, 4}, {1, 100, 99, 1}, {0, 100, 100, 1}, {8, 8, 7, 7}, {128, 1000, 999, 128}};
    for (const auto& k : cases) {
        mqb::reset(rig.dev);
        auto l = makeLoop(rig, LoopCfg().type(0).tl(1, 32).mix(50, 50, 0, 0).depth(k.qd, k.ops));
        l->run();
        auto s = rig.stats();
        EXPECT_EQ(std::make_tuple(s.commands, s.maxOutstanding, l->opsDone.load(), l->outstanding,
                                  l->errCount.load(), l->blocksIssued.load()),
                  std::make_tuple(k.commands, k.maxOutstanding, k.commands, 0u, 0,
                                  s.blocksRead + s.blocksWritten)) << "qd " << k.qd;
    }
}

// Fixed-format sense low, descriptor format (72h) above 2^32: the back-off
// reads the failing LBA from either and goes on right after it.
TEST(LoopRun, PackedBacksOffPastAMediumError) {
    for (uint64_t base : {uint64_t{0}, uint64_t{1} << 33}) {
        SimRig rig("sim:blocks=68719476736");
        addFault(rig, mqb::FaultRule::Kind::Check, 1, base + 5000);
        mqb::traceStart(rig.dev, 0);
        auto l = makeLoop(rig, LoopCfg().type(3).lba(double(base), double(base + 9000)));
        std::string out = capture([&] { l->run(); }, false);
        char want[64];
        snprintf(want, sizeof want, "Backing off next lba to: %08llu\n",
                 (unsigned long long)(base + 5001));
        EXPECT_NE(out.find(want), std::string::npos) << out;
        std::vector<mqb::TraceEntry> t;
        ASSERT_TRUE(mqb::traceGet(rig.dev, t));
        std::vector<uint64_t> around;
        for (const auto& e : t)
            if (e.lba >= base + 4992 && e.lba <= base + 5020) around.push_back(e.lba - base);
        EXPECT_EQ(around, (std::vector<uint64_t>{4992, 5000, 5001, 5009, 5017}));
        EXPECT_EQ(std::make_tuple(l->errCount.load(), t.back().lba, t.back().tl, +t.back().opcode),
                  std::make_tuple(1, base + 9001, 0u, base ? 0x88 : 0x28));
    }
}

TEST(LoopRun, RefusedSendsAreCountedAndTheRunGoesOn) {
    SimRig rig;
    for (int qd : {1, 4}) {
        mqb::clearFaults(rig.dev);
        addFault(rig, mqb::FaultRule::Kind::Refuse, 3);
        auto l = makeLoop(rig, LoopCfg().depth(qd, 60));
        l->run();  // 59 commands made, one in three refused; the rest complete
        EXPECT_EQ(std::make_tuple(l->errCount.load(), l->opsDone.load(), l->outstanding),
                  std::make_tuple(19, 40u, 0u)) << "qd " << qd;
    }
}

TEST(LoopRun, HaltOnErrorAndTheDestructorDrainWhatIsInFlight) {
    SimRig rig;
    addFault(rig, mqb::FaultRule::Kind::Check);
    control.haltOnError(true);
    auto l = makeLoop(rig, LoopCfg().depth(8, 0));  // no limit: only the halt ends it
    l->run();
    control.haltOnError(false);
    EXPECT_EQ(std::make_pair(l->running.load(), l->outstanding), std::make_pair(false, 0u));
    EXPECT_TRUE(l->opsDone.load() >= 8 && l->opsDone.load() <= 16) << l->opsDone.load();
    EXPECT_EQ(rig.stats().commands, l->opsDone.load());  // every command sent was received
    EXPECT_EQ(l->errCount.load(), (int32_t)l->opsDone.load());
    LoopCfg c;  // single-threaded: its commands go through the manager's MQB
    c.threadMode = false;
    l = readyLoop(rig, c);
    for (int i = 0; i < 5; i++) l->loadFunc();
    EXPECT_EQ(rig.mgr.getCurrentMQB()->outstanding(), 5);
    l.reset();
    EXPECT_EQ(rig.mgr.getCurrentMQB()->outstanding(), 0);
}

TEST(LoopRun, LoopsInThreadsShareDevices) {
    SimRig a;
    std::string err;
    int devB = mqb::addDevice("sim:blocks=50000,bs=4096", err);
    ASSERT_GE(devB, 0) << err;
    std::vector<std::unique_ptr<KIVLoop>> loops;
    LoopCfg c = LoopCfg().tl(1, 16).mix(40, 30, 10, 20).depth(8, 3000);
    for (int type = 0; type < 4; type++)  // random, sequential, mixed, packed
        loops.push_back(makeLoop(a, c.type(type, 0.5f), type % 2 ? devB : a.dev));
    KIVLoop::reserveReadBuffer(4096 * 16 + 1000);
    std::vector<std::thread> threads;
    for (auto& l : loops) threads.emplace_back([&l] { l->run(); });
    for (auto& t : threads) t.join();
    uint64_t done = 0;
    for (auto& l : loops) {
        EXPECT_EQ(std::make_tuple(l->running.load(), l->outstanding, l->errCount.load()),
                  std::make_tuple(false, 0u, 0));
        done += l->opsDone.load();
    }
    EXPECT_EQ(a.stats().commands + a.stats(devB).commands, done);
}
