// loop_gen_test.cpp: the blocks and commands a device loop generates for each
// test type, the command records it fills and the random draws it makes.
#include <cstdlib>
#include <set>

#include "Scsi.h"
#include "loop_harness.h"

// Sends n commands, taking each completion; returns their LBAs (and lengths).
static std::vector<uint64_t> lbas(KIVLoop& l, int n, std::vector<uint64_t>* tls = nullptr) {
    std::vector<uint64_t> out;
    while (n-- > 0) {
        l.loadFunc();
        l.unloadFunc();
        out.push_back(l.lastLba);
        if (tls) tls->push_back(l.lastTL);
    }
    return out;
}

// The rand() result after seeding with `seed` and making `skip` draws.
static int drawAfter(unsigned seed, int skip) {
    srand(seed);
    while (skip-- > 0) rand();
    return rand();
}

// Random (0) and mixed (2) blocks end before maxLba - maxTL; lengths cover [1, 63].
TEST(LoopBlocks, RandomAndMixedStayClearOfTheEnd) {
    SimRig rig;
    for (int type : {0, 2}) {
        std::vector<uint64_t> tls;
        auto l = readyLoop(rig, LoopCfg().type(type, 0.1f).lba(0, 1000).tl(1, 64));
        auto got = lbas(*l, 4000, &tls);
        int jumps = 0;
        for (size_t i = 0; i < got.size(); i++) {
            ASSERT_LT(got[i], 936u) << "type " << type;
            ASSERT_TRUE(tls[i] >= 1 && tls[i] <= 63) << tls[i];
            jumps += i && got[i] != got[i - 1] + tls[i - 1] && got[i] != 0;
        }
        EXPECT_EQ(std::set<uint64_t>(tls.begin(), tls.end()).size(), 63u);
        EXPECT_TRUE(type != 2 || (jumps > 250 && jumps < 550)) << jumps;  // mixed: 1 in 10 random
    }
}

TEST(LoopBlocks, SequentialClampsAndWrapsPackedEndsPastTheRange) {
    SimRig rig("sim:blocks=1000");
    std::vector<uint64_t> tls;
    auto l = readyLoop(rig, LoopCfg().type(3).lba(0, 99).tl(1, 8));
    EXPECT_EQ(lbas(*l, 13, &tls)[12], 96u);
    EXPECT_TRUE(l->running.load());
    EXPECT_EQ(lbas(*l, 1, &tls), std::vector<uint64_t>{100});  // past maxLba, with TL 0
    EXPECT_EQ(std::vector<uint64_t>(tls.end() - 3, tls.end()), (std::vector<uint64_t>{8, 4, 0}));
    EXPECT_FALSE(l->running.load());
    EXPECT_EQ(rig.stats().commands, 14u);  // the closing command is still sent
    EXPECT_EQ(lbas(*readyLoop(rig, LoopCfg().lba(0, 99)), 15, &tls),
              (std::vector<uint64_t>{0, 8, 16, 24, 32, 40, 48, 56, 64, 72, 80, 88, 96, 0, 8}));
    EXPECT_EQ(std::vector<uint64_t>(tls.end() - 4, tls.end()), (std::vector<uint64_t>{8, 4, 8, 8}));
}

TEST(LoopBlocks, StreamReversalSkipAndRepeatCadences) {
    SimRig rig;
    struct { int skip, reverse, repeat, rawio; std::vector<uint64_t> want; } cases[] = {
        {0, 4, 0, 0, {0, 8, 16, 32, 24, 40, 48, 64}},
        {3, 0, 0, 0, {0, 8, 16, 32, 40, 48, 64}},
        {0, 0, 3, 1, {0, 8, 16, 16, 16, 24, 32, 40, 40, 40, 48}},  // repeats go out 3 times
    };
    for (const auto& k : cases) {
        LoopCfg c = LoopCfg().type(4);
        c.skipFreq = k.skip, c.reverseFreq = k.reverse, c.repeatFreq = k.repeat, c.rawioP = k.rawio;
        EXPECT_EQ(lbas(*readyLoop(rig, c), (int)k.want.size()), k.want) << k.skip << k.reverse;
    }
}

