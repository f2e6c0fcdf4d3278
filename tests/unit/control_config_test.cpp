// control_config_test.cpp: what init puts back and what it keeps from the previous
// kiv call, the drivers that default to one thread, the range setters' warnings,
// and the parameter report with the lines whose form depends on the values.
#include <functional>
#include <vector>

#include "MQB.h"
#include "TestSupport.h"

namespace {

using ControlConfig = SimControlTest;

TEST_F(ControlConfig, DriverTypeDecidesTheDefaultThreadMode) {
    const struct { const char* driver; bool threadMode; } cases[] = {
        {"zorva2", false},  {"zorv", true},    {"zebrant", false}, {"zebrantX", true},
        {"zebrant:x", false}, {"mendro", false}, {"lumiratorix", false}, {"quex", false},
        {"Quex", true},     {"sim", true},
    };
    for (const auto& c : cases) {
        auto channel = std::make_unique<MQB>(c.driver);
        ASSERT_EQ(channel->setDeviceIndex(1), 0);
        mgr.setCurrentMQB(std::move(channel));
        quietInit();
        EXPECT_EQ(ctl->threadMode, c.threadMode) << c.driver;
    }
}

// Range warnings the -lba and -translen values can cause go through the
// interpreter; each row checks what is left.
TEST_F(ControlConfig, SetterCorrectionsAndMessages) {
    quietInit();
    const struct { std::function<void(KIVControl&)> call; const char* tcl; } cases[] = {
        {[](KIVControl& c) { c.setLbaRange(-5, 0); EXPECT_TRUE(c.minLba == 0 && c.maxLba == 1); },
         "KIV: <W> minlba < 0! setting to 0\nKIV: <W> maxlba <= 0! setting to 1.0\n"},
        {[](KIVControl& c) { c.setTLRange(0, -3); EXPECT_TRUE(c.minTL == 1 && c.maxTL == 1); },
         "KIV: <W> min_tl < 1! setting to 1\nKIV: <W> max_tl < 1! setting to 1\n"},
    };
    for (const auto& c : cases) EXPECT_EQ(tclOutput([&] { c.call(*ctl); }), c.tcl);
}

class Report : public SimControlTest {
protected:
    void SetUp() override {
        SimControlTest::SetUp();
        quietInit();
    }
    std::string report() { return tclOutput([this] { ctl->outputParms(); }); }
};

// Every setting goes back to its default except the append flags, the command
// percentages and the error-table slots (emptied, their UECs cleared), which carry
// over from one kiv call to the next.
TEST_F(Report, InitRestoresTheDefaultsLineByLine) {
    int devs[] = {0, 1, 2};
    ctl->appendToStatLogfile(true), ctl->appendToErrLogfile(true), ctl->setTestCmd(1, 10, 20, 30, 40);
    ctl->kcqKey[0] = 0x03, ctl->kcqHalt[0] = true, ctl->kcqCount = 1, ctl->kcqUec[0] = 0x1200;
    ctl->setThreadMode(false), ctl->useHWC(true), ctl->setSecondsPerReport(7), ctl->setRunTime(5);
    ctl->setStatMode(1), ctl->printStatHeader(false), ctl->reportErrors(false);
    ctl->haltOnError(true), ctl->setTestType(2, 40), ctl->setTestType(1, 0), ctl->setOps(100);
    ctl->setLbaRange(0.25, 5000), ctl->setTLRange(8, 16), ctl->setQDepth(32);
    ctl->setDataBufferIdx(2), ctl->setDeviceList(devs, 3), ctl->setStatLogfile("x");
    ctl->setErrLogfile("x"), ctl->setStatFile("x"), ctl->setStatCallback("x"), ctl->setErrCallback("x");
    quietInit();
    EXPECT_EQ(report(),
              "KIV Parameters:\n"
              "-----------------------------------------\n"
              "Thread Mode: multi\n"
              "Data Mode: Random\n"
              "Stat Callback: <none>\n"
              "Seconds Per Report: 1\n"
              "Err Callback: <none>\n"
              "Stat Logfile: <none>\n"
              "Append To Statlog: Yes\n"
              "Err Logfile: <none>\n"
              "Error Stat File: <none>\n"
              "Append To Errlog: Yes\n"
              "Run Time: 30\n"
              "Stat Output Mode: Window\n"
              "Stat Header: Yes\n"
              "Report Errors: Yes\n"
              "Halt On Error: No\n"
              "Test Type: Mixed\n"
              "Mix Ratio R%: 0.10\n"
              "Test Command:\n 10% Read10\n 20% Write10\n 30% WriteAndVerify10\n 40% Verify\n"
              "Min Lba:   0\n"
              "Max Lba: 100%\n"
              "Min TL: 1\n"
              "Max TL: 64\n"
              "QDepth: 1\n"
              "Ops: 0%\n"
              "Data Buffer Index: None\n"
              "Index of Device to test: 3 \n");
    EXPECT_TRUE(ctl->kcqKey[0] == 0x03 && ctl->kcqHalt[0]);
    EXPECT_TRUE(ctl->kcqCount == 0 && ctl->kcqUec[0] == 0);
}

TEST_F(Report, LinesThatFollowTheValues) {
    const struct { std::function<void(KIVControl&)> set; const char* lines; } cases[] = {
        {[](KIVControl& c) { c.useHWC(true); }, "Data Mode: Random With Keyed LBA And Hardware Compare"},
        {[](KIVControl& c) { c.setOps(1); }, "Ops: 1"},
        {[](KIVControl& c) { c.setOps(-20); }, "Ops: 20%"},
        {[](KIVControl& c) { c.setLbaRange(1.05, 1.1); }, "Min Lba: 105%\nMax Lba:   1"},  // 1.1 is absolute
        {[](KIVControl& c) { c.setLbaRange(0.004, 123456789); }, "Min Lba:  0%\nMax Lba: 123456789"},
    };
    for (const auto& c : cases) {
        c.set(*ctl);
        const std::string r = report();
        EXPECT_NE(r.find(std::string("\n") + c.lines + "\n"), std::string::npos) << c.lines << " in\n" << r;
    }
    ctl->testType = 3;  // only the mixed type has a ratio line
    EXPECT_EQ(report().find("\nMix Ratio"), std::string::npos);
}

// Command lines only for non-zero percentages; the device line at its longest
// reaches the console whole.
TEST_F(Report, CommandAndDeviceLines) {
    ctl->setTestCmd(1, 50, 0, 50, 0);
    EXPECT_NE(report().find("\nTest Command:\n 50% Read10\n 50% WriteAndVerify10\nMin Lba"), std::string::npos);
    std::vector<int> many(255);
    std::string want = "Indexes of Devices to test: ";
    for (int i = 0; i < 255; ++i) want += std::to_string(many[i] = 1000000 + i) + " ";
    ctl->setDeviceList(many.data(), 255);
    EXPECT_NE(report().find("\n" + want + "\n"), std::string::npos);
}

// The setters keep their own copies, and the report never evaluates the text.
TEST_F(Report, UserTextIsCopiedAndShownLiterally) {
    Tcl_UnsetVar(testInterp(), "kiv_report_ran", TCL_GLOBAL_ONLY);
    const std::string h = "[set ::kiv_report_ran 1] $::tcl_version \"q\" \\n";
    std::string text = h;
    for (auto set : {&KIVControl::setStatCallback, &KIVControl::setErrCallback,
                     &KIVControl::setStatLogfile, &KIVControl::setErrLogfile,
                     &KIVControl::setStatFile})
        (ctl.get()->*set)(&text[0]);
    text[0] = 'X';
    std::string out = report();
    for (const char* label :
         {"Stat Callback: ", "Err Callback: ", "Stat Logfile: ", "Err Logfile: ", "Error Stat File: "})
        EXPECT_NE(out.find(std::string("\n") + label + h + "\n"), std::string::npos) << out;
    EXPECT_EQ(Tcl_GetVar(testInterp(), "kiv_report_ran", TCL_GLOBAL_ONLY), nullptr);
}

}  // namespace
