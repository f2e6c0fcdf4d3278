// SteadyClock.h: the steady clock in nanoseconds, and a sleep that wakes
// close to its due time (for simulated latency and held completions).
#pragma once
#include <chrono>
#include <cstdint>

namespace mqb {

// The steady clock, in nanoseconds since an arbitrary start: the one clock
// read of the library (latency stamps, queue deadlines, held completions).
inline uint64_t steadyNs() {
    return uint64_t(std::chrono::duration_cast<std::chrono::nanoseconds>(
                        std::chrono::steady_clock::now().time_since_epoch())
                        .count());
}

// Sleeps until the steady clock reaches `dueNs`, or returns at once when it
// already has. Sleeps in the kernel until shortly before the time, then
// yields the processor until it has come, so the wake-up is late by a few
// microseconds at most instead of the timer slack.
void sleepUntilNs(uint64_t dueNs);

// Sets the calling thread's timer slack to 1 ns (Linux keeps it per thread;
// the default 50 us makes every sleep overshoot by up to that much).
void lowerTimerSlack();

}  // namespace mqb
