// mqb_verify_test.cpp: keyed-block verification through a channel on a file
// device (damage made behind the library's back with pwrite), the race rules
// of the write tracker, and the journal file.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <functional>
#include <thread>
#include "CDBStruct.h"
#include "DataControl.h"
#include "DeviceTable.h"
#include "MQB.h"
#include "MQBErr.h"
#include "verify/DataChecker.h"
#include "verify/KeyedBlock.h"
#include "verify/WriteJournal.h"
#include "verify/WriteTracker.h"
#include "TestSupport.h"

namespace {
using cdbtest::Bytes;
constexpr uint8_t READ10 = 0x28, WRITE10 = 0x2A, WRV10 = 0x2E, VERIFY10 = 0x2F;
constexpr int kBlocks = 1024, kBs = 512;

int roundTrip(MQB& m, uint8_t op, uint32_t lba, uint16_t tl, Bytes* buf = nullptr) {
    return cdbtest::roundTrip(m, cdbtest::record(op, lba, tl, 0, buf));
}
// INFORMATION of a MISCOMPARE sense, or -1 for any other sense.
long miscompareLba(MQB& m) {
    unsigned char b[64];
    int size = 64, n = 0;
    m.errInfo(MQB_INFO_SENSE, 3, b, &size, &n);
    if (n != 32 || b[0] != 0xF0 || b[2] != 0x0E || b[12] != 0x1D || b[13] != 0) return -1;
    return long(b[3]) << 24 | long(b[4]) << 16 | long(b[5]) << 8 | b[6];
}

struct KeyedFile : ::testing::Test {
    char path[40] = "/tmp/mqb_verify_test_XXXXXX";
    int fd = mkstemp(path), idx = -1;
    MQB* m = createMQB("file", 0, 0, 0);
    void SetUp() override {
        std::string err;
        ASSERT_EQ(ftruncate(fd, kBlocks * kBs), 0);
        ASSERT_GE(idx = mqb::addDevice(std::string("file:") + path, err), 0) << err;
        ASSERT_EQ(m->setDeviceIndex(idx), 0);
        mode(6);
    }
    void TearDown() override { deleteMQB(m); close(fd); unlink(path); }
    void mode(int md) { int a = 0; unsigned char f = 0; ASSERT_EQ(m->ioctl(MQB_IOCTL_DATA_MODE, 3, &md, &a, &f), 0); }
    Bytes block(uint64_t lba) { Bytes b(kBs); EXPECT_EQ(pread(fd, b.data(), kBs, off_t(lba * kBs)), kBs); return b; }
    void put(uint64_t lba, const Bytes& b, size_t len = kBs) { ASSERT_EQ(pwrite(fd, b.data(), len, off_t(lba * kBs)), ssize_t(len)); }
    // Writes [lba, lba+tl) with keyed data from a caller buffer of one block.
    void write(uint32_t lba, uint16_t tl, uint8_t op = WRITE10) { Bytes one(kBs, 0xAB); ASSERT_EQ(roundTrip(*m, op, lba, tl, &one), 0); }
};
}  // namespace

