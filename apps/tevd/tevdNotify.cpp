#include "tevdNotify.h"

#include <ctime>

#include "TevClock.h"

#ifdef TEVD_WITH_SYSTEMD
#include <systemd/sd-daemon.h>
#endif

bool TevdWatchdog_Due(TevdWatchdog *w, uint64_t nowUs) {
  if (w->intervalUs == 0) {
    return false;
  }
  // A clock stepped back would otherwise postpone the keep-alive by the
  // size of the step and get the daemon killed: treat it as due.
  if (nowUs >= w->lastUs && nowUs - w->lastUs < w->intervalUs) {
    return false;
  }
  w->lastUs = nowUs;
  return true;
}

int TevdWatchdog_TimeoutMs(const TevdWatchdog *w, uint64_t nowUs) {
  if (w->intervalUs == 0) {
    return -1;
  }
  if (nowUs < w->lastUs || nowUs - w->lastUs >= w->intervalUs) {
    return 0;
  }
  uint64_t left = w->intervalUs - (nowUs - w->lastUs);
  return static_cast<int>((left + 999) / 1000);
}

namespace {

uint64_t NowUs() {
  struct timespec ts;
  TevClock_GetRealtime(&ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
}

// Only the main thread calls in, so the schedule needs no lock.
TevdWatchdog watchdog = {0, 0};
bool watchdogRead = false;

TevdWatchdog *Watchdog() {
  if (!watchdogRead) {
    watchdogRead = true;
#ifdef TEVD_WITH_SYSTEMD
    uint64_t usec = 0;
    // Checks WATCHDOG_PID too: a watchdog meant for another process is not ours.
    if (sd_watchdog_enabled(0, &usec) > 0 && usec >= 2) {
      watchdog.intervalUs = usec / 2;
      watchdog.lastUs = 0;  // the first pass sends one at once
    }
#endif
  }
  return &watchdog;
}

void Send(const char *state) {
#ifdef TEVD_WITH_SYSTEMD
  (void)sd_notify(0, state);
#else
  (void)state;
#endif
}

}  // namespace

void TevdNotify_Ready(void) { Send("READY=1"); }

void TevdNotify_Stopping(void) { Send("STOPPING=1"); }

void TevdNotify_LoopPass(void) {
  if (TevdWatchdog_Due(Watchdog(), NowUs())) {
    Send("WATCHDOG=1");
  }
}

int TevdNotify_PollTimeoutMs(void) { return TevdWatchdog_TimeoutMs(Watchdog(), NowUs()); }
