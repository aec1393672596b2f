// Placeholder until this correlator lands; the agent is not started.
#include "tevdCorrelator.h"

void TevdCorrelator_StartTest(void) {}
