// All-paths-down correlator ("APD", word "storage.apd"): pure translations
// without state on its own agent thread.
#pragma once

#include "tevdCorrelator.h"

// The map in registration order, as the start function hands it over.
TevHandlerMap TevdApdCorrelator_BuildMap(void);
// Fallback: logs "No correlator for %s \n".
int TevdApdCorrelatorDoDefault(Tev *tev);
// Row-driven handler of the map.
int TevdApdCorrelatorDoTranslation(Tev *tev);
