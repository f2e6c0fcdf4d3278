// KIVControl_stats.cpp: the statistics pass of a run: operations and megabytes
// per second of each device over the last interval, shown on the terminal, in
// the statistics log, in the status window and through the Tcl variables and
// callback; and the end-of-run checks (run time, kiv_run) that follow it.
#include "KIVControl.h"

#include <cinttypes>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "KIVLoop.h"
#include "Metrics.h"

namespace {
const char kDevLabel[] = ".kivstat.frame.cframe.canvas.frame.device";
}

// One statistics pass. The first non-final call of a run only takes the time
// base and starting counters. A report is made when the elapsed second count
// reaches nextReportSec, or always when `final`. Every call but that first one
// then stops the loops when the run time is over or kiv_run is 0 or missing.
// Side effects: prevOps/prevBlocks/curOps/curBlocks, lastReportMs, elapsedSec,
// nextReportSec, the loops' errShown and running flags; Tcl variables in the
// caller's scope when a callback is set.
void KIVControl::analyze(bool final) {
    static char tbuff[255];
    static char tbuff2[255];

    if (time_start == 0) {
        if (!final) {
            uint32_t now = getMS();
            time_start = now;
            lastReportMs = now;
            for (int i = 0; i < numDevices; i++) {
                prevOps[i] = 0;
                prevBlocks[i] = loops[i] ? loops[i]->blocksIssued.load(std::memory_order_relaxed) : 0;
            }
            return;
        }
        // A final pass before any first pass (a run shorter than one second
        // boundary): count from the run's start, which run() left in
        // lastReportMs, so the figures are this run's alone.
        time_start = lastReportMs;
        for (int i = 0; i < numDevices; i++) {
            prevOps[i] = 0;
            prevBlocks[i] = 0;
        }
    }

    uint32_t now = getMS();
    elapsedSec = (int32_t)now / 1000 - (int32_t)time_start / 1000;
    mqb::runElapsed(elapsedSec);  // for a monitoring endpoint

    if (elapsedSec >= nextReportSec || final) {
        // Worked in 64 bits: a report spacing near INT_MAX must not wrap the
        // next due second into the past (a report every pass).
        int64_t next = (int64_t)elapsedSec + secondsPerReport;
        nextReportSec = next > INT_MAX ? INT_MAX : next < INT_MIN ? INT_MIN : (int)next;

        for (int i = 0; i < numDevices; i++) {
            KIVLoop* l = loops[i];
            curOps[i] = l ? l->opsDone.load(std::memory_order_relaxed) : 0;
            curBlocks[i] = l ? l->blocksIssued.load(std::memory_order_relaxed) : 0;
        }

        for (int i = 0; i < numDevices; i++) {
            KIVLoop* l = loops[i];
            if (!l) continue;
            if (!((int32_t)now > (int32_t)lastReportMs)) lastReportMs = now - 1;
            int32_t intervalMs = (int32_t)(now - lastReportMs);
            // 64-bit product: a fast device completes more than 2^31 / 1000
            // commands in one interval, where 32-bit arithmetic would wrap.
            uint64_t opsPerSec = (uint64_t)(uint32_t)(curOps[i] - prevOps[i]) * 1000u /
                                 (uint64_t)intervalMs;
            float mbPerSec = (float)(curBlocks[i] - prevBlocks[i]) * 512 / 1000 / intervalMs;
            // 64-bit too: hundredths of a fast device's rate exceed 2^32.
            uint64_t whole = (uint64_t)mbPerSec;
            uint64_t hundredths = (uint64_t)((double)mbPerSec * 100.0) - whole * 100;
            mqb::runPass(i, l->deviceIdx, opsPerSec, mbPerSec);

            uint32_t cmd = l->lastCmd.load(std::memory_order_relaxed);
            const char* cmdName = cmd < 5 ? cmdstr[cmd] : "???";
            uint64_t lba = l->lastLba.load(std::memory_order_relaxed);
            uint64_t tl = l->lastTL.load(std::memory_order_relaxed);
            uint32_t errs = (uint32_t)l->errCount.load(std::memory_order_relaxed);
            bool loopRunning = l->running.load(std::memory_order_relaxed);

            snprintf(tbuff, sizeof tbuff, "%4u %5s %3s %9" PRIu64 " %9zu %4zu %4u %8" PRIu64 " %3" PRIu64 ".%02" PRIu64 " %7u",
                     l->deviceIdx, testLabel, cmdName, curOps[i], (size_t)lba, (size_t)tl,
                     (unsigned)elapsedSec, opsPerSec, whole, hundredths, errs);

            if (statLogfileName && statLogfile)
                noteWrite(fprintf(statLogfile, "%s\n", tbuff), statLogWriteErr);

            if (statMode == 1) {
                print(tbuff);
            } else if (statMode == 2) {
                if (loopRunning || !l->errShown) {
                    snprintf(tbuff2, sizeof tbuff2, "%s%d configure -text \"%.180s\"", kDevLabel, i,
                             tbuff);
                    tclEval(interp, tbuff2);
                }
                if (errs != 0) {
                    snprintf(tbuff2, sizeof tbuff2, "%s%d configure -foreground #ff0000",
                             kDevLabel, i);
                    tclEval(interp, tbuff2);
                    l->errShown = true;
                }
                if (!loopRunning && errs == 0) {
                    snprintf(tbuff2, sizeof tbuff2, "%s%d configure -foreground #007700",
                             kDevLabel, i);
                    tclEval(interp, tbuff2);
                }
            }

            if (statCallback) {
                snprintf(tbuff, sizeof tbuff, "%u", l->deviceIdx);
                Tcl_SetVar2(interp, "kiv_index", nullptr, tbuff, 0);
                Tcl_SetVar2(interp, "kiv_test_type", nullptr, testLabel, 0);
                snprintf(tbuff, sizeof tbuff, "%u", cmd);
                Tcl_SetVar2(interp, "kiv_last_cmd", nullptr, tbuff, 0);
                snprintf(tbuff, sizeof tbuff, "%" PRIu64, curOps[i]);
                Tcl_SetVar2(interp, "kiv_ops", nullptr, tbuff, 0);
                snprintf(tbuff, sizeof tbuff, "%zu", (size_t)lba);
                Tcl_SetVar2(interp, "kiv_last_lba", nullptr, tbuff, 0);
                snprintf(tbuff, sizeof tbuff, "%zu", (size_t)tl);
                Tcl_SetVar2(interp, "kiv_last_tl", nullptr, tbuff, 0);
                snprintf(tbuff, sizeof tbuff, "%u", (unsigned)elapsedSec);
                Tcl_SetVar2(interp, "kiv_time", nullptr, tbuff, 0);
                snprintf(tbuff, sizeof tbuff, "%" PRIu64, opsPerSec);
                Tcl_SetVar2(interp, "kiv_ops_per_sec", nullptr, tbuff, 0);
                // The variable rounds where the line truncates.
                snprintf(tbuff, sizeof tbuff, "%3.2f", (double)mbPerSec);
                Tcl_SetVar2(interp, "kiv_mb_per_sec", nullptr, tbuff, 0);
                snprintf(tbuff, sizeof tbuff, "%u", errs);
                Tcl_SetVar2(interp, "kiv_err_count", nullptr, tbuff, 0);
                tclEval(interp, statCallback);
            }

            prevOps[i] = curOps[i];
            prevBlocks[i] = curBlocks[i];
        }

        tclEval(interp, "update");
        if (numDevices > 1) {
            if (statMode != 2) print("");
            if (statLogfileName && statLogfile) noteWrite(fputc('\n', statLogfile), statLogWriteErr);
        }
        lastReportMs = now;
    }

    // End-of-run checks: run time, then the stop request through kiv_run.
    // These stops are final (requestStop): a later PASS decision cannot undo them.
    if (runTime != 0 && elapsedSec >= runTime) {
        for (int i = 0; i < numDevices; i++)
            if (loops[i]) loops[i]->requestStop();
    }
    const char* v = Tcl_GetVar2(interp, "kiv_run", nullptr, TCL_GLOBAL_ONLY);
    bool stop;
    if (!v) {
        printf("Error: could not find kiv_run!");
        fflush(stdout);
        stop = true;
    } else {
        stop = strtol(v, nullptr, 10) == 0;
    }
    // An interrupt (Ctrl-C, SIGTERM) stops the test like kiv_run 0.
    // Said once: the loops it stops are marked stopRequested.
    if (!stop && interrupted()) {
        bool first = false;
        for (int i = 0; i < numDevices; i++)
            if (loops[i] && !loops[i]->stopRequested.load(std::memory_order_relaxed)) first = true;
        if (first)
            print("KIV: <I> Interrupted: stopping the test "
                  "(interrupt again within 2 seconds to quit)");
        stop = true;
    }
    if (stop) {
        for (int i = 0; i < numDevices; i++)
            if (loops[i]) loops[i]->requestStop();
    }
    flushRunLogs();
}
