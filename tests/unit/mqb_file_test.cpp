// mqb_file_test.cpp: file and block devices: the queue depth really in flight,
// data through O_DIRECT and past the page cache, unaligned buffers, read-back
// and compare with the LBA of the first difference, medium errors, a loop
// block device at its own block size, and a queue another thread takes over.
// A kiv run on a file device at depth, with and without direct I/O, is in
// tests/tcl/run.test.
#include <sys/mman.h>
#include <sys/stat.h>
#include <cstdio>
#include <deque>
#include <set>
#include "backends/FileDisk.h"
#include "backends/FileQueue.h"
#include "MqbTestSupport.h"

namespace {
using namespace mqbtest;
constexpr int kBlocks = 4096, kDepth = 32, kTl = 8;

Bytes miscompareAt(int64_t lba) { return sense(kKeyMiscompare, kMiscompareVerify, lba); }
Bytes mediumErrorAt(int64_t lba) { return sense(kKeyMedium, kUnrecoveredRead, lba); }
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
struct FileDev : ::testing::Test {
    FileDevice d{kBlocks};
    MQB* m = d.dev.m.get();
    const int fd = d.file.fd;
    const std::string& path = d.file.path;
    // A queue of `depth` slots straight on a second opening of the file.
    std::unique_ptr<mqb::Backend> be;
    std::unique_ptr<mqb::FileQueue> openQueue(int depth, bool useRing = true) {
        std::string err;
        be = mqb::FileDisk::open(path, err);
        EXPECT_TRUE(be) << err;
        return be ? std::make_unique<mqb::FileQueue>(static_cast<mqb::FileDisk&>(*be), depth, useRing) : nullptr;
    }
};
}  // namespace

TEST_F(FileDev, KeepsTheQueueDepthAtTheDeviceAndMovesRealDataThroughAnyBuffer) {
    // Odd commands use buffers one byte off alignment: O_DIRECT cannot take
    // them, so they go through the queue's bounce buffers.
    std::vector<Bytes> out(kDepth), in(kDepth, Bytes(kTl * 512 + 1)), disk(kDepth, Bytes(kTl * 512));
    for (int i = 0; i < kDepth; ++i) {
        out[i] = pattern(kTl * 512 + 1, i);
        ASSERT_EQ(send(*m, record(kWrite10, uint32_t(i * 100), kTl, uint32_t(i + 1), out[i].data() + i % 2, kTl * 512)), 0);
    }
    EXPECT_EQ(d.dev.stats().maxOutstanding, 0u) << "sent, not yet handed to the device";
    for (const uint8_t op : {kWrite10, kRead10}) {
        for (int i = 0; op == kRead10 && i < kDepth; ++i)
            ASSERT_EQ(send(*m, record(op, uint32_t(i * 100), kTl, uint32_t(i + 1), nullptr, 0, in[i].data() + i % 2, kTl * 512)), 0);
        std::set<int> tags;
        for (int i = 0; i < kDepth; ++i) { EXPECT_EQ(m->receive(), 0); tags.insert(lastTag(*m)); }
        EXPECT_EQ(tags.size(), size_t(kDepth));
        EXPECT_EQ(m->receive(), MQB_ERR_NOTHING_OUT);
    }
    EXPECT_EQ(d.dev.stats().maxOutstanding, uint64_t(kDepth));
    // Held until reaped, a synchronous queue would reach the same peak: the
    // depth is only real when the commands went through io_uring.
    const mqb::DeviceSummary sum = d.dev.summary();
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
        ASSERT_EQ(send(*m, record(i % 2 ? kRead10 : kVerify10, uint32_t(i * 100), 200, 0, nullptr, 0, in[i].data(), in[i].size())), 0);
    d.dev.m.reset();  // waits for the kernel before `in` goes (ASan watches)
}

TEST_F(FileDev, RangeErrorsComeFirstAndEofIsAMediumErrorAtItsLba) {
    Bytes buf(kTl * 512);
    ASSERT_EQ(send(*m, record(kWrite10, 7, kTl, 1, buf.data(), buf.size())), 0);
    ASSERT_EQ(send(*m, record(kRead10, kBlocks - 2, 4, 2, nullptr, 0, buf.data(), buf.size())), 0);
    ASSERT_EQ(send(*m, record(kVerify10, 0, 4000, 3)), 0);  // several bounce-sized pieces
    std::vector<int> order;
    for (int i = 0; i < 3; ++i) {
        const int rc = m->receive(), tag = lastTag(*m);
        EXPECT_EQ(rc, tag == 2 ? MQB_ERR_CHECK : 0) << tag;
        EXPECT_EQ(lastSense(*m), tag == 2 ? kOutOfRange : Bytes{}) << tag;
        order.push_back(tag);
    }
    EXPECT_EQ(order[0], 2) << "answered without I/O, ahead of the transfers";
    ASSERT_EQ(ftruncate(fd, 16 * 512), 0);  // the device still says 4096 blocks
    EXPECT_EQ(senseOf(*m, roundTrip(*m, record(kRead10, 100, kTl, 0, nullptr, 0, buf.data(), buf.size()))), mediumErrorAt(100));
    EXPECT_EQ(senseOf(*m, roundTrip(*m, record(kVerify10, 10, 20, 0, nullptr, 0))), mediumErrorAt(16))
        << "blocks 10-15 read, 16 is past the file's end";
}

