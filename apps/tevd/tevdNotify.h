// Notifications to the service manager: readiness once every agent has
// subscribed, stopping on the way out, and the watchdog keep-alive from the
// poll loop. Without NOTIFY_SOCKET (or in a build without libsystemd) every
// call does nothing and the poll timeout stays infinite.
#pragma once

#include <cstdint>

// The keep-alive schedule, kept apart from the socket so it can be driven by
// a test's clock. Times are wall-clock microseconds.
struct TevdWatchdog {
  uint64_t intervalUs;  // half of WATCHDOG_USEC; 0 when there is no watchdog
  uint64_t lastUs;      // when the last keep-alive went out
};

// True when a keep-alive is due at `nowUs`; records it as sent.
bool TevdWatchdog_Due(TevdWatchdog *w, uint64_t nowUs);
// Milliseconds until the next keep-alive is due at `nowUs` (rounded up),
// or -1 without a watchdog: the poll timeout of the loop.
int TevdWatchdog_TimeoutMs(const TevdWatchdog *w, uint64_t nowUs);

void TevdNotify_Ready(void);
void TevdNotify_Stopping(void);
// Called on every pass of the poll loop: a pass is progress, so a loop
// blocked anywhere (a full agent pipe) sends nothing and gets restarted.
void TevdNotify_LoopPass(void);
int TevdNotify_PollTimeoutMs(void);
