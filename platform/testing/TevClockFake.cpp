// Writes the fake clock's two atomics that TevClock.cpp reads; any thread may
// read while a test advances.
#include "TevClockFake.h"

#include "PlatformInternal.h"

using platform_internal::gFakeClock;

void TevClock_SetFake(int64_t usec) {
  gFakeClock.usec.store(usec);
  gFakeClock.on.store(true);
}

void TevClock_Advance(int64_t usec) { gFakeClock.usec.fetch_add(usec); }

void TevClock_UseReal(void) { gFakeClock.on.store(false); }

bool TevClock_IsFake(void) { return gFakeClock.on.load(); }
