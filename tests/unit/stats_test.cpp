// stats_test.cpp: the statistics pass (KIVControl::analyze): line, variables, rates,
// cadence, the first pass, end-of-run checks; and run()'s test label.
#include <climits>
#include <cstring>
#include <functional>

#include "KIVLoop.h"
#include "TestSupport.h"

namespace {

class Stats : public SimControlTest {
protected:
    void SetUp() override {
        SimControlTest::SetUp();
        quietInit();
        ctl->statMode = 1, strcpy(ctl->testLabel, "10/90");
        Tcl_SetVar(testInterp(), "kiv_run", "1", TCL_GLOBAL_ONLY);
        ctl->numDevices = 0, loop = addLoop(0);
    }
    // The Tcl output of analyze(final) with the time-dependent state set by
    // `setup(now)`, repeated until the clock holds still for one pass.
    std::string passAt(const std::function<void(uint32_t)>& setup, bool final = false) {
        for (int attempt = 0; attempt < 200; attempt++) {
            uint32_t t0 = ctl->getMS();
            setup(t0);
            std::string out = tclOutput([&] { ctl->analyze(final); });
            if (ctl->getMS() == t0) return out;
        }
        ADD_FAILURE() << "the clock never held still for one pass";
        return "";
    }
    // An ongoing run: time base `elapsedMs` and the last report `intervalMs` before now.
    void runState(uint32_t now, uint32_t elapsedMs, uint32_t intervalMs) {
        KIVControl::time_start = now - elapsedMs;
        ctl->lastReportMs = now - intervalMs;
        ctl->nextReportSec = 0;
        for (int i = 0; i < ctl->numDevices; i++) ctl->prevOps[i] = ctl->prevBlocks[i] = 0;
    }
    KIVLoop* loop = nullptr;
};

// The line to the character and the two rate variables; mb/s truncates in the line
// but rounds in kiv_mb_per_sec; an interval of 0 ms or less (clock behind) counts as
// 1 ms; operations per second stay exact past the 32-bit range of their product.
// (Each of the ten variables against its line: tests/tcl stats-2.2.)
TEST_F(Stats, LineVariablesAndRates) {
    loop->deviceIdx = 3;
    loop->lastLba.store(56789), loop->lastTL.store(16), loop->lastCmd.store(4), loop->errCount.store(2);
    ctl->setStatCallback("set ::rates \"$kiv_ops_per_sec $kiv_mb_per_sec\"");
    const struct { uint32_t intervalMs, ops; uint64_t blocks; const char *line, *rates; } cases[] = {
        {5000, 1234, 12305,  // 12305 * 512 / 1000 / 5000 ms = 1.26 mb/s
         "   3 10/90 vfy      1234     56789   16    5      246   1.26       2\n", "246 1.26"},
        {1000, 0, 3904, "   3 10/90 vfy         0     56789   16    5        0   1.99       2\n", "0 2.00"},
        {0, 7, 0, "   3 10/90 vfy         7     56789   16    5     7000   0.00       2\n", "7000 0.00"},
        {(uint32_t)-40, 7, 0,
         "   3 10/90 vfy         7     56789   16    5     7000   0.00       2\n", "7000 0.00"},
        // A product with 1000 past 2^31, and a rate past it: exact, not wrapped.
        {1, 3000000, 0,
         "   3 10/90 vfy   3000000     56789   16    5 3000000000   0.00       2\n",
         "3000000000 0.00"},
    };
    for (const auto& k : cases) {
        EXPECT_EQ(passAt([&](uint32_t now) {
            runState(now, 5000, k.intervalMs);
            loop->opsDone.store(k.ops), loop->blocksIssued.store(k.blocks);
        }), k.line);
        EXPECT_STREQ(Tcl_GetVar(testInterp(), "::rates", 0), k.rates);
        EXPECT_EQ(ctl->prevBlocks[0], k.blocks);  // the next pass counts from this one
    }
}

// With five seconds per report, passes report at elapsed 5 and 10 only; a pass
// that does not report leaves lastReportMs alone; final always reports.
TEST_F(Stats, ReportCadenceFollowsSecondsPerReport) {
    ctl->secondsPerReport = 5;
    const struct { uint32_t elapsedMs; bool final, reports; int next; } steps[] = {
        {4000, false, false, 5}, {5000, false, true, 10}, {10000, false, true, 15}, {11000, true, true, 16},
    };
    for (const auto& s : steps) {
        uint32_t before = 0, taken = 0;
        std::string out = passAt([&](uint32_t now) {
            KIVControl::time_start = now - s.elapsedMs;
            ctl->nextReportSec = s.next - (s.reports ? 5 : 0);  // the same on every retry
            ctl->lastReportMs = before = now - 300;
            taken = now;
        }, s.final);
        EXPECT_EQ(!out.empty(), s.reports) << "elapsed " << s.elapsedMs;
        EXPECT_EQ(std::make_pair(ctl->nextReportSec, ctl->lastReportMs),
                  std::make_pair(s.next, s.reports ? taken : before)) << "elapsed " << s.elapsedMs;
    }
    // The largest spacing schedules the next report at INT_MAX, not in the past:
    // the pass after the final one at 11 s is not a report.
    ctl->secondsPerReport = INT_MAX;
    passAt([&](uint32_t now) { KIVControl::time_start = now - 11000; }, true);
    EXPECT_EQ(ctl->nextReportSec, INT_MAX);
    EXPECT_EQ(passAt([&](uint32_t now) { KIVControl::time_start = now - 12000; }), "");
}

// The first pass only takes the time base and starting blocks. After any other pass
// run time over, or kiv_run 0 or not a number, stops every loop (kiv_run unset,
// with its message: tests/tcl run-2.3).
TEST_F(Stats, FirstPassAndEndOfRunChecks) {
    KIVLoop* b = addLoop(1);
    b->blocksIssued.store(640);
    Tcl_SetVar(testInterp(), "kiv_run", "0", TCL_GLOBAL_ONLY);
    EXPECT_EQ(tclOutput([&] { ctl->analyze(false); }), "");
    EXPECT_EQ(std::make_pair(ctl->lastReportMs, ctl->prevBlocks[1]),
              std::make_pair(KIVControl::time_start, (uint64_t)640));
    EXPECT_TRUE(loop->running.load() && b->running.load());
    const struct { const char* kivRun; int runTime; bool stops; } cases[] = {
        {"1", 0, false}, {"1", 5, false}, {"1", 3, true}, {"0", 0, true},
        {"abc", 0, true}, {"2", 0, false},
    };
    for (const auto& k : cases) {
        loop->running.store(true), b->running.store(true);
        ctl->runTime = k.runTime;
        Tcl_SetVar(testInterp(), "kiv_run", k.kivRun, TCL_GLOBAL_ONLY);
        passAt([&](uint32_t now) { runState(now, 3000, 1000); });
        EXPECT_EQ(std::make_pair(!loop->running, !b->running), std::make_pair(k.stops, k.stops))
            << k.kivRun << " " << k.runTime;
    }
}

// A run that ends before its first pass: the final pass counts from the run's
// start (which run() leaves in lastReportMs), never from a previous run's figures.
TEST_F(Stats, EarlyFinalPassShowsOnlyThisRun) {
    std::string out = passAt([&](uint32_t now) {
        KIVControl::time_start = 0;
        ctl->lastReportMs = now - 500;  // the run started half a second ago
        ctl->prevOps[0] = 90000, ctl->prevBlocks[0] = 90000;  // left by an earlier run
        loop->opsDone.store(50), loop->blocksIssued.store(1000);
    }, true);
    // 50 ops in 500 ms = 100/s; 1000 blocks * 512 / 1000 / 500 ms = 1.02 mb/s.
    EXPECT_NE(out.find("       50 "), std::string::npos) << out;
    EXPECT_NE(out.find("      100   1.02 "), std::string::npos) << out;
}

// run() derives the label before it refuses a run without devices; 90% random
// gives 89/11 because the ratio is single precision.
TEST_F(Stats, TestLabelFromTestType) {
    const struct { int type; float ratio; const char* label; } cases[] = {
        {0, 0.1f, "rand"}, {1, 0.1f, "seq"}, {3, 0.1f, "pkd"}, {4, 0.1f, "stream"},
        {2, 0.1f, "10/90"}, {2, 0.9f, "89/11"}, {7, 0.25f, "25/75"}};
    ctl->numDevices = 0;
    for (const auto& k : cases) {
        ctl->testType = k.type, ctl->mixRatio = k.ratio;
        tclOutput([&] { EXPECT_EQ(ctl->run(), 0); });
        EXPECT_STREQ(ctl->testLabel, k.label) << k.type << " " << k.ratio;
    }
    ctl->numDevices = 1;  // the fixture's loop, for TearDown
}

}  // namespace