TEST_F(FileDev, VerifyAndWriteVerifyCompareAndNameTheFirstDifferentLba) {
    const Bytes data = pattern(3000 * 512, 5);  // 1.5 MB: the compare runs in two pieces
    ASSERT_EQ(roundTrip(*m, record(kWrite10, 0, 3000, 0, data.data(), data.size())), 0);
    EXPECT_EQ(roundTrip(*m, record(kVerify10, 0, 3000, 0, data.data(), data.size(), nullptr, 0, kBytchk)), 0);
    EXPECT_EQ(roundTrip(*m, record(kWriteVerify10, 100, 16, 0, data.data() + 1, 16 * 512, nullptr, 0, kBytchk)), 0);
    EXPECT_EQ(roundTrip(*m, record(kWriteVerify10, 200, 16, 0, data.data(), 16 * 512)), 0) << "read back, no compare";
    Bytes want(data);
    std::memcpy(want.data() + 100 * 512, data.data() + 1, 16 * 512);
    std::memcpy(want.data() + 200 * 512, data.data(), 16 * 512);
    EXPECT_EQ(roundTrip(*m, record(kVerify10, 0, 3000, 0, want.data(), want.size(), nullptr, 0, kBytchk)), 0);
    for (const size_t at : {size_t(0), size_t(5 * 512 + 17), size_t(2100 * 512 + 511)}) {
        Bytes bad(want);
        bad[at] ^= 0x40;
        EXPECT_EQ(senseOf(*m, roundTrip(*m, record(kVerify10, 0, 3000, 0, bad.data(), bad.size(), nullptr, 0, kBytchk))),
                  miscompareAt(int64_t(at / 512))) << at;
        EXPECT_EQ(roundTrip(*m, record(kVerify10, 0, 3000, 0, bad.data(), bad.size())), 0) << "no BYTCHK: medium only";
    }
}

TEST(FileDirect, DirectIoBypassesThePageCacheUnlessTurnedOff) {
    Bytes data = pattern(64 * 512, 9), back(64 * 512);
    for (const bool direct : {true, false}) {
        FileDevice d(kBlocks, direct ? "" : ",direct=0");
        posix_fadvise(d.file.fd, 0, 0, POSIX_FADV_DONTNEED);
        ASSERT_EQ(roundTrip(d.m, record(kWrite10, 256, 64, 0, data.data(), data.size())), 0);
        ASSERT_EQ(roundTrip(d.m, record(kRead10, 1024, 64, 0, nullptr, 0, back.data(), back.size())), 0);
        EXPECT_EQ(residentPages(d.file.path) == 0, direct) << residentPages(d.file.path) << " pages cached";
    }
}

// A loop block device of 4096-byte sectors over a file: the device takes its
// block size and capacity from the kernel.
TEST(LoopDev, BlockDeviceGeometryDataAndCompare) {
    TempFile backing("/var/tmp/mqb_loopdev_XXXXXX", 8 << 20);
    std::string dev;
    if (FILE* p = popen(("losetup --find --show --sector-size 4096 " + backing.path + " 2>/dev/null").c_str(), "r")) {
        char line[256] = "";
        if (fgets(line, sizeof line, p)) dev = std::string(line, strcspn(line, "\n"));
        pclose(p);
    }
    if (dev.empty()) GTEST_SKIP() << "cannot set up a loop device here";
    mqb::DeviceSummary s;
    if (Dev d("file:" + dev); d.idx >= 0) {
        s = d.summary();
        const Bytes data = pattern(4 * 4096, 3);
        Bytes back(4 * 4096);
        EXPECT_EQ(roundTrip(*d.m, record(kWrite10, 2044, 4, 0, data.data(), data.size())), 0);
        EXPECT_EQ(roundTrip(*d.m, record(kRead10, 2044, 4, 0, nullptr, 0, back.data(), back.size())), 0);
        EXPECT_EQ(back, data);
        Bytes bad(data);
        bad[2 * 4096 + 7] ^= 1;
        EXPECT_EQ(senseOf(*d.m, roundTrip(*d.m, record(kVerify10, 2044, 4, 0, bad.data(), bad.size(), nullptr, 0, kBytchk))),
                  miscompareAt(2046));
    }
    // The device table keeps its descriptor to the process's end; the kernel
    // detaches the loop device when that closes.
    EXPECT_EQ(system(("losetup -d " + dev).c_str()), 0);
    EXPECT_EQ(std::make_tuple(s.blockSize, s.blocks, s.direct), std::make_tuple(4096u, uint64_t(2047), true));
}

