// loop_setup_test.cpp: constructing a device loop (MQB choice, bounds, operation
// count, user buffer, limits), the device preparation of its run and the
// undoing of it by the destructor.
#include "loop_harness.h"

TEST(LoopSetup, FractionalAndAbsoluteBounds) {
    SimRig rig("sim:blocks=1000001");  // reports capacity (last LBA) 1,000,000
    LoopCfg c;
    c.minLba = 0.25;
    c.maxLba = 0.5;
    auto l = makeLoop(rig, c);
    EXPECT_EQ(l->minLba, 250000u);
    EXPECT_EQ(l->maxLba, 500000u);
    EXPECT_EQ(l->blockSize, 512u);
    c.minLba = 0;
    c.maxLba = 1;  // 1.0, and an absolute 1 alike, is the whole capacity
    EXPECT_EQ(makeLoop(rig, c)->maxLba, 1000000u);
    c.minLba = 1000;
    c.maxLba = 5000;
    l = makeLoop(rig, c);
    EXPECT_EQ(l->minLba, 1000u);
    EXPECT_EQ(l->maxLba, 5000u);
    EXPECT_TRUE(l->running.load());
    EXPECT_EQ(l->errCount.load(), 0);
    EXPECT_EQ(l->lastCmd.load(), 2u);
}

TEST(LoopSetup, NarrowRangeTurnsIntoSequential) {
    SimRig rig;
    LoopCfg c;
    c.testType = 0;
    c.minLba = 100;
    c.maxLba = 108;  // maxLba - minLba - maxTL == 0
    c.minTL = 1;
    c.maxTL = 8;
    auto l = makeLoop(rig, c);
    EXPECT_EQ(l->testType, 1);
    EXPECT_EQ(l->maxLba, 108u);
    c.maxLba = 104;
    l = makeLoop(rig, c);
    EXPECT_EQ(l->testType, 1);
    EXPECT_EQ(l->maxLba, 108u);
    c.maxLba = 109;
    EXPECT_EQ(makeLoop(rig, c)->testType, 0);
}

TEST(LoopSetup, PercentOperationCount) {
    SimRig rig("sim:blocks=200000");
    LoopCfg c;
    c.minLba = 0;
    c.maxLba = 100000;
    c.minTL = 1;
    c.maxTL = 64;
    c.ops = -50;
    std::unique_ptr<KIVLoop> l;
    std::string out = captureStdout([&] { l = makeLoop(rig, c); });
    EXPECT_EQ(l->ops, 1538u);
    EXPECT_TRUE(l->opsPercent);
    EXPECT_NE(out.find("Operation count set to 50.000000% -> 1538 operations\n"),
              std::string::npos)
        << out;
    EXPECT_NE(out.find("Init complete\n"), std::string::npos);
    c.ops = 70;
    EXPECT_EQ(makeLoop(rig, c)->ops, 70u);
}

TEST(LoopSetup, LockedDeviceFailsWithoutAnMQB) {
    SimRig rig;
    mqb::setLocked(rig.dev, true);
    LoopCfg c;
    std::unique_ptr<KIVLoop> l;
    std::string msg = captureTcl([&] { l = makeLoop(rig, c); });
    mqb::setLocked(rig.dev, false);
    EXPECT_EQ(msg, "KIV: <I> Could not start operations on device " + std::to_string(rig.dev) +
                       ": Device Is Locked\n");
    EXPECT_FALSE(l->running.load());
    EXPECT_EQ(l->errCount.load(), -1);
    EXPECT_EQ(l->mqb, nullptr);
    l->run();  // a failed loop sends nothing
    EXPECT_EQ(rig.stats().commands, 0u);
}

TEST(LoopSetup, ChoosesItsMQB) {
    SimRig rig;
    MQB* current = rig.mgr.getCurrentMQB();
    LoopCfg c;
    c.threadMode = false;
    std::unique_ptr<KIVLoop> l;
    EXPECT_EQ(captureTcl([&] { l = makeLoop(rig, c); }),
              "Using Vorlane's mqb object for testing... (single threaded)\n");
    EXPECT_EQ(l->mqb, current);
    l.reset();
    EXPECT_EQ(rig.mgr.getCurrentMQB(), current);  // borrowed, not deleted

    c.threadMode = true;
    EXPECT_EQ(captureTcl([&] { l = makeLoop(rig, c); }),
              "Created New Test Thread Using \"clone\" method\n");
    ASSERT_NE(l->mqb, nullptr);
    EXPECT_NE(l->mqb, current);
    EXPECT_EQ(l->mqb->getCurrentDeviceIndex(), rig.dev);

    current->setCloneAllowed(false);
    EXPECT_EQ(captureTcl([&] { l = makeLoop(rig, c); }),
              "Created New Test Thread Using \"new\" method\n");
    ASSERT_NE(l->mqb, nullptr);
    EXPECT_NE(l->mqb, current);
    EXPECT_EQ(l->mqb->driver(), "sim");
    EXPECT_TRUE(l->running.load());

    current->setDriver("");  // nothing to create from
    std::string msg = captureTcl([&] { l = makeLoop(rig, c); });
    EXPECT_NE(msg.find("KIV: <E> Could not create an MQB object for device"),
              std::string::npos)
        << msg;
    EXPECT_FALSE(l->running.load());
    EXPECT_EQ(l->errCount.load(), -1);
    current->setDriver("sim");
    current->setCloneAllowed(true);
}

