// mqb_sg_test.cpp: the SCSI generic backend: how sg results become
// outcomes, the queue's bookkeeping over several descriptors of a fake
// device (pack_id matching, data directions, refusals), and the open errors.
// A real device's geometry, sense, time-outs and depth are checked through
// kiv under scsi_debug in tests/vm.
#include <sys/eventfd.h>
#include <algorithm>
#include <deque>
#include <map>
#include <set>
#include "backends/SgQueue.h"
#include "MqbTestSupport.h"

namespace {
using namespace mqbtest;
struct Case { const char* what; uint8_t status, masked; uint16_t host, driver; uint8_t senseWr; int want; };

TEST(SgMap, StatusHostAndDriverCodes) {
    const Case cases[] = {
        {"good", 0x00, 0, 0, 0, 0, MQB_OK},
        {"check, 18 bytes of sense", 0x02, 0x01, 0, 0x08, 18, MQB_ERR_CHECK},
        {"check via masked_status only", 0x00, 0x01, 0, 0x08, 32, MQB_ERR_CHECK},
        {"check, sense clamped to 252", 0x02, 0x01, 0, 0x08, 255, MQB_ERR_CHECK},
        {"check without sense", 0x02, 0x01, 0, 0, 0, MQB_ERR_IO},
        {"host DID_TIME_OUT", 0x00, 0, 0x03, 0, 0, MQB_ERR_TIMEOUT},
        {"driver timeout (with suggestion bits)", 0x00, 0, 0, 0x26, 0, MQB_ERR_TIMEOUT},
        {"busy", 0x08, 0x04, 0, 0, 0, MQB_ERR_BUSY},
        {"reservation conflict", 0x18, 0x0C, 0, 0, 0, MQB_ERR_IO},
        {"host DID_NO_CONNECT despite check", 0x02, 0x01, 0x01, 0x08, 18, MQB_ERR_IO},
        {"driver error", 0x00, 0, 0, 0x04, 0, MQB_ERR_IO},
    };
    uint8_t sense[255];
    for (int i = 0; i < 255; ++i) sense[i] = uint8_t(0x70 + i);
    for (const Case& k : cases) {
        sg_io_hdr_t h;
        std::memset(&h, 0, sizeof h);
        h.status = k.status, h.masked_status = k.masked, h.host_status = k.host;
        h.driver_status = k.driver, h.sb_len_wr = k.senseWr, h.sbp = sense, h.mx_sb_len = 255;
        mqb::Outcome out;
        out.status = 1, out.senseLen = 7;  // stale values must not survive
        mqb::mapSgResult(h, out);
        EXPECT_EQ(out.status, k.want) << k.what;
        const unsigned wantLen = k.want == MQB_ERR_CHECK ? std::min<unsigned>(k.senseWr, 252) : 0;
        ASSERT_EQ(out.senseLen, wantLen) << k.what;
        EXPECT_EQ(std::memcmp(out.sense, sense, wantLen), 0) << k.what;
    }
}

// A device behind fake descriptors: started headers wait until the test
// finishes them, good, in any order.
struct FakeSg {
    struct Port : mqb::SgPort {
        FakeSg& dev;
        int cap, refuseAbove, efd = eventfd(0, EFD_NONBLOCK);
        std::vector<sg_io_hdr_t> started;  // in flight on this descriptor
        std::deque<sg_io_hdr_t> finished;
        Port(FakeSg& d, int c, int r) : dev(d), cap(c), refuseAbove(r) {}
        ~Port() override { close(efd); }
        int start(sg_io_hdr_t& h) override {
            if (int(started.size()) >= std::min(cap, refuseAbove)) return -EAGAIN;
            started.push_back(h);
            dev.order.push_back(this);
            return 0;
        }
        int finish(sg_io_hdr_t& h) override {
            if (finished.empty()) return -EAGAIN;
            h = finished.front();
            finished.pop_front();
            uint64_t v;
            if (finished.empty()) (void)!read(efd, &v, 8);
            return 0;
        }
        int pollFd() const override { return efd; }
        int capacity() const override { return cap; }
    };
    int cap = 16, refuseAbove = 1 << 30, opens = 0, maxOpens = 1 << 30;
    std::vector<Port*> ports, order;
    mqb::SgPortOpener opener() {
        return [this]() -> std::unique_ptr<mqb::SgPort> {
            if (opens++ >= maxOpens) return nullptr;
            auto p = std::make_unique<Port>(*this, cap, refuseAbove);
            ports.push_back(p.get());
            return p;
        };
    }
    // Finishes the command with pack_id `id` as good.
    void finish(int id) {
        for (Port* p : ports)
            for (auto it = p->started.begin(); it != p->started.end(); ++it) {
                if (it->pack_id != id) continue;
                sg_io_hdr_t h = *it;
                if (h.dxfer_direction == SG_DXFER_FROM_DEV) std::memset(h.dxferp, 0x5A, h.dxfer_len);
                p->started.erase(it);
                p->finished.push_back(h);
                uint64_t one = 1;
                (void)!write(p->efd, &one, 8);
                return;
            }
        ADD_FAILURE() << "no command with pack_id " << id;
    }
};

TEST(SgQueueFake, SpreadsTheDepthOverDescriptorsAndMatchesCompletionsInAnyOrder) {
    FakeSg dev;
    constexpr int kDepth = 40;
    mqb::SgQueue q(dev.opener(), kDepth, 1000);
    // The commands cycle through WRITE, READ, and VERIFY with and without BYTCHK.
    const uint8_t ops[4] = {kWrite10, kRead10, kVerify10, kVerify10}, flags[4] = {0, 0, kBytchk, 0};
    uint8_t data[kDepth][512];
    mqb::Outcome out[kDepth];
    for (int i = 0; i < kDepth; ++i)
        ASSERT_EQ(q.submit(QCmd(ops[i % 4], 0, 1, data[i], 512, flags[i % 4]).c, &out[i], 1000 + i), 0);
    QCmd extra(kRead10, 0, 1);
    EXPECT_EQ(extra.submit(q, 0), MQB_ERR_QUEUE_FULL);
    EXPECT_EQ(dev.order.size(), 0u) << "nothing starts before the commit";
    ASSERT_EQ(q.commit(), 0);
    ASSERT_EQ(q.ports(), 3);
    EXPECT_EQ(std::vector<size_t>({dev.ports[0]->started.size(), dev.ports[1]->started.size(), dev.ports[2]->started.size()}),
              std::vector<size_t>({16, 16, 8}));
    std::set<int> ids;                                  // pack_ids, finished backwards below
    std::map<std::pair<int, int>, std::set<int>> dirs;  // (opcode, byte 1) -> data directions
    for (FakeSg::Port* p : dev.ports)
        for (const auto& h : p->started) {
            ids.insert(h.pack_id);
            dirs[{h.cmdp[0], h.cmdp[1]}].insert(h.dxfer_direction);
        }
    ASSERT_EQ(ids.size(), size_t(kDepth)) << "every command has its own pack_id";
    EXPECT_EQ(dirs, (decltype(dirs){{{kWrite10, 0}, {SG_DXFER_TO_DEV}}, {{kRead10, 0}, {SG_DXFER_FROM_DEV}},
                                    {{kVerify10, kBytchk}, {SG_DXFER_TO_DEV}}, {{kVerify10, 0}, {SG_DXFER_NONE}}}))
        << "VERIFY sends its buffer only when BYTCHK asks for a compare";
    for (auto id = ids.rbegin(); id != ids.rend(); ++id) dev.finish(*id);
    const std::vector<uint64_t> tokens = reapAll(q, kDepth);
    ASSERT_EQ(tokens.size(), size_t(kDepth));
    EXPECT_EQ(q.outstanding(), 0);
    for (uint64_t token : tokens) {
        const int t = int(token - 1000);
        ASSERT_TRUE(t >= 0 && t < kDepth);
        EXPECT_EQ(out[t].status, 0) << t;
        if (ops[t % 4] == kRead10) {
            EXPECT_EQ(data[t][511], 0x5A) << "read data lands in the command's buffer";
        }
    }
}

TEST(SgQueueFake, RefusedStartsWaitForRoomAndStrayCompletionsAreIgnored) {
    FakeSg dev;
    dev.refuseAbove = 2, dev.maxOpens = 1;  // one descriptor that takes two at a time
    mqb::SgQueue q(dev.opener(), 8, 1000);
    mqb::Outcome out[4];
    for (int i = 0; i < 4; ++i) ASSERT_EQ(q.submit(QCmd(kVerify10, 0, 1).c, &out[i], uint64_t(i)), 0);
    q.commit();
    ASSERT_EQ(dev.ports[0]->started.size(), 2u);
    uint64_t tokens[4];
    EXPECT_EQ(q.reap(tokens, 1, 4, 20000000), 0) << "nothing finished within 20 ms";
    sg_io_hdr_t stray{};
    stray.pack_id = 3, stray.usr_ptr = nullptr;  // a pack_id of ours, but not our command
    dev.ports[0]->finished.push_back(stray);
    const int first = dev.ports[0]->started[0].pack_id;
    dev.finish(first);
    ASSERT_EQ(q.reap(tokens, 1, 4, -1), 1);
    EXPECT_EQ(dev.ports[0]->started.size(), 2u) << "the freed room went to a waiting command";
    int n = 1;
    while (!dev.ports[0]->started.empty()) {
        dev.finish(dev.ports[0]->started[0].pack_id);
        n += q.reap(tokens, 1, 4, -1);
    }
    EXPECT_EQ(std::make_pair(n, q.outstanding()), std::make_pair(4, 0));
    for (const auto& o : out) EXPECT_EQ(o.status, 0);
}

TEST(SgQueueFake, NoDescriptorAtAllFailsEveryCommand) {
    FakeSg dev;
    dev.maxOpens = 0;
    mqb::SgQueue q(dev.opener(), 4, 1000);
    mqb::Outcome out[2];
    for (int i = 0; i < 2; ++i) ASSERT_EQ(q.submit(QCmd(kVerify10, 0, 1).c, &out[i], uint64_t(i)), 0);
    uint64_t tokens[2];
    EXPECT_EQ(q.reap(tokens, 2, 2, -1), 2);
    EXPECT_EQ(std::make_pair(out[0].status, out[1].status), std::make_pair(int(MQB_ERR_IO), int(MQB_ERR_IO)));
}

TEST(SgOpen, ErrorMessages) {
    const struct { std::string text, err; } bad[] = {
        {"sg:/nonexistent", "cannot open \"/nonexistent\": No such file or directory"},
        {"sg:/dev/null", "\"/dev/null\" is not a SCSI generic device"},
        {"sg:", "sg device needs a path"},
    };
    std::string err;
    for (const auto& b : bad) {
        EXPECT_EQ(mqb::addDevice(b.text, err), -1) << b.text;
        EXPECT_EQ(err, b.err);
    }
    // The time-out key is checked before the device is opened.
    for (const char* v : {"0", "3601", "", "-5", "10s"}) {
        EXPECT_EQ(mqb::addDevice(std::string("sg:/nonexistent,timeout=") + v, err), -1);
        EXPECT_EQ(err, std::string("bad value \"") + v + "\" for device text key \"timeout\" (1 to 3600 seconds)");
    }
}
}  // namespace
