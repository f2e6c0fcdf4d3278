// report_test.cpp: the parameter report after init put back every default, and
// the lines whose form depends on the values.
#include <functional>
#include <vector>

#include "TestSupport.h"

namespace {

class Report : public SimControlTest {
protected:
    void SetUp() override {
        SimControlTest::SetUp();
        quietInit();
    }
    std::string report() { return tclOutput([this] { ctl->outputParms(); }); }
    // The report from the line that starts with `prefix` to the end of the line
    // (or up to the line starting with `until`), or "".
    std::string part(const std::string& prefix, const char* until = "") {
        std::string r = report();
        size_t at = r.find("\n" + prefix) + 1;
        return at ? r.substr(at, r.find(std::string("\n") + until, at) + 1 - at) : "";
    }
};

TEST_F(Report, InitRestoresTheDefaultsLineByLine) {
    int devs[] = {0, 1, 2};
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
              "Index of Device to test: 3 \n");
}

TEST_F(Report, LinesThatFollowTheValues) {
    const struct { std::function<void(KIVControl&)> set; const char* line; } cases[] = {
        {[](KIVControl& c) { c.useHWC(true); }, "Data Mode: Random With Keyed LBA And Hardware Compare"},
        {[](KIVControl& c) { c.appendToStatLogfile(true); }, "Append To Statlog: Yes"},
        {[](KIVControl& c) { c.appendToErrLogfile(true); }, "Append To Errlog: Yes"},
        {[](KIVControl& c) { c.setTestType(2, 25); }, "Mix Ratio R%: 0.25"},
        {[](KIVControl& c) { c.setOps(1); }, "Ops: 1"},
        {[](KIVControl& c) { c.setOps(-20); }, "Ops: 20%"},
        {[](KIVControl& c) { c.setLbaRange(0.25, 0.5); }, "Min Lba: 25%"},
        {[](KIVControl& c) { c.setLbaRange(0.25, 0.5); }, "Max Lba: 50%"},
        {[](KIVControl& c) { c.setLbaRange(1.05, 1.1); }, "Min Lba: 105%"},
        {[](KIVControl& c) { c.setLbaRange(1.05, 1.1); }, "Max Lba:   1"},  // 1.1 is absolute
        {[](KIVControl& c) { c.setLbaRange(0.004, 123456789); }, "Min Lba:  0%"},
        {[](KIVControl& c) { c.setLbaRange(0.004, 123456789); }, "Max Lba: 123456789"},
    };
    for (const auto& c : cases) {
        c.set(*ctl);
        std::string line = c.line;
        EXPECT_EQ(part(line.substr(0, line.find(':') + 1)), line + "\n");
    }
    ctl->testType = 3;  // only the mixed type has a ratio line
    EXPECT_EQ(part("Mix Ratio"), "");
}

// Command lines only for non-zero percentages; the device line, empty or at its
// longest, reaches the console whole.
TEST_F(Report, CommandAndDeviceLines) {
    ctl->setTestCmd(1, 50, 0, 50, 0);
    EXPECT_EQ(part("Test Command:", "Min"), "Test Command:\n 50% Read10\n 50% WriteAndVerify10\n");
    ctl->setTestCmd(1, 10, 20, 30, 40);
    EXPECT_EQ(part("Test Command:", "Min"),
              "Test Command:\n 10% Read10\n 20% Write10\n 30% WriteAndVerify10\n 40% Verify\n");
    ctl->setDeviceList(nullptr, 0);
    EXPECT_EQ(part("Index"), "Index of Device to test: \n");
    std::vector<int> many(255);
    std::string want = "Indexes of Devices to test: ";
    for (int i = 0; i < 255; ++i) want += std::to_string(many[i] = 1000000 + i) + " ";
    ctl->setDeviceList(many.data(), 255);
    EXPECT_EQ(part("Index"), want + "\n");
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
