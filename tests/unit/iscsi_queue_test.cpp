// iscsi_queue_test.cpp: iscsi:// device texts, and the iSCSI queue against a
// real target (tgtd on 127.0.0.1, started by tests/tgt_fixture.sh): commands
// in flight at the queue depth, data that comes back as written, the target's
// own sense, and sessions that die or stop answering. WRITE AND VERIFY and
// VERIFY runs are in tests/tcl/iscsi.test.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <cstdio>
#include <deque>
#include <set>
#include "backends/IscsiDisk.h"
#include "backends/IscsiQueue.h"
#include "MqbTestSupport.h"

namespace {
using namespace mqbtest;
using mqb::Outcome;
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
    // The LUN's device text, with `suffix` ("?timeout=2") appended.
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

TEST(IscsiText, AcceptsHostPortTargetLunAndTimeout) {
    mqb::IscsiTarget t;
    std::string err;
    ASSERT_TRUE(mqb::parseIscsiText("iscsi://10.1.2.3/iqn.2001-04.com.example:disk/0", t, err)) << err;
    EXPECT_EQ(std::make_tuple(t.portal, t.iqn, t.lun, t.timeoutSec),
              std::make_tuple("10.1.2.3:3260", "iqn.2001-04.com.example:disk", 0, 30));
    ASSERT_TRUE(mqb::parseIscsiText("iscsi://[::1]:3261/iqn.x/12?timeout=5", t, err)) << err;
    EXPECT_EQ(std::make_tuple(t.portal, t.host, t.port, t.lun, t.timeoutSec),
              std::make_tuple("[::1]:3261", "::1", 3261, 12, 5));
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
    const std::string text = "iscsi://127.0.0.1:" + std::to_string(freePort()) + "/iqn.none/1";
    std::string err;
    const auto t0 = Clock::now();
    auto disk = mqb::IscsiDisk::open(text, err);
    EXPECT_EQ(disk, nullptr);
#if MQB_TEST_NO_ISCSI
    EXPECT_NE(err.find("no libiscsi"), std::string::npos) << err;
#else
    EXPECT_NE(err.find("Connection refused"), std::string::npos) << err;
#endif
    EXPECT_LT(secondsSince(t0), 1.0);
}

// A queue on a target's LUN and the commands submitted to it. IscsiLun's
// tests share one target; each IscsiLoss test ends a target of its own.
class IscsiQueueTest : public ::testing::Test {
protected:
    void SetUp() override {
#if MQB_TEST_NO_ISCSI
        GTEST_SKIP() << "libMQB was built without libiscsi";
#endif
        if (!target_->up()) GTEST_SKIP() << "tgtd could not be started";
    }
    // Opens the LUN (its device text with `urlSuffix` appended) and a queue of `depth` on it.
    void openQueue(int depth, const char* urlSuffix = "") {
        std::string err, why;
        disk_ = mqb::IscsiDisk::open(target_->url(urlSuffix), err);
        ASSERT_NE(disk_, nullptr) << err;
        q_ = disk_->openQueue(depth, why);
        ASSERT_NE(q_, nullptr) << why;
    }
    // Submits `op` of `tl` blocks for each buffer of `bufs`, at LBAs from `lba0`
    // on, with tokens from `token0` on.
    void submitAll(uint8_t op, std::vector<Bytes>& bufs, uint16_t tl, uint32_t lba0 = 0, uint64_t token0 = 0) {
        for (size_t i = 0; i < bufs.size(); ++i) {
            cmds_.emplace_back(op, lba0 + i * tl, tl, bufs[i].data(), bufs[i].size());
            ASSERT_EQ(cmds_.back().submit(*q_, token0 + i), 0);
        }
    }
    Target* target_ = nullptr;
    std::unique_ptr<mqb::Backend> disk_;
    std::unique_ptr<mqb::Queue> q_;
    std::deque<QCmd> cmds_;
};
class IscsiLun : public IscsiQueueTest {
protected:
    static void SetUpTestSuite() { shared_ = new Target; }
    static void TearDownTestSuite() { delete shared_; }
    void SetUp() override { target_ = shared_, IscsiQueueTest::SetUp(); }
    static Target* shared_;
};
Target* IscsiLun::shared_ = nullptr;
class IscsiLoss : public IscsiQueueTest {
protected:
    void SetUp() override { target_ = &own_, IscsiQueueTest::SetUp(); }
    Target own_;
};

// 32 writes of distinct data in flight together, then 32 reads of them.
TEST_F(IscsiLun, KeepsTheQueueDepthInFlightAndReadsBackWhatItWrote) {
    constexpr int kDepth = 32, kTl = 8;
    openQueue(kDepth);
    EXPECT_EQ(std::make_pair(disk_->geometry().blocks, disk_->geometry().blockSize),
              std::make_pair(uint64_t(64 << 20) / kBs, kBs));  // READ CAPACITY(16) at open
    std::vector<Bytes> wdata(kDepth), rdata(kDepth, Bytes(kTl * kBs));
    for (int i = 0; i < kDepth; ++i) wdata[size_t(i)] = pattern(kTl * kBs, i);
    submitAll(kWrite10, wdata, kTl, 1000);
    EXPECT_EQ(q_->outstanding(), kDepth);
    QCmd extra(kRead10, 0, 1, rdata[0].data(), kBs);
    EXPECT_EQ(extra.submit(*q_, 999), MQB_ERR_QUEUE_FULL);
    ASSERT_EQ(q_->commit(), 0);
    auto tokens = reapAll(*q_, kDepth);
    EXPECT_EQ(std::set<uint64_t>(tokens.begin(), tokens.end()).size(), size_t(kDepth));
    submitAll(kRead10, rdata, kTl, 1000, 100);
    EXPECT_EQ(reapAll(*q_, kDepth).size(), size_t(kDepth)) << "reap commits what is still uncommitted";
    EXPECT_EQ(q_->outstanding(), 0);
    for (const QCmd& c : cmds_) EXPECT_EQ(c.out.status, 0);
    for (int i = 0; i < kDepth; ++i) EXPECT_EQ(rdata[size_t(i)], wdata[size_t(i)]) << "blocks at " << 1000 + i * kTl;
    uint64_t t;
    EXPECT_EQ(q_->reap(&t, 1, 1, -1), 0) << "nothing outstanding: a reap returns at once with nothing";
}

// The target's own sense comes back whole: ILLEGAL REQUEST / LBA OUT OF RANGE.
TEST_F(IscsiLun, PastTheEndGivesTheTargetsSense) {
    openQueue(2);
    const uint32_t blocks = uint32_t(disk_->geometry().blocks);
    std::vector<Bytes> data(1, Bytes(kBs));
    QCmd read(kRead10, blocks, 1, data[0].data(), kBs), zero(kRead10, blocks + 10, 0);
    ASSERT_EQ(read.submit(*q_, 1), 0);
    ASSERT_EQ(zero.submit(*q_, 2), 0);
    EXPECT_EQ(reapAll(*q_, 2).size(), 2u);
    for (const Outcome* o : {&read.out, &zero.out}) {
        EXPECT_GE(o->senseLen, kShortSense);
        EXPECT_EQ(std::make_tuple(o->status, o->sense[0] & 0x7F, kcq(*o), int(o->senseLen)),
                  std::make_tuple(MQB_ERR_CHECK, 0x70, uint32_t(kKeyIllegalRequest) << 16 | kLbaOutOfRange.asc << 8,
                                  8 + o->sense[7])) << "status, format, key/ASC/ASCQ, the length it says it has";
    }
    submitAll(kRead10, data, 1);
    EXPECT_EQ(reapAll(*q_, 1).size(), 1u);
    EXPECT_EQ(cmds_.back().out.status, 0) << "the session is still good after a CHECK CONDITION";
}

// The loops draw their commands from the process's rand(); opening a session
// and running commands on it must leave that sequence where it was.
TEST_F(IscsiLun, LeavesTheProcessRandomSequenceAlone) {
    srand(4242);
    std::vector<int> expected(8), got(8);
    for (int& v : expected) v = rand();
    srand(4242);
    got[0] = rand();
    openQueue(4);
    std::vector<Bytes> data(1, Bytes(kBs));
    submitAll(kRead10, data, 1);
    EXPECT_EQ(reapAll(*q_, 1).size(), 1u);
    q_.reset(), disk_.reset();
    for (size_t i = 1; i < got.size(); ++i) got[i] = rand();
    EXPECT_EQ(got, expected);
}

TEST_F(IscsiLoss, KilledTargetEndsEveryCommandWithATimeoutAtOnce) {
    openQueue(8);
    own_.kill();
    const auto t0 = Clock::now();
    std::vector<Bytes> data(8, Bytes(8 * kBs));
    submitAll(kRead10, data, 8);
    EXPECT_EQ(reapAll(*q_, 8).size(), 8u);
    EXPECT_LT(secondsSince(t0), 5.0) << "a dropped session must not wait for the 30 s time-out";
    for (const QCmd& c : cmds_) EXPECT_EQ(c.out.status, MQB_ERR_TIMEOUT);
    auto* iq = static_cast<mqb::IscsiQueue*>(q_.get());
    EXPECT_TRUE(iq->lost());
    EXPECT_FALSE(iq->lossReason().empty());
    QCmd again(kRead10, 0, 1, data[0].data(), kBs);
    EXPECT_EQ(again.submit(*q_, 9), MQB_ERR_TIMEOUT) << "a dead session refuses new commands";
    EXPECT_EQ(q_->outstanding(), 0);
}

TEST_F(IscsiLoss, SilentTargetTimesOutWithinTheTimeout) {
    openQueue(4, "?timeout=2");
    own_.pause();
    std::vector<Bytes> data(4, Bytes(kBs));
    submitAll(kRead10, data, 1);
    ASSERT_EQ(q_->commit(), 0);
    // A reap's own wait ends on time with fewer than asked for.
    uint64_t tokens[4];
    auto t0 = Clock::now();
    EXPECT_EQ(q_->reap(tokens, 1, 4, 300'000'000), 0);
    EXPECT_GE(secondsSince(t0), 0.29);
    EXPECT_LT(secondsSince(t0), 1.0);
    EXPECT_EQ(q_->reap(tokens, 0, 4, 0), 0);
    // The commands' own time-out ends them all, about 2 s after they were sent.
    t0 = Clock::now();
    EXPECT_EQ(reapAll(*q_, 4).size(), 4u);
    EXPECT_LT(secondsSince(t0), 3.0);
    EXPECT_GT(secondsSince(t0), 1.0);
    for (const QCmd& c : cmds_) EXPECT_EQ(c.out.status, MQB_ERR_TIMEOUT);
}
