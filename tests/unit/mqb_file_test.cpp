// mqb_file_test.cpp: file and block devices: the queue depth really in flight,
// data through O_DIRECT and past the page cache, unaligned buffers, read-back
// and compare with the LBA of the first difference, medium errors, a loop
// block device at its own block size, a device loop run on a file, and a
// queue another thread takes over.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <set>
#include <thread>
#include "CDBStruct.h"
#include "DeviceTable.h"
#include "MQB.h"
#include "MQBErr.h"
#include "backends/FileDisk.h"
#include "backends/FileQueue.h"
#include "loop_harness.h"

namespace {
constexpr uint8_t READ10 = 0x28, WRITE10 = 0x2A, WRV10 = 0x2E, VERIFY10 = 0x2F, BYTCHK = 0x02;
constexpr int kBlocks = 4096, kDepth = 32, kTl = 8;

using namespace cdbtest;
int send(MQB& m, uint8_t op, uint32_t lba, uint16_t tl, uint32_t tag, const uint8_t* out = nullptr,
         uint64_t outLen = 0, uint8_t* in = nullptr, uint64_t inLen = 0, uint8_t byte1 = 0) {
    return cdbtest::send(m, record(op, lba, tl, tag, out, outLen, in, inLen, byte1));
}
int roundTrip(MQB& m, uint8_t op, uint32_t lba, uint16_t tl, const uint8_t* out, uint64_t outLen,
              uint8_t* in = nullptr, uint64_t inLen = 0, uint8_t byte1 = 0) {
    return cdbtest::roundTrip(m, record(op, lba, tl, 0, out, outLen, in, inLen, byte1));
}
Bytes sense(uint8_t key, uint8_t asc, int64_t info = -1) { return fixedSense(key, asc, 0, info); }
Bytes pattern(size_t n, int seed) {
    Bytes b(n);
    for (size_t i = 0; i < n; ++i) b[i] = uint8_t(i * 31 + seed + i / 512);
    return b;
}
// Pages of `path` in the page cache.
size_t residentPages(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY);
    struct stat st;
    fstat(fd, &st);
    void* p = mmap(nullptr, size_t(st.st_size), PROT_READ, MAP_SHARED, fd, 0);
    const size_t pages = (size_t(st.st_size) + 4095) / 4096;
    std::vector<unsigned char> v(pages);
    mincore(p, size_t(st.st_size), v.data());
    munmap(p, size_t(st.st_size));
    close(fd);
    size_t n = 0;
    for (unsigned char c : v) n += c & 1;
    return n;
}
// True when some descriptor of this process on `path` carries O_DIRECT.
bool openedDirect(const std::string& path) {
    for (int fd = 0; fd < 1024; ++fd) {
        char link[64], target[4096];
        std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
        const ssize_t n = readlink(link, target, sizeof target - 1);
        if (n <= 0 || std::string(target, size_t(n)) != path) continue;
        std::ifstream info("/proc/self/fdinfo/" + std::to_string(fd));
        std::string key, flags;
        while (info >> key >> flags)
            if (key == "flags:" && (std::stoul(flags, nullptr, 8) & O_DIRECT)) return true;
    }
    return false;
}

// A file device of kBlocks blocks on the root file system (not /tmp, which
// may not take O_DIRECT).
struct FileDev : ::testing::Test {
    std::string path;
    int fd = -1, idx = -1;
    MQB* m = createMQB("file", 0, 0, 0);
    void open(const std::string& opts = "") {
        char tmpl[] = "/var/tmp/mqb_file_test_XXXXXX";
        fd = mkstemp(tmpl);
        path = tmpl;
        std::string err;
        ASSERT_EQ(ftruncate(fd, kBlocks * 512), 0);
        ASSERT_GE(idx = mqb::addDevice("file:" + path + opts, err), 0) << err;
        ASSERT_EQ(m->setDeviceIndex(idx), 0);
    }
    void SetUp() override { open(); }
    void TearDown() override { deleteMQB(m); close(fd); unlink(path.c_str()); }
};
}  // namespace

