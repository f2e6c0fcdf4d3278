// stats_test.cpp: the statistics pass (KIVControl::analyze): its rates and
// their truncation, the interval floor, the report cadence, the first and final
// passes, multi-device output, the Tcl variables and callback, and the end-of-run
// checks; plus the test label that run() derives from the test type.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <unistd.h>

#include "DeviceTable.h"
#include "KIVControl.h"
#include "KIVLoop.h"
#include "MQB.h"
#include "MQBManager.h"
#include "TestSupport.h"

namespace {

MQBManager* g_mgr = nullptr;
int g_dev = -1;

class Stats : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        if (g_mgr) return;
        g_mgr = new MQBManager();
        g_mgr->setCurrentMQB(std::unique_ptr<MQB>(createMQB("sim", 0, 0, 0)));
        std::string err;
        g_dev = mqb::addDevice("sim:blocks=100000", err);
        ASSERT_GE(g_dev, 0) << err;
        g_mgr->getCurrentMQB()->setDeviceIndex(g_dev);
    }

    void SetUp() override {
        Tcl_Interp* in = testInterp();
        startTclCapture(in);   // the loop's set-up messages are not under test
        c.init(g_mgr, in);
        stopTclCapture(in);
        c.numDevices = 0;   // positions are added by each test
        c.statMode = 1;
        c.secondsPerReport = 1;
        c.runTime = 0;
        snprintf(c.testLabel, sizeof c.testLabel, "10/90");
        Tcl_SetVar2(in, "kiv_run", nullptr, "1", TCL_GLOBAL_ONLY);
    }

    void TearDown() override {
        for (int i = 0; i < c.numDevices; i++) {
            delete c.loops[i];
            c.loops[i] = nullptr;
        }
        c.numDevices = 0;
        KIVControl::time_start = 0;
        Tcl_UnsetVar(testInterp(), "::seen", 0);
    }

    // Adds a device position with a loop whose counters the test then sets.
    KIVLoop* addLoop(uint32_t deviceIdx) {
        Tcl_Interp* in = testInterp();
        startTclCapture(in);
        KIVLoop* l = new KIVLoop(&c, g_mgr, g_dev, false, 2, 0.1f, 0, 100, 0, 0, 0, 0.0, 1.0,
                                 1, 64, 1, 0, 0, 0, 0, 0, 0, -1);
        stopTclCapture(in);
        l->deviceIdx = deviceIdx;
        l->running.store(true);
        l->errCount.store(0);
        l->errShown = false;
        l->lastCmd.store(0);
        c.loops[c.numDevices++] = l;
        return l;
    }

    // Runs one analyze(final) with every piece of time-dependent state set by
    // `setup(now)` for the current millisecond, and repeats until the clock did
    // not tick during the pass, so the rates are exact. Returns the captured
    // Tcl output of the pass.
    std::string passAt(const std::function<void(uint32_t)>& setup, bool final) {
        Tcl_Interp* in = testInterp();
        for (int attempt = 0; attempt < 200; attempt++) {
            uint32_t t0 = c.getMS();
            setup(t0);
            startTclCapture(in);
            c.analyze(final);
            std::string out = stopTclCapture(in);
            if (c.getMS() == t0) return out;
        }
        ADD_FAILURE() << "the clock never held still for one pass";
        return "";
    }

    // Sets the state of an ongoing run: time base `elapsedMs` before now, the
    // previous report `intervalMs` before now.
    void runState(uint32_t now, uint32_t elapsedMs, uint32_t intervalMs) {
        KIVControl::time_start = now - elapsedMs;
        c.lastReportMs = now - intervalMs;
        c.nextReportSec = 0;
        for (int i = 0; i < c.numDevices; i++) {
            c.prevOps[i] = 0;
            c.prevBlocks[i] = 0;
        }
    }

    KIVControl c;
};

