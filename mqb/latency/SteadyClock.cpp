// SteadyClock.cpp: steady-clock reads and the precise sleep.
#include "SteadyClock.h"
#include <sys/prctl.h>
#include <chrono>
#include <thread>

namespace mqb {

namespace {
// How long before its time a sleep leaves the kernel to yield instead: more
// than a wake-up's usual lateness once the timer slack is low.
constexpr uint64_t kSpinNs = 20000;
}  // namespace

void sleepUntilNs(uint64_t dueNs) {
    uint64_t now = steadyNs();
    if (now >= dueNs) return;
    if (dueNs - now > kSpinNs) {
        std::this_thread::sleep_for(std::chrono::nanoseconds(dueNs - now - kSpinNs));
        now = steadyNs();
    }
    while (now < dueNs) {
        std::this_thread::yield();
        now = steadyNs();
    }
}

void lowerTimerSlack() { prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL); }

}  // namespace mqb