TEST_F(FileDev, KeepsTheQueueDepthAtTheDeviceAndMovesRealDataThroughAnyBuffer) {
    // Odd commands use buffers one byte off alignment: O_DIRECT cannot take
    // them, so they go through the queue's bounce buffers.
    std::vector<Bytes> out(kDepth), in(kDepth, Bytes(kTl * 512 + 1)), disk(kDepth, Bytes(kTl * 512));
    for (int i = 0; i < kDepth; ++i) {
        out[i] = pattern(kTl * 512 + 1, i);
        ASSERT_EQ(send(*m, WRITE10, uint32_t(i * 100), kTl, uint32_t(i + 1), out[i].data() + i % 2, kTl * 512), 0);
    }
    mqb::DeviceStats st;
    ASSERT_TRUE(mqb::stats(idx, st));
    EXPECT_EQ(st.maxOutstanding, 0u) << "sent, not yet handed to the device";
    for (const uint8_t op : {WRITE10, READ10}) {
        for (int i = 0; op == READ10 && i < kDepth; ++i)
            ASSERT_EQ(send(*m, op, uint32_t(i * 100), kTl, uint32_t(i + 1), nullptr, 0, in[i].data() + i % 2, kTl * 512), 0);
        std::set<int> tags;
        for (int i = 0; i < kDepth; ++i) { EXPECT_EQ(m->receive(), 0); tags.insert(lastTag(*m)); }
        EXPECT_EQ(tags.size(), size_t(kDepth));
        EXPECT_EQ(m->receive(), MQB_ERR_NOTHING_OUT);
    }
    ASSERT_TRUE(mqb::stats(idx, st));
    EXPECT_EQ(st.maxOutstanding, uint64_t(kDepth));
    // Held until reaped, a synchronous queue would reach the same peak: the
    // depth is only real when the commands went through io_uring.
    mqb::DeviceSummary sum;
    ASSERT_TRUE(mqb::deviceSummary(idx, sum));
#if MQB_TEST_HAVE_URING
    EXPECT_EQ(sum.queue, "io_uring") << "built with liburing, but the queue ran every command in submit()";
#else
    EXPECT_EQ(sum.queue, "sync");
#endif
    for (int i = 0; i < kDepth; ++i) {
        ASSERT_EQ(pread(fd, disk[i].data(), kTl * 512, i * 100 * 512), kTl * 512);
        EXPECT_EQ(disk[i], Bytes(out[i].begin() + i % 2, out[i].begin() + i % 2 + kTl * 512)) << i;
        EXPECT_EQ(Bytes(in[i].begin() + i % 2, in[i].begin() + i % 2 + kTl * 512), disk[i]) << i;
    }
    for (int i = 0; i < kDepth; ++i)
        ASSERT_EQ(send(*m, i % 2 ? READ10 : VERIFY10, uint32_t(i * 100), 200, 0, nullptr, 0, in[i].data(), in[i].size()), 0);
    deleteMQB(m), m = nullptr;  // waits for the kernel before `in` goes (ASan watches)
}

TEST_F(FileDev, RangeErrorsComeFirstAndEofIsAMediumErrorAtItsLba) {
    Bytes buf(kTl * 512);
    ASSERT_EQ(send(*m, WRITE10, 7, kTl, 1, buf.data(), buf.size()), 0);
    ASSERT_EQ(send(*m, READ10, kBlocks - 2, 4, 2, nullptr, 0, buf.data(), buf.size()), 0);
    ASSERT_EQ(send(*m, VERIFY10, 0, 4000, 3), 0);  // several bounce-sized pieces
    std::vector<int> order;
    for (int i = 0; i < 3; ++i) {
        const int rc = m->receive(), tag = lastTag(*m);
        EXPECT_EQ(rc, tag == 2 ? MQB_ERR_CHECK : 0) << tag;
        EXPECT_EQ(lastSense(*m), tag == 2 ? sense(5, 0x21) : Bytes{}) << tag;
        order.push_back(tag);
    }
    EXPECT_EQ(order[0], 2) << "answered without I/O, ahead of the transfers";
    ASSERT_EQ(ftruncate(fd, 16 * 512), 0);  // the device still says 4096 blocks
    EXPECT_EQ(roundTrip(*m, READ10, 100, kTl, nullptr, 0, buf.data(), buf.size()), MQB_ERR_CHECK);
    EXPECT_EQ(lastSense(*m), sense(3, 0x11, 100));
    EXPECT_EQ(roundTrip(*m, VERIFY10, 10, 20, nullptr, 0), MQB_ERR_CHECK);
    EXPECT_EQ(lastSense(*m), sense(3, 0x11, 16)) << "blocks 10-15 read, 16 is past the file's end";
}

