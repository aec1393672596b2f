// Page retirement correlator ("pageretire" agent): selected-page thresholds,
// the once-per-run not-retired report, firmware retirement requests, and the
// killing of a virtual machine that keeps using a page into which machine
// checks were injected. All state belongs to the agent thread; the functions
// below are exposed so tests can drive the handlers directly.
#pragma once

#include <cstdint>

#include "TevLib.h"
#include "tevdCorrelator.h"

// Kills need this many injections into one page of one virtual machine ...
constexpr int TEVD_PR_KILL_COUNT = 50;
// ... spread over at least this many seconds.
constexpr int64_t TEVD_PR_KILL_SPAN_SEC = 2;
// Injections older than this many seconds are forgotten.
constexpr int64_t TEVD_PR_WINDOW_SEC = 60;

// Start steps before the agent runs: reads the threshold T and the interval I
// (fatal when either is absent), clears the counters and the injection table.
void TevdPageRetireCorrelator_Init(void);
TevHandlerMap TevdPageRetireCorrelator_BuildMap(void);

int TevdPageRetireCorrelatorDefault(Tev *tev);
int TevdPageRetireCorrelatorSelectedThreshold(Tev *tev);
int TevdPageRetireCorrelatorSelectedNotRetired(Tev *tev);
int TevdPageRetireCorrelatorPlatformRequest(Tev *tev);
int TevdPageRetireCorrelatorMceInjected(Tev *tev);
