// mqb_sim_test.cpp: the device-access library driven through MQB channels on
// simulated disks: SBC answers, the completion queue, ioctls, counters,
// fault rules, the trace, concurrent channels and the allocation-free path.
#include <gtest/gtest.h>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <new>
#include <unistd.h>
#include <string>
#include <thread>
#include <vector>
#include "CDBStruct.h"
#include "DeviceTable.h"
#include "MQB.h"
#include "MQBErr.h"
#include "MQBManager.h"

// Counts allocations while g_countAllocs is set, to prove the command path
// allocates nothing.
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

constexpr uint8_t READ10 = 0x28, WRITE10 = 0x2A, WRV10 = 0x2E, VERIFY10 = 0x2F, RDCAP10 = 0x25;

CDBStruct makeRec(uint8_t op, uint32_t lba, uint16_t tl, uint32_t tag = 0) {
    CDBStruct r;
    std::memset(&r, 0, sizeof r);
    r.recLen = 112;
    r.one = 1;
    r.cdbLen = 10;
    r.cdb[0] = op;
    r.cdb[2] = uint8_t(lba >> 24);
    r.cdb[3] = uint8_t(lba >> 16);
    r.cdb[4] = uint8_t(lba >> 8);
    r.cdb[5] = uint8_t(lba);
    r.cdb[7] = uint8_t(tl >> 8);
    r.cdb[8] = uint8_t(tl);
    r.tag = tag;
    return r;
}

int sendRec(MQB& m, CDBStruct r) { return m.send(reinterpret_cast<unsigned char*>(&r)); }

// Sends one command and takes its completion; returns the completion status
// (or the send status when the send failed).
int roundTrip(MQB& m, CDBStruct r) {
    int rc = sendRec(m, r);
    return rc != 0 ? rc : m.receive();
}

std::vector<uint8_t> lastSense(MQB& m) {
    unsigned char buf[252];
    int size = 252, length = -1;
    EXPECT_EQ(m.errInfo(MQB_INFO_SENSE, 3, buf, &size, &length), 0);
    return std::vector<uint8_t>(buf, buf + (length > 0 ? length : 0));
}

// A fresh simulated device and a channel on it.
struct Rig {
    int idx = -1;
    std::unique_ptr<MQB> m;
    explicit Rig(const std::string& spec) {
        std::string err;
        idx = mqb::addDevice(spec, err);
        EXPECT_GE(idx, 0) << err;
        m = std::make_unique<MQB>("sim");
        EXPECT_EQ(m->setDeviceIndex(idx), 0);
    }
    mqb::DeviceStats stats() const {
        mqb::DeviceStats s;
        EXPECT_TRUE(mqb::stats(idx, s));
        return s;
    }
};

}  // namespace

TEST(SimSpec, DefaultsAndBadSpecs) {
    Rig r("sim");
    DeviceInfo info;
    ASSERT_EQ(r.m->getDeviceInfo(&info), 0);
    EXPECT_EQ(info.capacity, 2097151u);
    EXPECT_EQ(info.blockSize, 512u);
    EXPECT_EQ(info.index, r.idx);
    EXPECT_STREQ(info.backend, "sim");

    const struct { const char* spec; const char* err; } bad[] = {
        {"sim:foo=1", "unknown device spec key \"foo\""},
        {"sim:blocks=0", "bad value \"0\" for device spec key \"blocks\""},
        {"sim:blocks=12x", "bad value \"12x\" for device spec key \"blocks\""},
        {"sim:bs=-1", "bad value \"-1\" for device spec key \"bs\""},
        {"sim:lazybs=2", "bad value \"2\" for device spec key \"lazybs\""},
        {"sim:store", "device spec item \"store\" is not key=value"},
        {"disk", "unknown device type \"disk\""},
        {"", "empty device spec"},
    };
    const int before = mqb::deviceCount();
    for (const auto& b : bad) {
        std::string err;
        EXPECT_EQ(mqb::addDevice(b.spec, err), -1) << b.spec;
        EXPECT_EQ(err, b.err);
    }
    EXPECT_EQ(mqb::deviceCount(), before);

    mqb::DeviceSummary sum;
    Rig small("sim:blocks=1000,bs=4096,latency=0");
    ASSERT_TRUE(mqb::deviceSummary(small.idx, sum));
    EXPECT_EQ(sum.blocks, 999u);
    EXPECT_EQ(sum.blockSize, 4096u);
    EXPECT_EQ(sum.backend, "sim");
    EXPECT_EQ(sum.spec, "sim:blocks=1000,bs=4096,latency=0");
    EXPECT_FALSE(mqb::deviceSummary(-1, sum));
}

