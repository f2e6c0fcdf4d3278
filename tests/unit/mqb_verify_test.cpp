// mqb_verify_test.cpp: keyed-block verification through a channel on a file
// device (damage made behind the library's back with pwrite), the race rules
// of the write tracker, and the journal file.
#include <gtest/gtest.h>
#include <unistd.h>
#include <chrono>
#include <cstring>
#include <memory>
#include <functional>
#include "CDBStruct.h"
#include "DataControl.h"
#include "DeviceTable.h"
#include "MQB.h"
#include "MQBErr.h"
#include "verify/WriteJournal.h"
#include "verify/WriteTracker.h"

namespace {
using Bytes = std::vector<uint8_t>;
constexpr uint8_t READ10 = 0x28, WRITE10 = 0x2A, WRV10 = 0x2E, VERIFY10 = 0x2F;
constexpr int kBlocks = 1024, kBs = 512;

int roundTrip(MQB& m, uint8_t op, uint32_t lba, uint16_t tl, Bytes* buf = nullptr) {
    CDBStruct r;
    std::memset(&r, 0, sizeof r);
    r.recLen = 112, r.one = 1, r.cdbLen = 10, r.cdb[0] = op, r.cdb[7] = uint8_t(tl >> 8), r.cdb[8] = uint8_t(tl);
    for (int i = 0; i < 4; ++i) r.cdb[2 + i] = uint8_t(lba >> (24 - 8 * i));
    if (buf && op != READ10) r.writeBuf = buf->data(), r.writeLen = buf->size();
    else if (buf) r.readBuf = buf->data(), r.readLen = buf->size();
    const int rc = m.send(reinterpret_cast<unsigned char*>(&r));
    return rc ? rc : m.receive();
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
        CDBStruct r;
        std::memset(&r, 0, sizeof r);
        r.recLen = 112, r.one = 1, r.cdbLen = 10, r.cdb[0] = op, r.cdb[5] = uint8_t(lba), r.cdb[8] = 8, r.tag = tag;
        if (buf) r.readBuf = buf->data(), r.readLen = buf->size();
        return m->send(reinterpret_cast<unsigned char*>(&r));
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

// A journal saved by one device carries to a fresh device on the same
// file, which then catches the lost write; a journal for another size is
// refused and leaves the device as it was.
TEST_F(KeyedFile, TheJournalCarriesLostWriteDetectionToAnotherDevice) {
    write(0, 8);
    const Bytes stale = block(5);
    write(0, 8);
    const std::string jpath = std::string(path) + ".journal";
    std::string err;
    ASSERT_TRUE(mqb::journalSave(idx, jpath, err)) << err;
    put(5, stale);

    std::string e2;
    const int other = mqb::addDevice(std::string("file:") + path, e2);
    ASSERT_GE(other, 0) << e2;
    MQB* m2 = createMQB("file", 0, 0, 0);
    ASSERT_EQ(m2->setDeviceIndex(other), 0);
    int md = 6, a = 0;
    unsigned char f = 0;
    ASSERT_EQ(m2->ioctl(MQB_IOCTL_DATA_MODE, 3, &md, &a, &f), 0);
    EXPECT_EQ(roundTrip(*m2, READ10, 0, 8), 0) << "without the journal a stale keyed block looks fine";
    ASSERT_TRUE(mqb::journalLoad(other, jpath, err)) << err;
    EXPECT_EQ(roundTrip(*m2, READ10, 0, 8), MQB_ERR_CHECK);
    EXPECT_EQ(miscompareLba(*m2), 5);

    const int small = mqb::addDevice("sim:blocks=512,store=1", e2);
    EXPECT_FALSE(mqb::journalLoad(small, jpath, err));
    EXPECT_EQ(err, "journal \"" + jpath + "\" is for a device of 1024 blocks of 512 bytes, not 512 blocks of 512 bytes");
    EXPECT_FALSE(mqb::journalLoad(other, path, err)) << "not a journal";
    EXPECT_FALSE(mqb::journalSave(mqb::addDevice("sim:store=1,blocks=1000,journalmax=999", e2), jpath, err));
    EXPECT_EQ(err, "the device is larger than its journalmax, so it has no journal");
    deleteMQB(m2);
    unlink(jpath.c_str());
}

// The race rules: a reader is racy when a write over its region was in
// flight at any moment between its send and its check; writes that overlap
// each other are marked so the journal does not pick a winner.
TEST(WriteTracker, AReaderRacingAWriteIsNeverJudged) {
    mqb::WriteTracker t;
    bool racy = false, ov = false;
    // Write in flight at the reader's send.
    const uint64_t w = t.beginWrite(100, 8, ov);
    EXPECT_FALSE(ov);
    const uint64_t r1 = t.beginRead(104, 1, racy);
    EXPECT_TRUE(racy);
    t.endWrite(100, 8);
    EXPECT_FALSE(t.changedSince(104, 1, r1, 0)) << "only the send-time flag remembers it";
    // Write sent and completed while the reader was out.
    const uint64_t r2 = t.beginRead(104, 1, racy);
    EXPECT_FALSE(racy);
    t.beginWrite(100, 8, ov);
    t.endWrite(100, 8);
    EXPECT_TRUE(t.changedSince(104, 1, r2, 0));
    // Elsewhere on the device nothing is racy.
    const uint64_t r3 = t.beginRead(5000, 64, racy);
    EXPECT_FALSE(racy);
    EXPECT_FALSE(t.changedSince(5000, 64, r3, 0));
    // Two overlapping writes: the second sees the first; the first sees the
    // second start after it.
    const uint64_t a = t.beginWrite(0, 70, ov);
    EXPECT_FALSE(ov);
    t.beginWrite(64, 1, ov);
    EXPECT_TRUE(ov);
    EXPECT_TRUE(t.changedSince(0, 70, a, 1));
    EXPECT_FALSE(t.changedSince(0, 8, a, 1)) << "a different region of the first write";
    EXPECT_GT(a, w);
}

TEST(WriteJournal, SavesLoadsAndRefusesBadFiles) {
    mqb::WriteJournal j(300, 512), k(300, 512);
    j.fill(10, 5, mqb::WriteJournal::valueOf(7));
    j.fill(298, 10, mqb::WriteJournal::kAmbiguous);  // clipped at the end
    EXPECT_EQ(j.get(299), mqb::WriteJournal::kAmbiguous);
    EXPECT_EQ(j.get(300), mqb::WriteJournal::kUnknown);
    EXPECT_NE(mqb::WriteJournal::valueOf(7), mqb::WriteJournal::valueOf(8));
    EXPECT_EQ(mqb::WriteJournal::valueOf(7), mqb::WriteJournal::valueOf(7 + 254));
    char path[] = "/tmp/mqb_journal_XXXXXX";
    close(mkstemp(path));
    std::string err;
    uint64_t seq = 0;
    ASSERT_TRUE(j.save(path, 512, 99, err)) << err;
    ASSERT_TRUE(k.load(path, 512, seq, err)) << err;
    EXPECT_EQ(seq, 99u);
    for (uint64_t b : {9, 10, 14, 15, 297, 298, 299}) EXPECT_EQ(k.get(b), j.get(b)) << b;
    EXPECT_FALSE(k.load(path, 4096, seq, err));
    ASSERT_EQ(truncate(path, 32 + 100), 0);
    mqb::WriteJournal fresh(300, 512);
    EXPECT_FALSE(fresh.load(path, 512, seq, err));
    EXPECT_EQ(err, std::string("journal \"") + path + "\" is truncated");
    EXPECT_EQ(fresh.get(10), mqb::WriteJournal::kUnknown) << "a failed load changes nothing";
    unlink(path);
}
