// Alarm service: at most 16 alarms counted in whole wall-clock seconds, run by
// one alarm thread. Handlers run on that thread without the lock held, one at
// a time, so they may set any alarm, their own included.
#pragma once

typedef void (*TevdAlarmHandler)(void);

constexpr int TEVD_ALARM_MAX = 16;

int TevdAlarm_Register(TevdAlarmHandler handler);
// Arms (seconds > 0) or disarms alarm `id`, one-shot (mode 0) or periodic
// (1); *remaining gets the seconds that were left of its old deadline. 0, or
// 1 for an unknown alarm or mode.
int TevdAlarm_Set(int id, unsigned mode, unsigned seconds, unsigned *remaining);
void TevdAlarm_StartThread(void);

// ---- test support ------------------------------------------------------------
// The thread sleeps on the real clock: tests run its passes on the fake one.
// Runs, on the caller's thread, every alarm due at the current (fake) clock,
// one per pass like the alarm thread. Returns how many handlers ran.
int TevdAlarm_RunDueForTest(void);
// Identifiers are never given back: each test starts with all sixteen.
// Forgets every alarm and the identifier counter.
void TevdAlarm_ResetForTest(void);