TEST(SimSbc, RangeChecksAtTheLastLba) {
    Rig r("sim:blocks=100");
    const std::vector<uint8_t> lbaOutOfRange = {0x70, 0, 0x05, 0, 0, 0, 0, 10, 0, 0,
                                                0, 0, 0x21, 0x00, 0, 0, 0, 0};
    for (uint8_t op : {READ10, WRITE10, WRV10, VERIFY10}) {
        SCOPED_TRACE(int(op));
        EXPECT_EQ(roundTrip(*r.m, makeRec(op, 99, 1)), 0);
        EXPECT_EQ(roundTrip(*r.m, makeRec(op, 0, 100)), 0);
        EXPECT_EQ(roundTrip(*r.m, makeRec(op, 99, 0)), 0);  // TL 0 on the disk: fine
        EXPECT_EQ(roundTrip(*r.m, makeRec(op, 99, 2)), MQB_ERR_CHECK);
        EXPECT_EQ(lastSense(*r.m), lbaOutOfRange);
        EXPECT_EQ(roundTrip(*r.m, makeRec(op, 100, 0)), MQB_ERR_CHECK);  // past the end
        EXPECT_EQ(lastSense(*r.m), lbaOutOfRange);
        EXPECT_EQ(roundTrip(*r.m, makeRec(op, 0xFFFFFFFF, 0xFFFF)), MQB_ERR_CHECK);
    }
    // A good completion clears the sense of the failed one before it.
    EXPECT_EQ(roundTrip(*r.m, makeRec(READ10, 0, 1)), 0);
    EXPECT_TRUE(lastSense(*r.m).empty());

    EXPECT_EQ(roundTrip(*r.m, makeRec(0x12, 0, 0)), MQB_ERR_CHECK);
    std::vector<uint8_t> s = lastSense(*r.m);
    ASSERT_EQ(s.size(), 18u);
    EXPECT_EQ(s[2], 0x05);
    EXPECT_EQ(s[12], 0x20);
    EXPECT_EQ(s[13], 0x00);
}

TEST(SimSbc, ReadCapacityAndLazyBlockSize) {
    Rig r("sim:blocks=1000,bs=4096,lazybs=1");
    DeviceInfo info;
    ASSERT_EQ(r.m->getDeviceInfo(&info), 0);
    EXPECT_EQ(info.capacity, 999u);
    EXPECT_EQ(info.blockSize, 0u);

    uint8_t cap[16];
    std::memset(cap, 0xEE, sizeof cap);
    CDBStruct rc = makeRec(RDCAP10, 0, 0);
    rc.readBuf = cap;
    rc.readLen = 8;
    ASSERT_EQ(sendRec(*r.m, rc), 0);
    ASSERT_EQ(r.m->getDeviceInfo(&info), 0);
    EXPECT_EQ(info.blockSize, 0u) << "known only once the command has completed";
    ASSERT_EQ(r.m->receive(), 0);
    const uint8_t want[9] = {0x00, 0x00, 0x03, 0xE7, 0x00, 0x00, 0x10, 0x00, 0xEE};
    EXPECT_EQ(0, std::memcmp(cap, want, 9));
    ASSERT_EQ(r.m->getDeviceInfo(&info), 0);
    EXPECT_EQ(info.blockSize, 4096u);

    Rig zero("sim:bs=0");
    ASSERT_EQ(roundTrip(*zero.m, rc), 0);
    ASSERT_EQ(zero.m->getDeviceInfo(&info), 0);
    EXPECT_EQ(info.blockSize, 0u);
    EXPECT_EQ(cap[7], 0x00);

    MQB none("sim");
    EXPECT_EQ(none.getDeviceInfo(&info), MQB_ERR_NO_DEVICE);
    EXPECT_EQ(info.capacity, 0u);
    EXPECT_EQ(info.index, -1);
}

TEST(SimStore, WrittenDataReadsBackAcrossChunks) {
    Rig r("sim:blocks=4096,bs=512,store=1");
    std::vector<uint8_t> out(20 * 512), in(24 * 512, 0xEE);
    for (size_t i = 0; i < out.size(); ++i) out[i] = uint8_t(i * 7 + 1);
    CDBStruct w = makeRec(WRITE10, 250, 20);  // spans a chunk boundary
    w.writeBuf = out.data();
    w.writeLen = out.size();
    ASSERT_EQ(roundTrip(*r.m, w), 0);
    CDBStruct rd = makeRec(READ10, 248, 24);
    rd.readBuf = in.data();
    rd.readLen = in.size();
    ASSERT_EQ(roundTrip(*r.m, rd), 0);
    for (size_t i = 0; i < 2 * 512; ++i) ASSERT_EQ(in[i], 0) << i;
    EXPECT_EQ(0, std::memcmp(in.data() + 2 * 512, out.data(), out.size()));
    for (size_t i = 22 * 512; i < in.size(); ++i) ASSERT_EQ(in[i], 0) << i;

    // Without a store a read leaves the buffer alone.
    Rig plain("sim:blocks=4096");
    std::fill(in.begin(), in.end(), 0xAB);
    ASSERT_EQ(roundTrip(*plain.m, rd), 0);
    EXPECT_EQ(in[0], 0xAB);
    EXPECT_EQ(in.back(), 0xAB);
}

