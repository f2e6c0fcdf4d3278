// loop_bench.cpp: commands per second a device loop drives through a
// zero-latency simulated disk, at queue depth 1 and 32. The loop runs with its
// own MQB object (the multi-threaded arrangement), so no Tcl runs while timed:
// the timed region is KIVLoop::run alone, set-up and teardown are excluded.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <memory>
#include <string>
#include <tcl.h>
#include <unistd.h>

#include "DataControl.h"
#include "DeviceTable.h"
#include "KIVControl.h"
#include "KIVLoop.h"
#include "MQB.h"
#include "MQBManager.h"

namespace {

struct Rig {
    MQBManager mgr;
    int dev = -1;
    Tcl_Interp* interp = nullptr;

    Rig() {
        // This file is built for the stubs table like the extension; the parentheses
        // call the library's own Tcl_CreateInterp, before the table exists.
        Tcl_FindExecutable(nullptr);
        interp = (Tcl_CreateInterp)();
        Tcl_InitStubs(interp, "8.6", 0);
        std::string err;
        dev = mqb::addDevice("sim:blocks=2097152", err);
        mgr.setCurrentMQB(std::make_unique<MQB>("sim"));
        mgr.getCurrentMQB()->setDeviceIndex(dev);
        control.init(&mgr, interp);
    }
};

Rig& rig() {
    static Rig r;
    return r;
}

// Keeps the loop's own progress lines out of the benchmark's report.
struct QuietStdout {
    int saved;
    QuietStdout() {
        fflush(stdout);
        saved = dup(1);
        FILE* null = freopen("/dev/null", "w", stdout);
        (void)null;
    }
    ~QuietStdout() {
        fflush(stdout);
        dup2(saved, 1);
        close(saved);
    }
};

// One run per iteration: random 4 KiB reads, `ops` commands at depth `qd`;
// the third argument turns latency recording on (two clock reads and a
// histogram update per command).
void BM_LoopRandomRead(benchmark::State& state) {
    const int qd = (int)state.range(0);
    const int ops = (int)state.range(1);
    Rig& r = rig();
    mqb::latencyEnable(r.dev, state.range(2) != 0);
    uint64_t commands = 0;
    for (auto _ : state) {
        state.PauseTiming();
        std::unique_ptr<KIVLoop> loop;
        {
            QuietStdout quiet;
            loop = std::make_unique<KIVLoop>(&control, &r.mgr, r.dev, true, 0, 0.0f, 0, 100, 0,
                                             0, 0, 0.0, 1.0, 8, 8, qd, ops, 0, 0, 0, 0, 0, -1);
            KIVLoop::reserveReadBuffer((uint64_t)loop->blockSize * loop->maxTL + 1000);
        }
        control.printLen = 6;  // drop the preparation messages queued by earlier runs
        {
            QuietStdout quiet;  // a few microseconds against a run of a second
            state.ResumeTiming();
            loop->run();
            state.PauseTiming();
        }
        commands += loop->opsDone.load();
        {
            QuietStdout quiet;
            loop.reset();
        }
        state.ResumeTiming();
    }
    state.counters["cmds_per_sec"] =
        benchmark::Counter((double)commands, benchmark::Counter::kIsRate);
}

}  // namespace

BENCHMARK(BM_LoopRandomRead)
    ->Args({1, 2000000, 0})
    ->Args({32, 2000000, 0})
    ->Args({1, 2000000, 1})
    ->Args({32, 2000000, 1})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MinTime(2.0);

BENCHMARK_MAIN();