// The mb/s column truncates to hundredths while kiv_mb_per_sec rounds them.
TEST_F(Stats, MegabytesTruncateInLineAndRoundInVariable) {
    KIVLoop* l = addLoop(0);
    c.setStatCallback("set ::seen $kiv_mb_per_sec");
    struct Case { uint64_t blocks; const char* col; const char* var; } cases[] = {
        {2000, "  1.02", "1.02"}, {3904, "  1.99", "2.00"}, {0, "  0.00", "0.00"},
        {200000, "102.40", "102.40"},
    };
    for (const Case& k : cases) {
        std::string out = passAt([&](uint32_t now) {
            runState(now, 1000, 1000);
            l->blocksIssued.store(k.blocks);
        }, false);
        ASSERT_EQ(out.size(), 69u) << out;
        // Columns: mb/s is the 6 characters before the final " %7u" errcnt.
        EXPECT_EQ(out.substr(out.size() - 1 - 8 - 6, 6), k.col) << out;
        EXPECT_STREQ(Tcl_GetVar(testInterp(), "::seen", 0), k.var);
    }
}

// The whole line, character for character, and every one of the variables.
TEST_F(Stats, LineAndVariablesOfOneDevice) {
    KIVLoop* l = addLoop(3);
    c.setStatCallback("set ::seen [list $kiv_index $kiv_test_type $kiv_last_cmd $kiv_ops "
                      "$kiv_last_lba $kiv_last_tl $kiv_time $kiv_ops_per_sec $kiv_mb_per_sec "
                      "$kiv_err_count]");
    std::string out = passAt([&](uint32_t now) {
        runState(now, 5000, 5000);
        l->opsDone.store(1234);
        l->blocksIssued.store(12305);   // 12305 * 512 / 1000 / 5000 ms = 1.26 mb/s
        l->lastLba.store(56789);
        l->lastTL.store(16);
        l->lastCmd.store(0);
    }, false);
    EXPECT_EQ(out, "   3 10/90 r10      1234     56789   16    5      246   1.26       0\n");
    EXPECT_STREQ(Tcl_GetVar(testInterp(), "::seen", 0),
                 "3 10/90 0 1234 56789 16 5 246 1.26 0");

    // The next pass counts from this one: 100 more ops in 1000 ms, an error.
    out = passAt([&](uint32_t now) {
        KIVControl::time_start = now - 6000;
        c.lastReportMs = now - 1000;
        c.nextReportSec = 0;
        c.prevOps[0] = 1234;
        c.prevBlocks[0] = 12305;
        l->opsDone.store(1334);
        l->blocksIssued.store(12305);
        l->lastCmd.store(4);
        l->errCount.store(2);
    }, false);
    EXPECT_EQ(out, "   3 10/90 vfy      1334     56789   16    6      100   0.00       2\n");
    EXPECT_EQ(c.prevOps[0], 1334u);
}

// A pass in the same millisecond as the last one, or with the last report's
// time ahead of now, divides by 1 ms.
TEST_F(Stats, IntervalIsAtLeastOneMillisecond) {
    KIVLoop* l = addLoop(0);
    c.setStatCallback("set ::seen $kiv_ops_per_sec");
    for (uint32_t ahead : {0u, 40u}) {
        passAt([&](uint32_t now) {
            runState(now, 2000, 0);
            c.lastReportMs = now + ahead;
            l->opsDone.store(7);
        }, false);
        EXPECT_STREQ(Tcl_GetVar(testInterp(), "::seen", 0), "7000") << "ahead " << ahead;
    }
}

// With five seconds per report, passes report at elapsed 5 and 10 only; a
// pass that does not report leaves lastReportMs alone; final always reports.
TEST_F(Stats, ReportCadenceFollowsSecondsPerReport) {
    addLoop(0);
    c.secondsPerReport = 5;
    c.nextReportSec = 5;
    struct Step { uint32_t elapsedMs; bool final; bool reports; int next; } steps[] = {
        {1000, false, false, 5}, {4000, false, false, 5}, {5000, false, true, 10},
        {9000, false, false, 10}, {10000, false, true, 15}, {11000, true, true, 16},
    };
    for (const Step& s : steps) {
        uint32_t before = 0, taken = 0;
        std::string out = passAt([&](uint32_t now) {
            KIVControl::time_start = now - s.elapsedMs;
            // Keep the scheduled second across retries.
            c.nextReportSec = s.next - (s.reports ? 5 : 0);
            c.lastReportMs = before = now - 300;
            taken = now;
        }, s.final);
        EXPECT_EQ(!out.empty(), s.reports) << "elapsed " << s.elapsedMs;
        EXPECT_EQ(c.nextReportSec, s.next) << "elapsed " << s.elapsedMs;
        EXPECT_EQ(c.lastReportMs, s.reports ? taken : before);
        EXPECT_EQ(c.elapsedSec, (int)(s.elapsedMs / 1000));
    }
    // Seconds are wall-clock boundaries passed: a base at .999 of one second
    // and a pass in the next second count one elapsed second.
    passAt([&](uint32_t now) {
        KIVControl::time_start = now - now % 1000 - 1;
        c.nextReportSec = 5;
    }, false);
    EXPECT_EQ(c.elapsedSec, 1);

    // 0 seconds per report: every pass reports.
    c.secondsPerReport = 0;
    for (int k = 0; k < 3; k++) {
        std::string out = passAt([&](uint32_t now) {
            KIVControl::time_start = now - 2000;
            c.lastReportMs = now - 1000;
            if (k == 0) c.nextReportSec = 0;
        }, false);
        EXPECT_FALSE(out.empty()) << "pass " << k;
    }
}