TEST(MQBQueue, CompletionsComeBackByFinishingTime) {
    Rig slow("sim:blocks=100,latency=40000");
    Rig fast("sim:blocks=100,latency=1000");
    MQB& m = *slow.m;
    ASSERT_EQ(sendRec(m, makeRec(READ10, 1, 1, 1)), 0);
    ASSERT_EQ(m.setDeviceIndex(fast.idx), 0);
    ASSERT_EQ(sendRec(m, makeRec(READ10, 2, 1, 2)), 0);
    ASSERT_EQ(sendRec(m, makeRec(READ10, 3, 1, 3)), 0);
    EXPECT_EQ(m.outstanding(), 3);
    std::vector<int> order;
    const auto t0 = std::chrono::steady_clock::now();
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(m.receive(), 0);
        int tag = -1;
        ASSERT_EQ(m.receiveInfo(MQB_INFO_TAG, 1, &tag), 0);
        order.push_back(tag);
    }
    const auto waited = std::chrono::steady_clock::now() - t0;
    EXPECT_EQ(order, (std::vector<int>{2, 3, 1}));
    EXPECT_GE(waited, std::chrono::microseconds(30000)) << "receive waits for the latency";

    // Zero latency: arrival order.
    Rig now("sim:blocks=100");
    for (int t = 10; t < 15; ++t) ASSERT_EQ(sendRec(*now.m, makeRec(READ10, 0, 1, t)), 0);
    for (int t = 10; t < 15; ++t) {
        ASSERT_EQ(now.m->receive(), 0);
        int tag = -1;
        now.m->receiveInfo(MQB_INFO_TAG, 1, &tag);
        EXPECT_EQ(tag, t);
    }
}

TEST(MQBQueue, TagAndCdbReadBack) {
    Rig r("sim:blocks=100");
    MQB& m = *r.m;
    int tag = 0;
    unsigned char cdb[16] = {};
    int len = 16;
    EXPECT_EQ(m.receiveInfo(MQB_INFO_TAG, 1, &tag), MQB_ERR_NOTHING_OUT);
    EXPECT_EQ(m.receive(), MQB_ERR_NOTHING_OUT);

    CDBStruct a = makeRec(WRITE10, 0x01020304 % 100, 7, 0xDEADBEEF);
    ASSERT_EQ(sendRec(m, a), 0);
    ASSERT_EQ(m.receive(), 0);
    ASSERT_EQ(m.receiveInfo(MQB_INFO_TAG, 1, &tag), 0);
    EXPECT_EQ(uint32_t(tag), 0xDEADBEEFu);
    ASSERT_EQ(m.receiveInfo(MQB_INFO_CDB, 2, cdb, &len), 0);
    EXPECT_EQ(len, 10);
    EXPECT_EQ(0, std::memcmp(cdb, a.cdb, 10));

    unsigned char small[4] = {};
    len = 3;
    ASSERT_EQ(m.receiveInfo(MQB_INFO_CDB, 2, small, &len), 0);
    EXPECT_EQ(len, 3);
    EXPECT_EQ(small[0], WRITE10);
    EXPECT_EQ(small[3], 0);

    EXPECT_EQ(m.receiveInfo(201, 1, &tag), MQB_ERR_PARAM);
    EXPECT_EQ(m.receiveInfo(MQB_INFO_TAG, 2, &tag), MQB_ERR_PARAM);
    int size = 10, length = 0;
    EXPECT_EQ(m.errInfo(101, 3, cdb, &size, &length), MQB_ERR_PARAM);
    EXPECT_EQ(m.receive(), MQB_ERR_NOTHING_OUT);
}

TEST(MQBQueue, FullAtCapacityAndBadRecords) {
    Rig r("sim:blocks=100");
    MQB& m = *r.m;
    for (int i = 0; i < 256; ++i) ASSERT_EQ(sendRec(m, makeRec(READ10, 0, 1, i)), 0) << i;
    EXPECT_EQ(sendRec(m, makeRec(READ10, 0, 1, 999)), MQB_ERR_QUEUE_FULL);
    ASSERT_EQ(m.receive(), 0);
    EXPECT_EQ(sendRec(m, makeRec(READ10, 0, 1, 256)), 0);
    for (int i = 1; i <= 256; ++i) {
        ASSERT_EQ(m.receive(), 0);
        int tag = -1;
        m.receiveInfo(MQB_INFO_TAG, 1, &tag);
        ASSERT_EQ(tag, i) << "ring keeps arrival order across the wrap";
    }
    EXPECT_EQ(m.outstanding(), 0);
    EXPECT_EQ(r.stats().commands, 257u) << "a send refused for a full queue never reached the device";

    CDBStruct bad = makeRec(READ10, 0, 1);
    bad.recLen = 100;
    EXPECT_EQ(sendRec(m, bad), MQB_ERR_RECORD);
    EXPECT_EQ(m.send(nullptr), MQB_ERR_PARAM);
    MQB none("sim");
    EXPECT_EQ(sendRec(none, makeRec(READ10, 0, 1)), MQB_ERR_NO_DEVICE);

    EXPECT_FALSE(m.isLocked(r.idx));
    EXPECT_TRUE(m.isLocked(-1));
    EXPECT_TRUE(m.isLocked(mqb::deviceCount()));
    ASSERT_TRUE(mqb::setLocked(r.idx, true));
    EXPECT_TRUE(m.isLocked(r.idx));
    EXPECT_EQ(sendRec(m, makeRec(READ10, 0, 1)), MQB_ERR_LOCKED);
    mqb::setLocked(r.idx, false);
}

