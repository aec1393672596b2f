// Alarm service: at most 16 alarms counted in whole wall-clock seconds, run by
// one alarm thread. Handlers run on that thread without the lock held, one at
// a time, so they may set any alarm, their own included.
#pragma once

#include <cstdint>
#include <map>

#include <pthread.h>

typedef void (*TevdAlarmHandler)(void);

struct TevdAlarmState {
  uint32_t mode = 0;      // 0 one-shot, 1 periodic
  uint32_t interval = 0;  // seconds
  uint64_t deadline = 0;  // absolute wall-clock seconds; 0 = not armed
  TevdAlarmHandler handler = nullptr;
};

// Never destroyed: the alarm thread runs until the process has ended.
extern std::map<int32_t, TevdAlarmState> &tevdAlarmMap;
extern pthread_mutex_t tevdAlarmMutex;
extern pthread_cond_t tevdAlarmMapUpdated;

constexpr int TEVD_ALARM_MAX = 16;

int TevdAlarm_Register(TevdAlarmHandler handler);
int TevdAlarm_Set(int id, unsigned mode, unsigned seconds, unsigned *remaining);
void TevdAlarm_StartThread(void);
void *TevdAlarm_ThreadMain(void *);

// ---- test support ------------------------------------------------------------
// Runs, on the caller's thread, every alarm due at the current (fake) clock,
// one per pass like the alarm thread. Returns how many handlers ran.
int TevdAlarm_RunDueForTest(void);
// Forgets every alarm and the identifier counter.
void TevdAlarm_ResetForTest(void);