// The first pass only takes the time base and the starting block count; it
// makes no end-of-run checks even when kiv_run is already 0.
TEST_F(Stats, FirstPassTakesTheBaseOnly) {
    KIVLoop* l = addLoop(0);
    l->opsDone.store(40);
    l->blocksIssued.store(640);
    c.prevOps[0] = 77;
    Tcl_SetVar2(testInterp(), "kiv_run", nullptr, "0", TCL_GLOBAL_ONLY);
    KIVControl::time_start = 0;
    uint32_t t0 = c.getMS();
    startTclCapture(testInterp());
    c.analyze(false);
    EXPECT_EQ(stopTclCapture(testInterp()), "");
    EXPECT_GE(KIVControl::time_start, t0);
    EXPECT_EQ(c.lastReportMs, KIVControl::time_start);
    EXPECT_EQ(c.prevOps[0], 0u);
    EXPECT_EQ(c.prevBlocks[0], 640u);
    EXPECT_TRUE(l->running.load());
}

// A final pass with no first pass before it counts from the run's start (left
// in lastReportMs by run), not from what a previous run left behind.
TEST_F(Stats, FinalPassBeforeFirstCountsFromRunStart) {
    KIVLoop* l = addLoop(0);
    int secs = -1;
    std::string out = passAt([&](uint32_t now) {
        KIVControl::time_start = 0;
        c.lastReportMs = now - 500;
        // Seconds are boundaries passed since the run's start: 0 or 1 here.
        secs = (int)(now / 1000) - (int)((now - 500) / 1000);
        c.nextReportSec = 1;
        c.prevOps[0] = 99999;        // a previous run's figures
        c.prevBlocks[0] = 99999;
        l->opsDone.store(50);
        l->blocksIssued.store(1000);
        l->lastLba.store(7);
        l->lastTL.store(8);
    }, true);
    // 50 ops in 500 ms; 1000 blocks * 512 / 1000 / 500 ms = 1.024.
    char expect[128];
    snprintf(expect, sizeof expect,
             "   0 10/90 r10        50         7    8    %d      100   1.02       0\n", secs);
    EXPECT_EQ(out, expect);
}

