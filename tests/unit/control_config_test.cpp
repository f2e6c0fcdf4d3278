// control_config_test.cpp: KIVControl as a configuration record: construction,
// the defaults set by init, the fields kept across kiv calls, the setters'
// corrections and messages, and the driver types that default to one thread.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "DeviceTable.h"
#include "Hashtable.h"
#include "KIVControl.h"
#include "MQB.h"
#include "MQBManager.h"
#include "TestSupport.h"

namespace {

class ControlConfig : public ::testing::Test {
protected:
    void SetUp() override {
        mqb::clearAllDevices();
        std::string err;
        for (int i = 0; i < 4; ++i) ASSERT_EQ(mqb::addDevice("sim:blocks=1000", err), i) << err;
        auto channel = std::make_unique<MQB>("sim");
        ASSERT_EQ(channel->setDeviceIndex(3), 0);
        mgr.setCurrentMQB(std::move(channel));
        ctl = std::make_unique<KIVControl>();
    }
    void TearDown() override {
        ctl.reset();
        mgr.setCurrentMQB(nullptr);
        mqb::clearAllDevices();
    }

    // Runs init and returns what it showed through the interpreter.
    std::string initCaptured() {
        startTclCapture(testInterp());
        ctl->init(&mgr, testInterp());
        return stopTclCapture(testInterp());
    }

