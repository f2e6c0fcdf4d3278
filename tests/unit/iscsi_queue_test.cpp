// iscsi_queue_test.cpp: iscsi:// device texts, an unreachable target, and the
// iSCSI queue against a real target (tgtd on 127.0.0.1, started by
// tests/tgt_fixture.sh): the process's rand() sequence, a queue refusing past
// its depth, and a reap's own wait on a target that stops answering. Runs at
// depth, the target's sense and sessions that die are checked through kiv in
// tests/tcl/iscsi.test, data read back in iscsi.test and drives.test.
#include <cstdio>
#include <deque>
#include "backends/IscsiDisk.h"
#include "backends/IscsiQueue.h"
#include "MqbTestSupport.h"

namespace {
using namespace mqbtest;
constexpr uint32_t kBs = 512;

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
    std::string url(const std::string& suffix = "") const { return url_ + suffix; }
    void pause() { run("pause"); }

private:
    static std::string script() { return std::string(KIV_SOURCE_DIR) + "/tests/tgt_fixture.sh"; }
    void run(const char* what) {
        const std::string cmd = script() + " " + what + " " + dir_ + " >/dev/null 2>&1";
        EXPECT_EQ(std::system(cmd.c_str()), 0) << cmd;
    }
    std::string dir_, url_;
};

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
        {"iscsi://h:99999/iqn/1", "port \"99999\""},
        {"iscsi:///iqn/1", "has no host"},
        {"iscsi://h//1", "has no target name"},
        {"iscsi://h/iqn/x", "LUN \"x\""},
        {"iscsi://h/iqn/16384", "LUN \"16384\""},
        {"iscsi://h/iqn/1?timeout=0", "bad value \"0\" for device text key \"timeout\""},
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
    const std::string text = "iscsi://127.0.0.1:1/iqn.none/1";  // nothing listens on port 1
    std::string err;
    const auto t0 = Clock::now();
    auto disk = mqb::IscsiDisk::open(text, err);
    EXPECT_EQ(disk, nullptr);
#if MQB_TEST_NO_ISCSI
    EXPECT_NE(err.find("no libiscsi"), std::string::npos) << err;
#else
    EXPECT_NE(err.find("Connection refused"), std::string::npos) << err;
#endif
    EXPECT_LT(Clock::now() - t0, milliseconds(1000));
}

// A target of the test's own, a queue on its LUN and the commands submitted to it.
class IscsiQueueTest : public ::testing::Test {
protected:
    void SetUp() override {
#if MQB_TEST_NO_ISCSI
        GTEST_SKIP() << "libMQB was built without libiscsi";
#endif
        if (!target_.up()) GTEST_SKIP() << "tgtd could not be started";
    }
    void openQueue(int depth, const char* urlSuffix = "") {
        std::string err, why;
        disk_ = mqb::IscsiDisk::open(target_.url(urlSuffix), err);
        ASSERT_NE(disk_, nullptr) << err;
        q_ = disk_->openQueue(depth, why);
        ASSERT_NE(q_, nullptr) << why;
    }
    // `op` of `tl` blocks for each of `bufs`, at LBAs and tokens from 0 on.
    void submitAll(uint8_t op, std::vector<Bytes>& bufs, uint16_t tl) {
        for (size_t i = 0; i < bufs.size(); ++i) {
            cmds_.emplace_back(op, i * tl, tl, bufs[i].data(), bufs[i].size());
            ASSERT_EQ(cmds_.back().submit(*q_, i), 0);
        }
    }
    Target target_;
    std::unique_ptr<mqb::Backend> disk_;
    std::unique_ptr<mqb::Queue> q_;
    std::deque<QCmd> cmds_;
};

// The loops draw their commands from the process's rand(); opening a session
// and running commands on it must leave that sequence where it was.
TEST_F(IscsiQueueTest, LeavesTheProcessRandomSequenceAlone) {
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

TEST_F(IscsiQueueTest, SilentTargetTimesOutWithinTheTimeout) {
    openQueue(4, "?timeout=2");
    target_.pause();
    std::vector<Bytes> data(4, Bytes(kBs));
    submitAll(kRead10, data, 1);
    QCmd extra(kRead10, 0, 1, data[0].data(), kBs);
    EXPECT_EQ(extra.submit(*q_, 9), MQB_ERR_QUEUE_FULL) << "four is the depth";
    ASSERT_EQ(q_->commit(), 0);
    // A reap's own wait ends on time with fewer than asked for.
    uint64_t tokens[4];
    auto t0 = Clock::now();
    EXPECT_EQ(q_->reap(tokens, 1, 4, 300'000'000), 0);
    EXPECT_GE(Clock::now() - t0, milliseconds(290));
    EXPECT_LT(Clock::now() - t0, milliseconds(1000));
    EXPECT_EQ(q_->reap(tokens, 0, 4, 0), 0);
    // The commands' own time-out ends them all (when, and as what, iscsi.test
    // checks through kiv); then nothing is outstanding and a reap does not wait.
    EXPECT_EQ(reapAll(*q_, 4).size(), 4u);
    EXPECT_EQ(q_->reap(tokens, 1, 1, -1), 0);
}
