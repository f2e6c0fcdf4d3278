// loop_gen_test.cpp: the blocks and commands a device loop generates for each
// test type, the command records it fills and the random draws it makes.
#include <cstdlib>
#include <map>
#include <set>

#include "loop_harness.h"

namespace {

std::vector<uint64_t> lbas(KIVLoop& l, int n, std::vector<uint64_t>* tls = nullptr) {
    std::vector<uint64_t> out;
    for (int i = 0; i < n; i++) {
        auto b = step(l);
        out.push_back(b.first);
        if (tls) tls->push_back(b.second);
    }
    return out;
}

// Seed whose first rand() gives the command draw d = r % 100 + 1.
unsigned seedForDraw(int d) {
    for (unsigned s = 1; s < 1000000; s++) {
        srand(s);
        if (rand() % 100 + 1 == d) return s;
    }
    ADD_FAILURE() << "no seed found for d=" << d;
    return 1;
}

}  // namespace

TEST(LoopBlocks, RandomStaysClearOfTheEndAndNeverDrawsMaxTL) {
    SimRig rig;
    LoopCfg c;
    c.testType = 0;
    c.minLba = 0;
    c.maxLba = 1000;
    c.minTL = 1;
    c.maxTL = 64;
    auto l = makeLoop(rig, c);
    readyForCommands(*l);
    std::vector<uint64_t> tls;
    auto got = lbas(*l, 3000, &tls);
    std::set<uint64_t> distinctTL(tls.begin(), tls.end());
    for (size_t i = 0; i < got.size(); i++) {
        ASSERT_LT(got[i], 936u);
        ASSERT_GE(tls[i], 1u);
        ASSERT_LE(tls[i], 63u);
    }
    EXPECT_EQ(distinctTL.size(), 63u);  // the whole [1, 63] range is reachable
    EXPECT_EQ(l->errCount.load(), 0);
}

TEST(LoopBlocks, FixedTransferLengthMakesNoDraw) {
    SimRig rig;
    LoopCfg c;  // sequential reads, TL 8..8: only the command-type draw remains
    auto l = makeLoop(rig, c);
    readyForCommands(*l);
    srand(4242);
    rand();
    int expected = rand();
    srand(4242);
    l->loadFunc();
    EXPECT_EQ(rand(), expected);
    EXPECT_EQ(l->lastTL.load(), 8u);
    l->unloadFunc();
}

TEST(LoopBlocks, SequentialClampsTheLastBlockAndWraps) {
    SimRig rig("sim:blocks=1000");
    LoopCfg c;
    c.maxLba = 99;
    auto l = makeLoop(rig, c);
    readyForCommands(*l);
    std::vector<uint64_t> tls;
    auto got = lbas(*l, 15, &tls);
    std::vector<uint64_t> want{0, 8, 16, 24, 32, 40, 48, 56, 64, 72, 80, 88, 96, 0, 8};
    EXPECT_EQ(got, want);
    EXPECT_EQ(tls[12], 4u);
    EXPECT_EQ(tls[13], 8u);
    EXPECT_TRUE(l->running.load());
}

TEST(LoopBlocks, PackedEndsWithAZeroLengthCommandPastTheRange) {
    SimRig rig("sim:blocks=1000");
    rig.trace();
    LoopCfg c;
    c.testType = 3;
    c.maxLba = 99;
    c.minTL = 1;
    c.maxTL = 8;
    auto l = makeLoop(rig, c);
    readyForCommands(*l);
    std::vector<uint64_t> tls;
    auto got = lbas(*l, 13, &tls);
    for (int i = 0; i < 13; i++) EXPECT_EQ(got[i], 8u * i);
    EXPECT_EQ(tls[11], 8u);
    EXPECT_EQ(tls[12], 4u);
    EXPECT_TRUE(l->running.load());
    auto last = step(*l);
    EXPECT_FALSE(l->running.load());
    EXPECT_EQ(last.first, 100u);
    EXPECT_EQ(last.second, 0u);
    auto t = rig.traced();
    ASSERT_EQ(t.size(), 14u);  // the closing command is still sent
    EXPECT_EQ(t[13].lba, 100u);
    EXPECT_EQ(t[13].tl, 0u);
}

TEST(LoopBlocks, MixedSequentialStepsNeverApproachTheEnd) {
    SimRig rig;
    LoopCfg c;
    c.testType = 2;
    c.mixRatio = 0.1f;
    c.maxLba = 1000;
    c.minTL = 1;
    c.maxTL = 64;
    auto l = makeLoop(rig, c);
    readyForCommands(*l);
    std::vector<uint64_t> tls;
    auto got = lbas(*l, 4000, &tls);
    int jumps = 0;
    for (size_t i = 0; i < got.size(); i++) {
        ASSERT_LT(got[i], 936u);
        if (i > 0 && got[i] != got[i - 1] + tls[i - 1] && got[i] != 0) jumps++;
    }
    // About one step in ten is random (a few land on the next block by chance).
    EXPECT_GT(jumps, 250);
    EXPECT_LT(jumps, 550);
}

