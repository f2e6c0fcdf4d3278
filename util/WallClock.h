// WallClock.h: the wall-clock time in milliseconds, the one read behind the
// extension's second and millisecond counters.
#pragma once
#include <sys/time.h>
#include <cstdint>

inline uint64_t wallClockMs() {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return (uint64_t)tv.tv_sec * 1000u + (uint64_t)tv.tv_usec / 1000u;
}
