// Metrics.h: what a monitoring endpoint reads of the devices and of the
// running test, from any thread, without a lock the command path takes and
// without Tcl: the devices' counters, and the figures the statistics pass of
// the extension publishes (whether a test runs, its elapsed seconds, each
// device's operations and megabytes per second of the last pass).
#pragma once
#include <cstdint>
#include <vector>

// Part of libMQB.so's exported interface: the host reads it, the extension's
// statistics pass writes the run figures.
#pragma GCC visibility push(default)
namespace mqb {

struct SenseCount {
    uint8_t  key = 0, asc = 0, ascq = 0;
    uint64_t count = 0;
};

// A device's counters since it was added or reset, summed over its channels.
struct DeviceMetrics {
    uint64_t commands = 0, reads = 0, writes = 0, wrvs = 0, verifies = 0, other = 0;
    uint64_t blocksRead = 0, blocksWritten = 0, errors = 0, miscompares = 0;
    uint64_t outstanding = 0;     // commands at the device now
    uint64_t maxOutstanding = 0;
    std::vector<SenseCount> sense;  // failed commands by sense triple, ordered by triple
};

// False when there is no device `idx`.
bool deviceMetrics(int idx, DeviceMetrics& out);

// --- the run, as the extension's statistics pass last saw it ---
// Writers (the extension, on the interpreter's thread) store with relaxed
// atomics into fixed slots: no allocation, no lock, no output of theirs changes.
constexpr int kRunSlots = 256;  // device positions of a run with published figures

// A run starts with `devices` positions (none has figures yet) and elapsed 0.
void runBegin(int devices);
void runEnd();
void runElapsed(int seconds);
// The figures of position `pos` (device index `device`) in a report pass.
void runPass(int pos, int device, uint64_t opsPerSec, float mbPerSec);

struct RunDeviceFigures {
    int      device = 0;
    uint64_t opsPerSec = 0;
    double   mbPerSec = 0;
};
struct RunFigures {
    bool running = false;
    int  elapsedSec = 0;                     // of the current or last run
    std::vector<RunDeviceFigures> devices;   // positions that have had a report pass
};
void runFigures(RunFigures& out);

}  // namespace mqb
#pragma GCC visibility pop