TEST(MQBDevice, CountersAndPeakOutstanding) {
    Rig r("sim:blocks=100");
    MQB& m = *r.m;
    ASSERT_EQ(roundTrip(m, makeRec(READ10, 0, 8)), 0);
    ASSERT_EQ(roundTrip(m, makeRec(READ10, 10, 2)), 0);
    ASSERT_EQ(roundTrip(m, makeRec(WRITE10, 0, 5)), 0);
    ASSERT_EQ(roundTrip(m, makeRec(WRV10, 0, 3)), 0);
    ASSERT_EQ(roundTrip(m, makeRec(VERIFY10, 0, 50)), 0);
    ASSERT_EQ(roundTrip(m, makeRec(RDCAP10, 0, 0)), 0);
    ASSERT_EQ(roundTrip(m, makeRec(READ10, 99, 4)), MQB_ERR_CHECK);
    mqb::DeviceStats s = r.stats();
    EXPECT_EQ(s.commands, 7u);
    EXPECT_EQ(s.reads, 3u);
    EXPECT_EQ(s.writes, 1u);
    EXPECT_EQ(s.wrvs, 1u);
    EXPECT_EQ(s.verifies, 1u);
    EXPECT_EQ(s.other, 1u);
    EXPECT_EQ(s.blocksRead, 14u);
    EXPECT_EQ(s.blocksWritten, 8u);
    EXPECT_EQ(s.errors, 1u);
    EXPECT_EQ(s.maxOutstanding, 1u);

    // Depth 5 held over many rounds peaks at exactly 5, and two channels add up.
    for (int round = 0; round < 10; ++round) {
        for (int i = 0; i < 5; ++i) ASSERT_EQ(sendRec(m, makeRec(READ10, 0, 1)), 0);
        for (int i = 0; i < 5; ++i) ASSERT_EQ(m.receive(), 0);
    }
    EXPECT_EQ(r.stats().maxOutstanding, 5u);
    MQB other("sim");
    other.setDeviceIndex(r.idx);
    for (int i = 0; i < 4; ++i) sendRec(m, makeRec(READ10, 0, 1));
    for (int i = 0; i < 3; ++i) sendRec(other, makeRec(READ10, 0, 1));
    EXPECT_EQ(r.stats().maxOutstanding, 7u);
    while (m.receive() == 0) {}
    while (other.receive() == 0) {}

    ASSERT_TRUE(mqb::reset(r.idx));
    s = r.stats();
    EXPECT_EQ(s.commands, 0u);
    EXPECT_EQ(s.blocksRead, 0u);
    EXPECT_EQ(s.maxOutstanding, 0u);
}

TEST(MQBIoctl, DeviceStatesAndBadArguments) {
    Rig r("sim:blocks=100");
    MQB& m = *r.m;
    int enable = 1, arg = 0, depth = 32, mode = 6;
    unsigned char fast = 0, flag = 0;
    EXPECT_EQ(m.ioctl(MQB_IOCTL_QUEUEING, 2, &enable, &arg), 0);
    EXPECT_EQ(m.ioctl(MQB_IOCTL_MAX_DEPTH, 1, &depth), 0);
    EXPECT_EQ(m.ioctl(MQB_IOCTL_FAST_READS, 1, &fast), 0);
    EXPECT_EQ(m.ioctl(MQB_IOCTL_DATA_MODE, 3, &mode, &arg, &flag), 0);
    mqb::DeviceStats s = r.stats();
    EXPECT_TRUE(s.queueing);
    EXPECT_EQ(s.maxQueueDepth, 32);
    EXPECT_TRUE(s.fastReads);
    EXPECT_EQ(s.dataMode, 6);

    enable = 0;
    fast = 1;
    mode = 0;
    EXPECT_EQ(m.ioctl(MQB_IOCTL_QUEUEING, 2, &enable, &arg), 0);
    EXPECT_EQ(m.ioctl(MQB_IOCTL_FAST_READS, 1, &fast), 0);
    EXPECT_EQ(m.ioctl(MQB_IOCTL_DATA_MODE, 3, &mode, &arg, &flag), 0);
    s = r.stats();
    EXPECT_FALSE(s.queueing);
    EXPECT_FALSE(s.fastReads);
    EXPECT_EQ(s.dataMode, 0);

    for (int d : {0, 257, -1}) {
        depth = d;
        EXPECT_EQ(m.ioctl(MQB_IOCTL_MAX_DEPTH, 1, &depth), MQB_ERR_PARAM) << d;
    }
    depth = 256;
    EXPECT_EQ(m.ioctl(MQB_IOCTL_MAX_DEPTH, 1, &depth), 0);
    for (int md : {1, 5, 12}) {
        mode = md;
        EXPECT_EQ(m.ioctl(MQB_IOCTL_DATA_MODE, 3, &mode, &arg, &flag), MQB_ERR_PARAM) << md;
    }
    fast = 2;
    EXPECT_EQ(m.ioctl(MQB_IOCTL_FAST_READS, 1, &fast), MQB_ERR_PARAM);
    EXPECT_EQ(m.ioctl(MQB_IOCTL_QUEUEING, 1, &enable), MQB_ERR_PARAM);
    EXPECT_EQ(m.ioctl(999, 0), MQB_ERR_IOCTL);
    EXPECT_EQ(m.ioctl(105, 1, &depth), MQB_ERR_IOCTL);
    s = r.stats();
    EXPECT_EQ(s.maxQueueDepth, 256);
    EXPECT_EQ(s.dataMode, 0);

    MQB none("sim");
    enable = 1;
    EXPECT_EQ(none.ioctl(MQB_IOCTL_QUEUEING, 2, &enable, &arg), MQB_ERR_NO_DEVICE);
}