TEST(LoopCommands, MixBoundariesPickEachCommand) {
    SimRig rig;
    LoopCfg c;
    c.readPct = c.writePct = c.wrvPct = c.verifyPct = 25;
    auto l = makeLoop(rig, c);
    readyForCommands(*l);
    const std::map<int, uint32_t> want{{1, 0},  {25, 0}, {26, 1}, {50, 1},
                                        {51, 3}, {75, 3}, {76, 4}, {100, 4}};
    for (auto [d, cmd] : want) {
        srand(seedForDraw(d));
        l->loadFunc();
        EXPECT_EQ(l->lastCmd.load(), cmd) << "d=" << d;
        const CDBStruct& r = l->cdbs[l->tag % 128];
        static const uint8_t op[5] = {0x28, 0x2A, 0, 0x2E, 0x2F};
        EXPECT_EQ(r.cdb[0], op[cmd]);
        l->unloadFunc();
    }
}

TEST(LoopCommands, AllReadsAndAllVerifiesCarryTheRightBuffers) {
    SimRig rig;
    {
        LoopCfg c;
        auto l = makeLoop(rig, c);
        readyForCommands(*l);
        for (int i = 0; i < 200; i++) {
            l->loadFunc();
            const CDBStruct& r = l->cdbs[l->tag % 128];
            ASSERT_EQ(r.cdb[0], 0x28);
            ASSERT_EQ(r.readBuf, KIVLoop::read_buff);
            ASSERT_EQ(r.readLen, 8u * 512);
            ASSERT_EQ(r.writeBuf, nullptr);
            ASSERT_EQ(r.writeLen, 0u);
            l->unloadFunc();
        }
    }
    LoopCfg c;
    c.readPct = 0;
    c.verifyPct = 100;
    auto l = makeLoop(rig, c);
    readyForCommands(*l);
    for (int i = 0; i < 200; i++) {
        l->loadFunc();
        const CDBStruct& r = l->cdbs[l->tag % 128];
        ASSERT_EQ(r.cdb[0], 0x2F);
        ASSERT_EQ(r.readBuf, nullptr);
        ASSERT_EQ(r.writeBuf, nullptr);
        ASSERT_EQ(r.readLen + r.writeLen, 0u);
        l->unloadFunc();
    }
    EXPECT_EQ(rig.stats().verifies, 200u);
}

TEST(LoopCommands, RecordLayoutTagsAndSlots) {
    SimRig rig("sim:blocks=536870912");
    LoopCfg c;
    c.minLba = 0x12345678;
    c.maxLba = 0x12400000;
    c.minTL = c.maxTL = 0x0102;
    auto l = makeLoop(rig, c);
    readyForCommands(*l);
    l->loadFunc();
    const CDBStruct& first = l->cdbs[1];
    EXPECT_EQ(first.tag, 1u);
    EXPECT_EQ(first.recLen, 112u);
    EXPECT_EQ(first.one, 1);
    EXPECT_EQ(first.cdbLen, 10);
    const uint8_t cdb[10] = {0x28, 0, 0x12, 0x34, 0x56, 0x78, 0, 0x01, 0x02, 0};
    EXPECT_EQ(0, memcmp(first.cdb, cdb, 10));
    l->unloadFunc();
    for (int i = 2; i <= 128; i++) step(*l);
    EXPECT_EQ(l->cdbs[0].tag, 128u);
    EXPECT_EQ(l->cdbs[1].tag, 1u);
    step(*l);
    EXPECT_EQ(l->cdbs[1].tag, 129u);
}

TEST(LoopCommands, WritesTakeASliceOfTheRandomBuffer) {
    SimRig rig;
    LoopCfg c;
    c.readPct = 0;
    c.writePct = 100;
    c.verifyPct = 0;
    auto l = makeLoop(rig, c);
    readyForCommands(*l);
    srand(99);
    rand();  // the command-type draw
    uint64_t off = (uint64_t)rand() % (1000000 - 4096);
    int after = rand();
    srand(99);
    l->loadFunc();
    EXPECT_EQ(rand(), after);  // exactly two draws
    const CDBStruct& r = l->cdbs[1];
    EXPECT_EQ(r.cdb[0], 0x2A);
    EXPECT_EQ(r.writeBuf, KIVLoop::write_buff + off);
    EXPECT_EQ(r.writeLen, 4096u);
    EXPECT_EQ(r.readBuf, nullptr);
    l->unloadFunc();
}

TEST(LoopCommands, LargeWritesCarryTheWholeRandomBuffer) {
    SimRig rig("sim:blocks=100000");
    LoopCfg c;
    c.readPct = 0;
    c.wrvPct = 100;
    c.verifyPct = 0;
    c.minTL = c.maxTL = 2000;  // 1,024,000 bytes
    auto l = makeLoop(rig, c);
    readyForCommands(*l);
    srand(5);
    rand();
    int after = rand();
    srand(5);
    l->loadFunc();
    EXPECT_EQ(rand(), after);  // no offset draw
    const CDBStruct& r = l->cdbs[1];
    EXPECT_EQ(r.cdb[0], 0x2E);
    EXPECT_EQ(r.writeBuf, KIVLoop::write_buff);
    EXPECT_EQ(r.writeLen, 1000000u);
    l->unloadFunc();
}

