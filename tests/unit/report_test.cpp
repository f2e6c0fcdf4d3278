// report_test.cpp: the parameter report: the whole report of the defaults, and
// the lines whose form depends on the values (LBA bounds, ops, mix ratio,
// command percentages, device lists, codes out of range, user-supplied text).
#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "DeviceTable.h"
#include "KIVControl.h"
#include "MQB.h"
#include "MQBManager.h"
#include "TestSupport.h"

namespace {

class Report : public ::testing::Test {
protected:
    void SetUp() override {
        mqb::clearAllDevices();
        std::string err;
        for (int i = 0; i < 4; ++i) ASSERT_EQ(mqb::addDevice("sim:blocks=1000", err), i) << err;
        auto channel = std::make_unique<MQB>("sim");
        ASSERT_EQ(channel->setDeviceIndex(3), 0);
        mgr.setCurrentMQB(std::move(channel));
        ctl = std::make_unique<KIVControl>();
        ctl->init(&mgr, testInterp());
    }
    void TearDown() override {
        ctl.reset();
        mgr.setCurrentMQB(nullptr);
        mqb::clearAllDevices();
    }

    std::string report() {
        startTclCapture(testInterp());
        ctl->outputParms();
        return stopTclCapture(testInterp());
    }

    std::vector<std::string> reportLines() {
        std::vector<std::string> lines;
        std::istringstream in(report());
        for (std::string l; std::getline(in, l);) lines.push_back(l);
        return lines;
    }

    // The report line that starts with `prefix`, or "<missing>".
    std::string lineStarting(const std::string& prefix) {
        for (const std::string& l : reportLines())
            if (l.compare(0, prefix.size(), prefix) == 0) return l;
        return "<missing>";
    }

