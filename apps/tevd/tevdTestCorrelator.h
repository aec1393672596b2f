// Self-test correlator ("TevdTest", domain "tests"): compares the test
// observations with a built-in table, prints PASS/FAIL lines on standard
// output and ends the process with the number of failures as exit status.
#pragma once

#include "TevLib.h"
#include "tevdCorrelator.h"

// The single handler, used for every observation of the domain.
int TevdTestCorrelatorHandleTev(Tev *tev);
// Time-out alarm handler: prints the time-out line and exits.
void TevdTestCorrelatorTimeout(void);
// The (empty) map: every observation goes to the handler above.
TevHandlerMap TevdTestCorrelator_Map(void);