TEST_F(FileDev, VerifyAndWriteVerifyCompareAndNameTheFirstDifferentLba) {
    const Bytes data = pattern(3000 * 512, 5);  // 1.5 MB: the compare runs in two pieces
    ASSERT_EQ(roundTrip(*m, WRITE10, 0, 3000, data.data(), data.size()), 0);
    EXPECT_EQ(roundTrip(*m, VERIFY10, 0, 3000, data.data(), data.size(), nullptr, 0, BYTCHK), 0);
    EXPECT_EQ(roundTrip(*m, WRV10, 100, 16, data.data() + 1, 16 * 512, nullptr, 0, BYTCHK), 0);
    EXPECT_EQ(roundTrip(*m, WRV10, 200, 16, data.data(), 16 * 512), 0) << "read back, no compare";
    Bytes want(data);
    std::memcpy(want.data() + 100 * 512, data.data() + 1, 16 * 512);
    std::memcpy(want.data() + 200 * 512, data.data(), 16 * 512);
    EXPECT_EQ(roundTrip(*m, VERIFY10, 0, 3000, want.data(), want.size(), nullptr, 0, BYTCHK), 0);
    for (const size_t at : {size_t(0), size_t(5 * 512 + 17), size_t(2100 * 512 + 511)}) {
        Bytes bad(want);
        bad[at] ^= 0x40;
        EXPECT_EQ(roundTrip(*m, VERIFY10, 0, 3000, bad.data(), bad.size(), nullptr, 0, BYTCHK), MQB_ERR_CHECK);
        EXPECT_EQ(lastSense(*m), sense(0x0E, 0x1D, int64_t(at / 512))) << at;
        EXPECT_EQ(roundTrip(*m, VERIFY10, 0, 3000, bad.data(), bad.size()), 0) << "no BYTCHK: medium only";
    }
}

TEST_F(FileDev, DirectIoBypassesThePageCacheUnlessTurnedOff) {
    Bytes data = pattern(64 * 512, 9), back(64 * 512);
    for (const bool direct : {true, false}) {
        if (!direct) {
            TearDown();
            m = createMQB("file", 0, 0, 0);
            open(",direct=0");
        }
        mqb::DeviceSummary s;
        ASSERT_TRUE(mqb::deviceSummary(idx, s));
        EXPECT_EQ(s.direct, direct);
        EXPECT_EQ(openedDirect(path), direct);
        posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
        ASSERT_EQ(roundTrip(*m, WRITE10, 256, 64, data.data(), data.size()), 0);
        ASSERT_EQ(roundTrip(*m, READ10, 1024, 64, nullptr, 0, back.data(), back.size()), 0);
        EXPECT_EQ(residentPages(path) == 0, direct) << residentPages(path) << " pages cached";
    }
    std::string err;
    EXPECT_EQ(mqb::addDevice("file:" + path + ",direct=2", err), -1);
    EXPECT_EQ(err, "bad value \"2\" for device text key \"direct\"");
}

TEST_F(FileDev, ALoopRunAtDepth32KeepsThirtyTwoAtTheDevice) {
    SimRig rig("file:" + path);
    auto l = makeLoop(rig, LoopCfg().type(0).tl(1, 16).mix(50, 30, 10, 10).depth(32, 2000));
    capture([&] { l->run(); });
    const mqb::DeviceStats s = rig.stats();
    EXPECT_EQ(std::make_tuple(s.commands, s.errors, s.maxOutstanding, l->errCount.load()),
              std::make_tuple(uint64_t(1999), uint64_t(0), uint64_t(32), 0));
}

