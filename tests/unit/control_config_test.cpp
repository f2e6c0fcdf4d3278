// control_config_test.cpp: what init keeps from the previous kiv call, its warning
// without a channel, the drivers that default to one thread, the setters' messages.
#include <functional>
#include <vector>

#include "MQB.h"
#include "TestSupport.h"

namespace {

using ControlConfig = SimControlTest;

TEST_F(ControlConfig, AppendFlagsPercentagesAndTableSlotsCarryAcrossInit) {
    quietInit();
    ctl->appendToStatLogfile(true), ctl->appendToErrLogfile(true);
    ctl->setTestCmd(1, 10, 20, 30, 40);
    ctl->kcqKey[0] = 0x03, ctl->kcqHalt[0] = true, ctl->kcqCount = 1, ctl->kcqUec[0] = 0x1200;
    quietInit();
    EXPECT_TRUE(ctl->statAppend && ctl->errorAppend);
    EXPECT_EQ(std::vector<int>({ctl->readPct, ctl->writePct, ctl->wrvPct, ctl->verifyPct}),
              std::vector<int>({10, 20, 30, 40}));
    EXPECT_EQ(ctl->testCmd, 0);  // the command code itself is not kept
    EXPECT_TRUE(ctl->kcqKey[0] == 0x03 && ctl->kcqHalt[0]);
    EXPECT_TRUE(ctl->kcqCount == 0 && ctl->kcqUec[0] == 0);  // but emptied, UECs cleared
}

TEST_F(ControlConfig, NoCurrentMqbWarnsOnTwoLinesAndLeavesTheListEmpty) {
    mgr.setCurrentMQB(nullptr);
    int devs[] = {1, 2};
    ctl->setDeviceList(devs, 2), ctl->setThreadMode(false);
    EXPECT_EQ(tclOutput([this] { ctl->init(&mgr, testInterp()); }),
              "KIV: <W> No MQB's loaded\n!\n");
    EXPECT_EQ(ctl->numDevices, 0);
    EXPECT_TRUE(ctl->threadMode);
    EXPECT_EQ(ctl->runTime, 30);  // the rest of the defaults still apply
}

TEST_F(ControlConfig, DriverTypeDecidesTheDefaultThreadMode) {
    const struct { const char* driver; bool threadMode; } cases[] = {
        {"zorva", false},   {"zorva2:rest", false}, {"zorv", true},   {"zebrant", false},
        {"zebrantX", true}, {"zebrant:x", false},   {"mendro", false}, {"mendro2", true},
        {"lumiratorix", false}, {"quex", false},    {"Quex", true},   {"sim", true},
    };
    for (const auto& c : cases) {
        auto channel = std::make_unique<MQB>(c.driver);
        ASSERT_EQ(channel->setDeviceIndex(1), 0);
        mgr.setCurrentMQB(std::move(channel));
        quietInit();
        EXPECT_EQ(ctl->threadMode, c.threadMode) << c.driver;
        EXPECT_EQ(std::make_pair(ctl->numDevices, ctl->devices[0]), std::make_pair(1, 1));
    }
}

// Type and command complaints go to stdout (the command one without a line feed),
// range and list warnings through the interpreter; each row checks what is left.
TEST_F(ControlConfig, SetterCorrectionsAndMessages) {
    quietInit();
    std::vector<int> many(300);
    for (int i = 0; i < 300; ++i) many[i] = 1000 + i;
    const struct { std::function<void(KIVControl&)> call; const char* out; const char* tcl; } cases[] = {
        {[](KIVControl& c) { c.setTestType(2, 150); EXPECT_EQ(c.mixRatio, 0.1f); },
         "Error: Percent > 100!\n", ""},
        {[](KIVControl& c) { c.setTestType(2, -1); EXPECT_EQ(c.mixRatio, 0.1f); },
         "Error: Percent < 0!\n", ""},
        {[](KIVControl& c) { c.setTestType(7, 50); EXPECT_EQ(c.testType, 0); },
         "Error: Invalid Type!\n", ""},
        {[](KIVControl& c) { c.setTestType(2, 90); c.setTestType(3, 25); EXPECT_EQ(c.mixRatio, 0.9f); },
         "", ""},
        {[](KIVControl& c) { c.setTestCmd(9, 60, 0, 40, 0); EXPECT_EQ(c.testCmd, 0); },
         "Error: Invalid Command type!  Using Read10", ""},
        {[](KIVControl& c) { c.setLbaRange(-5, 0); EXPECT_TRUE(c.minLba == 0 && c.maxLba == 1); },
         "", "KIV: <W> minlba < 0! setting to 0\nKIV: <W> maxlba <= 0! setting to 1.0\n"},
        {[](KIVControl& c) { c.setTLRange(0, -3); EXPECT_TRUE(c.minTL == 1 && c.maxTL == 1); },
         "", "KIV: <W> min_tl < 1! setting to 1\nKIV: <W> max_tl < 1! setting to 1\n"},
        {[&](KIVControl& c) { c.setDeviceList(many.data(), 300); EXPECT_EQ(c.devices[254], 1254); },
         "", "KIV: <W> Max 255 devices!  Trucating to 255 devices\n"},
    };
    for (const auto& c : cases) {
        std::string tcl;
        EXPECT_EQ(stdoutOf([&] { tcl = tclOutput([&] { c.call(*ctl); }); }), c.out);
        EXPECT_EQ(tcl, c.tcl);
    }
    EXPECT_EQ(ctl->numDevices, 255);
}

}  // namespace
