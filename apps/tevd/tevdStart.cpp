// The correlator start table, in the daemon's fixed start order.
#include "tevdAgent.h"
#include "tevdCorrelator.h"
#include "tevdLog.h"

void TevdCorrelator_StartAll(bool extraAgents) {
  static const TevdAgentFn kCorrelators[] = {
      TevdCorrelator_StartNet,      TevdCorrelator_StartScsi,       TevdCorrelator_StartAPD,
      TevdCorrelator_StartiScsi,    TevdCorrelator_StartKfs,        TevdCorrelator_StartUser,
      TevdCorrelator_StartHardware, TevdCorrelator_StartCpu,        TevdCorrelator_StartUW,
      TevdCorrelator_StartSwap,     TevdCorrelator_StartVM,         TevdCorrelator_StartGeneric,
      TevdCorrelator_StartMigrate,  TevdCorrelator_StartPageRetire, TevdCorrelator_StartLumafs,
      TevdCorrelator_StartVfat,     TevdCorrelator_StartClock,      TevdCorrelator_StartNimbo,
  };
  for (TevdAgentFn fn : kCorrelators) {
    TevdAgent_Start(fn);
  }
  if (extraAgents) {
    TevdAgent_Start(TevdLogger_Start);
    TevdAgent_Start(TevdCorrelator_StartTest);
  }
}
