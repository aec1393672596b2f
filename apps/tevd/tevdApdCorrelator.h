// All-paths-down ("APD", word "storage.apd") and iSCSI ("iscsi") correlators:
// pure translations without state, each on its own agent thread.
#pragma once

#include "tevdCorrelator.h"

// The maps in registration order, as the start functions hand them over.
TevHandlerMap TevdApdCorrelator_BuildMap(void);
TevHandlerMap TevdIscsiCorrelator_BuildMap(void);

// Fallbacks: the APD one logs "No correlator for %s \n", the iSCSI one is silent.
int TevdApdCorrelatorDoDefault(Tev *tev);
int TevdIscsiCorrelatorDoDefault(Tev *tev);

// Row-driven handlers of the two maps.
int TevdApdCorrelatorDoTranslation(Tev *tev);
int TevdIscsiCorrelatorDoTranslation(Tev *tev);
// Consumes the iSCSI observations that need no event.
int TevdIscsiCorrelatorDoIgnore(Tev *tev);
