// loop_run_test.cpp: device loop runs on simulated disks: command counts, queue
// fill, and failed commands, each run drained at its end. (Halting on an error and
// loops in threads at once are checked on real runs: tests/tcl err-2.1, soak-1.1,
// stats-1.1, data-2.1.)
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

// Fixed-format sense: the back-off reads the failing LBA from it (descriptor
// sense above 2^32, and the blocks sent after the back-off: tests/tcl drives-1.2).
TEST(LoopRun, PackedBacksOffPastAMediumError) {
    SimRig rig;
    addFault(rig, mqb::FaultRule::Kind::Check, 1, 5000);
    auto l = makeLoop(rig, LoopCfg().type(3).lba(0, 9000));
    std::string out = stdoutOf([&] { l->run(); });
    EXPECT_NE(out.find("Backing off next lba to: 00005001\n"), std::string::npos) << out;
    EXPECT_EQ(l->errCount.load(), 1);
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