// Without io_uring every command runs inside submit(), with the same answers.
TEST_F(FileDev, SynchronousFallbackGivesTheSameAnswers) {
    auto queue = openQueue(4, false);
    ASSERT_TRUE(queue);
    mqb::FileQueue& q = *queue;
    ASSERT_FALSE(q.async());
    Bytes data = pattern(20 * 512, 1), back(20 * 512 + 1), bad(data);
    bad[7 * 512] ^= 1;
    const struct { uint8_t op, flags; uint32_t lba; uint8_t* buf; int status; Bytes sense; } rows[] = {
        {kWrite10, 0, 50, data.data(), 0, {}},
        {kRead10, 0, 50, back.data() + 1, 0, {}},
        {kVerify10, kBytchk, 50, bad.data(), MQB_ERR_CHECK, miscompareAt(57)},
        {kRead10, 0, kBlocks - 1, back.data() + 1, MQB_ERR_CHECK, kOutOfRange},
    };
    for (uint64_t i = 0; i < 4; ++i) {
        QCmd c(rows[i].op, rows[i].lba, 20, rows[i].buf, 20 * 512, rows[i].flags);
        ASSERT_EQ(c.submit(q, i), 0);
        EXPECT_EQ(q.outstanding(), 1) << "done in submit, kept until reaped";
        uint64_t t = 99;
        ASSERT_EQ(q.reap(&t, 1, 1, 0), 1);
        EXPECT_EQ(std::make_tuple(t, c.out.status, Bytes(c.out.sense, c.out.sense + c.out.senseLen)),
                  std::make_tuple(i, rows[i].status, rows[i].sense));
    }
    EXPECT_EQ(Bytes(back.begin() + 1, back.end()), data);
}

// The ring is tied to the thread that submits first. A thread that takes the
// queue over with nothing in flight gets a ring of its own; commands a thread
// that is gone left with the kernel come back to the next one (ended when
// their ring cannot be waited on from there) instead of hanging it.
TEST_F(FileDev, AnotherThreadTakesTheQueueOver) {
    auto queue = openQueue(8);
    ASSERT_TRUE(queue);
    mqb::FileQueue& q = *queue;
    if (!q.async()) GTEST_SKIP() << "the kernel refuses io_uring here";
    Bytes data = pattern(8 * 512, 4), back(8 * 512 + 1);
    constexpr int64_t kWait = 2000000000;  // a hang fails in 2 s
    // `op` of 8 blocks at LBA 8 * i, token i; reads land unaligned in `back` + 1.
    std::deque<QCmd> cmds;
    auto submit = [&](uint8_t op, int i) -> const mqb::Outcome& {
        cmds.emplace_back(op, 8 * i, 8, op == kRead10 ? back.data() + 1 : data.data(), 8 * 512);
        EXPECT_EQ(cmds.back().submit(q, uint64_t(i)), 0);
        return cmds.back().out;
    };
    const mqb::Outcome& w = submit(kWrite10, 1);
    EXPECT_EQ(reapAll(q, 1, kWait).size(), 1u);
    EXPECT_EQ(w.status, 0);
    std::thread([&] {  // nothing in flight: a ring of this thread
        for (int i = 2; i < 6; ++i) submit(kRead10, i);
        ASSERT_EQ(q.commit(), 0);
    }).join();
    EXPECT_EQ(reapAll(q, 4, kWait).size(), 4u) << "left in flight by a thread that is gone";
    for (size_t i = 1; i < 5; ++i) EXPECT_TRUE(cmds[i].out.status == 0 || cmds[i].out.status == MQB_ERR_IO) << i;
    EXPECT_EQ(q.outstanding(), 0);
    const mqb::Outcome& r = submit(kRead10, 1);  // this thread's again
    EXPECT_EQ(reapAll(q, 1, kWait).size(), 1u);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(Bytes(back.begin() + 1, back.end()), data);
}

// A command sent after a reap may wait in the queue until it has replaced all
// that reap handed back; a reap that only looks (min 0) still hands it over.
TEST_F(FileDev, ACommandHeldForItsBatchReachesTheDiskOnALook) {
    auto queue = openQueue(4);
    ASSERT_TRUE(queue);
    mqb::FileQueue& q = *queue;
    if (!q.async()) GTEST_SKIP() << "the kernel refuses io_uring here";
    Bytes back(3 * 512);
    std::deque<QCmd> cmds;
    uint64_t t[4];
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(cmds.emplace_back(kRead10, i, 1, back.data() + 512 * i, 512).submit(q, uint64_t(i)), 0);
        ASSERT_EQ(q.commit(), 0);
        if (i == 1) {
            ASSERT_EQ(q.reap(t, 2, 4, 2000000000), 2);
        }
    }
    int got = 0;
    for (int k = 0; k < 2000 && (got = q.reap(t, 0, 4, 0)) == 0; ++k) usleep(1000);
    ASSERT_EQ(got, 1) << "the command sent after the reap never reached the kernel";
    EXPECT_EQ(t[0], 2u);
    EXPECT_EQ(cmds[2].out.status, 0);
}