TEST(MQBIoctl, CloneAndItsRefusal) {
    Rig r("sim:blocks=100");
    r.m->setDriver("sgx");
    MQB* c = nullptr;
    ASSERT_EQ(r.m->ioctl(MQB_IOCTL_CLONE, 1, &c), 0);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->driver(), "sgx");
    EXPECT_EQ(c->getCurrentDeviceIndex(), r.idx);
    EXPECT_EQ(c->outstanding(), 0);
    EXPECT_EQ(roundTrip(*c, makeRec(READ10, 0, 1)), 0) << "the clone has its own queue";
    ASSERT_EQ(sendRec(*c, makeRec(READ10, 0, 1)), 0);
    deleteMQB(c);  // drops its command in flight
    ASSERT_EQ(sendRec(*r.m, makeRec(READ10, 0, 1)), 0);
    ASSERT_EQ(r.m->receive(), 0);
    EXPECT_EQ(r.stats().maxOutstanding, 1u);

    r.m->setCloneAllowed(false);
    MQB* none = nullptr;
    EXPECT_LT(r.m->ioctl(MQB_IOCTL_CLONE, 1, &none), 0);
    EXPECT_EQ(none, nullptr);
}

TEST(MQBChannel, InfoStringCreateAndManager) {
    Rig r("sim:blocks=100");
    char buf[90];
    int n = r.m->infoString(buf, sizeof buf);
    const std::string want = "sim:MQB channel, device " + std::to_string(r.idx) + " of " +
                             std::to_string(mqb::deviceCount());
    EXPECT_EQ(std::string(buf), want);
    EXPECT_EQ(n, int(want.size()));
    std::memset(buf, 'x', sizeof buf);
    EXPECT_EQ(r.m->infoString(buf, 5), 4);
    EXPECT_STREQ(buf, "sim:");
    EXPECT_EQ(buf[5], 'x');

    EXPECT_EQ(createMQB(nullptr, 0, 0, 0), nullptr);
    EXPECT_EQ(createMQB("", 0, 0, 0), nullptr);
    MQB* m = createMQB("anything", 0, 0, 0);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(m->driver(), "anything");
    EXPECT_EQ(m->getCurrentDeviceIndex(), -1);
    EXPECT_EQ(m->setDeviceIndex(mqb::deviceCount()), MQB_ERR_DEV_RANGE);
    EXPECT_EQ(m->setDeviceIndex(r.idx), 0);
    EXPECT_EQ(m->deviceCount(), mqb::deviceCount());
    deleteMQB(m);

    MQBManager mgr;
    EXPECT_EQ(mgr.getCurrentMQB(), nullptr);
    mgr.setCurrentMQB(std::make_unique<MQB>("sim"));
    EXPECT_NE(mgr.getCurrentMQB(), nullptr);
    EXPECT_EQ(mgr.getSendBufferIndex(), 0);
    EXPECT_EQ(mgr.getRecvBufferIndex(), 0);
    EXPECT_EQ(mgr.addBuffer(4096, 0x5A), 0);
    EXPECT_EQ(mgr.addBuffer(10, 0), 1);
    EXPECT_EQ(mgr.getBufferCount(), 2u);
    unsigned long size = 0;
    EXPECT_EQ(mgr.getBufferSize(0, size), 0);
    EXPECT_EQ(size, 4096u);
    EXPECT_LT(mgr.getBufferSize(2, size), 0);
    ASSERT_NE(mgr.getBufferDataPtr(0), nullptr);
    EXPECT_EQ(mgr.getBufferDataPtr(0)[4095], 0x5A);
    EXPECT_EQ(mgr.getBufferDataPtr(2), nullptr);
    mgr.setCurrentMQB(nullptr);
    EXPECT_EQ(mgr.getCurrentMQB(), nullptr);
}

