// kivcmd_test.cpp: the kiv command as seen from the configuration it fills (what
// users see of it is tested through kivsh in tests/tcl). Calls end in -help, or
// fail, so that no test runs.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "DeviceTable.h"
#include "KIVControl.h"
#include "KivCommand.h"
#include "MQBManager.h"
#include "TestSupport.h"

namespace {

class KivCommand : public ::testing::Test {
protected:
    static inline MQBManager* mgr = nullptr;
    static inline int plainDev = -1, lazyDev = -1, zeroDev = -1, bigBlockDev = -1;

    static void SetUpTestSuite() {
        std::string err;
        plainDev = mqb::addDevice("sim:blocks=100000", err);
        lazyDev = mqb::addDevice("sim:blocks=100000,lazybs=1", err);
        zeroDev = mqb::addDevice("sim:blocks=100000,bs=0", err);
        bigBlockDev = mqb::addDevice("sim:blocks=100000,bs=4096", err);
        mgr = new MQBManager();
        mgr->setCurrentMQB(std::unique_ptr<MQB>(createMQB("sim", 0, 0, 0)));
        ASSERT_TRUE(plainDev >= 0 && lazyDev >= 0 && zeroDev >= 0 && bigBlockDev >= 0) << err;
        ASSERT_EQ(run(mgr, nullptr, testInterp()), 0);
    }
    void SetUp() override { use(plainDev); }
    void use(int dev) { mgr->getCurrentMQB()->setDeviceIndex(dev); }

    // Runs "kiv <args>", expects code `rc` and nothing printed through puts (a
    // run started); returns the result.
    std::string kiv(const std::string& args, int rc = TCL_OK) {
        Tcl_Interp* interp = testInterp();
        startTclCapture(interp);
        testing::internal::CaptureStderr();
        EXPECT_EQ(Tcl_Eval(interp, ("kiv " + args).c_str()), rc) << args;
        testing::internal::GetCapturedStderr();
        std::string result = Tcl_GetStringResult(interp);
        EXPECT_EQ(stopTclCapture(interp), "") << args;
        return result;
    }
};

// The fields that the parameter report the shell tests read does not show.
TEST_F(KivCommand, OptionsReachTheirFields) {
    mgr->setSendBufferIndex(2);
    mgr->setRecvBufferIndex(3);
    kiv("-skip 4 -repeat 0x5 -reverse 6 -randstream {$a} -rawio 5 -errorstats x.txt "
        "-statcallback {puts hi} -usebuffer recv -hwc yes -help");
    EXPECT_EQ(control.skipFreq * 100 + control.repeatFreq * 10 + control.reverseFreq, 456);
    EXPECT_EQ(control.randStream, 10);
    EXPECT_EQ(control.rawioP, 3);  // stored less 2
    EXPECT_STREQ(control.errStatFileName, "x.txt");
    EXPECT_STREQ(control.statCallback, "puts hi");
    EXPECT_EQ(control.dataBufferIdx, 3);
    EXPECT_TRUE(control.hwCompare);
    kiv("-usebuffer send -help");
    EXPECT_EQ(control.dataBufferIdx, 2);
    const char* tests[] = {"r", "s", "", "p", "x"};  // type 2 is a mix
    for (int type : {0, 1, 3, 4}) {
        kiv(std::string("-test ") + tests[type] + " -help");
        EXPECT_EQ(control.testType, type) << tests[type];
    }
}

TEST_F(KivCommand, TransferLengthIsCappedByBlockSize) {
    use(bigBlockDev);  // 4096-byte blocks: 244 at most, and a low above it follows it down
    kiv("-translen 300:400 -help");
    EXPECT_EQ(control.minTL * 1000 + control.maxTL, 244244);

    // A device that learns its block size from READ CAPACITY (10).
    use(lazyDev);
    mqb::traceStart(lazyDev, 0);
    kiv("-translen 2:4000 -help");
    mqb::traceStop(lazyDev);
    EXPECT_EQ(control.minTL * 10000 + control.maxTL, 21953);
    std::vector<mqb::TraceEntry> trace;
    mqb::traceGet(lazyDev, trace);
    EXPECT_TRUE(trace.size() == 1 && trace[0].opcode == 0x25) << trace.size() << " commands";

    // The block size is looked at before a bad value is reported.
    use(zeroDev);
    EXPECT_EQ(kiv("-translen 1:zz", TCL_ERROR), "-translen : Drive is reporting a block size of 0");
}

TEST_F(KivCommand, RefusalsLeaveTheLastGoodSettings) {
    kiv("-qd 3 -r10 10 -w10 90 -help");
    control.running = true;
    EXPECT_EQ(kiv("-qd 9 -help", TCL_ERROR), "There is already a KIV test running.    "
                                             "You can cancel the test with \"set kiv_run 0\"");
    control.running = false;
    EXPECT_EQ(control.qDepth, 3);

    // A refused mix keeps the percentages of the last call that passed the check.
    const char* total =
        "Invalid percentage total. The sum of the test command percentages must equal 100";
    EXPECT_EQ(kiv("-r10 100 -r10 60", TCL_ERROR), total);
    EXPECT_EQ(kiv("-r10 50 -w10 5x", TCL_ERROR), total);  // replaces the number message
    EXPECT_EQ(control.readPct * 1000 + control.writePct, 10090);

    // A later word equal to a percentage option, even as a value, defers the check.
    control.readPct = 7;
    kiv("-r10 50 -logstats -w10 -help");
    EXPECT_EQ(control.readPct, 7);
    EXPECT_STREQ(control.statLogfileName, "-w10");
}

}  // namespace