TEST(LoopSetup, UserBufferChecks) {
    SimRig rig;
    int small = rig.mgr.addBuffer(4000, 1);
    LoopCfg c;
    c.dataBufferIdx = small + 5;
    std::unique_ptr<KIVLoop> l;
    std::string msg = captureTcl([&] { l = makeLoop(rig, c); });
    EXPECT_NE(msg.find("Error: selected user buffer out of range: " +
                       std::to_string(small + 5) + "\n"), std::string::npos) << msg;
    EXPECT_EQ(l->errCount.load(), -1);

    c.dataBufferIdx = small;  // 8 blocks of 512 need 4096
    msg = captureTcl([&] { l = makeLoop(rig, c); });
    EXPECT_NE(msg.find("Error: selected user buffer size is less than largest write transfer "
                       "length: 4000 < 4096\n"),
              std::string::npos)
        << msg;
    EXPECT_FALSE(l->running.load());
    EXPECT_EQ(l->userData, nullptr);
}

TEST(LoopSetup, OutOfRangeRequestsAreCutWithAWarning) {
    SimRig rig;
    LoopCfg c;
    c.qDepth = 200;
    c.minTL = 1;
    c.maxTL = 70000;
    c.minLba = 0;
    c.maxLba = 5e9;
    std::unique_ptr<KIVLoop> l;
    std::string msg = captureTcl([&] { l = makeLoop(rig, c); });
    EXPECT_NE(msg.find("KIV: <W> Queue depth 200 is above 128, using 128\n"),
              std::string::npos)
        << msg;
    EXPECT_NE(msg.find("KIV: <W> Transfer length 70000 does not fit a 10-byte CDB, using "
                       "65535\n"),
              std::string::npos);
    EXPECT_NE(msg.find("KIV: <W> LBA 5000000000 does not fit a 10-byte CDB, using "
                       "4294967295\n"),
              std::string::npos);
    EXPECT_EQ(l->qDepth, 128u);
    EXPECT_EQ(l->maxTL, 65535u);
    EXPECT_EQ(l->maxLba, 4294967295u);
    EXPECT_TRUE(l->running.load());
}

TEST(LoopPrepare, QueueDepthOneSendsNoQueueingIoctls) {
    SimRig rig;
    LoopCfg c;
    c.ops = 10;
    auto l = makeLoop(rig, c);
    l->run();
    auto s = rig.stats();
    EXPECT_FALSE(s.queueing);
    EXPECT_EQ(s.maxQueueDepth, 0);
    EXPECT_TRUE(s.fastReads);
    EXPECT_EQ(s.dataMode, 3);
    l.reset();
    s = rig.stats();
    EXPECT_FALSE(s.fastReads);
    EXPECT_EQ(s.dataMode, 0);
}

TEST(LoopPrepare, QueueingDataModesAndTheirUndoing) {
    SimRig rig;
    int buf = rig.mgr.addBuffer(8 * 512, 7);
    struct Case {
        bool hwc;
        int buffer;
        int mode;
    } cases[] = {{false, -1, 3}, {true, -1, 6}, {true, buf, 11}, {false, buf, 11}};
    for (const Case& k : cases) {
        LoopCfg c;
        c.qDepth = 6;
        c.ops = 20;
        c.hwCompare = k.hwc;
        c.dataBufferIdx = k.buffer;
        auto l = makeLoop(rig, c);
        l->run();
        auto s = rig.stats();
        EXPECT_TRUE(s.queueing);
        EXPECT_EQ(s.maxQueueDepth, 6);
        EXPECT_EQ(s.dataMode, k.mode) << "hwc " << k.hwc << " buffer " << k.buffer;
        l.reset();
        s = rig.stats();
        EXPECT_FALSE(s.queueing);
        EXPECT_FALSE(s.fastReads);
        EXPECT_EQ(s.dataMode, 0);
    }
}

TEST(LoopPrepare, PreparationMessagesGoToThePrintBuffer) {
    SimRig rig;
    LoopCfg c;
    c.ops = 3;
    control.printLen = 6;
    control.printBuf[6] = 0;
    auto l = makeLoop(rig, c);
    l->run();
    std::string queued(control.printBuf + 6);
    EXPECT_NE(queued.find("KIV: <I> Activated Fast Reads\n"), std::string::npos) << queued;
    EXPECT_NE(queued.find("KIV: <I> Activated Hardware data generation\n"), std::string::npos);
}

TEST(LoopPrepare, SharedBuffersAreMadeOnceAndOnlyGrow) {
    SimRig rig;
    LoopCfg c;
    c.ops = 5;
    auto first = makeLoop(rig, c);
    first->run();
    ASSERT_NE(KIVLoop::write_buff, nullptr);
    EXPECT_EQ(KIVLoop::write_buff_size, 1000000u);
    for (uint64_t i = 0; i < KIVLoop::write_buff_size; i += 997) ASSERT_LT(KIVLoop::write_buff[i], 255);
    uint8_t* wb = KIVLoop::write_buff;
    uint8_t* rb = KIVLoop::read_buff;
    uint64_t rbSize = KIVLoop::read_buff_size;
    EXPECT_GE(rbSize, 8u * 512 + 1000);

    auto second = makeLoop(rig, c);
    std::string out = captureStdout([&] { second->run(); });
    EXPECT_EQ(out.find("Generating Random Write Buffer Data..."), std::string::npos);
    EXPECT_EQ(KIVLoop::write_buff, wb);
    EXPECT_EQ(KIVLoop::read_buff, rb);

    KIVLoop::reserveReadBuffer(16);
    EXPECT_EQ(KIVLoop::read_buff, rb);
    EXPECT_EQ(KIVLoop::read_buff_size, rbSize);
    KIVLoop::reserveReadBuffer(rbSize + 4096);
    EXPECT_EQ(KIVLoop::read_buff_size, rbSize + 4096);
}