// The draw d = rand() % 100 + 1 at the 25/25/25/25 edges picks the command.
// (Read buffers carry the data checked by tests/tcl data-2.1.)
TEST(LoopCommands, MixDrawPicksTheCommand) {
    SimRig rig;
    auto l = readyLoop(rig, LoopCfg().mix(25, 25, 25, 25));
    const uint8_t op[5] = {0x28, 0x2A, 0, 0x2E, 0x2F};
    for (auto [d, cmd] : {std::pair{1, 0}, {25, 0}, {26, 1}, {50, 1}, {51, 3}, {75, 3}, {76, 4},
                          {100, 4}}) {
        unsigned s = 1;
        while (drawAfter(s, 0) % 100 + 1 != d) s++;
        srand(s);
        lbas(*l, 1);
        EXPECT_EQ(l->cdbs[l->tag % 128].cdb[0], op[cmd]) << "d=" << d;
    }
}

// Fixed-TL writes below 1,000,000 bytes carry a slice of the random buffer at the
// draw after the command's; larger ones carry it whole. A user buffer carries every
// transfer.
TEST(LoopCommands, WriteBuffersAndLengths) {
    SimRig rig;
    for (int tl : {8, 2000}) {
        LoopCfg c = tl == 8 ? LoopCfg().mix(0, 100, 0, 0) : LoopCfg().mix(0, 0, 100, 0);
        auto l = readyLoop(rig, c.tl(tl, tl));
        uint64_t off = tl == 8 ? (uint64_t)drawAfter(99, 1) % (1000000 - 4096) : 0;
        srand(99);
        lbas(*l, 1);
        const CDBStruct& r = l->cdbs[1];
        EXPECT_EQ(std::make_tuple(r.cdb[0], r.writeBuf, r.writeLen, r.readBuf),
                  std::make_tuple(tl == 8 ? 0x2A : 0x2E, KIVLoop::write_buff + off,
                                  tl == 8 ? 4096u : 1000000u, nullptr)) << "tl " << tl;
    }
    auto l = readyLoop(rig, LoopCfg().mix(0, 100, 0, 0).tl(1, 64).buf(rig.mgr.addBuffer(32768, 9)));
    ASSERT_EQ(l->userData ? l->userData[32767] : 0, 9);  // a copy of the user buffer
    for (int i = 1; i <= 50 && !HasFailure(); i++) {
        lbas(*l, 1);
        EXPECT_EQ(std::make_pair(+l->cdbs[i].writeBuf, +l->cdbs[i].writeLen),
                  std::make_pair(l->userData, 512u * l->lastTL));
    }
}

// A sequential pass across 2^32 switches to READ(16) and kin on the block that
// would reach 2^32 (flags and opcode kind unchanged); a length past 65,535
// goes as 16 bytes at LBA 0; cdb=16 sends 16 bytes even where 10 would carry.
// What the device receives across 2^32: tests/tcl drives-1.1 and drives-1.3.
TEST(LoopCommands, SixteenByteFormWhereTenCannotCarryTheBlock) {
    SimRig rig("sim:blocks=68719476736");
    const uint64_t top = uint64_t{1} << 32;
    auto l = readyLoop(rig, LoopCfg().lba(double(top - 12), double(top + 100)).mix(25, 25, 25, 25));
    const uint8_t op10[5] = {0x28, 0x2A, 0, 0x2E, 0x2F};
    for (uint64_t want : {top - 12, top - 4, top + 4, top + 12}) {
        l->loadFunc();
        l->unloadFunc();
        const CDBStruct& r = l->cdbs[l->tag % 128];
        const uint8_t* c = r.cdb;
        const bool sixteen = want + 8 > top;  // then 28 -> 88, 2F -> 8F
        EXPECT_EQ(std::make_tuple(+r.cdbLen, +c[0], +c[1], sixteen ? scsi::be64(c + 2) : scsi::be32(c + 2),
                                  sixteen ? scsi::be32(c + 10) : scsi::be16(c + 7)),
                  std::make_tuple(sixteen ? 16 : 10, op10[l->lastCmd] + (sixteen ? 0x60 : 0), 0, want, 8u))
            << want;
    }

    auto big = readyLoop(rig, LoopCfg().tl(70000, 70000).mix(0, 0, 0, 100));
    big->loadFunc();
    big->unloadFunc();
    const CDBStruct& r = big->cdbs[1];
    EXPECT_EQ(std::make_tuple(r.cdbLen, r.cdb[0], scsi::be64(r.cdb + 2), scsi::be32(r.cdb + 10)),
              std::make_tuple(16, 0x8F, uint64_t{0}, 70000u));

    SimRig forced("sim:blocks=1000,cdb=16");
    auto f = readyLoop(forced, LoopCfg());
    f->loadFunc();
    f->unloadFunc();
    EXPECT_EQ(std::make_tuple(f->cdbs[1].cdbLen, f->cdbs[1].cdb[0], f->errCount.load()),
              std::make_tuple(16, 0x88, 0));
}