    MQBManager mgr;
    std::unique_ptr<KIVControl> ctl;
};

TEST_F(Report, DefaultsReportLineByLine) {
    const std::string want =
        "KIV Parameters:\n"
        "-----------------------------------------\n"
        "Thread Mode: multi\n"
        "Data Mode: Random\n"
        "Stat Callback: <none>\n"
        "Seconds Per Report: 1\n"
        "Err Callback: <none>\n"
        "Stat Logfile: <none>\n"
        "Append To Statlog: No\n"
        "Err Logfile: <none>\n"
        "Error Stat File: <none>\n"
        "Append To Errlog: No\n"
        "Run Time: 30\n"
        "Stat Output Mode: Window\n"
        "Stat Header: Yes\n"
        "Report Errors: Yes\n"
        "Halt On Error: No\n"
        "Test Type: Mixed\n"
        "Mix Ratio R%: 0.10\n"
        "Test Command:\n"
        "Min Lba:   0\n"
        "Max Lba: 100%\n"
        "Min TL: 1\n"
        "Max TL: 64\n"
        "QDepth: 1\n"
        "Ops: 0%\n"
        "Data Buffer Index: None\n"
        "Index of Device to test: 3 \n";
    EXPECT_EQ(report(), want);
}

TEST_F(Report, EverySwitchShowsItsOtherSide) {
    ctl->setThreadMode(false);
    ctl->useHWC(true);
    ctl->setSecondsPerReport(5);
    ctl->appendToStatLogfile(true);
    ctl->appendToErrLogfile(true);
    ctl->setRunTime(0);
    ctl->setStatMode(1);
    ctl->printStatHeader(false);
    ctl->reportErrors(false);
    ctl->haltOnError(true);
    ctl->setQDepth(32);
    ctl->setTLRange(8, 128);
    ctl->setDataBufferIdx(0);
    std::vector<std::string> l = reportLines();
    ASSERT_EQ(l.size(), 28u);
    EXPECT_EQ(l[2], "Thread Mode: single");
    EXPECT_EQ(l[3], "Data Mode: Random With Keyed LBA And Hardware Compare");
    EXPECT_EQ(l[5], "Seconds Per Report: 5");
    EXPECT_EQ(l[8], "Append To Statlog: Yes");
    EXPECT_EQ(l[11], "Append To Errlog: Yes");
    EXPECT_EQ(l[12], "Run Time: 0");
    EXPECT_EQ(l[13], "Stat Output Mode: Terminal");
    EXPECT_EQ(l[14], "Stat Header: No");
    EXPECT_EQ(l[15], "Report Errors: No");
    EXPECT_EQ(l[16], "Halt On Error: Yes");
    EXPECT_EQ(l[22], "Min TL: 8");
    EXPECT_EQ(l[23], "Max TL: 128");
    EXPECT_EQ(l[24], "QDepth: 32");
    EXPECT_EQ(l[26], "Data Buffer Index: 0");
}

TEST_F(Report, StatModeAndTestTypeNames) {
    const char* modes[] = {"<none>", "Terminal", "Window", "<ERROR>", "<ERROR>"};
    int modeCodes[] = {0, 1, 2, 3, -1};
    for (int i = 0; i < 5; ++i) {
        ctl->setStatMode(modeCodes[i]);
        EXPECT_EQ(lineStarting("Stat Output Mode:"), std::string("Stat Output Mode: ") + modes[i]);
    }
    const char* types[] = {"Random", "Sequential", "Mixed", "Packed", "Sequential Stream", "<ERROR>"};
    for (int t = 0; t < 6; ++t) {
        ctl->testType = t;  // 5 cannot come through the setter
        EXPECT_EQ(lineStarting("Test Type:"), std::string("Test Type: ") + types[t]);
        // Only the mixed type has a ratio line.
        EXPECT_EQ(lineStarting("Mix Ratio") != "<missing>", t == 2) << t;
    }
    ctl->setTestType(2, 25);
    EXPECT_EQ(lineStarting("Mix Ratio"), "Mix Ratio R%: 0.25");
}

TEST_F(Report, LbaBoundsAsPercentOrAbsolute) {
    struct {
        double min, max;
        const char* minLine;
        const char* maxLine;
    } cases[] = {
        {0.25, 0.5, "Min Lba: 25%", "Max Lba: 50%"},
        {1000, 1.0, "Min Lba: 1000", "Max Lba: 100%"},
        {1.05, 1.1, "Min Lba: 105%", "Max Lba:   1"},  // 1.1 itself is absolute
        {0, 7, "Min Lba:   0", "Max Lba:   7"},
        {0.004, 123456789, "Min Lba:  0%", "Max Lba: 123456789"},
    };
    for (const auto& c : cases) {
        ctl->setLbaRange(c.min, c.max);
        EXPECT_EQ(lineStarting("Min Lba:"), c.minLine);
        EXPECT_EQ(lineStarting("Max Lba:"), c.maxLine);
    }
}

TEST_F(Report, OpsCountOrPercent) {
    ctl->setOps(5000);
    EXPECT_EQ(lineStarting("Ops:"), "Ops: 5000");
    ctl->setOps(-20);
    EXPECT_EQ(lineStarting("Ops:"), "Ops: 20%");
    ctl->setOps(1);
    EXPECT_EQ(lineStarting("Ops:"), "Ops: 1");
}

TEST_F(Report, CommandLinesOnlyForNonZeroPercentages) {
    auto commandBlock = [this]() {
        std::vector<std::string> l = reportLines();
        std::string block;
        bool in = false;
        for (const std::string& s : l) {
            if (s == "Test Command:") in = true;
            else if (s.compare(0, 8, "Min Lba:") == 0) break;
            if (in) block += s + "\n";
        }
        return block;
    };
    ctl->setTestCmd(1, 50, 0, 50, 0);
    EXPECT_EQ(commandBlock(), "Test Command:\n 50% Read10\n 50% WriteAndVerify10\n");
    ctl->setTestCmd(1, 10, 20, 30, 40);
    EXPECT_EQ(commandBlock(),
              "Test Command:\n 10% Read10\n 20% Write10\n 30% WriteAndVerify10\n 40% Verify\n");
    ctl->setTestCmd(0, 0, 0, 0, 0);
    EXPECT_EQ(commandBlock(), "Test Command:\n");
}

TEST_F(Report, DeviceLineSingularPluralAndEmpty) {
    int three[] = {0, 2, 5};
    ctl->setDeviceList(three, 3);
    EXPECT_EQ(reportLines().back(), "Indexes of Devices to test: 0 2 5 ");
    ctl->setDeviceList(three, 0);
    EXPECT_EQ(reportLines().back(), "Index of Device to test: ");

    // The longest line of the report must reach the console whole.
    std::vector<int> many(255);
    std::string want = "Indexes of Devices to test: ";
    for (int i = 0; i < 255; ++i) {
        many[i] = 1000000 + i;
        want += std::to_string(many[i]) + " ";
    }
    ctl->setDeviceList(many.data(), 255);
    EXPECT_EQ(reportLines().back(), want);
}

TEST_F(Report, UserTextIsShownLiterallyAndNeverEvaluated) {
    Tcl_UnsetVar(testInterp(), "kiv_report_ran", TCL_GLOBAL_ONLY);
    const char* hostile = "[set ::kiv_report_ran 1] $::tcl_version \"q\" \\n";
    ctl->setStatCallback(hostile);
    ctl->setErrCallback(hostile);
    ctl->setStatLogfile(hostile);
    ctl->setErrLogfile(hostile);
    ctl->setStatFile(hostile);
    std::string out = report();
    const std::string h = hostile;
    EXPECT_NE(out.find("\nStat Callback: " + h + "\n"), std::string::npos) << out;
    EXPECT_NE(out.find("\nErr Callback: " + h + "\n"), std::string::npos) << out;
    EXPECT_NE(out.find("\nStat Logfile: " + h + "\n"), std::string::npos) << out;
    EXPECT_NE(out.find("\nErr Logfile: " + h + "\n"), std::string::npos) << out;
    EXPECT_NE(out.find("\nError Stat File: " + h + "\n"), std::string::npos) << out;
    EXPECT_EQ(Tcl_GetVar(testInterp(), "kiv_report_ran", TCL_GLOBAL_ONLY), nullptr);
}

}  // namespace
