// iscsi_queue_test.cpp: iscsi:// device texts, and the iSCSI queue against a
// real target (tgtd on 127.0.0.1, started by tests/tgt_fixture.sh): commands
// in flight at the queue depth, data that comes back as written, the target's
// own sense, and sessions that die or stop answering. WRITE AND VERIFY and
// VERIFY runs are in tests/tcl/iscsi.test.
#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <vector>
#include "MQBErr.h"
#include "backends/IscsiDisk.h"
#include "backends/IscsiQueue.h"

namespace {
using mqb::Command;
using mqb::Outcome;
using Bytes = std::vector<uint8_t>;
using Clock = std::chrono::steady_clock;
constexpr uint8_t READ10 = 0x28, WRITE10 = 0x2A;
constexpr uint32_t kBs = 512;

double secondsSince(Clock::time_point t0) {
    return std::chrono::duration<double>(Clock::now() - t0).count();
}

// One tgtd with a 64 MiB LUN, for as long as the object lives.
class Target {
public:
    Target() {
        char tmpl[] = "/tmp/kiv_tgt_XXXXXX";
        if (!mkdtemp(tmpl)) return;
        dir_ = tmpl;
        const std::string cmd = script() + " start " + dir_ + " 64 2>/dev/null";
        FILE* p = popen(cmd.c_str(), "r");
        if (!p) return;
        char line[512] = {};
        if (fgets(line, sizeof line, p)) url_ = line;
        while (!url_.empty() && (url_.back() == '\n' || url_.back() == '\r')) url_.pop_back();
        if (pclose(p) != 0) url_.clear();
    }
    ~Target() {
        if (dir_.empty()) return;
        run("stop");
        rmdir(dir_.c_str());
    }
    bool up() const { return !url_.empty(); }
    // The LUN's spec, with `suffix` ("?timeout=2") appended.
    std::string url(const std::string& suffix = "") const { return url_ + suffix; }
    void kill() { run("kill"); }
    void pause() { run("pause"); }

private:
    static std::string script() { return std::string(KIV_SOURCE_DIR) + "/tests/tgt_fixture.sh"; }
    void run(const char* what) {
        const std::string cmd = script() + " " + what + " " + dir_ + " >/dev/null 2>&1";
        EXPECT_EQ(std::system(cmd.c_str()), 0) << cmd;
    }
    std::string dir_, url_;
};

// A ten-byte CDB of `op` at `lba` for `tl` blocks, with its buffer.
struct Cmd {
    uint8_t cdb[10] = {};
    Command c;
    Outcome out;
    Cmd(uint8_t op, uint32_t lba, uint16_t tl, Bytes* data) {
        cdb[0] = op;
        for (int i = 0; i < 4; ++i) cdb[2 + i] = uint8_t(lba >> (24 - 8 * i));
        cdb[7] = uint8_t(tl >> 8), cdb[8] = uint8_t(tl);
        c.cdb = cdb, c.cdbLen = 10, c.opcode = op, c.lba = lba, c.tl = tl;
        if (data && op == READ10) c.readBuf = data->data(), c.readLen = data->size();
        else if (data) c.writeBuf = data->data(), c.writeLen = data->size();
    }
};

// Reaps until `n` tokens came back or the queue has nothing left; returns them.
std::vector<uint64_t> reapAll(mqb::Queue& q, int n) {
    std::vector<uint64_t> got(size_t(n) + 1);
    int have = 0;
    while (have < n && q.outstanding() > 0) {
        const int r = q.reap(got.data() + have, 1, n - have, -1);
        if (r < 0) break;
        have += r;
    }
    got.resize(size_t(have));
    return got;
}

// A port on 127.0.0.1 that nothing listens on (bound, then released).
int freePort() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    close(fd);
    return ntohs(a.sin_port);
}

// Sense key / ASC / ASCQ of fixed-format sense, as one number (0x052100).
uint32_t kcq(const Outcome& o) {
    return o.senseLen < 14 ? 0 : (uint32_t(o.sense[2] & 0x0F) << 16) | (o.sense[12] << 8) | o.sense[13];
}
}  // namespace

