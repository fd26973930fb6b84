/*
 * Time for the platform's own bounds and intervals.
 */
#pragma once

#include <stdint.h>
#include <time.h>

/** Milliseconds of a clock that nobody sets. */
inline int64_t monotonic_ms() {
    constexpr int64_t kMsPerSecond = 1000;
    constexpr int64_t kNsPerMs = 1000000;
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * kMsPerSecond + now.tv_nsec / kNsPerMs;
}