    MQBManager mgr;
    std::unique_ptr<KIVControl> ctl;
};

TEST_F(ControlConfig, ConstructorStartsIdleWithBuffersAndTables) {
    EXPECT_FALSE(ctl->running);
    EXPECT_FALSE(ctl->isRunning());
    EXPECT_FALSE(ctl->hwCompare);
    EXPECT_EQ(ctl->statCallback, nullptr);
    EXPECT_EQ(ctl->errCallback, nullptr);
    EXPECT_EQ(ctl->statLogfileName, nullptr);
    EXPECT_EQ(ctl->errLogfileName, nullptr);
    EXPECT_EQ(ctl->errStatFileName, nullptr);
    ASSERT_NE(ctl->printBuf, nullptr);
    ASSERT_NE(ctl->errStats, nullptr);
    ASSERT_NE(ctl->errWidgets, nullptr);
    EXPECT_NE(ctl->errStats, ctl->errWidgets);
    EXPECT_EQ(ctl->errHeaderPending, 1);
    EXPECT_EQ(ctl->errWidgetCount, 0);
    EXPECT_EQ(ctl->dataBufferIdx, -1);
    EXPECT_EQ(ctl->kcqCount, 0);
    EXPECT_EQ(ctl->numDevices, 0);
    EXPECT_EQ(ctl->loops[254], nullptr);
    // The buffer really is 65535 bytes: its last byte is writable.
    ctl->printBuf[65534] = 'x';
    // Usable without any explicit initialisation.
    EXPECT_EQ(pthread_mutex_trylock(&ctl->printMutex), 0);
    EXPECT_EQ(pthread_mutex_unlock(&ctl->printMutex), 0);
}

TEST_F(ControlConfig, InitResetsEverySettingToItsDefault) {
    // Move every setting away from its default first, so the reset is visible.
    ctl->init(&mgr, testInterp());
    ctl->setThreadMode(false);
    ctl->setRunTime(5);
    ctl->setStatMode(1);
    ctl->setSecondsPerReport(7);
    ctl->printStatHeader(false);
    ctl->reportErrors(false);
    ctl->haltOnError(true);
    ctl->setQDepth(32);
    ctl->setOps(100);
    ctl->setDataBufferIdx(2);
    ctl->setSkipFreq(1);
    ctl->setReverseFreq(2);
    ctl->setRepeatFreq(3);
    ctl->setRawioP(4);
    ctl->setRandStream(5);
    ctl->useHWC(true);
    ctl->setTestType(2, 40);
    ctl->setTestType(1, 0);
    ctl->setTestCmd(1, 50, 50, 0, 0);
    ctl->setLbaRange(0.25, 5000);
    ctl->setTLRange(8, 16);
    int devs[] = {0, 1, 2};
    ctl->setDeviceList(devs, 3);
    ctl->setStatLogfile("s.log");
    ctl->setErrLogfile("e.log");
    ctl->setStatFile("e.stat");
    ctl->setStatCallback("cb");
    ctl->setErrCallback("ecb");
    ctl->kcqCount = 3;
    ctl->kcqUec[0] = 0x1200;
    ctl->kcqUecMask[255] = 0xFF00;
    ctl->errHeaderPending = 0;
    KIVControl::time_start = 1234;
    char key[] = "k";
    ctl->errStats->put(key, (void*)1);
    ctl->errWidgets->put(key, (void*)1);

    EXPECT_EQ(initCaptured(), "");
    EXPECT_EQ(ctl->interp, testInterp());
    EXPECT_EQ(ctl->mqbManager, &mgr);
    EXPECT_TRUE(ctl->threadMode);
    ASSERT_EQ(ctl->numDevices, 1);
    EXPECT_EQ(ctl->devices[0], 3);
    EXPECT_EQ(ctl->errHeaderPending, 1);
    EXPECT_EQ(ctl->errStats->size(), 0);
    EXPECT_EQ(ctl->errWidgets->size(), 0);
    EXPECT_EQ(ctl->statCallback, nullptr);
    EXPECT_EQ(ctl->errCallback, nullptr);
    EXPECT_EQ(ctl->statLogfileName, nullptr);
    EXPECT_EQ(ctl->errLogfileName, nullptr);
    EXPECT_EQ(ctl->errStatFileName, nullptr);
    EXPECT_TRUE(ctl->statHeader);
    EXPECT_TRUE(ctl->printErrors);
    EXPECT_FALSE(ctl->errorHalt);
    EXPECT_FLOAT_EQ(ctl->mixRatio, 0.1f);
    EXPECT_FALSE(ctl->hwCompare);
    EXPECT_EQ(KIVControl::time_start, 0u);
    EXPECT_EQ(ctl->runTime, 30);
    EXPECT_EQ(ctl->maxLba, 1.0);
    EXPECT_EQ(ctl->statMode, 2);
    EXPECT_EQ(ctl->kcqCount, 0);
    EXPECT_EQ(ctl->testType, 2);
    EXPECT_EQ(ctl->testCmd, 0);
    EXPECT_EQ(ctl->minLba, 0.0);
    EXPECT_EQ(ctl->minTL, 1);
    EXPECT_EQ(ctl->maxTL, 64);
    EXPECT_EQ(ctl->ops, 0);
    EXPECT_EQ(ctl->qDepth, 1);
    EXPECT_EQ(ctl->secondsPerReport, 1);
    EXPECT_EQ(ctl->skipFreq, 0);
    EXPECT_EQ(ctl->reverseFreq, 0);
    EXPECT_EQ(ctl->repeatFreq, 0);
    EXPECT_EQ(ctl->rawioP, 0);
    EXPECT_EQ(ctl->randStream, 0);
    EXPECT_EQ(ctl->dataBufferIdx, -1);
    for (int i = 0; i < 256; ++i) {
        ASSERT_EQ(ctl->kcqUec[i], 0) << i;
        ASSERT_EQ(ctl->kcqUecMask[i], 0) << i;
    }
}

TEST_F(ControlConfig, AppendFlagsPercentagesAndTableSlotsCarryAcrossCalls) {
    ctl->init(&mgr, testInterp());
    ctl->appendToStatLogfile(true);
    ctl->appendToErrLogfile(true);
    ctl->setTestCmd(1, 10, 20, 30, 40);
    ctl->kcqKey[0] = 0x03;
    ctl->kcqHalt[0] = true;

    ctl->init(&mgr, testInterp());
    EXPECT_TRUE(ctl->statAppend);
    EXPECT_TRUE(ctl->errorAppend);
    EXPECT_EQ(ctl->readPct, 10);
    EXPECT_EQ(ctl->writePct, 20);
    EXPECT_EQ(ctl->wrvPct, 30);
    EXPECT_EQ(ctl->verifyPct, 40);
    // The command code itself is not kept.
    EXPECT_EQ(ctl->testCmd, 0);
    EXPECT_EQ(ctl->kcqKey[0], 0x03);
    EXPECT_TRUE(ctl->kcqHalt[0]);

    ctl->appendToStatLogfile(false);
    ctl->init(&mgr, testInterp());
    EXPECT_FALSE(ctl->statAppend);
    EXPECT_TRUE(ctl->errorAppend);
}

TEST_F(ControlConfig, NoCurrentMqbWarnsOnTwoLinesAndLeavesTheListEmpty) {
    mgr.setCurrentMQB(nullptr);
    int devs[] = {1, 2};
    ctl->setDeviceList(devs, 2);
    ctl->setThreadMode(false);
    EXPECT_EQ(initCaptured(), "KIV: <W> No MQB's loaded\n!\n");
    EXPECT_EQ(ctl->numDevices, 0);
    EXPECT_TRUE(ctl->threadMode);
    EXPECT_EQ(ctl->runTime, 30);  // the rest of the defaults still apply
}

struct DriverCase {
    const char* driver;
    bool threadMode;
};

class DriverType : public ControlConfig, public ::testing::WithParamInterface<DriverCase> {};

TEST_P(DriverType, DecidesTheDefaultThreadMode) {
    const DriverCase& c = GetParam();
    auto channel = std::make_unique<MQB>(c.driver);
    ASSERT_EQ(channel->setDeviceIndex(1), 0);
    mgr.setCurrentMQB(std::move(channel));
    ctl->init(&mgr, testInterp());
    EXPECT_EQ(ctl->threadMode, c.threadMode) << c.driver;
    ASSERT_EQ(ctl->numDevices, 1);
    EXPECT_EQ(ctl->devices[0], 1);
}

INSTANTIATE_TEST_SUITE_P(
    Table, DriverType,
    ::testing::Values(DriverCase{"zorva", false}, DriverCase{"zorva2", false},
                      DriverCase{"zorva2:rest", false}, DriverCase{"zorv", true},
                      DriverCase{"zebrant", false}, DriverCase{"zebrantX", true},
                      DriverCase{"zebrant:anything", false}, DriverCase{"mendro", false},
                      DriverCase{"mendro2", true}, DriverCase{"lumiratorix", false},
                      DriverCase{"quex", false}, DriverCase{"Quex", true},
                      DriverCase{"sim", true}));

TEST_F(ControlConfig, TestTypeCorrectionsGoToProcessStdout) {
    ctl->init(&mgr, testInterp());
    struct {
        int type, percent;
        const char* out;
        int wantType;
        float wantRatio;
    } cases[] = {
        {2, 0, "", 2, 0.1f},
        {2, 100, "", 2, 0.1f},
        {2, 150, "Error: Percent > 100!\n", 2, 0.1f},
        {2, -1, "Error: Percent < 0!\n", 2, 0.1f},
        {7, 50, "Error: Invalid Type!\n", 0, 0.1f},
        {-1, 50, "Error: Invalid Type!\n", 0, 0.1f},
        {3, 25, "", 3, 0.1f},  // the percentage only matters for the mixed type
        {2, 25, "", 2, 0.25f},
        {2, 90, "", 2, 0.9f},
    };
    for (const auto& c : cases) {
        ctl->mixRatio = 0.1f;
        ctl->testType = 4;
        testing::internal::CaptureStdout();
        ctl->setTestType(c.type, c.percent);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.out) << c.type << "/" << c.percent;
        EXPECT_EQ(ctl->testType, c.wantType) << c.type << "/" << c.percent;
        EXPECT_FLOAT_EQ(ctl->mixRatio, c.wantRatio) << c.type << "/" << c.percent;
    }
}

