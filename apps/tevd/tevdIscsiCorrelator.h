// iSCSI correlator ("iscsi"): connection, login and discovery failures become
// problem events; pure translations without state on the "iscsi" agent thread.
#pragma once

#include "tevdCorrelator.h"

// The map in registration order, as the start function hands it over.
TevHandlerMap TevdIscsiCorrelator_BuildMap(void);
// Fallback: unknown identifiers are dropped silently.
int TevdIscsiCorrelatorDoDefault(Tev *tev);
// Row-driven handler of the translations.
int TevdIscsiCorrelatorDoTranslation(Tev *tev);
// Consumes the iSCSI observations that need no event.
int TevdIscsiCorrelatorDoIgnore(Tev *tev);
