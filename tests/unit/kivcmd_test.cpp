// kivcmd_test.cpp: the kiv command as seen from the configuration it fills (what
// users see of it is tested through kivsh in tests/tcl). Calls end in -help, or
// fail, so that no test runs.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <tuple>

#include "DeviceTable.h"
#include "KIVControl.h"
#include "KivCommand.h"
#include "MQBManager.h"
#include "TestSupport.h"

namespace {

class KivCommand : public ::testing::Test {
protected:
    static inline MQBManager* mgr = nullptr;

    static void SetUpTestSuite() {
        std::string err;
        int dev = mqb::addDevice("sim:blocks=100000", err);
        ASSERT_GE(dev, 0) << err;
        mgr = new MQBManager();
        mgr->setCurrentMQB(std::unique_ptr<MQB>(createMQB("sim", 0, 0, 0)));
        mgr->getCurrentMQB()->setDeviceIndex(dev);
        ASSERT_EQ(run(mgr, nullptr, testInterp()), 0);
    }

    // Runs "kiv <args>", expects code `rc` and nothing printed through puts (a
    // run started); returns the result.
    std::string kiv(const std::string& args, int rc = TCL_OK) {
        std::string result;
        EXPECT_EQ(tclOutput([&] {
                      stderrOf([&] { EXPECT_EQ(Tcl_Eval(testInterp(), ("kiv " + args).c_str()), rc) << args; });
                      result = Tcl_GetStringResult(testInterp());
                  }), "") << args;
        return result;
    }
};

// The fields that the parameter report the shell tests read does not show.
TEST_F(KivCommand, OptionsReachTheirFields) {
    mgr->setSendBufferIndex(2);
    mgr->setRecvBufferIndex(3);
    kiv("-skip 4 -repeat 0x5 -reverse 6 -randstream {$a} -rawio 5 -errorstats x.txt "
        "-statcallback {puts hi} -usebuffer recv -hwc yes -help");
    EXPECT_EQ(std::make_tuple(control.skipFreq, control.repeatFreq, control.reverseFreq, control.randStream,
                              control.rawioP /* stored less 2 */, std::string(control.errStatFileName),
                              std::string(control.statCallback), control.dataBufferIdx, control.hwCompare),
              std::make_tuple(4, 5, 6, 10, 3, "x.txt", "puts hi", 3, true));
    kiv("-usebuffer send -help");
    EXPECT_EQ(control.dataBufferIdx, 2);
    const char* tests[] = {"r", "s", "", "p", "x"};  // type 2 is a mix
    for (int type : {0, 1, 3, 4}) {
        kiv(std::string("-test ") + tests[type] + " -help");
        EXPECT_EQ(control.testType, type) << tests[type];
    }
}

// The messages are checked in tests/tcl (kiv-2.1); here, that a refused mix
// keeps the percentages of the last call that passed the check, which carry over
// to the next kiv call.
TEST_F(KivCommand, RefusedMixKeepsTheLastGoodPercentages) {
    kiv("-r10 10 -w10 90 -help");
    kiv("-r10 100 -r10 60", TCL_ERROR);
    kiv("-r10 50 -w10 5x", TCL_ERROR);
    EXPECT_EQ(control.readPct * 1000 + control.writePct, 10090);
}

}  // namespace