TEST(IscsiSpec, AcceptsHostPortTargetLunAndTimeout) {
    mqb::IscsiTarget t;
    std::string err;
    ASSERT_TRUE(mqb::parseIscsiText("iscsi://10.1.2.3/iqn.2001-04.com.example:disk/0", t, err)) << err;
    EXPECT_EQ(t.portal, "10.1.2.3:3260");
    EXPECT_EQ(t.iqn, "iqn.2001-04.com.example:disk");
    EXPECT_EQ(t.lun, 0);
    EXPECT_EQ(t.timeoutSec, 30);
    ASSERT_TRUE(mqb::parseIscsiText("iscsi://[::1]:3261/iqn.x/12?timeout=5", t, err)) << err;
    EXPECT_EQ(t.portal, "[::1]:3261");
    EXPECT_EQ(t.host, "::1");
    EXPECT_EQ(t.port, 3261);
    EXPECT_EQ(t.lun, 12);
    EXPECT_EQ(t.timeoutSec, 5);
}

TEST(IscsiText, RefusesMalformedTextsWithAReason) {
    const char* bad[][2] = {
        {"iscsi:/h/iqn/1", "begins with iscsi://"},
        {"iscsi://h/iqn", "is not iscsi://HOST[:PORT]/TARGET-IQN/LUN"},
        {"iscsi://h:0/iqn/1", "port \"0\""},
        {"iscsi://h:/iqn/1", "port \"\""},
        {"iscsi://h:99999/iqn/1", "port \"99999\""},
        {"iscsi:///iqn/1", "has no host"},
        {"iscsi://h//1", "has no target name"},
        {"iscsi://h/iqn/x", "LUN \"x\""},
        {"iscsi://h/iqn/16384", "LUN \"16384\""},
        {"iscsi://h/iqn/1?timeout=0", "bad value \"0\" for device text key \"timeout\""},
        {"iscsi://h/iqn/1?timeout=5s", "bad value \"5s\" for device text key \"timeout\""},
        {"iscsi://h/iqn/1?retries=2", "unknown device text key \"retries\""},
    };
    for (auto& b : bad) {
        mqb::IscsiTarget t;
        std::string err;
        EXPECT_FALSE(mqb::parseIscsiText(b[0], t, err)) << b[0];
        EXPECT_NE(err.find(b[1]), std::string::npos) << b[0] << ": " << err;
    }
}

TEST(IscsiOpen, UnreachableTargetFailsAtOnceWithTheTransportMessage) {
    const std::string spec = "iscsi://127.0.0.1:" + std::to_string(freePort()) + "/iqn.none/1";
    std::string err;
    const auto t0 = Clock::now();
    auto disk = mqb::IscsiDisk::open(spec, err);
    EXPECT_EQ(disk, nullptr);
#if MQB_TEST_NO_ISCSI
    EXPECT_NE(err.find("no libiscsi"), std::string::npos) << err;
#else
    EXPECT_NE(err.find("Connection refused"), std::string::npos) << err;
#endif
    EXPECT_LT(secondsSince(t0), 1.0);
}

class IscsiLun : public ::testing::Test {
protected:
    static void SetUpTestSuite() { target_ = new Target; }
    static void TearDownTestSuite() { delete target_; }
    void SetUp() override {
#if MQB_TEST_NO_ISCSI
        GTEST_SKIP() << "libMQB was built without libiscsi";
#endif
        if (!target_->up()) GTEST_SKIP() << "tgtd could not be started";
        std::string err;
        disk_ = mqb::IscsiDisk::open(target_->url(), err);
        ASSERT_NE(disk_, nullptr) << err;
    }
    static Target* target_;
    std::unique_ptr<mqb::Backend> disk_;
};
Target* IscsiLun::target_ = nullptr;

