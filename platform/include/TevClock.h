// The wall clock every part of the daemon reads, and the only way it reads
// one: real by default (gettimeofday and clock_gettime, so libfaketime moves
// it too), a fake one under tests. Setting the fake clock is not part of the
// product: it lives in platform/testing/TevClockFake.h, which only the
// tests' build can include.
#pragma once

#include <sys/time.h>
#include <time.h>

#include <cstdint>

void TevClock_GetTimeOfDay(struct timeval *tv);
void TevClock_GetRealtime(struct timespec *ts);
time_t TevClock_Time(void);
// Whole seconds of the wall clock: the one "now" of time-outs, rate windows
// and log intervals.
int64_t TevClock_NowSeconds(void);