// Each damage done to the file after a keyed write pass is reported as a
// MISCOMPARE at the damaged LBA by READ and by VERIFY; untouched ranges pass.
TEST_F(KeyedFile, EveryKindOfDamageIsAMiscompareAtItsLba) {
    for (uint32_t lba = 0; lba < 128; lba += 8) write(lba, 8);
    EXPECT_NE(block(3), Bytes(kBs, 0xAB)) << "keyed data went out, not the caller's buffer";
    const Bytes stale = block(30);
    write(24, 8);                    // block 30 now holds a newer sequence
    const struct { const char* what; uint32_t at; std::function<void()> damage; } cases[] = {
        {"nothing", 0, [] {}},
        {"zeroed block", 10, [&] { put(10, Bytes(kBs, 0)); }},
        {"misdirected write", 21, [&] { put(21, block(20)); }},
        {"lost write", 30, [&] { put(30, stale); }},
        {"torn write", 45, [&] { Bytes b = block(45); b[300] ^= 1; put(45, b); }},
    };
    long expectMiscompares = 0;
    for (const auto& k : cases) {
        k.damage();
        const uint32_t first = k.at / 8 * 8;
        Bytes in(8 * kBs, 0);
        const int rr = roundTrip(*m, READ10, first, 8, &in);
        const long readAt = rr == MQB_ERR_CHECK ? miscompareLba(*m) : rr;
        const int vr = roundTrip(*m, VERIFY10, first, 8);
        const long verifyAt = vr == MQB_ERR_CHECK ? miscompareLba(*m) : vr;
        EXPECT_EQ(readAt, long(k.at)) << k.what;
        EXPECT_EQ(verifyAt, long(k.at)) << k.what;
        EXPECT_EQ(Bytes(in.begin(), in.begin() + kBs), block(first)) << k.what << ": the caller still gets the data";
        if (k.at) expectMiscompares += 2;
    }
    mqb::DeviceStats s;
    ASSERT_TRUE(mqb::stats(idx, s));
    EXPECT_EQ(long(s.miscompares), expectMiscompares);
    EXPECT_EQ(long(s.errors), expectMiscompares);

    // Rewriting a damaged range makes it good again; WRITE AND VERIFY checks
    // its own read-back; a plain (unkeyed) write leaves nothing to judge.
    write(8, 8, WRV10);
    EXPECT_EQ(roundTrip(*m, READ10, 8, 8), 0);
    mode(3);
    write(40, 8);
    EXPECT_NE(block(41), Bytes(kBs, 0xAB)) << "generated data, full length";
    EXPECT_NE(block(47), Bytes(kBs, 0)) << "generated data, full length";
    mode(6);
    EXPECT_EQ(roundTrip(*m, READ10, 40, 8), 0) << "unkeyed data where the journal forgot the keyed write";
    EXPECT_EQ(roundTrip(*m, READ10, 200, 8), 0) << "never written in keyed mode";
}

// The read-back of a VERIFY goes through the channel's queue: on a 20 ms
// disk a READ sent after it completes first, the VERIFY after two trips and
// still judged (a zeroed block is caught); a channel closed with a read-back
// in flight leaves nothing behind.
TEST(KeyedQueue, VerifyReadBackGoesThroughTheQueueWithoutBlockingOthers) {
    std::string err;
    const int d = mqb::addDevice("sim:blocks=1000,store=1,latency=20000", err);
    ASSERT_GE(d, 0) << err;
    auto m = std::make_unique<MQB>("sim");
    ASSERT_EQ(m->setDeviceIndex(d), 0);
    int md = 6, a = 0;
    unsigned char f = 0;
    ASSERT_EQ(m->ioctl(MQB_IOCTL_DATA_MODE, 3, &md, &a, &f), 0);
    Bytes one(512, 0);
    ASSERT_EQ(roundTrip(*m, WRITE10, 0, 16, &one), 0);
    auto send = [&](uint8_t op, uint32_t lba, uint32_t tag, Bytes* buf) {
        return cdbtest::send(*m, cdbtest::record(op, lba, 8, tag, buf));
    };
    using Clock = std::chrono::steady_clock;
    auto tagOf = [&] { int t = -1; m->receiveInfo(MQB_INFO_TAG, 1, &t); return t; };
    Bytes in(8 * 512);
    const auto t0 = Clock::now();
    ASSERT_EQ(send(VERIFY10, 0, 1, nullptr), 0);
    ASSERT_EQ(send(READ10, 8, 2, &in), 0);
    ASSERT_EQ(m->receive(), 0);
    EXPECT_EQ(tagOf(), 2) << "the READ is not held up behind the VERIFY's read-back";
    ASSERT_EQ(m->receive(), 0);
    EXPECT_EQ(tagOf(), 1);
    EXPECT_GE(Clock::now() - t0, std::chrono::milliseconds(40)) << "the device was asked twice";

    // Block 0's keyed content copied raw (data mode 0) over block 9: well
    // formed, but for another LBA.
    md = 0;
    ASSERT_EQ(m->ioctl(MQB_IOCTL_DATA_MODE, 3, &md, &a, &f), 0);
    Bytes b0(512);
    ASSERT_EQ(roundTrip(*m, READ10, 0, 1, &b0), 0);
    ASSERT_EQ(roundTrip(*m, WRITE10, 9, 1, &b0), 0);
    md = 6;
    ASSERT_EQ(m->ioctl(MQB_IOCTL_DATA_MODE, 3, &md, &a, &f), 0);
    ASSERT_EQ(roundTrip(*m, VERIFY10, 8, 8), MQB_ERR_CHECK);
    EXPECT_EQ(miscompareLba(*m), 9) << "judged from the queued read-back";
    ASSERT_EQ(roundTrip(*m, WRITE10, 8, 8, &one), 0);

    ASSERT_EQ(send(VERIFY10, 8, 3, nullptr), 0);
    m.reset();  // dropped with the read-back in the queue
    m = std::make_unique<MQB>("sim");
    ASSERT_EQ(m->setDeviceIndex(d), 0);
    ASSERT_EQ(m->ioctl(MQB_IOCTL_DATA_MODE, 3, &md, &a, &f), 0);
    EXPECT_EQ(roundTrip(*m, VERIFY10, 0, 16), 0) << "nothing left racing: judged, and good";
}

