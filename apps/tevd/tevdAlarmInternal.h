// The alarm registry itself, for the alarm service's own file. Taken after no
// other lock, and not held while a handler runs.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <map>

#include "TevMutex.h"
#include "tevdAlarm.h"

struct TevdAlarmState {
  uint32_t mode = 0;      // 0 one-shot, 1 periodic
  uint32_t interval = 0;  // seconds
  uint64_t deadline = 0;  // absolute wall-clock seconds; 0 = not armed
  TevdAlarmHandler handler = nullptr;
};

extern TevMutex tevdAlarmMutex;
extern std::map<int32_t, TevdAlarmState> &tevdAlarmMap GUARDED_BY(tevdAlarmMutex);
extern pthread_cond_t tevdAlarmMapUpdated;
