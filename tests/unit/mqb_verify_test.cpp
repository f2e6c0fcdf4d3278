// mqb_verify_test.cpp: keyed-block verification through a channel on a file
// device (damage made behind the library's back with pwrite), the race rules
// of the write tracker, and the journal file.
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <fstream>
#include "DataControl.h"
#include "verify/WriteJournal.h"
#include "verify/WriteTracker.h"
#include "MqbTestSupport.h"

namespace {
using namespace mqbtest;
constexpr int kBlocks = 1024, kBs = 512, kKeyed = 6;  // kKeyed: the keyed-block data mode

int roundTrip(MQB& m, uint8_t op, uint32_t lba, uint16_t tl, Bytes* buf = nullptr) {
    return cdbtest::roundTrip(m, record(op, lba, tl, 0, buf));
}
// What a command that ended with `rc` reports: the INFORMATION of a MISCOMPARE
// sense, -1 for any other sense, `rc` itself when it is no CHECK CONDITION.
long judged(MQB& m, int rc) {
    const Bytes b = lastSense(m);
    if (rc != MQB_ERR_CHECK) return rc;
    if (b.size() != 32 || b[0] != 0xF0 || b[2] != kKeyMiscompare || b[12] != kMiscompareVerify.asc || b[13]) return -1;
    return long(be32(&b[3]));
}

struct KeyedFile : ::testing::Test {
    FileDevice f{kBlocks};
    MQB& m = f.m;
    const int fd = f.file.fd, idx = f.dev.idx;
    void SetUp() override { ASSERT_EQ(setDataMode(m, kKeyed), 0); }
    Bytes block(uint64_t lba) { Bytes b(kBs); EXPECT_EQ(pread(fd, b.data(), kBs, off_t(lba * kBs)), kBs); return b; }
    // Writes [lba, lba+tl) with keyed data from a caller buffer of one block.
    void write(uint32_t lba, uint16_t tl) { Bytes one(kBs, 0xAB); ASSERT_EQ(roundTrip(m, kWrite10, lba, tl, &one), 0); }
};
}  // namespace

// Damage done to the file after a keyed write pass is reported as a
// MISCOMPARE at the damaged LBA by READ and by VERIFY, the READ's caller still
// gets the data, and untouched ranges pass. Stale, zeroed, torn and misplaced
// blocks are each caught at their LBA by kiv runs in tests/tcl (data-4.2,
// drives-2.1); here a torn block through both commands.
TEST_F(KeyedFile, DamageIsAMiscompareAtItsLbaForReadAndVerify) {
    for (uint32_t lba = 0; lba < 128; lba += 8) write(lba, 8);
    EXPECT_NE(block(3), Bytes(kBs, 0xAB)) << "keyed data went out, not the caller's buffer";
    EXPECT_EQ(judged(m, roundTrip(m, kVerify10, 0, 128)), 0) << "untouched";
    Bytes torn = block(45), in(8 * kBs, 0);
    torn[300] ^= 1;
    ASSERT_EQ(pwrite(fd, torn.data(), kBs, 45 * kBs), kBs);
    EXPECT_EQ(judged(m, roundTrip(m, kRead10, 40, 8, &in)), 45) << "READ";
    EXPECT_EQ(judged(m, roundTrip(m, kVerify10, 40, 8)), 45) << "VERIFY";
    EXPECT_EQ(Bytes(in.begin() + 5 * kBs, in.begin() + 6 * kBs), torn) << "the caller still gets the data";
    const mqb::DeviceStats s = f.dev.stats();
    EXPECT_EQ(std::pair(s.miscompares, s.errors), std::pair(uint64_t(2), uint64_t(2)));
    EXPECT_EQ(roundTrip(m, kRead10, 200, 8), 0) << "never written in keyed mode";
}

// The read-back of a VERIFY goes through the channel's queue: on a 20 ms
// disk a READ sent after it completes first, the VERIFY after two trips; a
// channel closed with a read-back in flight leaves nothing behind.
TEST(KeyedQueue, VerifyReadBackGoesThroughTheQueueWithoutBlockingOthers) {
    Dev d("sim:blocks=1000,store=1,latency=20000");
    MQB* m = d.m.get();
    ASSERT_EQ(setDataMode(*m, kKeyed), 0);
    Bytes one(512, 0), in(8 * 512);
    ASSERT_EQ(roundTrip(*m, kWrite10, 0, 16, &one), 0);
    const auto t0 = Clock::now();
    ASSERT_EQ(send(*m, record(kVerify10, 0, 8, 1)), 0);
    ASSERT_EQ(send(*m, record(kRead10, 8, 8, 2, &in)), 0);
    ASSERT_EQ(m->receive(), 0);
    EXPECT_EQ(lastTag(*m), 2) << "the READ is not held up behind the VERIFY's read-back";
    ASSERT_EQ(m->receive(), 0);
    EXPECT_EQ(lastTag(*m), 1);
    EXPECT_GE(Clock::now() - t0, milliseconds(40)) << "the device was asked twice";

    ASSERT_EQ(send(*m, record(kVerify10, 8, 8, 3)), 0);
    d.m.reset();  // dropped with the read-back in the queue
    m = (d.m = std::make_unique<MQB>("sim")).get();
    ASSERT_EQ(m->setDeviceIndex(d.idx), 0);
    ASSERT_EQ(setDataMode(*m, kKeyed), 0);
    EXPECT_EQ(roundTrip(*m, kVerify10, 0, 16), 0) << "nothing left racing: judged, and good";
}

