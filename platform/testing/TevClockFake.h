// The test seam of the wall clock (TevClock.h): a fake time at `usec` since
// the epoch that moves only when a test says so. Only the tests' build has
// this directory on its include path and links its library, so no product
// program can stop its own clock.
#pragma once

#include <cstdint>

void TevClock_SetFake(int64_t usec);
void TevClock_Advance(int64_t usec);
void TevClock_UseReal(void);
bool TevClock_IsFake(void);