// Carrying a journal to another device and catching the lost write there, and
// the refusal of a journal of another size, are checked end to end in tests/tcl
// (data-1.2); here the device table's other refusals.
TEST_F(KeyedFile, JournalCallsRefuseWhatIsNoJournal) {
    const std::string jpath = std::string(path) + ".journal";
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
// queue depth 8 each: true races happen, yet no block is ever blamed, and a
// final read of everything is judged and good (run under ThreadSanitizer
// too: the tracker and the journal are shared without locks).
TEST(KeyedRaces, ThreadsRacingOnOneDeviceNeverMiscompare) {
    std::string err;
    const int d = mqb::addDevice("sim:blocks=256,store=1,latency=5", err);
    ASSERT_GE(d, 0) << err;
    auto worker = [d](unsigned seed, int& bad) {
        MQB m("sim");
        int md = 6, a = 0;
        unsigned char f = 0;
        if (m.setDeviceIndex(d) != 0 || m.ioctl(MQB_IOCTL_DATA_MODE, 3, &md, &a, &f) != 0) { bad = -1; return; }
        std::vector<CDBStruct> reqs(8);
        std::vector<Bytes> bufs(8, Bytes(16 * 512));
        auto send = [&](int i) {
            CDBStruct& r = reqs[size_t(i)];
            std::memset(&r, 0, sizeof r);
            seed = seed * 1103515245u + 12345u;
            const uint32_t lba = (seed >> 8) % 241, tl = 1 + (seed >> 20) % 16;
            const bool wr = (seed >> 4) & 1;
            r.recLen = 112, r.one = 1, r.cdbLen = 10, r.cdb[0] = wr ? WRITE10 : READ10;
            r.cdb[5] = uint8_t(lba), r.cdb[8] = uint8_t(tl), r.tag = uint32_t(i);
            if (wr) r.writeBuf = bufs[size_t(i)].data(), r.writeLen = tl * 512;
            else r.readBuf = bufs[size_t(i)].data(), r.readLen = tl * 512;
            return m.send(reinterpret_cast<unsigned char*>(&r));
        };
        for (int i = 0; i < 8; ++i) if (send(i) != 0) { bad = -1; return; }
        for (int n = 0; n < 20000; ++n) {
            const int rc = m.receive();
            if (rc == MQB_ERR_CHECK) ++bad;
            int tag = -1;
            m.receiveInfo(MQB_INFO_TAG, 1, &tag);
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
    ASSERT_TRUE(mqb::journalInfo(d, ji, err)) << err;
    EXPECT_GT(ji.ambiguous, 0u) << "writes did race";
    EXPECT_EQ(ji.inDoubt, 0u);
    auto m = std::make_unique<MQB>("sim");
    ASSERT_EQ(m->setDeviceIndex(d), 0);
    int md = 6, a = 0;
    unsigned char f = 0;
    ASSERT_EQ(m->ioctl(MQB_IOCTL_DATA_MODE, 3, &md, &a, &f), 0);
    ASSERT_EQ(roundTrip(*m, VERIFY10, 0, 256), 0);
    // Block 1's keyed content written raw over block 9: the pass is judged.
    Bytes b1(512);
    ASSERT_EQ(roundTrip(*m, READ10, 1, 1, &b1), 0);
    md = 0;
    ASSERT_EQ(m->ioctl(MQB_IOCTL_DATA_MODE, 3, &md, &a, &f), 0);
    ASSERT_EQ(roundTrip(*m, WRITE10, 9, 1, &b1), 0);
    md = 6;
    ASSERT_EQ(m->ioctl(MQB_IOCTL_DATA_MODE, 3, &md, &a, &f), 0);
    ASSERT_EQ(roundTrip(*m, VERIFY10, 0, 256), MQB_ERR_CHECK);
    EXPECT_EQ(miscompareLba(*m), 9);
}

namespace {
struct TmpPath {
    std::string p;
    explicit TmpPath(const char* stem) {
        char b[64];
        std::snprintf(b, sizeof b, "/tmp/%s_XXXXXX", stem);
        close(mkstemp(b));
        unlink(b);
        p = b;
    }
    ~TmpPath() { unlink(p.c_str()); }
};
std::unique_ptr<mqb::WriteJournal> journal(uint64_t blocks, const std::string& id, const std::string& path = "") {
    std::string err;
    auto j = mqb::WriteJournal::open(blocks, 512, id, path, err);
    EXPECT_TRUE(j) << err;
    return j;
}
// The first bad block of `n` keyed blocks of `seq` (one of them, `odd`, of
// `oddSeq`) checked against `j`; -1 when all pass.
long check(const mqb::WriteJournal& j, uint64_t lba, uint64_t n, uint64_t seq, uint64_t odd = UINT64_MAX,
           uint64_t oddSeq = 0, int* kind = nullptr) {
    Bytes d(n * 512);
    for (uint64_t i = 0; i < n; ++i) mqb::stampBlock(d.data() + i * 512, 512, lba + i, lba + i == odd ? oddSeq : seq);
    int k = -1;
    const uint64_t bad = mqb::DataChecker::firstBadBlock(&j, d.data(), lba, n, 512, 1, 0, k);
    if (kind) *kind = k;
    return bad == UINT64_MAX ? -1 : long(bad);
}
}  // namespace

// A write in doubt (cut off or failed) lets the old or the new content pass
// and nothing else; completing makes only the new one pass.
TEST(WriteJournal, InDoubtPassesOldOrNewOnly) {
    auto j = journal(100, "sim:x");
    j->beginWrite(0, 10, mqb::WriteJournal::valueOf(5));
    j->completeWrite(0, 10, mqb::WriteJournal::valueOf(5));
    j->beginWrite(0, 10, mqb::WriteJournal::valueOf(6));  // cut off
    EXPECT_EQ(check(*j, 0, 10, 5), -1);
    EXPECT_EQ(check(*j, 0, 10, 6), -1);
    int kind = -1;
    EXPECT_EQ(check(*j, 0, 10, 6, 3, 4, &kind), 3);
    EXPECT_EQ(kind, mqb::DeviceData::kStale);
    j->completeWrite(0, 10, mqb::WriteJournal::valueOf(6));
    EXPECT_EQ(check(*j, 0, 10, 5), 0);
    // Never written before: unstamped old content passes in doubt, a torn
    // block does not.
    j->beginWrite(50, 4, mqb::WriteJournal::valueOf(9));
    Bytes d(4 * 512, 0);
    mqb::stampBlock(d.data() + 512, 512, 51, 9);
    mqb::stampBlock(d.data() + 1024, 512, 52, 9);
    d[1024 + 100] ^= 1;
    EXPECT_EQ(mqb::DataChecker::firstBadBlock(j.get(), d.data(), 50, 4, 512, 1, 0, kind), 52u);
    EXPECT_EQ(kind, mqb::DeviceData::kTorn);
    const auto c = j->counts();
    EXPECT_EQ(c.known, 10u); EXPECT_EQ(c.inDoubt, 4u); EXPECT_EQ(c.unknown, 86u);
}

// The journal of a huge device takes memory for the blocks written only,
// in memory and in its file. (ThreadSanitizer leaves no room for a 2 TiB
// mapping: a smaller huge device there.)
TEST(WriteJournal, MemoryFollowsTheBlocksWritten) {
#if defined(__SANITIZE_THREAD__)
    const uint64_t blocks = uint64_t(1) << 34;
#else
    const uint64_t blocks = uint64_t(1) << 40;
#endif
    TmpPath f("mqb_sparse_journal");
    for (const std::string& path : {std::string(), f.p}) {
        auto j = journal(blocks, "sim:store=1", path);
        ASSERT_TRUE(j);
        for (uint64_t at : {uint64_t(0), blocks / 3, blocks - 64}) {
            j->beginWrite(at, 64, 7);
            j->completeWrite(at, 64, 7);
        }
        const auto c = j->counts();
        EXPECT_EQ(c.known, 192u) << path;
        EXPECT_EQ(c.unknown, blocks - 192) << path;
        EXPECT_LE(c.residentBytes, uint64_t(1) << 20) << path;
    }
}

// The file forms: a save over a good journal that is cut short (a file size
// limit stands in for a kill) leaves the old one; a journal of another
// device, or with trailing bytes, is refused; a FIFO is refused at once.
TEST(WriteJournal, SavesSafelyAndRefusesWhatIsNotItsOwn) {
    TmpPath f("mqb_journal");
    auto j = journal(1 << 20, "file:/dev/a");
    j->beginWrite(10, 5, 7);
    j->completeWrite(10, 5, 7);
    std::string err;
    ASSERT_TRUE(j->save(f.p, 99, err)) << err;
    for (uint64_t b = 0; b < (1 << 20); b += 4096) j->fill(b, b + 1, 8);
    const pid_t pid = fork();
    if (pid == 0) {
        signal(SIGXFSZ, SIG_IGN);
        struct rlimit rl = {1 << 16, 1 << 16};
        setrlimit(RLIMIT_FSIZE, &rl);
        std::string e;
        _exit(j->save(f.p, 100, e) ? 0 : 3);
    }
    int st = 0;
    ASSERT_EQ(waitpid(pid, &st, 0), pid);
    EXPECT_EQ(WEXITSTATUS(st), 3) << "the cut-short save failed";
    auto k = journal(1 << 20, "file:/dev/a");
    uint64_t seq = 0;
    ASSERT_TRUE(k->load(f.p, seq, err)) << err;
    EXPECT_EQ(seq, 99u);
    EXPECT_EQ(k->get(12), 7u);
    EXPECT_EQ(k->get(4096), 0u);

    auto other = journal(1 << 20, "sim:store=1");
    EXPECT_FALSE(other->load(f.p, seq, err));
    EXPECT_EQ(err, "journal \"" + f.p + "\" is for device \"file:/dev/a\", not \"sim:store=1\"");
    {
        std::FILE* a = std::fopen(f.p.c_str(), "ab");
        std::fputs("x", a);
        std::fclose(a);
    }
    EXPECT_FALSE(k->load(f.p, seq, err));
    EXPECT_EQ(err, "journal \"" + f.p + "\" has 1 trailing bytes");
    EXPECT_EQ(k->get(12), 7u) << "a refused load changes nothing";

    TmpPath fifo("mqb_fifo");
    ASSERT_EQ(mkfifo(fifo.p.c_str(), 0600), 0);
    EXPECT_FALSE(k->load(fifo.p, seq, err));
    EXPECT_EQ(err, "journal \"" + fifo.p + "\" is not a regular file");
    EXPECT_FALSE(k->save(fifo.p, 1, err));
    EXPECT_EQ(err, "journal \"" + fifo.p + "\" is not a regular file");
    EXPECT_FALSE(mqb::WriteJournal::open(10, 512, "x", fifo.p, err));
}