// Carrying a journal to another device and catching the lost write there, and
// the refusal of a journal of another size, are checked end to end in tests/tcl
// (data-1.2); here the device table's other refusals.
TEST_F(KeyedFile, JournalCallsRefuseWhatIsNoJournal) {
    const std::string& path = f.file.path, jpath = path + ".journal";
    std::string err, e2;
    EXPECT_FALSE(mqb::journalLoad(idx, path, err)) << "not a journal";
    EXPECT_FALSE(mqb::journalSave(mqb::addDevice("sim:store=1,blocks=1000,journalmax=999", e2), jpath, err));
    EXPECT_EQ(err, "the device is larger than its journalmax, so it has no journal");
    unlink(jpath.c_str());
}

// The race rules, per block: two writes are ambiguous only on the blocks
// they share while both are in flight; a reader is unjudged only on the
// blocks a write touched while it was in flight, whichever began first.
TEST(WriteTracker, RacesArePerBlockAndSeenFromEitherSide) {
    mqb::WriteTracker t;
    uint64_t lo, hi;
    auto none = [&] { return lo >= hi; };
    // Queued sequential writes side by side: no race at all.
    auto w0 = t.begin(0, 8, true), w1 = t.begin(8, 16, true), w2 = t.begin(16, 24, true);
    t.end(w1, lo, hi); EXPECT_TRUE(none());
    t.end(w0, lo, hi); EXPECT_TRUE(none());
    // A reader sent while a write is in flight: unjudged where they meet.
    auto r = t.begin(20, 40, false);
    t.hull(r, lo, hi);
    EXPECT_EQ(lo, 20u); EXPECT_EQ(hi, 24u);
    t.end(w2, lo, hi); EXPECT_TRUE(none()) << "a reader leaves a write alone";
    // A write sent and done while the reader was out: seen from its side.
    auto w3 = t.begin(35, 50, true);
    t.end(w3, lo, hi); EXPECT_TRUE(none());
    t.end(r, lo, hi);
    EXPECT_EQ(lo, 20u); EXPECT_EQ(hi, 40u) << "one hull over both races";
    // Two writes meeting on one block: both know it, and only it.
    auto a = t.begin(0, 70, true), b = t.begin(64, 65, true), c = t.begin(1000, 1064, true);
    t.end(b, lo, hi); EXPECT_EQ(lo, 64u); EXPECT_EQ(hi, 65u);
    t.end(a, lo, hi); EXPECT_EQ(lo, 64u); EXPECT_EQ(hi, 65u);
    t.end(c, lo, hi); EXPECT_TRUE(none());
    // Entries come back: far more commands than the table holds, in turn.
    for (int i = 0; i < 3 * int(mqb::WriteTracker::kEntries); ++i) {
        auto k = t.begin(uint64_t(i) * 8, uint64_t(i) * 8 + 8, true);
        EXPECT_GE(k.slot, 0);
        t.end(k, lo, hi);
        if (!none()) { ADD_FAILURE() << "false race at " << i; break; }
    }
}

// Channels in three threads writing and reading the same 256 blocks at
// queue depth 8 each: true races happen, yet no block is ever blamed (run
// under ThreadSanitizer too: the tracker and the journal are shared without
// locks). A final pass judged good, and live, is data-2.1 in tests/tcl.
TEST(KeyedRaces, ThreadsRacingOnOneDeviceNeverMiscompare) {
    Dev d("sim:blocks=256,store=1,latency=5");
    auto worker = [&d](unsigned seed, int& bad) {
        MQB m("sim");
        if (m.setDeviceIndex(d.idx) != 0 || setDataMode(m, kKeyed) != 0) { bad = -1; return; }
        std::vector<Bytes> bufs(8, Bytes(16 * 512));
        auto send = [&](int i) {
            seed = seed * 1103515245u + 12345u;
            const uint32_t lba = (seed >> 8) % 241, tl = 1 + (seed >> 20) % 16;
            uint8_t* b = bufs[size_t(i)].data();
            return cdbtest::send(m, (seed >> 4) & 1 ? record(kWrite10, lba, uint16_t(tl), uint32_t(i), b, tl * 512)
                                                    : record(kRead10, lba, uint16_t(tl), uint32_t(i), nullptr, 0, b, tl * 512));
        };
        for (int i = 0; i < 8; ++i) if (send(i) != 0) { bad = -1; return; }
        for (int n = 0; n < 20000; ++n) {
            bad += m.receive() == MQB_ERR_CHECK;
            const int tag = lastTag(m);
            if (tag < 0 || tag > 7 || send(tag) != 0) { bad = -1; return; }
        }
        for (int i = 0; i < 8; ++i) if (m.receive() == MQB_ERR_CHECK) ++bad;
    };
    int bad[3] = {0, 0, 0};
    std::vector<std::thread> ts;
    for (unsigned i = 0; i < 3; ++i) ts.emplace_back(worker, 7 + i, std::ref(bad[i]));
    for (auto& t : ts) t.join();
    for (int b : bad) EXPECT_EQ(b, 0);
    mqb::JournalInfo ji;
    std::string err;
    ASSERT_TRUE(mqb::journalInfo(d.idx, ji, err)) << err;
    EXPECT_GT(ji.ambiguous, 0u) << "writes did race";
    EXPECT_EQ(ji.inDoubt, 0u);
}