// 32 writes of distinct data in flight together, then 32 reads of them.
TEST_F(IscsiLun, KeepsTheQueueDepthInFlightAndReadsBackWhatItWrote) {
    constexpr int kDepth = 32, kTl = 8;
    EXPECT_EQ(disk_->geometry().blocks, 64u * 1024 * 1024 / kBs);  // READ CAPACITY(16) at open
    EXPECT_EQ(disk_->geometry().blockSize, kBs);
    std::string why;
    auto q = disk_->openQueue(kDepth, why);
    ASSERT_NE(q, nullptr) << why;
    std::vector<Bytes> wdata(kDepth, Bytes(kTl * kBs)), rdata(kDepth, Bytes(kTl * kBs));
    std::vector<std::unique_ptr<Cmd>> cmds;
    for (int i = 0; i < kDepth; ++i) {
        for (size_t b = 0; b < wdata[size_t(i)].size(); ++b) wdata[size_t(i)][b] = uint8_t(i * 7 + b * 13);
        cmds.push_back(std::make_unique<Cmd>(WRITE10, 1000 + i * kTl, kTl, &wdata[size_t(i)]));
        ASSERT_EQ(q->submit(cmds.back()->c, &cmds.back()->out, uint64_t(i)), 0);
    }
    EXPECT_EQ(q->outstanding(), kDepth);
    Cmd extra(READ10, 0, 1, &rdata[0]);
    EXPECT_EQ(q->submit(extra.c, &extra.out, 999), MQB_ERR_QUEUE_FULL);
    ASSERT_EQ(q->commit(), 0);
    auto tokens = reapAll(*q, kDepth);
    EXPECT_EQ(std::set<uint64_t>(tokens.begin(), tokens.end()).size(), size_t(kDepth));
    for (auto& c : cmds) EXPECT_EQ(c->out.status, 0);

    cmds.clear();
    for (int i = 0; i < kDepth; ++i) {
        cmds.push_back(std::make_unique<Cmd>(READ10, 1000 + i * kTl, kTl, &rdata[size_t(i)]));
        ASSERT_EQ(q->submit(cmds.back()->c, &cmds.back()->out, uint64_t(100 + i)), 0);
    }
    tokens = reapAll(*q, kDepth);  // reap commits what is still uncommitted
    EXPECT_EQ(tokens.size(), size_t(kDepth));
    EXPECT_EQ(q->outstanding(), 0);
    for (int i = 0; i < kDepth; ++i) {
        EXPECT_EQ(cmds[size_t(i)]->out.status, 0);
        EXPECT_EQ(rdata[size_t(i)], wdata[size_t(i)]) << "blocks at " << 1000 + i * kTl;
    }
    // Nothing outstanding: a reap returns at once with nothing.
    uint64_t t;
    EXPECT_EQ(q->reap(&t, 1, 1, -1), 0);
}

// The target's own sense comes back whole: ILLEGAL REQUEST / LBA OUT OF RANGE.
TEST_F(IscsiLun, PastTheEndGivesTheTargetsSense) {
    std::string why;
    auto q = disk_->openQueue(2, why);
    ASSERT_NE(q, nullptr) << why;
    const uint32_t blocks = uint32_t(disk_->geometry().blocks);
    Bytes data(kBs);
    Cmd read(READ10, blocks, 1, &data), zero(READ10, blocks + 10, 0, nullptr);
    ASSERT_EQ(q->submit(read.c, &read.out, 1), 0);
    ASSERT_EQ(q->submit(zero.c, &zero.out, 2), 0);
    EXPECT_EQ(reapAll(*q, 2).size(), 2u);
    for (const Outcome* o : {&read.out, &zero.out}) {
        EXPECT_EQ(o->status, MQB_ERR_CHECK);
        EXPECT_GE(o->senseLen, 18);
        EXPECT_EQ(o->sense[0] & 0x7F, 0x70);
        EXPECT_EQ(kcq(*o), 0x052100u);
        EXPECT_EQ(o->senseLen, 8 + o->sense[7]) << "sense cut short";
    }
    // The session is still good after a CHECK CONDITION.
    Cmd ok(READ10, 0, 1, &data);
    ASSERT_EQ(q->submit(ok.c, &ok.out, 3), 0);
    EXPECT_EQ(reapAll(*q, 1).size(), 1u);
    EXPECT_EQ(ok.out.status, 0);
}

