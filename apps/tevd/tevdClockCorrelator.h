// Clock correction correlator ("Clock" agent, domain "clock"): turns the
// kernel clock discipline's observations into problem events, each handler
// suppressing repeats of an identifier for an hour, and lets the next
// "synchronised" report through at once after any loss of synchronisation.
// All state belongs to the agent thread; the handlers are exposed for tests.
#pragma once

#include "TevLib.h"
#include "tevdCorrelator.h"

// Seconds during which a handled identifier is not handled again.
constexpr long TEVD_CLOCK_SUPPRESS_SEC = 3600;

TevHandlerMap TevdClockCorrelator_BuildMap(void);

int TevdClockCorrelator_Sync(Tev *tev);
int TevdClockCorrelator_CorrectionDelta(Tev *tev);
int TevdClockCorrelator_SetValue(Tev *tev);
int TevdClockCorrelatorHandleOther(Tev *tev);