TEST(LoopCommands, UserBufferCarriesTheWholeTransfer) {
    SimRig rig;
    int buf = rig.mgr.addBuffer(64 * 512, 0x5A);
    LoopCfg c;
    c.readPct = 0;
    c.writePct = 100;
    c.verifyPct = 0;
    c.minTL = 1;
    c.maxTL = 64;
    c.dataBufferIdx = buf;
    auto l = makeLoop(rig, c);
    ASSERT_TRUE(l->running.load());
    ASSERT_NE(l->userData, nullptr);
    EXPECT_EQ(l->userData[0], 0x5A);
    EXPECT_EQ(l->userData[64 * 512 - 1], 0x5A);
    readyForCommands(*l);
    for (int i = 0; i < 50; i++) {
        l->loadFunc();
        const CDBStruct& r = l->cdbs[l->tag % 128];
        ASSERT_EQ(r.writeBuf, l->userData);
        ASSERT_EQ(r.writeLen, 512u * l->lastTL.load());
        l->unloadFunc();
    }
    EXPECT_EQ(l->errCount.load(), 0);
}

TEST(LoopCommands, UnknownTestTypeStopsWithoutSending) {
    SimRig rig;
    LoopCfg c;
    c.testType = 7;
    auto l = makeLoop(rig, c);
    readyForCommands(*l);
    std::string out = captureStdout([&] { l->loadFunc(); });
    EXPECT_EQ(out, "KIV: <E> Unknown test mode!, aborting thread");
    EXPECT_FALSE(l->running.load());
    EXPECT_EQ(l->tag, 1u);
    EXPECT_EQ(l->outstanding, 0u);
    EXPECT_EQ(rig.stats().commands, 0u);
}

TEST(LoopCommands, RefusedSendCountsAnErrorOnly) {
    SimRig rig;
    mqb::FaultRule f;
    f.kind = mqb::FaultRule::Kind::Refuse;
    f.count = 1;
    std::string err;
    ASSERT_GT(mqb::addFault(rig.dev, f, err), 0) << err;
    LoopCfg c;
    auto l = makeLoop(rig, c);
    readyForCommands(*l);
    l->loadFunc();
    EXPECT_EQ(l->errCount.load(), 1);
    EXPECT_EQ(l->outstanding, 0u);
    EXPECT_EQ(l->blocksIssued.load(), 0u);
    l->unloadFunc();  // nothing to take: returns at once
    EXPECT_EQ(l->opsDone.load(), 0u);
    step(*l);
    EXPECT_EQ(l->blocksIssued.load(), 8u);
    EXPECT_EQ(l->opsDone.load(), 1u);
}

// Stream cadences, with a fixed TL of 8 on a sequential (not random) stream.
TEST(LoopStream, ReversalIssuesTheLaterBlockFirst) {
    SimRig rig;
    LoopCfg c;
    c.testType = 4;
    c.reverseFreq = 4;
    auto l = makeLoop(rig, c);
    readyForCommands(*l);
    auto got = lbas(*l, 8);
    std::vector<uint64_t> want{0, 8, 16, 32, 24, 40, 48, 64};
    EXPECT_EQ(got, want);
}

TEST(LoopStream, SkipLeavesOneBlockOut) {
    SimRig rig;
    LoopCfg c;
    c.testType = 4;
    c.skipFreq = 3;
    auto l = makeLoop(rig, c);
    readyForCommands(*l);
    auto got = lbas(*l, 7);
    std::vector<uint64_t> want{0, 8, 16, 32, 40, 48, 64};
    EXPECT_EQ(got, want);
}

TEST(LoopStream, RepeatRunsKeepTheirLength) {
    SimRig rig;
    LoopCfg c;
    c.testType = 4;
    c.repeatFreq = 3;
    c.rawioP = 1;  // each repeated block goes out three times
    auto l = makeLoop(rig, c);
    readyForCommands(*l);
    auto got = lbas(*l, 11);
    std::vector<uint64_t> want{0, 8, 16, 16, 16, 24, 32, 40, 40, 40, 48};
    EXPECT_EQ(got, want);
    EXPECT_EQ(l->rawioLeft, 1);
}

TEST(LoopStream, RandomStreamStaysInRange) {
    SimRig rig;
    LoopCfg c;
    c.testType = 4;
    c.randStream = 1;
    c.minLba = 500;
    c.maxLba = 900;
    c.minTL = 1;
    c.maxTL = 16;
    c.skipFreq = 5;
    c.reverseFreq = 7;
    c.repeatFreq = 11;
    auto l = makeLoop(rig, c);
    readyForCommands(*l);
    std::vector<uint64_t> tls;
    auto got = lbas(*l, 2000, &tls);
    for (size_t i = 0; i < got.size(); i++) {
        ASSERT_GE(got[i], 500u);
        ASSERT_LE(got[i] + tls[i], 901u);
    }
    EXPECT_EQ(l->errCount.load(), 0);  // the disk accepted every block
}
