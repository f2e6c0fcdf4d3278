// kivcmd_test.cpp: the entry and the kiv command procedure: registration, help,
// each option's conversion as it reaches the configuration, and every refusal
// with its exact result. Calls end in -help (or fail) so that no test runs; the
// runs themselves are exercised by tests/tcl/kiv_options.test.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "DeviceTable.h"
#include "KIVControl.h"
#include "KivCommand.h"
#include "MQBManager.h"
#include "TestSupport.h"

namespace {

const char* const kFlags =
    ": valid flags are: -test, -r10, -w10, -wrv, -verify, -lba, -translen, -qd, -ops, -time, "
    "-printstats, -logstats, -statheader, -statappend, -statmode, -stattime, -statcallback, "
    "-printerrors, -logerrors, -errorappend, -errorhalt, -devices, -spawn";
const char* const kHint =
    "\n\nHint: If you are trying to enter hex data, prepend your data with '0x'.  Example: 0xff";

class KivCommand : public ::testing::Test {
protected:
    static MQBManager* mgr;
    static int plainDev, lazyDev, zeroDev, bigBlockDev;

    static void SetUpTestSuite() {
        std::string err;
        plainDev = mqb::addDevice("sim:blocks=100000", err);
        lazyDev = mqb::addDevice("sim:blocks=100000,lazybs=1", err);
        zeroDev = mqb::addDevice("sim:blocks=100000,bs=0", err);
        bigBlockDev = mqb::addDevice("sim:blocks=100000,bs=4096", err);
        mgr = new MQBManager();
        mgr->setCurrentMQB(std::unique_ptr<MQB>(createMQB("sim", 0, 0, 0)));
        mgr->getCurrentMQB()->setDeviceIndex(plainDev);
        Tcl_Interp* interp = testInterp();
        ASSERT_EQ(run(mgr, nullptr, interp), 0);
        EXPECT_STREQ(Tcl_GetStringResult(interp), "kiv command added");
        Tcl_CmdInfo info;
        ASSERT_TRUE(Tcl_GetCommandInfo(interp, "kiv", &info));
        EXPECT_EQ(info.clientData, (ClientData)mgr);
    }

    void SetUp() override {
        ASSERT_NE(plainDev, -1);
        mgr->getCurrentMQB()->setDeviceIndex(plainDev);
    }

    // Evaluates `script`; returns its code and leaves the result in `result`.
    // Fails the test when anything was printed through puts (a run started).
    int eval(const std::string& script, std::string& result) {
        Tcl_Interp* interp = testInterp();
        startTclCapture(interp);
        int rc = Tcl_Eval(interp, script.c_str());
        result = Tcl_GetStringResult(interp);
        std::string printed = stopTclCapture(interp);
        EXPECT_EQ(printed, "") << script;
        return rc;
    }

    // Expects `script` to fail with exactly `want` as its result.
    void expectError(const std::string& script, const std::string& want) {
        std::string result;
        testing::internal::CaptureStderr();
        EXPECT_EQ(eval(script, result), TCL_ERROR) << script;
        testing::internal::GetCapturedStderr();
        EXPECT_EQ(result, want) << script;
    }

