// mqb_sg_test.cpp: the SCSI generic backend: how SG_IO results become
// outcomes, the open errors, and a capacity read on a real sg device if any.
#include <gtest/gtest.h>
#include <glob.h>
#include <algorithm>
#include <cstring>
#include "DeviceTable.h"
#include "MQBErr.h"
#include "TestSupport.h"
#include "backends/SgQueue.h"

namespace {
struct Case { const char* what; uint8_t status, masked; uint16_t host, driver; uint8_t senseWr; int want; };

TEST(SgMap, StatusHostAndDriverCodes) {
    const Case cases[] = {
        {"good", 0x00, 0, 0, 0, 0, MQB_OK},
        {"check, 18 bytes of sense", 0x02, 0x01, 0, 0x08, 18, MQB_ERR_CHECK},
        {"check via masked_status only", 0x00, 0x01, 0, 0x08, 32, MQB_ERR_CHECK},
        {"check, 96 bytes of descriptor sense", 0x02, 0x01, 0, 0x08, 96, MQB_ERR_CHECK},
        {"check, sense clamped to 252", 0x02, 0x01, 0, 0x08, 255, MQB_ERR_CHECK},
        {"check without sense", 0x02, 0x01, 0, 0, 0, MQB_ERR_IO},
        {"host DID_TIME_OUT", 0x00, 0, 0x03, 0, 0, MQB_ERR_TIMEOUT},
        {"driver timeout (with suggestion bits)", 0x00, 0, 0, 0x26, 0, MQB_ERR_TIMEOUT},
        {"busy", 0x08, 0x04, 0, 0, 0, MQB_ERR_BUSY},
        {"task set full", 0x28, 0x14, 0, 0, 0, MQB_ERR_BUSY},
        {"reservation conflict", 0x18, 0x0C, 0, 0, 0, MQB_ERR_IO},
        {"task aborted", 0x40, 0x20, 0, 0, 0, MQB_ERR_IO},
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

TEST(SgOpen, ErrorMessages) {
    std::string err;
    EXPECT_EQ(mqb::addDevice("sg:/nonexistent", err), -1);
    EXPECT_EQ(err, "cannot open \"/nonexistent\": No such file or directory");
    const std::string file = makeTempFile();
    writeFile(file, std::string(4096, 'x'));
    EXPECT_EQ(mqb::addDevice("sg:" + file, err), -1);
    EXPECT_EQ(err, "\"" + file + "\" is not a SCSI generic device");
    EXPECT_EQ(mqb::addDevice("sg:", err), -1);
    EXPECT_EQ(err, "sg device needs a path");
    unlink(file.c_str());
}

TEST(SgHardware, ReadCapacityGivesGeometry) {
    glob_t g;
    if (glob("/dev/sg*", 0, nullptr, &g) != 0) GTEST_SKIP() << "no /dev/sg* device on this machine";
    const std::string path = g.gl_pathv[0];
    globfree(&g);
    if (access(path.c_str(), R_OK | W_OK) != 0) GTEST_SKIP() << "no read-write access to " << path;
    std::string err;
    const int idx = mqb::addDevice("sg:" + path, err);
    ASSERT_GE(idx, 0) << err;
    mqb::DeviceSummary s;
    ASSERT_TRUE(mqb::deviceSummary(idx, s));
    EXPECT_EQ(s.backend, "sg");
    EXPECT_TRUE(s.blocks > 0 && s.blockSize > 0) << s.blocks << " x " << s.blockSize;
}
}  // namespace
