// The one wall clock of the daemon. Real by default; tests switch it to a fake
// value that moves only when they say so (platform/testing). Both words are
// atomics, so readers on any thread see a consistent fake time without a lock.
#include "TevClock.h"

#include "PlatformInternal.h"

namespace platform_internal {

FakeClockState gFakeClock;

}  // namespace platform_internal

using platform_internal::gFakeClock;

void TevClock_GetTimeOfDay(struct timeval *tv) {
  if (gFakeClock.on.load()) {
    int64_t us = gFakeClock.usec.load();
    tv->tv_sec = static_cast<time_t>(us / 1000000);
    tv->tv_usec = static_cast<suseconds_t>(us % 1000000);
    return;
  }
  gettimeofday(tv, nullptr);
}

void TevClock_GetRealtime(struct timespec *ts) {
  if (gFakeClock.on.load()) {
    int64_t us = gFakeClock.usec.load();
    ts->tv_sec = static_cast<time_t>(us / 1000000);
    ts->tv_nsec = static_cast<long>((us % 1000000) * 1000);
    return;
  }
  clock_gettime(CLOCK_REALTIME, ts);
}

time_t TevClock_Time(void) {
  struct timeval tv;
  TevClock_GetTimeOfDay(&tv);
  return tv.tv_sec;
}

int64_t TevClock_NowSeconds(void) { return static_cast<int64_t>(TevClock_Time()); }
