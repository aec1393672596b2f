// KFS volume correlator: stateless translations of the cluster file system's
// observations into problem and audit events. Every handler reads its
// arguments with one Tev_GetArgs call and posts nothing, and logs nothing,
// when that read fails. All handlers run on the "kfs" agent thread.
#pragma once

#include "TevLib.h"
#include "tevdCorrelator.h"

// Fallback for identifiers of the domain that have no entry: ignores them.
int TevdKfsCorrelatorCorrelate(Tev *tev);

int TevdKfsCorrelatorDoVolumeLocked(Tev *tev);
int TevdKfsCorrelatorDoExtentOffline(Tev *tev);
int TevdKfsCorrelatorDoExtentOnline(Tev *tev);
int TevdKfsCorrelatorDoVolumeMounted(Tev *tev);
int TevdKfsCorrelatorDoVolumeUmounted(Tev *tev);
int TevdKfsCorrelatorDoATSSupportLost(Tev *tev);
int TevdKfsCorrelatorDoSpanIncompatibility(Tev *tev);
int TevdKfsCorrelatorDoLockmodeInconsistent(Tev *tev);
int TevdKfsCorrelatorDoATSIncompatibility(Tev *tev);
int TevdKfsCorrelatorDoSpannedLockmodeInconsistent(Tev *tev);
// Heartbeat, journal and on-disk corruption family (seven identifiers);
// Panics on an identifier outside the family.
int TevdKfsCorrelatorDoVolumeNameAndLabel(Tev *tev);
// NFS server disconnect/restored; Panics on any other identifier.
int TevdKfsCorrelatorDoNFSVolume(Tev *tev);

// The 19 registered identifiers and their handlers, as the agent uses them.
TevHandlerMap TevdKfsCorrelator_BuildMap(void);
