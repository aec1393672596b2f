// The wall clock every part of the daemon reads. Tests may replace it with a
// fake one; production code never calls the setters.
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

// Test control: a fake clock at `usec` since the epoch, moved only by hand.
void TevClock_SetFake(int64_t usec);
void TevClock_Advance(int64_t usec);
void TevClock_UseReal(void);
bool TevClock_IsFake(void);
