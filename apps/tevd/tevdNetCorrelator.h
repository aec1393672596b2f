// Network correlator ("net" agent): direct translations of network
// observations, uplink redundancy tracking and link-flap detection.
//
// Threads: every handler, the wake-up routine and all state below belong to
// the "net" agent thread. The alarm callback runs on the alarm thread and does
// nothing but write a token into the correlator's own pipe; the framework then
// runs TevdNetCorrelator_ProcessTimeouts on the agent thread, so no lock is
// needed anywhere here. Tests drive handlers and the wake-up routine directly.
#pragma once

#include "TevLib.h"
#include "tevdCorrelator.h"

// ---- start-up ----------------------------------------------------------------
// The 42 {identifier, handler} pairs, in registration order.
TevHandlerMap TevdNetCorrelator_BuildMap(void);
// Steps before the agent starts: registers the alarm and makes the wake-up
// pipe. False (nothing made) when no alarm slot is free; Panics when the pipe
// cannot be made. On success *readFd is the pipe's read end.
bool TevdNetCorrelator_Prepare(int *readFd);
// The alarm callback: writes "foo" and its NUL into the wake-up pipe.
void TevdNetCorrelatorAlarmFired(void);
// Default handler: identifiers without an entry are dropped.
int TevdNetCorrelatorIgnore(Tev *tev);

// ---- direct translations -------------------------------------------------------
int TevdNetCorrelatorTranslate(Tev *tev);         // one-outcome rows
int TevdNetCorrelatorFirewallConfig(Tev *tev);    // shared: config.changed / config.failed
int TevdNetCorrelatorFirewallPort(Tev *tev);      // shared: port.hooked / hookfailed / removed
int TevdNetCorrelatorFencePortFail(Tev *tev);     // three outcomes by status
int TevdNetCorrelatorTso6NotSupported(Tev *tev);  // needs the VM's display name

// ---- uplink redundancy tracking (tevdNetInternal.h) -----------------------------
// The wake-up routine: handles every expired time-out and re-arms the alarm.
void TevdNetCorrelator_ProcessTimeouts(void);