TEST_F(ControlConfig, TestCmdFallsBackToReadWithoutLineBreak) {
    testing::internal::CaptureStdout();
    ctl->setTestCmd(9, 100, 0, 0, 0);
    ctl->setTestCmd(-2, 0, 0, 0, 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Error: Invalid Command type!  Using Read10Error: Invalid Command type!  Using Read10");
    EXPECT_EQ(ctl->testCmd, 0);

    testing::internal::CaptureStdout();
    ctl->setTestCmd(1, 70, 10, 15, 5);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(ctl->testCmd, 1);
    EXPECT_EQ(ctl->readPct, 70);
    EXPECT_EQ(ctl->writePct, 10);
    EXPECT_EQ(ctl->wrvPct, 15);
    EXPECT_EQ(ctl->verifyPct, 5);
}

TEST_F(ControlConfig, RangeSettersCorrectAndWarnThroughTheInterpreter) {
    ctl->init(&mgr, testInterp());
    startTclCapture(testInterp());
    ctl->setLbaRange(-5, 0);
    std::string out = stopTclCapture(testInterp());
    EXPECT_EQ(out, "KIV: <W> minlba < 0! setting to 0\nKIV: <W> maxlba <= 0! setting to 1.0\n");
    EXPECT_EQ(ctl->minLba, 0.0);
    EXPECT_EQ(ctl->maxLba, 1.0);

    startTclCapture(testInterp());
    ctl->setLbaRange(900, 100);  // no ordering check
    ctl->setTLRange(10, 5);      // likewise
    EXPECT_EQ(stopTclCapture(testInterp()), "");
    EXPECT_EQ(ctl->minLba, 900.0);
    EXPECT_EQ(ctl->maxLba, 100.0);
    EXPECT_EQ(ctl->minTL, 10);
    EXPECT_EQ(ctl->maxTL, 5);

    startTclCapture(testInterp());
    ctl->setTLRange(0, -3);
    EXPECT_EQ(stopTclCapture(testInterp()),
              "KIV: <W> min_tl < 1! setting to 1\nKIV: <W> max_tl < 1! setting to 1\n");
    EXPECT_EQ(ctl->minTL, 1);
    EXPECT_EQ(ctl->maxTL, 1);
}

TEST_F(ControlConfig, DeviceListTruncatesAt255AndEmptiesOnZero) {
    ctl->init(&mgr, testInterp());
    std::vector<int> list(300);
    for (int i = 0; i < 300; ++i) list[i] = 1000 + i;
    startTclCapture(testInterp());
    ctl->setDeviceList(list.data(), 300);
    EXPECT_EQ(stopTclCapture(testInterp()),
              "KIV: <W> Max 255 devices!  Trucating to 255 devices\n");
    ASSERT_EQ(ctl->numDevices, 255);
    EXPECT_EQ(ctl->devices[0], 1000);
    EXPECT_EQ(ctl->devices[254], 1254);

    startTclCapture(testInterp());
    ctl->setDeviceList(list.data(), 0);
    EXPECT_EQ(stopTclCapture(testInterp()), "");
    EXPECT_EQ(ctl->numDevices, 0);
}

TEST_F(ControlConfig, StringSettersKeepPrivateCopies) {
    char text[] = "first";
    ctl->setStatLogfile(text);
    ctl->setErrLogfile(text);
    ctl->setStatFile(text);
    ctl->setStatCallback(text);
    ctl->setErrCallback(text);
    text[0] = 'X';
    for (char* f : {ctl->statLogfileName, ctl->errLogfileName, ctl->errStatFileName,
                    ctl->statCallback, ctl->errCallback}) {
        ASSERT_NE(f, nullptr);
        EXPECT_STREQ(f, "first");
        EXPECT_NE(f, text);
    }
    EXPECT_NE(ctl->statLogfileName, ctl->errLogfileName);
    ctl->setStatCallback("a longer replacement script");
    EXPECT_STREQ(ctl->statCallback, "a longer replacement script");
}

}  // namespace