namespace {
std::unique_ptr<mqb::WriteJournal> journal(uint64_t blocks, const std::string& id, const std::string& path = "") {
    std::string err;
    auto j = mqb::WriteJournal::open(blocks, 512, id, path, err);
    EXPECT_TRUE(j) << err;
    return j;
}
}  // namespace

// The journal file of a huge device takes memory for the blocks written only
// (the journal in memory: data-4.3 in tests/tcl). ThreadSanitizer leaves no
// room for a 2 TiB mapping: a smaller huge device there.
TEST(WriteJournal, MemoryFollowsTheBlocksWritten) {
#if defined(__SANITIZE_THREAD__)
    const uint64_t blocks = uint64_t(1) << 34;
#else
    const uint64_t blocks = uint64_t(1) << 40;
#endif
    TempFile f;  // empty: a new journal
    auto j = journal(blocks, "sim:store=1", f.path);
    ASSERT_TRUE(j);
    for (uint64_t at : {uint64_t(0), blocks / 3, blocks - 64}) {
        j->beginWrite(at, 64, 7);
        j->completeWrite(at, 64, 7);
    }
    const auto c = j->counts();
    EXPECT_EQ(std::make_pair(c.known, c.unknown), std::make_pair(uint64_t(192), blocks - 192));
    EXPECT_LE(c.residentBytes, uint64_t(1) << 20);
}

// The file forms: a save over a good journal that is cut short (a file size
// limit stands in for a kill) leaves the old one; a journal of another
// device, or with trailing bytes, is refused; a FIFO is refused at once.
TEST(WriteJournal, SavesSafelyAndRefusesWhatIsNotItsOwn) {
    TempFile f;
    auto j = journal(1 << 20, "file:/dev/a");
    j->beginWrite(10, 5, 7);
    j->completeWrite(10, 5, 7);
    std::string err;
    ASSERT_TRUE(j->save(f.path, 99, err)) << err;
    for (uint64_t b = 0; b < (1 << 20); b += 4096) j->fill(b, b + 1, 8);
    const pid_t pid = fork();
    if (pid == 0) {
        signal(SIGXFSZ, SIG_IGN);
        struct rlimit rl = {1 << 16, 1 << 16};
        setrlimit(RLIMIT_FSIZE, &rl);
        std::string e;
        _exit(j->save(f.path, 100, e) ? 0 : 3);
    }
    int st = 0;
    ASSERT_EQ(waitpid(pid, &st, 0), pid);
    EXPECT_EQ(WEXITSTATUS(st), 3) << "the cut-short save failed";
    auto k = journal(1 << 20, "file:/dev/a");
    uint64_t seq = 0;
    ASSERT_TRUE(k->load(f.path, seq, err)) << err;
    EXPECT_EQ(std::make_tuple(seq, int(k->get(12)), int(k->get(4096))), std::make_tuple(uint64_t(99), 7, 0));

    auto other = journal(1 << 20, "sim:store=1");
    EXPECT_FALSE(other->load(f.path, seq, err));
    EXPECT_EQ(err, "journal \"" + f.path + "\" is for device \"file:/dev/a\", not \"sim:store=1\"");
    std::ofstream(f.path, std::ios::app) << 'x';
    EXPECT_FALSE(k->load(f.path, seq, err));
    EXPECT_EQ(err, "journal \"" + f.path + "\" has 1 trailing bytes");
    EXPECT_EQ(k->get(12), 7u) << "a refused load changes nothing";

    TempFile fifo;
    ASSERT_EQ(unlink(fifo.path.c_str()), 0);
    ASSERT_EQ(mkfifo(fifo.path.c_str(), 0600), 0);
    EXPECT_FALSE(k->load(fifo.path, seq, err));
    EXPECT_EQ(err, "journal \"" + fifo.path + "\" is not a regular file");
    EXPECT_FALSE(k->save(fifo.path, 1, err));
    EXPECT_EQ(err, "journal \"" + fifo.path + "\" is not a regular file");
    EXPECT_FALSE(mqb::WriteJournal::open(10, 512, "x", fifo.path, err));
}
