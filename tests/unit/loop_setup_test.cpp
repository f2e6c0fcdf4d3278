// loop_setup_test.cpp: constructing a device loop (MQB, bounds, operation count,
// user buffer, limits) and the device settings its run makes and undoes.
#include "loop_harness.h"

TEST(LoopSetup, BoundsNarrowRangesAndPercentOps) {
    SimRig rig("sim:blocks=1000001");  // reports capacity (last LBA) 1,000,000
    struct { int type; double lo, hi; uint64_t minLba, maxLba; int typeAfter; } cases[] = {
        {1, 0.25, 0.5, 250000, 500000, 1}, {1, 0, 1, 0, 1000000, 1},  // 1 is the whole disk
        {1, 1000, 5000, 1000, 5000, 1},    {0, 100, 108, 100, 108, 1},  // no room: sequential
        {0, 100, 104, 100, 108, 1},        {0, 100, 109, 100, 109, 0},
    };
    std::unique_ptr<KIVLoop> l;
    for (const auto& k : cases) {
        l = makeLoop(rig, LoopCfg().type(k.type).lba(k.lo, k.hi).tl(1, 8));
        EXPECT_EQ(std::make_tuple(l->minLba, l->maxLba, l->testType, l->running.load()),
                  std::make_tuple(k.minLba, k.maxLba, k.typeAfter, true))
            << k.lo << ".." << k.hi;
    }
    LoopCfg c = LoopCfg().lba(0, 100000).tl(1, 64).depth(1, -50);
    std::string out = stdoutOf([&] { l = makeLoop(rig, c); });
    EXPECT_EQ(l->ops, 1538u);
    EXPECT_NE(out.find("Operation count set to 50.000000% -> 1538 operations\n"),
              std::string::npos) << out;
}

TEST(LoopSetup, ChoosesItsMQBOrFails) {
    SimRig rig;
    MQB* current = rig.mgr.getCurrentMQB();
    LoopCfg c;
    std::unique_ptr<KIVLoop> l;
    auto make = [&] { return tclOutput([&] { l = makeLoop(rig, c); }); };
    EXPECT_EQ(make(), "Created New Test Thread Using \"clone\" method\n");
    current->setCloneAllowed(false);
    EXPECT_EQ(make(), "Created New Test Thread Using \"new\" method\n");
    current->setDriver("");  // nothing to create from
    EXPECT_NE(make().find("KIV: <E> Could not create an MQB object for device"), std::string::npos);
    EXPECT_EQ(std::make_pair(l->running.load(), l->errCount.load()), std::make_pair(false, -1));
    c.threadMode = false;
    EXPECT_EQ(make(), "Using Vorlane's mqb object for testing... (single threaded)\n");
    EXPECT_EQ(l->mqb, current);
    mqb::setLocked(rig.dev, true);
    EXPECT_EQ(make(), "KIV: <I> Could not start operations on device " + std::to_string(rig.dev) +
                          ": Device Is Locked\n");
    mqb::setLocked(rig.dev, false);
    EXPECT_EQ(std::make_pair(l->errCount.load(), l->mqb), std::make_pair(-1, (MQB*)nullptr));
}

TEST(LoopSetup, UserBufferAndLimitMessages) {
    SimRig rig;
    int small = rig.mgr.addBuffer(4000, 1);
    struct { LoopCfg cfg; std::string line; } cases[] = {
        {LoopCfg().buf(small + 5), "Error: selected user buffer out of range: " + std::to_string(small + 5)},
        {LoopCfg().buf(small),  // 8 blocks of 512 need 4096
         "Error: selected user buffer size is less than largest write transfer length: 4000 < 4096"},
        {LoopCfg().depth(200, 0).tl(1, 70000).lba(0, 5e9), "KIV: <W> Queue depth 200 is above 128, using 128"},
    };
    std::unique_ptr<KIVLoop> l;
    for (const auto& k : cases) {
        std::string msg = tclOutput([&] { l = makeLoop(rig, k.cfg); });
        EXPECT_NE(msg.find(k.line + "\n"), std::string::npos) << msg;
        EXPECT_EQ(l->running.load(), k.cfg.dataBufferIdx < 0);
    }
    // Lengths and bounds past the 10-byte CDB are kept whole: the 16-byte one carries them.
    EXPECT_EQ(std::make_tuple(l->qDepth, l->maxTL, l->maxLba),
              std::make_tuple(128u, 70000u, 5000000000u));
}

// Bounds and the percent operation count of a 2^36-block disk, and a forced
// 10-byte CDB refused at set-up when the range needs more, never cut.
TEST(LoopSetup, SixtyFourBitRangesAndAForcedCdbForm) {
    SimRig big("sim:blocks=68719476736");
    stdoutOf([&] {  // the count's message: BoundsNarrowRangesAndPercentOps
        auto l = makeLoop(big, LoopCfg().lba(0.99, 1.0).tl(1, 1).depth(1, -100));
        EXPECT_EQ(std::make_tuple(l->minLba, l->maxLba, l->ops, l->running.load()),
                  std::make_tuple(uint64_t{68032281967}, uint64_t{68719476735}, uint64_t{687194768}, true));
    });

    SimRig forced("sim:blocks=68719476736,cdb=10");
    std::unique_ptr<KIVLoop> l;
    std::string msg = tclOutput([&] { l = makeLoop(forced, LoopCfg().lba(0, 4294967294.0)); });
    EXPECT_EQ(std::make_pair(l->running.load(), l->cdbForm), std::make_pair(true, 10));
    const std::string dev = "KIV: <E> Device " + std::to_string(forced.dev) + ": cdb=10 cannot carry ";
    for (auto [c, text] : {std::pair{LoopCfg().lba(0, 4294967295.0), "LBA 4294967296; use cdb=16 or a smaller -lba range"},
                           {LoopCfg().lba(0, 1000).tl(1, 65536), "a transfer of 65536 blocks; use cdb=16 or a smaller -translen"}}) {
        msg = tclOutput([&] { l = makeLoop(forced, c); });
        EXPECT_NE(msg.find(dev + text + "\n"), std::string::npos) << msg;
        EXPECT_EQ(std::make_pair(l->running.load(), l->errCount.load()), std::make_pair(false, -1));
    }
}

// Queue depth 1 sets no queueing, 2 and more queueing to that depth; the data
// mode follows hardware compare and the user buffer. The destructor undoes all.
TEST(LoopSetup, DevicePreparationAndItsUndoing) {
    SimRig rig;
    int buf = rig.mgr.addBuffer(8 * 512, 7);
    struct { int qd; bool hwc; int buffer, mode; } cases[] = {
        {1, false, -1, 3}, {6, true, -1, 6}, {6, true, buf, 11}, {6, false, buf, 11}};
    for (const auto& k : cases) {
        auto l = makeLoop(rig, LoopCfg().depth(k.qd, 20).buf(k.buffer, k.hwc));
        l->run();
        auto s = rig.stats();
        EXPECT_EQ(std::make_tuple(s.queueing, s.maxQueueDepth, s.fastReads, s.dataMode),
                  std::make_tuple(k.qd > 1, k.qd > 1 ? k.qd : 0, true, k.mode))
            << k.qd << k.hwc << k.buffer;
        l.reset();
        s = rig.stats();
        EXPECT_EQ(std::make_tuple(s.queueing, s.fastReads, s.dataMode),
                  std::make_tuple(false, false, 0));
    }
}