// The loops draw their commands from the process's rand(); opening a session
// and running commands on it must leave that sequence where it was.
TEST_F(IscsiLun, LeavesTheProcessRandomSequenceAlone) {
    srand(4242);
    std::vector<int> expected(8);
    for (int& v : expected) v = rand();
    srand(4242);
    std::vector<int> got(8);
    got[0] = rand();
    {
        std::string why;
        auto q = disk_->openQueue(4, why);
        ASSERT_NE(q, nullptr) << why;
        Bytes data(kBs);
        Cmd read(READ10, 0, 1, &data);
        ASSERT_EQ(q->submit(read.c, &read.out, 1), 0);
        EXPECT_EQ(reapAll(*q, 1).size(), 1u);
    }
    for (size_t i = 1; i < got.size(); ++i) got[i] = rand();
    EXPECT_EQ(got, expected);
}

// Each test below ends a target of its own: it starts one, opens a queue of
// `depth` on it and submits `n` reads of `tl` blocks once the target is gone.
class IscsiLoss : public ::testing::Test {
protected:
    void SetUp() override {
#if MQB_TEST_NO_ISCSI
        GTEST_SKIP() << "libMQB was built without libiscsi";
#endif
        if (!target_.up()) GTEST_SKIP() << "tgtd could not be started";
    }
    void openQueue(const char* urlSuffix, int depth) {
        std::string err;
        disk_ = mqb::IscsiDisk::open(target_.url(urlSuffix), err);
        ASSERT_NE(disk_, nullptr) << err;
        std::string why;
        q_ = disk_->openQueue(depth, why);
        ASSERT_NE(q_, nullptr) << why;
    }
    void submitReads(int n, uint16_t tl) {
        data_.assign(size_t(n), Bytes(tl * kBs));
        for (int i = 0; i < n; ++i) {
            cmds_.push_back(std::make_unique<Cmd>(READ10, uint32_t(i * tl), tl, &data_[size_t(i)]));
            ASSERT_EQ(q_->submit(cmds_.back()->c, &cmds_.back()->out, uint64_t(i)), 0);
        }
    }
    Target target_;
    std::unique_ptr<mqb::Backend> disk_;
    std::unique_ptr<mqb::Queue> q_;
    std::vector<Bytes> data_;
    std::vector<std::unique_ptr<Cmd>> cmds_;
};

TEST_F(IscsiLoss, KilledTargetEndsEveryCommandWithATimeoutAtOnce) {
    openQueue("", 8);
    target_.kill();
    const auto t0 = Clock::now();
    submitReads(8, 8);
    auto& q = q_;
    auto& cmds = cmds_;
    auto& data = data_;
    EXPECT_EQ(reapAll(*q, 8).size(), 8u);
    EXPECT_LT(secondsSince(t0), 5.0) << "a dropped session must not wait for the 30 s time-out";
    for (auto& c : cmds) EXPECT_EQ(c->out.status, MQB_ERR_TIMEOUT);
    auto* iq = static_cast<mqb::IscsiQueue*>(q.get());
    EXPECT_TRUE(iq->lost());
    EXPECT_FALSE(iq->lossReason().empty());
    // A dead session refuses new commands.
    Cmd again(READ10, 0, 1, &data[0]);
    EXPECT_EQ(q->submit(again.c, &again.out, 9), MQB_ERR_TIMEOUT);
    EXPECT_EQ(q->outstanding(), 0);
}

TEST_F(IscsiLoss, SilentTargetTimesOutWithinTheTimeout) {
    openQueue("?timeout=2", 4);
    target_.pause();
    submitReads(4, 1);
    auto& q = q_;
    auto& cmds = cmds_;
    ASSERT_EQ(q->commit(), 0);
    // A reap's own wait ends on time with fewer than asked for.
    uint64_t tokens[4];
    auto t0 = Clock::now();
    EXPECT_EQ(q->reap(tokens, 1, 4, 300'000'000), 0);
    EXPECT_GE(secondsSince(t0), 0.29);
    EXPECT_LT(secondsSince(t0), 1.0);
    EXPECT_EQ(q->reap(tokens, 0, 4, 0), 0);
    // The commands' own time-out ends them all, about 2 s after they were sent.
    t0 = Clock::now();
    EXPECT_EQ(reapAll(*q, 4).size(), 4u);
    EXPECT_LT(secondsSince(t0), 3.0);
    EXPECT_GT(secondsSince(t0), 1.0);
    for (auto& c : cmds) EXPECT_EQ(c->out.status, MQB_ERR_TIMEOUT);
}
