// mqb_sim_test.cpp: MQB channels on simulated disks.
#include <atomic>
#include <cstdlib>
#include <new>
#include "backends/SimDisk.h"
#include "MqbTestSupport.h"

// Counts allocations while g_countAllocs is set, to prove the command path allocates nothing.
// The replacements pair malloc with free themselves, which GCC cannot see.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
static std::atomic<bool> g_countAllocs{false};
static std::atomic<long> g_allocs{0};
void* operator new(std::size_t n) {
    if (g_countAllocs.load(std::memory_order_relaxed)) g_allocs.fetch_add(1);
    if (void* p = std::malloc(n ? n : 1)) return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace {
using namespace mqbtest;
using Rule = mqb::FaultRule;
constexpr uint8_t kInquiry = 0x12;  // no block command: unknown to the disk

// The 16-byte form of the data command `op10`.
CDBStruct record16(uint8_t op10, uint64_t lba, uint32_t tl) {
    CDBStruct c = record(0, 0, 0);
    c.cdbLen = putDataCdb(c.cdb, op10, 0, lba, tl, true);
    return c;
}
Rule rule(Rule::Kind kind, Rule::Op op = Rule::Op::Any, uint64_t lo = 0, uint64_t hi = UINT64_MAX, int status = 0) {
    Rule r;
    r.kind = kind, r.op = op, r.lbaLo = lo, r.lbaHi = hi, r.status = status;
    return r;
}
struct Sim : ::testing::Test {
    Dev r{"sim:blocks=1000"};
    MQB& m = *r.m;
};
}  // namespace

TEST(DeviceText, BadTextsAreRefusedWithTheirMessage) {
    const struct { const char* text; const char* err; } bad[] = {
        {"sim:foo=1", "unknown device text key \"foo\""}, {"sim:store", "device text item \"store\" is not key=value"},
        {"sim:blocks=12x", "bad value \"12x\" for device text key \"blocks\""}, {"disk", "unknown device type \"disk\""},
        {"file:/dev/null", "\"/dev/null\" is smaller than one block"}, {"", "empty device text"},
        {"sim:blocks=10,cdb=12", "bad value \"12\" for device text key \"cdb\" (10 or 16)"},
    };
    for (const auto& b : bad) {
        std::string err;
        EXPECT_EQ(mqb::addDevice(b.text, err), -1) << b.text;
        EXPECT_EQ(err, b.err);
    }
}

TEST_F(Sim, RangeChecksAtTheLastLbaAndInvalidOpcode) {
    for (uint8_t op : {kRead10, kWrite10, kWriteVerify10, kVerify10}) {
        EXPECT_EQ(roundTrip(m, record(op, 999, 1)), 0) << int(op);
        EXPECT_EQ(roundTrip(m, record(op, 999, 0)), 0) << int(op);  // TL 0 on the disk: no transfer
        for (auto [lba, tl] : {std::pair<uint32_t, uint16_t>{999, 2}, {1000, 0}, {0xFFFFFFFF, 0xFFFF}})
            EXPECT_EQ(senseOf(m, roundTrip(m, record(op, lba, tl))), kOutOfRange) << int(op) << " " << lba;
    }
    EXPECT_EQ(senseOf(m, roundTrip(m, record(kInquiry, 0, 0))), kBadOpcode);
}

// READ(16), WRITE(16), WRITE AND VERIFY(16) and VERIFY(16) on a 2^36-block
// disk: the range checked with 64-bit LBAs and 32-bit lengths, a 16-byte
// opcode in a 10-byte CDB unknown, and a fault's INFORMATION above 32 bits in
// descriptor sense (72h) with the UEC. What kiv sends there and how it shows
// the sense are checked against the kernel's sg driver in tests/vm/sg_large.test.
TEST(SimSbc, SixteenByteCommandsAndDescriptorSense) {
    Dev r("sim:blocks=68719476736");
    MQB& m = *r.m;
    const uint64_t last = (uint64_t{1} << 36) - 1;
    for (uint8_t op : {kRead10, kWrite10, kWriteVerify10, kVerify10}) {
        EXPECT_EQ(roundTrip(m, record16(op, last, 1)), 0) << int(op);
        EXPECT_EQ(roundTrip(m, record16(op, 0, 70000)), 0) << int(op);
        for (auto [lba, tl] : {std::pair<uint64_t, uint32_t>{last, 2}, {last + 1, 0}, {~uint64_t{0}, 0xFFFFFFFF}})
            EXPECT_EQ(senseOf(m, roundTrip(m, record16(op, lba, tl))), kOutOfRange) << int(op) << " " << lba;
        CDBStruct shortCdb = record16(op, 0, 1);  // 16-byte opcode, 10-byte CDB
        shortCdb.cdbLen = 10;
        EXPECT_EQ(senseOf(m, roundTrip(m, shortCdb)), kBadOpcode);
    }
    const uint64_t high = (uint64_t{1} << 33) + 7;
    Rule f = rule(Rule::Kind::Check, Rule::Op::Read, high, high);
    f.key = kKeyMedium, f.asc = kUnrecoveredRead.asc, f.hasUec = true, f.uec = 0x1234, f.info = true;
    r.fault(f);
    ASSERT_EQ(roundTrip(m, record16(kRead10, high - 3, 8)), MQB_ERR_CHECK);
    // 72h, 03/11/00, 24 more bytes: INFORMATION (VALID) and our UEC descriptor.
    Bytes want{0x72, 0x03, 0x11, 0, 0, 0, 0, 24, 0x00, 0x0A, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x80, 0x0A, 0x12, 0x34};
    want.resize(32), putBe64(&want[12], high);
    EXPECT_EQ(lastSense(m), want);
}

TEST_F(Sim, CountersPeakOutstandingAndQueueFull) {
    for (uint8_t op : {kRead10, kRead10, kWrite10, kWriteVerify10, kVerify10, kReadCapacity10})
        ASSERT_EQ(roundTrip(m, record(op, 0, 4)), 0);
    ASSERT_EQ(roundTrip(m, record(kRead10, 999, 4)), MQB_ERR_CHECK);
    mqb::DeviceStats s = r.stats();
    EXPECT_EQ((std::vector<uint64_t>{s.commands, s.reads, s.writes, s.wrvs, s.verifies, s.other,
                                     s.blocksRead, s.blocksWritten, s.errors, s.maxOutstanding}),
              (std::vector<uint64_t>{7, 3, 1, 1, 1, 1, 12, 8, 1, 1}));
    MQB other("sim");  // a second channel on the device adds to its peak
    other.setDeviceIndex(r.idx);
    for (int i = 0; i < 256; ++i) ASSERT_EQ(send(m, record(kRead10, 0, 1, i)), 0) << i;
    EXPECT_EQ(send(m, record(kRead10, 0, 1)), MQB_ERR_QUEUE_FULL);
    for (int i = 0; i < 3; ++i) ASSERT_EQ(send(other, record(kRead10, 0, 1)), 0);
    EXPECT_EQ(r.stats().maxOutstanding, 1u) << "sent is not yet at the device";
    m.commit(), other.commit();
    while (m.receive() == 0 || other.receive() == 0) {}
    EXPECT_EQ(r.stats().maxOutstanding, 259u);
}

TEST_F(Sim, IoctlStatesBadArgumentsAndCloneRefusal) {
    int arg = 0;
    auto queueing = [&](int v) { return m.ioctl(MQB_IOCTL_QUEUEING, 2, &v, &arg); };
    auto depth = [&](int v) { return m.ioctl(MQB_IOCTL_MAX_DEPTH, 1, &v); };
    auto fastRd = [&](unsigned char v) { return m.ioctl(MQB_IOCTL_FAST_READS, 1, &v); };
    auto mode = [&](int v) { return setDataMode(m, v); };
    auto state = [&] { auto s = r.stats(); return std::tuple{s.queueing, s.maxQueueDepth, s.fastReads, s.dataMode}; };
    for (int rc : {queueing(1), depth(256), fastRd(0), mode(6)}) EXPECT_EQ(rc, 0);
    EXPECT_EQ(state(), std::tuple(true, 256, true, 6));
    for (int rc : {depth(0), depth(257), mode(1), fastRd(2)}) EXPECT_EQ(rc, MQB_ERR_PARAM);
    EXPECT_EQ(m.ioctl(999, 0), MQB_ERR_IOCTL);

    // A working clone is what kiv's spawned threads run on (data-2.1 in tests/tcl).
    m.setCloneAllowed(false);
    MQB* c = nullptr;
    EXPECT_EQ(m.ioctl(MQB_IOCTL_CLONE, 1, &c), MQB_ERR_UNSUPPORTED);
    EXPECT_EQ(c, nullptr);
}

TEST_F(Sim, FaultRulesOfEveryKindWithTheirFilters) {
    Rule f = rule(Rule::Kind::Check, Rule::Op::Read, 500, 510);
    f.key = kKeyMedium, f.asc = kUnrecoveredRead.asc, f.ascq = 0x04, f.hasUec = true, f.uec = 0x1234, f.info = true;
    r.fault(f);
    EXPECT_EQ(roundTrip(m, record(kRead10, 490, 10)), 0) << "blocks 490-499 stay clear";
    EXPECT_EQ(roundTrip(m, record(kRead10, 511, 4)), 0);
    EXPECT_EQ(roundTrip(m, record(kWrite10, 500, 1)), 0) << "op filter";
    for (auto [lba, tl, info] : {std::tuple{490u, 11, 500}, {505u, 0, 505}}) {  // TL 0 is one block
        ASSERT_EQ(roundTrip(m, record(kRead10, lba, uint16_t(tl))), MQB_ERR_CHECK) << lba;
        Bytes want = fixedSense(kKeyMedium, kUnrecoveredRead.asc, 0x04, info);  // INFORMATION: first LBA in range
        want[20] = 0x12, want[21] = 0x34;
        EXPECT_EQ(lastSense(m), want);
    }
    Rule a = rule(Rule::Kind::Check, Rule::Op::Write);  // the rules pile up; each command below misses the others
    a.every = 3, a.count = 2;
    r.fault(a);
    r.fault(rule(Rule::Kind::Timeout, Rule::Op::Any, 0, 0));
    std::vector<int> got, want(12, MQB_ERR_TIMEOUT);
    for (int i = 0; i < 12; ++i) got.push_back(roundTrip(m, record(kWrite10, 0, 1)));
    want[2] = want[5] = MQB_ERR_CHECK;
    EXPECT_EQ(got, want) << "every 3rd write, twice; the first rule to fire wins, the rest fall through";
    Rule refuse = rule(Rule::Kind::Refuse, Rule::Op::Any, 7, 7);
    refuse.key = kKeyUnitAttention, refuse.asc = 0x29;  // power on or reset
    r.fault(refuse);
    EXPECT_EQ(senseOf(m, send(m, record(kRead10, 7, 1))), fixedSense(kKeyUnitAttention, 0x29))
        << "sense read through errInfo";
    EXPECT_EQ(m.outstanding(), 0) << "a refused command is not queued";
    r.fault(rule(Rule::Kind::Status, Rule::Op::Wrv, 0, UINT64_MAX, MQB_ERR_IO));
    EXPECT_EQ(roundTrip(m, record(kWriteVerify10, 3, 1)), MQB_ERR_IO);
}

TEST_F(Sim, TraceArrivalOrderAndLimit) {
    ASSERT_TRUE(mqb::traceStart(r.idx, 4));  // 15 and 16 come past the limit
    for (auto c : {record(kRead10, 1, 2, 11), record(kWrite10, 3, 4, 12), record(kInquiry, 0, 0, 13),
                   record(kVerify10, 999, 0, 14), record(kRead10, 5, 1, 15), record(kRead10, 6, 1, 16)})
        ASSERT_EQ(send(m, c), 0);
    while (m.receive() != MQB_ERR_NOTHING_OUT) {}
    std::vector<mqb::TraceEntry> t;
    ASSERT_TRUE(mqb::traceGet(r.idx, t));
    std::vector<std::tuple<int, uint64_t, uint32_t, uint32_t>> got;
    for (const auto& e : t) got.emplace_back(e.opcode, e.lba, e.tl, e.tag);
    EXPECT_EQ(got, (decltype(got){{kRead10, 1, 2, 11}, {kWrite10, 3, 4, 12}, {kInquiry, 0, 0, 13},
                                  {kVerify10, 999, 0, 14}}));
}

TEST_F(Sim, TwoThreadsHammerOneDeviceOnItsLockedFaultPath) {
    r.fault(rule(Rule::Kind::Check, Rule::Op::Any, 500, 509));
    std::atomic<int> checks{0}, failures{0};
    auto worker = [&](uint32_t base) {
        MQB ch("sim");
        ch.setDeviceIndex(r.idx);
        for (int i = 0; i < 20000; ++i) {  // depth 8: eight sends, then eight receives
            failures += send(ch, record(i % 2 ? kRead10 : kWrite10, (base + uint32_t(i) * 7) % 1000, 1)) != 0;
            for (int j = 0, rc; i % 8 == 7 && j < 8; ++j)
                rc = ch.receive(), (rc == MQB_ERR_CHECK ? checks : failures) += rc != 0;
        }
    };
    std::thread t1(worker, 0), t2(worker, 3);
    t1.join(), t2.join();
    const mqb::DeviceStats s = r.stats();
    EXPECT_TRUE(failures == 0 && checks > 0) << failures << " failures, " << checks << " checks";
    EXPECT_EQ(std::tuple(s.commands, s.reads + s.writes, s.errors), std::tuple(40000u, 40000u, uint64_t(checks)));
}

TEST_F(Sim, SendAndReceiveDoNotAllocate) {
    CDBStruct recs[4] = {record(kRead10, 1, 8), record(kWrite10, 2, 8), record(kRead10, 2000, 1),
                         record(kVerify10, 3, 1)};
    ASSERT_EQ(roundTrip(m, recs[0]), 0);  // the first command opens the channel's queue
    mqb::reset(r.idx);
    g_countAllocs = true;
    for (int i = 0; i < 1000; ++i) {
        for (CDBStruct& c : recs) m.send(reinterpret_cast<unsigned char*>(&c));
        for (int j = 0; j < 4; ++j) m.receive();
    }
    g_countAllocs = false;
    EXPECT_EQ(g_allocs.load(), 0);
    EXPECT_EQ(r.stats().errors, 1000u) << "the failing path was taken too";
}

TEST(SimStore, FullStoreFailsWritesLikeAThinDiskAndKeepsWhatItHas) {
    // 256-block chunks of 512 bytes: a 300 KiB cap holds two of them.
    Dev r("sim:blocks=4294967296,store=1,storemax=307200");
    Bytes a(512, 0xA1), b(512, 0xB2), in(512);
    EXPECT_EQ(roundTrip(*r.m, record(kWrite10, 10, 1, 0, &a)), 0);
    EXPECT_EQ(roundTrip(*r.m, record(kWrite10, 0xFFFFFF00, 1, 0, &b)), 0);
    EXPECT_EQ(senseOf(*r.m, roundTrip(*r.m, record(kWrite10, 300, 1, 0, &a))), sense(kKeyDataProtect, kSpaceAllocFailed, 300))
        << "a third chunk passes the cap";
    EXPECT_EQ(roundTrip(*r.m, record(kWrite10, 11, 1, 0, &b)), 0) << "an allocated chunk still takes writes";
    for (auto [lba, want] : {std::pair<uint32_t, Bytes*>{10, &a}, {0xFFFFFF00, &b}, {11, &b}}) {
        ASSERT_EQ(roundTrip(*r.m, record(kRead10, lba, 1, 0, &in)), 0);
        EXPECT_EQ(in, *want) << lba;
    }
}

// Two threads read two stored disks into one buffer at once, as the
// extension's loops do with their shared read buffer. ThreadSanitizer
// builds check that the copies are not a data race.
TEST(SimStore, ThreadsReadingIntoOneSharedBuffer) {
    Dev a("sim:blocks=1000,store=1"), b("sim:blocks=1000,store=1");
    Bytes fillA(8 * 512, 0x11), fillB(8 * 512, 0x22), shared(8 * 512 + 3);
    ASSERT_EQ(roundTrip(*a.m, record(kWrite10, 0, 8, 0, &fillA)), 0);
    ASSERT_EQ(roundTrip(*b.m, record(kWrite10, 0, 8, 0, &fillB)), 0);
    std::atomic<int> failures{0};
    auto reader = [&](Dev& r, int off) {
        CDBStruct c = record(kRead10, 0, 8, 0, &shared);
        c.readBuf = shared.data() + off, c.readLen = 8 * 512;  // unaligned for one of them
        for (int i = 0; i < 2000; ++i) failures += roundTrip(*r.m, c) != 0;
    };
    std::thread t1(reader, std::ref(a), 0), t2(reader, std::ref(b), 3);
    t1.join(), t2.join();
    EXPECT_EQ(failures.load(), 0);
    for (size_t i = 0; i < shared.size(); ++i) ASSERT_TRUE(shared[i] == 0x11 || shared[i] == 0x22) << i;
}

// The latency runs from the commit; a reap waits for the earliest due
// command, no longer than its time-out, and hands back at most `max`.
TEST(SimQueueLatency, DueFromCommitReapWaitsWithinItsTimeout) {
    mqb::SimConfig cfg;
    cfg.latencyUs = 30000;
    mqb::SimDisk disk(cfg);
    std::string why;
    std::unique_ptr<mqb::Queue> q = disk.openQueue(4, why);
    QCmd c(kRead10, 0, 1);
    mqb::Outcome out[5];
    for (uint64_t t = 0; t < 4; ++t) ASSERT_EQ(q->submit(c.c, &out[t], t), 0);
    EXPECT_EQ(q->submit(c.c, &out[4], 4), MQB_ERR_QUEUE_FULL);
    std::this_thread::sleep_for(milliseconds(40));  // not at the device yet
    const auto t0 = Clock::now();
    uint64_t tokens[4];
    EXPECT_EQ(q->reap(tokens, 1, 4, 5000000), 0) << "committed now, due in 30 ms";
    EXPECT_GE(Clock::now() - t0, milliseconds(5));
    ASSERT_EQ(q->reap(tokens, 1, 3, -1), 3);
    EXPECT_GE(Clock::now() - t0, milliseconds(29));
    EXPECT_EQ(std::vector<uint64_t>(tokens, tokens + 3), (std::vector<uint64_t>{0, 1, 2}));
    EXPECT_EQ(std::make_pair(q->reap(tokens, 0, 4, 0), tokens[0]), std::make_pair(1, uint64_t(3)));
    EXPECT_EQ(q->outstanding(), 0);
    EXPECT_EQ(q->reap(tokens, 1, 4, -1), 0) << "nothing held: no wait";
}

// A delayed command is held by the channel: later commands pass it. That it
// comes back good, after its delay, with its data, is data-3.2 in tests/tcl.
TEST_F(Sim, DelayFaultHoldsTheCompletionBackInTheChannel) {
    Rule d = rule(Rule::Kind::Delay, Rule::Op::Read, 5, 5);
    d.delayUs = 100000;  // far above scheduling noise: the bounds below are half of it
    r.fault(d);
    ASSERT_EQ(send(m, record(kRead10, 5, 1, 1)), 0);
    ASSERT_EQ(send(m, record(kRead10, 6, 1, 2)), 0);
    const auto t0 = Clock::now();
    ASSERT_EQ(m.receive(), 0);
    EXPECT_EQ(lastTag(m), 2) << "the undelayed command passes the held one";
    EXPECT_LT(Clock::now() - t0, milliseconds(50));
    ASSERT_EQ(m.receive(), 0);
    EXPECT_EQ(lastTag(m), 1);
    EXPECT_EQ(m.receive(), MQB_ERR_NOTHING_OUT);
}
