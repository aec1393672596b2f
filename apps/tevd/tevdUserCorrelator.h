// User-level event translations: observations posted by the host's user-space
// services under "tev.user." become one problem, audit or clear event each.
// Stateless; all handlers run on the "UserLevel" agent thread.
#pragma once

#include "TevLib.h"
#include "tevdCorrelator.h"

// Generic handler of every table row: reads the row's arguments from the
// highest index down (Tev_GetIntArg / Tev_GetStringArg) and posts the row's
// event, or posts nothing when a read fails.
int TevdUserCorrelatorTranslate(Tev *tev);
// "tev.user.iorm.badversion": four arguments read at once with Tev_GetArgs
// ("%p %p %d %d"); posts unless that call returns a negative value.
int TevdUserCorrelatorDoIormBadVersion(Tev *tev);
// Fallback for identifiers of the domain without an entry: ignores them.
int TevdUserCorrelatorIgnore(Tev *tev);

// Number of rows of the translation table (63).
int TevdUserCorrelator_NumRows(void);
// The map the agent uses: every table identifier and its handler.
TevHandlerMap TevdUserCorrelator_BuildMap(void);