TEST(FaultCheck, SenseBytesWithUecAndInformation) {
    Rig r("sim:blocks=1000");
    mqb::FaultRule rule;
    rule.op = mqb::FaultRule::Op::Read;
    rule.lbaLo = 500;
    rule.lbaHi = 510;
    rule.key = 0x03;
    rule.asc = 0x11;
    rule.ascq = 0x04;
    rule.hasUec = true;
    rule.uec = 0x1234;
    rule.info = true;
    std::string err;
    ASSERT_EQ(mqb::addFault(r.idx, rule, err), 1) << err;

    EXPECT_EQ(roundTrip(*r.m, makeRec(READ10, 490, 10)), 0) << "blocks 490-499 stay clear";
    EXPECT_EQ(roundTrip(*r.m, makeRec(READ10, 511, 4)), 0);
    EXPECT_EQ(roundTrip(*r.m, makeRec(WRITE10, 500, 1)), 0) << "op filter";
    ASSERT_EQ(roundTrip(*r.m, makeRec(READ10, 490, 11)), MQB_ERR_CHECK);
    std::vector<uint8_t> want(32, 0);
    want[0] = 0xF0;
    want[2] = 0x03;
    want[3] = 0; want[4] = 0; want[5] = 0x01; want[6] = 0xF4;  // INFORMATION = 500
    want[7] = 24;
    want[12] = 0x11;
    want[13] = 0x04;
    want[20] = 0x12;
    want[21] = 0x34;
    EXPECT_EQ(lastSense(*r.m), want);

    ASSERT_EQ(roundTrip(*r.m, makeRec(READ10, 505, 0)), MQB_ERR_CHECK) << "TL 0 covers one block";
    want[5] = 0x01; want[6] = 0xF9;  // INFORMATION = 505, the command's own first LBA
    EXPECT_EQ(lastSense(*r.m), want);

    // Without the UEC and INFORMATION: 18 bytes, VALID clear.
    mqb::clearFaults(r.idx);
    rule.hasUec = false;
    rule.info = false;
    rule.op = mqb::FaultRule::Op::Any;
    ASSERT_EQ(mqb::addFault(r.idx, rule, err), 2);
    ASSERT_EQ(roundTrip(*r.m, makeRec(VERIFY10, 510, 1)), MQB_ERR_CHECK);
    const std::vector<uint8_t> shortSense = {0x70, 0, 0x03, 0, 0, 0, 0, 10, 0, 0,
                                             0, 0, 0x11, 0x04, 0, 0, 0, 0};
    EXPECT_EQ(lastSense(*r.m), shortSense);
    EXPECT_EQ(roundTrip(*r.m, makeRec(RDCAP10, 0, 0)), 0) << "Any covers data commands only";
    EXPECT_EQ(r.stats().errors, 3u);
}

TEST(FaultCheck, EveryCountAndFirstRuleWins) {
    Rig r("sim:blocks=1000");
    mqb::FaultRule a;
    a.every = 3;
    a.count = 2;
    a.asc = 0x0C;
    mqb::FaultRule b;  // matches everything; only reached when `a` does not fire
    b.lbaLo = 0;
    b.lbaHi = 0;
    b.kind = mqb::FaultRule::Kind::Timeout;
    std::string err;
    ASSERT_EQ(mqb::addFault(r.idx, a, err), 1);
    ASSERT_EQ(mqb::addFault(r.idx, b, err), 2);

    std::vector<int> results;
    for (int i = 0; i < 12; ++i) results.push_back(roundTrip(*r.m, makeRec(WRITE10, 5, 1)));
    std::vector<int> want(12, 0);
    want[2] = want[5] = MQB_ERR_CHECK;
    EXPECT_EQ(results, want);
    EXPECT_EQ(roundTrip(*r.m, makeRec(READ10, 0, 1)), MQB_ERR_TIMEOUT) << "lba 0 reaches rule b";
    EXPECT_TRUE(lastSense(*r.m).empty()) << "a time-out carries no sense";

    std::vector<mqb::FaultRule> rules;
    ASSERT_TRUE(mqb::listFaults(r.idx, rules));
    ASSERT_EQ(rules.size(), 2u);
    EXPECT_EQ(rules[0].matches, 13u);
    EXPECT_EQ(rules[0].fired, 2u);
    EXPECT_EQ(rules[1].matches, 1u);
    EXPECT_EQ(rules[1].fired, 1u);

    mqb::FaultRule bad;
    bad.every = 0;
    EXPECT_EQ(mqb::addFault(r.idx, bad, err), -1);
    bad.every = 1;
    bad.lbaLo = 10;
    bad.lbaHi = 9;
    EXPECT_EQ(mqb::addFault(r.idx, bad, err), -1);
    bad.lbaHi = 10;
    bad.kind = mqb::FaultRule::Kind::Status;
    bad.status = 5;
    EXPECT_EQ(mqb::addFault(r.idx, bad, err), -1);
    EXPECT_EQ(mqb::addFault(-1, a, err), -1);
    EXPECT_FALSE(err.empty());
}

