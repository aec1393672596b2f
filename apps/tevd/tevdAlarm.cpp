// Alarm service.
//
// DESIGN: one registry (tevdAlarmMap, at most 16 entries, identifiers 0..15
// handed out in order and never released) guarded by tevdAlarmMutex, and one
// alarm thread. The thread walks the map in identifier order, takes the first
// alarm whose deadline has come (so the lowest identifier wins a tie), updates
// it (periodic: counted again from the moment it was noticed; one-shot:
// disarmed) and runs its handler with the lock released, so a handler may set
// any alarm, its own included. Handlers therefore run one at a time, in the
// order in which they fall due.
//
// Deadlines are wall-clock seconds from TevClock. The thread sleeps with
// pthread_cond_timedwait on an absolute CLOCK_REALTIME deadline (whole
// seconds, 0 ns) on the same clock, so moving the system clock (or running
// under a clock-shifting preload) moves every alarm alike. Every
// TevdAlarm_Set broadcasts tevdAlarmMapUpdated so the sleep is recomputed.
#include "tevdAlarm.h"
#include "tevdAlarmInternal.h"

#include <pthread.h>

#include <cerrno>
#include <cstdint>
#include <ctime>
#include <map>

#include "TevClock.h"
#include "TevMutex.h"

// The registry's names and external linkage are part of the alarm service's
// interface; they are declared only in tevdAlarmInternal.h, never in
// tevdAlarm.h.
// Never destroyed: the alarm thread runs until the process has ended.
TevMutex tevdAlarmMutex;
std::map<int32_t, TevdAlarmState> &tevdAlarmMap GUARDED_BY(tevdAlarmMutex) =
    *new std::map<int32_t, TevdAlarmState>;
// Statically initialised condition variables use CLOCK_REALTIME.
pthread_cond_t tevdAlarmMapUpdated = PTHREAD_COND_INITIALIZER;

namespace {

int32_t nextAlarmId GUARDED_BY(tevdAlarmMutex) = 0;
bool alarmThreadStarted GUARDED_BY(tevdAlarmMutex) = false;

// With the lock held: finds the first alarm in identifier order that is due at
// `now`, advances or disarms it, and returns its handler through `handler`.
bool TakeDueLocked(uint64_t now, TevdAlarmHandler *handler) REQUIRES(tevdAlarmMutex) {
  for (auto &entry : tevdAlarmMap) {
    TevdAlarmState &alarm = entry.second;
    if (alarm.deadline == 0 || alarm.deadline > now) {
      continue;
    }
    if (alarm.mode == 1) {
      // The next period starts when this firing was noticed, so lateness
      // shifts later firings instead of bunching them up.
      alarm.deadline = now + alarm.interval;
    } else {
      alarm.interval = 0;
      alarm.deadline = 0;
    }
    *handler = alarm.handler;
    return true;
  }
  return false;
}

// With the lock held: the earliest armed deadline not before `now` (the first
// in identifier order among equals), or 0 when nothing is armed.
uint64_t EarliestDeadlineLocked(uint64_t now) REQUIRES(tevdAlarmMutex) {
  uint64_t earliest = 0;
  for (const auto &entry : tevdAlarmMap) {
    uint64_t d = entry.second.deadline;
    if (d != 0 && d >= now && (earliest == 0 || d < earliest)) {
      earliest = d;
    }
  }
  return earliest;
}

}  // namespace

int TevdAlarm_Register(TevdAlarmHandler handler) {
  tevdAlarmMutex.lock();
  if (nextAlarmId > TEVD_ALARM_MAX - 1) {
    tevdAlarmMutex.unlock();
    return -1;
  }
  int id = nextAlarmId++;
  TevdAlarmState &alarm = tevdAlarmMap[id];
  alarm.mode = 0;
  alarm.interval = 0;
  alarm.deadline = 0;
  alarm.handler = handler;
  tevdAlarmMutex.unlock();
  return id;
}

int TevdAlarm_Set(int id, unsigned mode, unsigned seconds, unsigned *remaining) {
  if (mode > 1) {
    return 1;
  }
  tevdAlarmMutex.lock();
  if (remaining != nullptr) {
    *remaining = 0;
  }
  auto it = tevdAlarmMap.find(id);
  if (it == tevdAlarmMap.end()) {
    tevdAlarmMutex.unlock();
    return 1;
  }
  TevdAlarmState &alarm = it->second;
  uint64_t now = static_cast<uint64_t>(TevClock_NowSeconds());
  if (remaining != nullptr) {
    *remaining = alarm.deadline > now ? static_cast<unsigned>(alarm.deadline - now) : 0;
  }
  alarm.mode = mode;
  alarm.interval = seconds;
  alarm.deadline = seconds == 0 ? 0 : now + seconds;
  pthread_cond_broadcast(&tevdAlarmMapUpdated);
  tevdAlarmMutex.unlock();
  return 0;
}

namespace {

void *AlarmThreadMain(void *) {
  uint64_t now = static_cast<uint64_t>(TevClock_NowSeconds());
  tevdAlarmMutex.lock();
  for (;;) {
    TevdAlarmHandler handler = nullptr;
    if (!TakeDueLocked(now, &handler)) {
      now = static_cast<uint64_t>(TevClock_NowSeconds());
      if (!TakeDueLocked(now, &handler)) {
        uint64_t deadline = EarliestDeadlineLocked(now);
        if (deadline == 0) {
          tevdAlarmMutex.Wait(&tevdAlarmMapUpdated);
        } else {
          struct timespec until;
          until.tv_sec = static_cast<time_t>(deadline);
          until.tv_nsec = 0;
          tevdAlarmMutex.WaitUntil(&tevdAlarmMapUpdated, &until);
        }
        continue;
      }
    }
    tevdAlarmMutex.unlock();
    if (handler != nullptr) {
      handler();
    }
    tevdAlarmMutex.lock();
  }
  return nullptr;
}

}  // namespace

void TevdAlarm_StartThread(void) {
  pthread_t thread;
  if (pthread_create(&thread, nullptr, AlarmThreadMain, nullptr) == 0) {
    tevdAlarmMutex.lock();
    alarmThreadStarted = true;
    tevdAlarmMutex.unlock();
  }
}

int TevdAlarm_RunDueForTest(void) {
  int ran = 0;
  for (;;) {
    uint64_t now = static_cast<uint64_t>(TevClock_NowSeconds());
    TevdAlarmHandler handler = nullptr;
    tevdAlarmMutex.lock();
    bool due = TakeDueLocked(now, &handler);
    tevdAlarmMutex.unlock();
    if (!due) {
      return ran;
    }
    if (handler != nullptr) {
      handler();
    }
    ran++;
  }
}

void TevdAlarm_ResetForTest(void) {
  tevdAlarmMutex.lock();
  tevdAlarmMap.clear();
  nextAlarmId = 0;
  tevdAlarmMutex.unlock();
}
