// mqb_file_test.cpp: file devices keep a channel's commands in flight through io_uring.
#include <gtest/gtest.h>
#include <dlfcn.h>
#include <linux/io_uring.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <cstring>
#include <set>
#include "CDBStruct.h"
#include "DeviceTable.h"
#include "MQB.h"
#include "MQBErr.h"

namespace {
using Bytes = std::vector<uint8_t>;
constexpr uint8_t READ10 = 0x28, WRITE10 = 0x2A, VERIFY10 = 0x2F;
constexpr int kBlocks = 4096, kDepth = 16, kTl = 8;

int send(MQB& m, uint8_t op, uint32_t lba, uint16_t tl, uint32_t tag, Bytes* buf = nullptr) {
    CDBStruct r;
    std::memset(&r, 0, sizeof r);
    r.recLen = 112, r.one = 1, r.cdbLen = 10, r.cdb[0] = op, r.tag = tag, r.cdb[7] = uint8_t(tl >> 8), r.cdb[8] = uint8_t(tl);
    for (int i = 0; i < 4; ++i) r.cdb[2 + i] = uint8_t(lba >> (24 - 8 * i));
    if (buf && op == WRITE10) r.writeBuf = buf->data(), r.writeLen = buf->size();
    else if (buf) r.readBuf = buf->data(), r.readLen = buf->size();
    return m.send(reinterpret_cast<unsigned char*>(&r));
}
int lastTag(MQB& m) { int t = -1; EXPECT_EQ(m.receiveInfo(MQB_INFO_TAG, 1, &t), 0); return t; }
Bytes lastSense(MQB& m) { unsigned char b[64]; int size = 64, n = 0; m.errInfo(MQB_INFO_SENSE, 3, b, &size, &n); return Bytes(b, b + n); }
// True when libMQB runs on liburing and the kernel lets this process make a ring.
bool uringUp() {
    io_uring_params p{};
    const long fd = syscall(__NR_io_uring_setup, 4, &p);
    return fd >= 0 && close(int(fd)) == 0 && dlopen("liburing.so.2", RTLD_NOW | RTLD_NOLOAD);
}
struct FileDev : ::testing::Test {
    char path[32] = "/tmp/mqb_file_test_XXXXXX";
    int fd = mkstemp(path), idx = -1;
    MQB* m = createMQB("file", 0, 0, 0);
    void SetUp() override {
        std::string err;
        ASSERT_EQ(ftruncate(fd, kBlocks * 512), 0);
        ASSERT_GE(idx = mqb::addDevice(std::string("file:") + path, err), 0) << err;
        ASSERT_EQ(m->setDeviceIndex(idx), 0);
    }
    void TearDown() override { deleteMQB(m); close(fd); unlink(path); }
};
}  // namespace

TEST_F(FileDev, KeepsTheQueueDepthInFlightAndMovesRealData) {
    std::vector<Bytes> out(kDepth, Bytes(kTl * 512)), in(out), disk(out);
    for (int i = 0; i < kDepth; ++i) {
        for (size_t b = 0; b < out[i].size(); ++b) out[i][b] = uint8_t(b * 31 + i);
        ASSERT_EQ(send(*m, WRITE10, uint32_t(i * 100), kTl, uint32_t(i + 1), &out[i]), 0);
    }
    mqb::DeviceStats st;
    m->commit();
    ASSERT_TRUE(mqb::stats(idx, st));
    EXPECT_EQ(st.maxOutstanding, uint64_t(kDepth));
    for (const uint8_t op : {WRITE10, READ10}) {
        for (int i = 0; op == READ10 && i < kDepth; ++i) ASSERT_EQ(send(*m, op, uint32_t(i * 100), kTl, uint32_t(i + 1), &in[i]), 0);
        std::set<int> tags;
        for (int i = 0; i < kDepth; ++i) { EXPECT_EQ(m->receive(), 0); tags.insert(lastTag(*m)); }
        EXPECT_EQ(tags.size(), size_t(kDepth));
        EXPECT_EQ(m->receive(), MQB_ERR_NOTHING_OUT);
    }
    for (int i = 0; i < kDepth; ++i) ASSERT_EQ(pread(fd, disk[i].data(), kTl * 512, i * 100 * 512), kTl * 512);
    EXPECT_EQ(disk, out);
    EXPECT_EQ(in, out);
    for (int i = 0; i < kDepth; ++i) ASSERT_EQ(send(*m, i % 2 ? READ10 : VERIFY10, uint32_t(i * 200), 200, 0, &in[i]), 0);
    deleteMQB(m), m = nullptr;  // waits for the kernel before `in` goes (ASan watches)
}

TEST_F(FileDev, RangeErrorsAreSynchronousAndEofIsAMediumError) {
    Bytes buf(kTl * 512), range(32, 0), medium(32, 0);
    range[0] = 0x70, range[2] = 5, range[7] = 24, range[12] = 0x21;
    medium[0] = 0xF0, medium[2] = 3, medium[6] = 100, medium[7] = 24, medium[12] = 0x11;  // INFORMATION 100
    ASSERT_EQ(send(*m, WRITE10, 7, kTl, 1, &buf), 0);
    ASSERT_EQ(send(*m, READ10, kBlocks - 2, 4, 2, &buf), 0);
    ASSERT_EQ(send(*m, VERIFY10, 0, 2048, 3), 0);  // larger than one scratch read
    std::vector<int> order;
    for (int i = 0; i < 3; ++i) {
        const int rc = m->receive(), tag = lastTag(*m);
        EXPECT_EQ(rc, tag == 2 ? MQB_ERR_CHECK : 0) << tag;
        EXPECT_EQ(lastSense(*m), tag == 2 ? range : Bytes{}) << tag;
        order.push_back(tag);
    }
    ASSERT_EQ(ftruncate(fd, 16 * 512), 0);  // the device still says 4096 blocks
    ASSERT_EQ(send(*m, READ10, 100, kTl, 4, &buf), 0);
    EXPECT_EQ(m->receive(), MQB_ERR_CHECK);
    EXPECT_EQ(lastSense(*m), medium);
    if (!uringUp()) GTEST_SKIP() << "no io_uring: every command completed in send()";
    EXPECT_EQ(order[0], 2) << "the range error completes in send(), ahead of the I/O";
}
