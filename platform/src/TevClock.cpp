// The one wall clock of the daemon. Real by default; tests switch it to a fake
// value that moves only when they say so. Both words are atomics, so readers on
// any thread see a consistent fake time without a lock.
#include "TevClock.h"

#include <atomic>

namespace {
std::atomic<bool> gFake{false};
std::atomic<int64_t> gFakeUs{0};
}  // namespace

void TevClock_GetTimeOfDay(struct timeval *tv) {
  if (gFake.load()) {
    int64_t us = gFakeUs.load();
    tv->tv_sec = static_cast<time_t>(us / 1000000);
    tv->tv_usec = static_cast<suseconds_t>(us % 1000000);
    return;
  }
  gettimeofday(tv, nullptr);
}

void TevClock_GetRealtime(struct timespec *ts) {
  if (gFake.load()) {
    int64_t us = gFakeUs.load();
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

void TevClock_SetFake(int64_t usec) {
  gFakeUs.store(usec);
  gFake.store(true);
}

void TevClock_Advance(int64_t usec) { gFakeUs.fetch_add(usec); }

void TevClock_UseReal(void) { gFake.store(false); }

bool TevClock_IsFake(void) { return gFake.load(); }
