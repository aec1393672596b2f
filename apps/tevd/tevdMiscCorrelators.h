// The CPU correlator's alarms (tevdMiscCorrelators.cpp), exposed for tests.
#pragma once

#include "TevLib.h"

constexpr unsigned TEVD_CPU_LONG_ALARM_SECONDS = 60;
constexpr unsigned TEVD_CPU_SHORT_ALARM_SECONDS = 30;

// Registers and arms the two periodic alarms (each skipped when the alarm
// budget is spent).
void TevdCpuCorrelator_SetAlarms(void);
// The correlator's handler: counts the observation for both periods and logs it.
int TevdCpuCorrelator_Handle(Tev *tev);