// A loop block device of 4096-byte sectors over a file: the device takes its
// block size and capacity from the kernel.
TEST(LoopDev, BlockDeviceGeometryDataAndCompare) {
    char tmpl[] = "/var/tmp/mqb_loopdev_XXXXXX";
    const int bfd = mkstemp(tmpl);
    ASSERT_GE(bfd, 0);
    ASSERT_EQ(ftruncate(bfd, 8 << 20), 0);
    close(bfd);
    std::string dev;
    if (FILE* p = popen(("losetup --find --show --sector-size 4096 " + std::string(tmpl) + " 2>/dev/null").c_str(), "r")) {
        char line[256] = "";
        if (fgets(line, sizeof line, p)) dev = std::string(line, strcspn(line, "\n"));
        pclose(p);
    }
    if (dev.empty()) {
        unlink(tmpl);
        GTEST_SKIP() << "cannot set up a loop device here";
    }
    std::string err;
    const int idx = mqb::addDevice("file:" + dev, err);
    std::unique_ptr<MQB> m(createMQB("file", 0, 0, 0));
    mqb::DeviceSummary s;
    if (idx >= 0) {
        ASSERT_TRUE(mqb::deviceSummary(idx, s));
        ASSERT_EQ(m->setDeviceIndex(idx), 0);
        const Bytes data = pattern(4 * 4096, 3);
        Bytes back(4 * 4096);
        EXPECT_EQ(roundTrip(*m, WRITE10, 2044, 4, data.data() + 3, data.size() - 3), 0) << "a short buffer: what it holds is written";
        EXPECT_EQ(roundTrip(*m, WRITE10, 2044, 4, data.data(), data.size()), 0);
        EXPECT_EQ(roundTrip(*m, READ10, 2044, 4, nullptr, 0, back.data(), back.size()), 0);
        EXPECT_EQ(back, data);
        EXPECT_EQ(roundTrip(*m, READ10, 2045, 4, nullptr, 0, back.data(), back.size()), MQB_ERR_CHECK);
        EXPECT_EQ(lastSense(*m), sense(5, 0x21));
        Bytes bad(data);
        bad[2 * 4096 + 7] ^= 1;
        EXPECT_EQ(roundTrip(*m, VERIFY10, 2044, 4, bad.data(), bad.size(), nullptr, 0, BYTCHK), MQB_ERR_CHECK);
        EXPECT_EQ(lastSense(*m), sense(0x0E, 0x1D, 2046));
    }
    m.reset();
    // The device table keeps its descriptor to the process's end; the kernel
    // detaches the loop device when that closes.
    EXPECT_EQ(system(("losetup -d " + dev).c_str()), 0);
    unlink(tmpl);
    ASSERT_GE(idx, 0) << err;
    EXPECT_EQ(std::make_pair(s.blockSize, s.blocks), std::make_pair(4096u, uint64_t(2047))) << s.blockSize;
    EXPECT_TRUE(s.direct);
}

// Without io_uring every command runs inside submit(), with the same answers.
TEST_F(FileDev, SynchronousFallbackGivesTheSameAnswers) {
    std::string err;
    std::unique_ptr<mqb::Backend> be = mqb::FileDisk::open(path, err);
    ASSERT_TRUE(be) << err;
    mqb::FileQueue q(static_cast<mqb::FileDisk&>(*be), 4, false);
    ASSERT_FALSE(q.async());
    Bytes data = pattern(20 * 512, 1), back(20 * 512 + 1), bad(data);
    bad[7 * 512] ^= 1;
    uint8_t cdb[5][10] = {{WRITE10}, {READ10}, {VERIFY10, BYTCHK}, {READ10}, {WRV10, BYTCHK}};
    const uint32_t lbas[5] = {50, 50, 50, kBlocks - 1, 50};
    mqb::Outcome out[5];
    for (int i = 0; i < 5; ++i) {
        mqb::Command c;
        c.cdb = cdb[i], c.cdbLen = 10, c.opcode = cdb[i][0], c.lba = lbas[i], c.tl = 20;
        if (i == 1 || i == 3) {
            c.readBuf = back.data() + 1, c.readLen = 20 * 512;
        } else {
            c.writeBuf = i == 2 ? bad.data() : data.data(), c.writeLen = 20 * 512;
        }
        ASSERT_EQ(q.submit(c, &out[i], uint64_t(i)), 0);
        EXPECT_EQ(q.outstanding(), 1) << "done in submit, kept until reaped";
        uint64_t t = 99;
        ASSERT_EQ(q.reap(&t, 1, 1, 0), 1);
        EXPECT_EQ(t, uint64_t(i));
    }
    EXPECT_EQ(Bytes(back.begin() + 1, back.end()), data);
    EXPECT_EQ((std::vector<int>{out[0].status, out[1].status, out[2].status, out[3].status, out[4].status}),
              (std::vector<int>{0, 0, MQB_ERR_CHECK, MQB_ERR_CHECK, 0}));
    EXPECT_EQ(Bytes(out[2].sense, out[2].sense + out[2].senseLen), sense(0x0E, 0x1D, 57));
    EXPECT_EQ(Bytes(out[3].sense, out[3].sense + out[3].senseLen), sense(5, 0x21));
}