TEST(FaultRefuse, SendFailsWithSenseAndNothingQueued) {
    Rig r("sim:blocks=1000");
    mqb::FaultRule rule;
    rule.kind = mqb::FaultRule::Kind::Refuse;
    rule.key = 0x06;
    rule.asc = 0x29;
    rule.lbaLo = 7;
    rule.lbaHi = 7;
    rule.count = 1;
    std::string err;
    ASSERT_GT(mqb::addFault(r.idx, rule, err), 0);
    ASSERT_EQ(sendRec(*r.m, makeRec(READ10, 0, 1, 1)), 0);
    EXPECT_EQ(sendRec(*r.m, makeRec(READ10, 7, 1, 2)), MQB_ERR_CHECK);
    std::vector<uint8_t> s = lastSense(*r.m);
    ASSERT_EQ(s.size(), 18u);
    EXPECT_EQ(s[2], 0x06);
    EXPECT_EQ(s[12], 0x29);
    EXPECT_EQ(r.m->outstanding(), 1);
    EXPECT_EQ(sendRec(*r.m, makeRec(READ10, 7, 1, 3)), 0) << "count 1 is spent";
    mqb::DeviceStats st = r.stats();
    EXPECT_EQ(st.commands, 3u);
    EXPECT_EQ(st.errors, 1u);
    EXPECT_EQ(st.maxOutstanding, 2u);
    EXPECT_EQ(r.m->receive(), 0);
    EXPECT_EQ(r.m->receive(), 0);

    mqb::FaultRule status;
    status.kind = mqb::FaultRule::Kind::Status;
    status.status = MQB_ERR_IO;
    status.op = mqb::FaultRule::Op::Wrv;
    ASSERT_GT(mqb::addFault(r.idx, status, err), 0);
    EXPECT_EQ(roundTrip(*r.m, makeRec(WRITE10, 3, 1)), 0);
    EXPECT_EQ(roundTrip(*r.m, makeRec(WRV10, 3, 1)), MQB_ERR_IO);
    EXPECT_TRUE(lastSense(*r.m).empty());
}

TEST(SimTrace, ArrivalOrderLimitStopAndReset) {
    Rig r("sim:blocks=1000");
    ASSERT_TRUE(mqb::traceStart(r.idx, 4));
    ASSERT_EQ(sendRec(*r.m, makeRec(READ10, 1, 2, 11)), 0);
    ASSERT_EQ(sendRec(*r.m, makeRec(WRITE10, 3, 4, 12)), 0);
    ASSERT_EQ(r.m->receive(), 0);
    ASSERT_EQ(r.m->receive(), 0);
    ASSERT_EQ(roundTrip(*r.m, makeRec(0x12, 0, 0, 13)), MQB_ERR_CHECK);
    ASSERT_EQ(roundTrip(*r.m, makeRec(VERIFY10, 999, 0, 14)), 0);
    ASSERT_EQ(roundTrip(*r.m, makeRec(READ10, 5, 5, 15)), 0);  // past the limit
    std::vector<mqb::TraceEntry> t;
    ASSERT_TRUE(mqb::traceGet(r.idx, t));
    ASSERT_EQ(t.size(), 4u);
    const uint8_t ops[] = {READ10, WRITE10, 0x12, VERIFY10};
    const uint64_t lbas[] = {1, 3, 0, 999};
    const uint32_t tls[] = {2, 4, 0, 0};
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(t[i].opcode, ops[i]);
        EXPECT_EQ(t[i].lba, lbas[i]);
        EXPECT_EQ(t[i].tl, tls[i]);
        EXPECT_EQ(t[i].tag, uint32_t(11 + i));
    }

    ASSERT_TRUE(mqb::traceClear(r.idx));
    ASSERT_EQ(roundTrip(*r.m, makeRec(READ10, 6, 1, 16)), 0);
    ASSERT_TRUE(mqb::traceStop(r.idx));
    ASSERT_EQ(roundTrip(*r.m, makeRec(READ10, 7, 1, 17)), 0);
    ASSERT_TRUE(mqb::traceGet(r.idx, t));
    ASSERT_EQ(t.size(), 1u);
    EXPECT_EQ(t[0].tag, 16u);

    mqb::FaultRule rule;
    std::string err;
    mqb::addFault(r.idx, rule, err);
    mqb::traceStart(r.idx, 0);
    ASSERT_TRUE(mqb::reset(r.idx));
    EXPECT_EQ(roundTrip(*r.m, makeRec(READ10, 8, 1)), 0) << "reset drops the fault rules";
    std::vector<mqb::FaultRule> rules;
    mqb::listFaults(r.idx, rules);
    EXPECT_TRUE(rules.empty());
    mqb::traceGet(r.idx, t);
    EXPECT_TRUE(t.empty());
    EXPECT_FALSE(mqb::traceStart(mqb::deviceCount(), 1));
}