    void expectOk(const std::string& script) {
        std::string result;
        EXPECT_EQ(eval(script, result), TCL_OK) << script << ": " << result;
    }
};

MQBManager* KivCommand::mgr = nullptr;
int KivCommand::plainDev = -1, KivCommand::lazyDev = -1, KivCommand::zeroDev = -1,
    KivCommand::bigBlockDev = -1;

TEST_F(KivCommand, HelpShowsTextAndRunsNothing) {
    std::string help;
    ASSERT_EQ(eval("kiv -help", help), TCL_OK);
    EXPECT_NE(help.find("A command for performing KIV tests on a drive"), std::string::npos);
    EXPECT_NE(help.find("kiv -test s -lba 1:10 -lba 25%:50%"), std::string::npos);
    EXPECT_NE(help.find("Use hardware compare w keyed lbas in data (Zorva only!)"),
              std::string::npos);
    EXPECT_EQ(help.find("?-test?"), std::string::npos);
    // Options before -help are applied, then nothing runs.
    std::string again;
    ASSERT_EQ(eval("kiv -qd 4 -help", again), TCL_OK);
    EXPECT_EQ(again, help);
    EXPECT_EQ(control.qDepth, 4);

    int rows = 0;
    while (kivHelpTable[2 * rows] != nullptr) {
        const char* name = kivHelpTable[2 * rows];
        EXPECT_EQ(name[0], '?');
        EXPECT_EQ(name[strlen(name) - 1], '?');
        ASSERT_NE(kivHelpTable[2 * rows + 1], nullptr);
        rows++;
    }
    EXPECT_EQ(rows, 25);
}

TEST_F(KivCommand, IntegerAndBooleanOptionsReachSetters) {
    expectOk("kiv -qd 0x10 -time 0b11 -stattime 07 -skip 4 -repeat 5 -reverse 6 "
             "-randstream {$a} -ops 100 -help");
    EXPECT_EQ(control.qDepth, 16);
    EXPECT_EQ(control.runTime, 3);
    EXPECT_EQ(control.secondsPerReport, 7);
    EXPECT_EQ(control.skipFreq, 4);
    EXPECT_EQ(control.repeatFreq, 5);
    EXPECT_EQ(control.reverseFreq, 6);
    EXPECT_EQ(control.randStream, 10);
    EXPECT_EQ(control.ops, 100);

    expectOk("kiv -rawio 5 -help");
    EXPECT_EQ(control.rawioP, 3);
    expectOk("kiv -rawio 0 -help");
    EXPECT_EQ(control.rawioP, -2);

    expectOk("kiv -hwc yes -spawn off -statheader no -printerrors false -errorhalt on "
             "-statappend 1 -errorappend start -help");
    EXPECT_TRUE(control.hwCompare);
    EXPECT_FALSE(control.threadMode);
    EXPECT_FALSE(control.statHeader);
    EXPECT_FALSE(control.printErrors);
    EXPECT_TRUE(control.errorHalt);
    EXPECT_TRUE(control.statAppend);
    EXPECT_TRUE(control.errorAppend);
    expectOk("kiv -hwc 1 -spawn 2 -statappend stop -errorappend 0 -help");
    EXPECT_TRUE(control.hwCompare);
    EXPECT_TRUE(control.threadMode);
    EXPECT_FALSE(control.statAppend);
    EXPECT_FALSE(control.errorAppend);

    mgr->setSendBufferIndex(2);
    mgr->setRecvBufferIndex(3);
    expectOk("kiv -usebuffer send -help");
    EXPECT_EQ(control.dataBufferIdx, 2);
    expectOk("kiv -usebuffer recv -help");
    EXPECT_EQ(control.dataBufferIdx, 3);
    expectOk("kiv -usebuffer 0 -help");
    EXPECT_EQ(control.dataBufferIdx, 0);
    mgr->setSendBufferIndex(0);
    mgr->setRecvBufferIndex(0);
}

TEST_F(KivCommand, TextListAndRangeOptions) {
    expectOk("kiv -statmode none -logstats s.log -logerrors e.log -errorstats x.txt "
             "-statcallback {puts hi} -devices {3 1 2} -lba 10:2000 -lba 25%:50% -help");
    EXPECT_EQ(control.statMode, 0);
    EXPECT_STREQ(control.statLogfileName, "s.log");
    EXPECT_STREQ(control.errLogfileName, "e.log");
    EXPECT_STREQ(control.errStatFileName, "x.txt");
    EXPECT_STREQ(control.statCallback, "puts hi");
    ASSERT_EQ(control.numDevices, 3);
    EXPECT_EQ(control.devices[0], 3);
    EXPECT_EQ(control.devices[2], 2);
    EXPECT_DOUBLE_EQ(control.minLba, 0.25);  // the last -lba wins
    EXPECT_DOUBLE_EQ(control.maxLba, 0.5);
    expectOk("kiv -statmode term -help");
    EXPECT_EQ(control.statMode, 1);
    expectOk("kiv -statmode window -help");
    EXPECT_EQ(control.statMode, 2);

    expectOk("kiv -test r -help");
    EXPECT_EQ(control.testType, 0);
    expectOk("kiv -test s -help");
    EXPECT_EQ(control.testType, 1);
    expectOk("kiv -test p -help");
    EXPECT_EQ(control.testType, 3);
    expectOk("kiv -test x -help");
    EXPECT_EQ(control.testType, 4);
    expectOk("kiv -test 30r -help");
    EXPECT_EQ(control.testType, 2);
    EXPECT_FLOAT_EQ(control.mixRatio, 0.3f);
    expectOk("kiv -test 30s -help");
    EXPECT_FLOAT_EQ(control.mixRatio, 0.7f);
}

TEST_F(KivCommand, TransferLengthIsCappedByBlockSize) {
    expectOk("kiv -translen 8 -help");
    EXPECT_EQ(control.minTL, 8);
    EXPECT_EQ(control.maxTL, 8);
    expectOk("kiv -translen 1:5000 -help");  // 512-byte blocks: 1953 at most
    EXPECT_EQ(control.minTL, 1);
    EXPECT_EQ(control.maxTL, 1953);

    mgr->getCurrentMQB()->setDeviceIndex(bigBlockDev);
    expectOk("kiv -translen 1:1000 -help");
    EXPECT_EQ(control.minTL, 1);
    EXPECT_EQ(control.maxTL, 244);
    expectOk("kiv -translen 300:400 -help");
    EXPECT_EQ(control.minTL, 244);
    EXPECT_EQ(control.maxTL, 244);

    // A device that learns its block size from READ CAPACITY.
    mgr->getCurrentMQB()->setDeviceIndex(lazyDev);
    mqb::traceStart(lazyDev, 0);
    expectOk("kiv -translen 2:4000 -help");
    mqb::traceStop(lazyDev);
    EXPECT_EQ(control.minTL, 2);
    EXPECT_EQ(control.maxTL, 1953);
    std::vector<mqb::TraceEntry> trace;
    mqb::traceGet(lazyDev, trace);
    ASSERT_EQ(trace.size(), 1u);
    EXPECT_EQ(trace[0].opcode, 0x25);

    mgr->getCurrentMQB()->setDeviceIndex(zeroDev);
    expectError("kiv -translen 1:8", "-translen : Drive is reporting a block size of 0");
    // The block size is looked at before a bad value is reported.
    expectError("kiv -translen 1:zz", "-translen : Drive is reporting a block size of 0");
    mgr->getCurrentMQB()->setDeviceIndex(plainDev);
    expectError("kiv -translen 1:zz", std::string("<E> Bad Number Format: zz") + kHint);
}

TEST_F(KivCommand, CommandMixIsCheckedAfterTheLastPercentage) {
    control.readPct = control.writePct = control.wrvPct = control.verifyPct = 0;
    expectOk("kiv -r10 50 -w10 50 -help");
    EXPECT_EQ(control.testCmd, 1);
    EXPECT_EQ(control.readPct, 50);
    EXPECT_EQ(control.writePct, 50);
    expectOk("kiv -r10 10 -qd 2 -w10 20 -wrv 30 -verify 40 -help");
    EXPECT_EQ(control.readPct, 10);
    EXPECT_EQ(control.verifyPct, 40);

    const char* total =
        "Invalid percentage total. The sum of the test command percentages must equal 100";
    expectError("kiv -r10 50", total);
    expectError("kiv -r10 100 -r10 60", total);
    expectError("kiv -r10 50 -w10 5x", total);  // the total message replaces the number one
    expectError("kiv -r10 95 -w10 5x", std::string("<E> Bad Number Format: 5x") + kHint);
    expectError("kiv -r10 zz -w10 100", std::string("<E> Bad Number Format: zz") + kHint);
    // Percentages are kept from the last call that set them.
    EXPECT_EQ(control.readPct, 10);

    // A later word equal to a percentage option, even as a value, defers the check.
    control.readPct = 7;
    expectOk("kiv -r10 50 -logstats -w10 -help");
    EXPECT_EQ(control.readPct, 7);
    EXPECT_STREQ(control.statLogfileName, "-w10");
}

TEST_F(KivCommand, BadWordsFailWithTheirMessages) {
    expectError("kiv -qd", "<E> Missing Argument(s)");
    expectError("kiv -foo", "<E> Missing Argument(s)");
    expectError("kiv -qd 1 -time", "<E> Missing Argument(s)");
    expectError("kiv -foo 1", std::string("Bad Option -foo") + kFlags);
    expectError("kiv -printstats 1", std::string("Bad Option -printstats") + kFlags);
    expectError("kiv -QD 1", std::string("Bad Option -QD") + kFlags);
    std::string w39(39, 'w'), w40(40, 'w');
    expectError("kiv " + w39 + " 1", "Bad Option " + w39 + kFlags);
    expectError("kiv " + w40 + " 1", std::string("Bad Option (parm too long to display)") + kFlags);

    const char* badTest =
        "Invalid -test option.    Valid options are r, s, <percent>r, or <percent>s";
    expectError("kiv -test R", badTest);
    expectError("kiv -test 5", badTest);
    expectError("kiv -test {}", badTest);
    expectError("kiv -test 101r",
                "-test: When using a test mix, percent must be an integer from 0 to 100");
    expectError("kiv -test 1xr", std::string("<E> Bad Number Format: 1x") + kHint);
    expectError("kiv -statmode Window",
                "Invalid -statmode option. Valid options are term, window, and none");
    expectError("kiv -hwc maybe", std::string("<E> Bad Number Format: maybe") + kHint);
    expectError("kiv -qd -1", "");  // explained on standard error only
    expectError("kiv -qd 99999999999", "");
    expectError("kiv -lba 5%x", "");
    expectError("kiv -devices {}", "No devices to parse!");
    expectError("kiv -devices {   }", "no devices!");
    expectError("kiv -errorfile /nonexistent/kiv-errfile",
                "<E> Could Not Parse Error File: File Not Found");
}

TEST_F(KivCommand, RefusedWhileATestRuns) {
    expectOk("kiv -qd 3 -help");
    control.running = true;
    expectError("kiv -qd 9 -help",
                "There is already a KIV test running.    You can cancel the test with "
                "\"set kiv_run 0\"");
    control.running = false;
    EXPECT_EQ(control.qDepth, 3);  // the refused call changed nothing
}

}  // namespace