// The ring is tied to the thread that submits first. A queue another thread
// takes over with nothing in flight gets a ring of that thread; commands the
// first thread left with the kernel come back to the new thread (ended when
// their ring could not be waited on from there) instead of hanging it; and
// the queue goes on moving real data.
TEST_F(FileDev, AnotherThreadTakesTheQueueOver) {
    std::string err;
    std::unique_ptr<mqb::Backend> be = mqb::FileDisk::open(path, err);
    ASSERT_TRUE(be) << err;
    mqb::FileQueue q(static_cast<mqb::FileDisk&>(*be), 8);
    if (!q.async()) GTEST_SKIP() << "the kernel refuses io_uring here";
    uint8_t wr[10] = {WRITE10}, rd[10] = {READ10};
    const Bytes data = pattern(8 * 512, 4);
    Bytes back(8 * 512 + 1);
    mqb::Outcome out[8];
    // Submits `op` of 8 blocks at LBA 8 * i with token i (data from `data`,
    // into `back` + 1, unaligned: through a registered bounce buffer).
    auto submit = [&](uint8_t* cdb, int i) {
        mqb::Command c;
        c.cdb = cdb, c.cdbLen = 10, c.opcode = cdb[0], c.lba = uint32_t(8 * i), c.tl = 8;
        if (cdb[0] == READ10) c.readBuf = back.data() + 1, c.readLen = 8 * 512;
        else c.writeBuf = data.data(), c.writeLen = 8 * 512;
        return q.submit(c, &out[i], uint64_t(i));
    };
    auto reapAll = [&](int n) {
        uint64_t t[8];
        int got = 0;
        while (got < n) {
            const int k = q.reap(t, 1, 8, 2000000000);
            if (k <= 0) break;
            got += k;
        }
        return got;
    };
    std::thread([&] {
        ASSERT_EQ(submit(wr, 1), 0);
        EXPECT_EQ(reapAll(1), 1);
        EXPECT_EQ(out[1].status, 0);
    }).join();
    struct utsname u;
    uname(&u);
    int major = 0, minor = 0;
    std::sscanf(u.release, "%d.%d", &major, &minor);
    if (major > 6 || (major == 6 && minor >= 1)) {
        EXPECT_TRUE(q.tuned()) << "single-issuer ring with registered descriptors on " << u.release;
    }
    ASSERT_EQ(submit(rd, 1), 0);  // this thread now: a ring of its own
    EXPECT_EQ(reapAll(1), 1);
    EXPECT_EQ(out[1].status, 0);
    EXPECT_EQ(Bytes(back.begin() + 1, back.end()), data);
    std::thread([&] {
        for (int i = 2; i < 6; ++i) ASSERT_EQ(submit(rd, i), 0);
        ASSERT_EQ(q.commit(), 0);
    }).join();
    EXPECT_EQ(reapAll(4), 4) << "left in flight by a thread that is gone";
    for (int i = 2; i < 6; ++i) EXPECT_TRUE(out[i].status == 0 || out[i].status == MQB_ERR_IO) << out[i].status;
    EXPECT_EQ(q.outstanding(), 0);
    std::fill(back.begin(), back.end(), 0);
    ASSERT_EQ(submit(rd, 1), 0);
    EXPECT_EQ(reapAll(1), 1);
    EXPECT_EQ(out[1].status, 0);
    EXPECT_EQ(Bytes(back.begin() + 1, back.end()), data);
}

// A command sent after a reap may wait in the queue until it has replaced all
// that reap handed back; a reap that only looks (min 0) still hands it over.
TEST_F(FileDev, ACommandHeldForItsBatchReachesTheDiskOnALook) {
    std::string err;
    std::unique_ptr<mqb::Backend> be = mqb::FileDisk::open(path, err);
    ASSERT_TRUE(be) << err;
    mqb::FileQueue q(static_cast<mqb::FileDisk&>(*be), 4);
    if (!q.async()) GTEST_SKIP() << "the kernel refuses io_uring here";
    uint8_t rd[10] = {READ10};
    Bytes back(3 * 512);
    mqb::Outcome out[3];
    uint64_t t[4];
    for (int i = 0; i < 3; ++i) {
        mqb::Command c;
        c.cdb = rd, c.cdbLen = 10, c.opcode = READ10, c.lba = uint32_t(i), c.tl = 1;
        c.readBuf = back.data() + 512 * i, c.readLen = 512;
        ASSERT_EQ(q.submit(c, &out[i], uint64_t(i)), 0);
        ASSERT_EQ(q.commit(), 0);
        if (i == 1) {
            ASSERT_EQ(q.reap(t, 2, 4, 2000000000), 2);
        }
    }
    int got = 0;
    for (int k = 0; k < 2000 && (got = q.reap(t, 0, 4, 0)) == 0; ++k) usleep(1000);
    ASSERT_EQ(got, 1) << "the command sent after the reap never reached the kernel";
    EXPECT_EQ(t[0], 2u);
    EXPECT_EQ(out[2].status, 0);
}