// Several devices: one line each and an empty line, in the log as well; the
// callback sees each device's values in turn. With statMode 0 only the empty
// line reaches the console. One device gets no empty line.
TEST_F(Stats, SeveralDevicesShareAPass) {
    KIVLoop* a = addLoop(4);
    KIVLoop* b = addLoop(9);
    c.setStatCallback("lappend ::seen [list $kiv_index $kiv_ops]");
    char path[] = "/tmp/kiv-stats-XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    c.setStatLogfile(path);
    c.statHeader = false;
    c.initLoop();
    ASSERT_NE(c.statLogfile, nullptr);

    auto setup = [&](uint32_t now) {
        runState(now, 3000, 1000);
        Tcl_UnsetVar(testInterp(), "::seen", 0);
        a->opsDone.store(10);
        b->opsDone.store(20);
    };
    std::string out = passAt(setup, false);
    EXPECT_EQ(out,
              "   4 10/90 r10        10         0    0    3       10   0.00       0\n"
              "   9 10/90 r10        20         0    0    3       20   0.00       0\n\n");
    EXPECT_STREQ(Tcl_GetVar(testInterp(), "::seen", 0), "{4 10} {9 20}");

    c.statMode = 0;
    out = passAt(setup, false);
    EXPECT_EQ(out, "\n");

    fclose(c.statLogfile);
    c.statLogfile = nullptr;
    free(c.statLogfileName);
    c.statLogfileName = nullptr;
    FILE* f = fopen(path, "r");
    ASSERT_NE(f, nullptr);
    char buf[1024];
    size_t n = fread(buf, 1, sizeof buf - 1, f);
    buf[n] = '\0';
    fclose(f);
    unlink(path);
    std::string log(buf);
    std::string pass = "   4 10/90 r10        10         0    0    3       10   0.00       0\n"
                       "   9 10/90 r10        20         0    0    3       20   0.00       0\n\n";
    // Retried passes may have written more than twice; every pass is whole.
    ASSERT_GE(log.size(), 2 * pass.size());
    EXPECT_EQ(log.size() % pass.size(), 0u);
    EXPECT_EQ(log.substr(0, pass.size()), pass);

    delete c.loops[1];
    c.loops[1] = nullptr;
    c.numDevices = 1;
    c.statMode = 1;
    out = passAt(setup, false);
    EXPECT_EQ(out, "   4 10/90 r10        10         0    0    3       10   0.00       0\n");
}

// After each pass but the first: run time over or kiv_run 0 (or not a number)
// stops every loop; a missing kiv_run is reported on stdout and stops them too.
TEST_F(Stats, EndOfRunChecks) {
    KIVLoop* a = addLoop(0);
    KIVLoop* b = addLoop(1);
    Tcl_Interp* in = testInterp();
    struct Case { const char* kivRun; int runTime; bool stops; } cases[] = {
        {"1", 0, false}, {"1", 5, false}, {"1", 3, true}, {"0", 0, true},
        {"abc", 0, true}, {"2", 0, false},
    };
    for (const Case& k : cases) {
        a->running.store(true);
        b->running.store(true);
        c.runTime = k.runTime;
        Tcl_SetVar2(in, "kiv_run", nullptr, k.kivRun, TCL_GLOBAL_ONLY);
        passAt([&](uint32_t now) { runState(now, 3000, 1000); }, false);
        EXPECT_EQ(!a->running.load(), k.stops) << k.kivRun << " " << k.runTime;
        EXPECT_EQ(!b->running.load(), k.stops) << k.kivRun << " " << k.runTime;
    }

    a->running.store(true);
    b->running.store(true);
    c.runTime = 0;
    Tcl_UnsetVar(in, "kiv_run", TCL_GLOBAL_ONLY);
    testing::internal::CaptureStdout();
    passAt([&](uint32_t now) { runState(now, 3000, 1000); }, false);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("Error: could not find kiv_run!"), std::string::npos) << out;
    EXPECT_FALSE(a->running.load());
    EXPECT_FALSE(b->running.load());
}

// run() derives the label before it checks the device list, so a refused
// multi-threaded run with no device shows it; 90% random gives 89/11 because
// the ratio is single precision.
TEST_F(Stats, TestLabelFromTestType) {
    struct Case { int type; float ratio; const char* label; } cases[] = {
        {0, 0.1f, "rand"}, {1, 0.1f, "seq"}, {3, 0.1f, "pkd"}, {4, 0.1f, "stream"},
        {2, 0.1f, "10/90"}, {2, 0.9f, "89/11"}, {2, 0.5f, "50/50"}, {7, 0.25f, "25/75"},
    };
    Tcl_Interp* in = testInterp();
    for (const Case& k : cases) {
        c.threadMode = true;
        c.numDevices = 0;
        c.testType = k.type;
        c.mixRatio = k.ratio;
        startTclCapture(in);
        testing::internal::CaptureStdout();
        c.run();
        testing::internal::GetCapturedStdout();
        std::string out = stopTclCapture(in);
        EXPECT_STREQ(c.testLabel, k.label) << k.type << " " << k.ratio;
        EXPECT_NE(out.find("KIV: <E> No drives selected for test!  Aborting...\n"),
                  std::string::npos);
        EXPECT_FALSE(c.isRunning());
    }
}

}  // namespace