TEST(MQBFile, CommandsReachTheFile) {
    char path[] = "/tmp/mqb_file_test_XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, 64 * 512 + 100), 0);  // the partial block is not addressable
    Rig r(std::string("file:") + path);
    DeviceInfo info;
    ASSERT_EQ(r.m->getDeviceInfo(&info), 0);
    EXPECT_EQ(info.capacity, 63u);
    EXPECT_EQ(info.blockSize, 512u);
    EXPECT_STREQ(info.backend, "file");

    std::vector<uint8_t> out(3 * 512), in(3 * 512, 0xEE), disk(3 * 512);
    for (size_t i = 0; i < out.size(); ++i) out[i] = uint8_t(i ^ 0x5C);
    CDBStruct w = makeRec(WRITE10, 61, 3);
    w.writeBuf = out.data();
    w.writeLen = out.size();
    ASSERT_EQ(roundTrip(*r.m, w), 0);
    ASSERT_EQ(pread(fd, disk.data(), disk.size(), 61 * 512), ssize_t(disk.size()));
    EXPECT_EQ(disk, out);
    CDBStruct rd = makeRec(READ10, 61, 3);
    rd.readBuf = in.data();
    rd.readLen = in.size();
    ASSERT_EQ(roundTrip(*r.m, rd), 0);
    EXPECT_EQ(in, out);
    EXPECT_EQ(roundTrip(*r.m, makeRec(VERIFY10, 0, 64)), 0);
    EXPECT_EQ(roundTrip(*r.m, makeRec(READ10, 62, 3)), MQB_ERR_CHECK);
    EXPECT_EQ(lastSense(*r.m)[12], 0x21);

    uint8_t cap[8];
    CDBStruct rc = makeRec(RDCAP10, 0, 0);
    rc.readBuf = cap;
    rc.readLen = 8;
    ASSERT_EQ(roundTrip(*r.m, rc), 0);
    const uint8_t want[8] = {0, 0, 0, 63, 0, 0, 2, 0};
    EXPECT_EQ(0, std::memcmp(cap, want, 8));
    close(fd);
    unlink(path);

    std::string err;
    EXPECT_EQ(mqb::addDevice(std::string("file:") + path, err), -1) << "the file is gone";
    EXPECT_NE(err.find("cannot open"), std::string::npos) << err;
    EXPECT_EQ(mqb::addDevice("file:", err), -1);
    EXPECT_EQ(mqb::addDevice("file:/dev/null", err), -1);
    EXPECT_EQ(err, "\"/dev/null\" is smaller than one block");
}

// Two channels in two threads drive one device with a fault rule and a trace
// active, so the locked path and the counters are exercised concurrently.
TEST(MQBThreads, TwoChannelsHammerOneDevice) {
    Rig r("sim:blocks=100000");
    mqb::FaultRule rule;
    rule.lbaLo = 50000;
    rule.lbaHi = 50000;
    std::string err;
    ASSERT_GT(mqb::addFault(r.idx, rule, err), 0);
    ASSERT_TRUE(mqb::traceStart(r.idx, 1000));
    constexpr int kPerThread = 20000, kDepth = 8;
    std::atomic<int> checks{0}, failures{0};
    auto worker = [&](uint32_t base) {
        MQB m("sim");
        m.setDeviceIndex(r.idx);
        for (int i = 0; i < kPerThread; i += kDepth) {
            for (int j = 0; j < kDepth; ++j) {
                const uint32_t lba = (base + uint32_t(i + j) * 7) % 100000;
                if (sendRec(m, makeRec(j % 2 ? READ10 : WRITE10, lba, 1, uint32_t(i + j))) != 0)
                    failures++;
            }
            for (int j = 0; j < kDepth; ++j) {
                const int rc = m.receive();
                if (rc == MQB_ERR_CHECK) checks++;
                else if (rc != 0) failures++;
            }
        }
    };
    std::thread t1(worker, 0), t2(worker, 3);
    t1.join();
    t2.join();
    EXPECT_EQ(failures.load(), 0);
    mqb::DeviceStats s = r.stats();
    EXPECT_EQ(s.commands, uint64_t(2 * kPerThread));
    EXPECT_EQ(s.reads + s.writes, uint64_t(2 * kPerThread));
    EXPECT_EQ(s.errors, uint64_t(checks.load()));
    EXPECT_GE(s.maxOutstanding, uint64_t(kDepth));
    EXPECT_LE(s.maxOutstanding, uint64_t(2 * kDepth));
    std::vector<mqb::TraceEntry> t;
    mqb::traceGet(r.idx, t);
    EXPECT_EQ(t.size(), 1000u);
}

TEST(MQBFastPath, SendAndReceiveDoNotAllocate) {
    Rig r("sim:blocks=1000");
    CDBStruct recs[4] = {makeRec(READ10, 1, 8), makeRec(WRITE10, 2, 8), makeRec(READ10, 2000, 1),
                         makeRec(VERIFY10, 3, 1)};
    g_allocs = 0;
    g_countAllocs = true;
    int bad = 0;
    for (int i = 0; i < 1000; ++i) {
        for (CDBStruct& c : recs) bad += r.m->send(reinterpret_cast<unsigned char*>(&c)) != 0;
        for (int j = 0; j < 4; ++j) r.m->receive();
    }
    g_countAllocs = false;
    EXPECT_EQ(bad, 0);
    EXPECT_EQ(g_allocs.load(), 0);
    EXPECT_EQ(r.stats().errors, 1000u);
}
