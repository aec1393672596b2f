// KFS volume correlator. Stateless: each handler reads its observation's
// arguments with one Tev_GetArgs call and posts one event. Each
// TevdQprob_Post call names its catalogue template, never a variable, so the
// compiler checks the arguments against the text; hence the handlers that
// look alike are not folded into one.
//
// Several observations carry a volume UUID as ten integer arguments (two
// 32-bit words, a 16-bit word, six bytes). They are read with the UUID
// pattern below and printed back with the same pattern, which always gives
// 35 characters. The shared handlers pick their template by identifier and
// treat any other identifier as an internal inconsistency (the map only
// routes the registered ones), hence the Panics with fixed line tags.
#include "tevdKfsCorrelator.h"

#include <cstdint>

#include "tevdLog.h"
#include "tevdPanicTags.h"
#include "tevdQprob.h"

#define KFS_UUID_FMT "%08x-%08x-%04hx-%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx"

namespace {

struct KfsUuid {
  unsigned int w0 = 0;
  unsigned int w1 = 0;
  unsigned short w2 = 0;
  unsigned char b[6] = {0, 0, 0, 0, 0, 0};
  char text[36] = {0};  // 35 characters and the NUL
};

#define KFS_UUID_OUT(u) \
  &(u).w0, &(u).w1, &(u).w2, &(u).b[0], &(u).b[1], &(u).b[2], &(u).b[3], &(u).b[4], &(u).b[5]

void KfsUuidFormat(KfsUuid *u) {
  Str_Sprintf(u->text, sizeof u->text, KFS_UUID_FMT, u->w0, u->w1, u->w2, u->b[0], u->b[1], u->b[2],
              u->b[3], u->b[4], u->b[5]);
}

const char *KfsId(Tev *tev) {
  const char *id = nullptr;
  if (Tev_GetID(tev, &id) != 0 || id == nullptr) {
    return "";
  }
  return id;
}

}  // namespace

int TevdKfsCorrelatorCorrelate(Tev *tev) {
  const char *id = nullptr;
  Tev_GetID(tev, &id);
  return 0;
}

int TevdKfsCorrelatorDoVolumeLocked(Tev *tev) {
  const char *device = nullptr;
  if (Tev_GetArgs(tev, 0, "%p", &device) != 0) {
    return 0;
  }
  TevdQprob_Post(0, Problem, tevd_ev::ProblemKfsErrorVolumeIsLocked, device);
  return 0;
}

int TevdKfsCorrelatorDoExtentOffline(Tev *tev) {
  const char *device = nullptr;
  const char *fs = nullptr;
  if (Tev_GetArgs(tev, 0, "%p %p", &device, &fs) != 0) {
    return 0;
  }
  TevdQprob_Post(0, Problem, tevd_ev::ProblemKfsExtentOffline, device != nullptr ? device : "", fs);
  return 0;
}

int TevdKfsCorrelatorDoExtentOnline(Tev *tev) {
  const char *device = nullptr;
  const char *fs = nullptr;
  if (Tev_GetArgs(tev, 0, "%p %p", &device, &fs) != 0) {
    return 0;
  }
  TevdQprob_Post(0, Problem, tevd_ev::ProblemKfsExtentOnline, device, fs);
  return 0;
}

int TevdKfsCorrelatorDoVolumeMounted(Tev *tev) {
  const char *fs = nullptr;
  const char *volume = nullptr;
  const char *mode = nullptr;
  if (Tev_GetArgs(tev, 0, "%p %p %p", &fs, &volume, &mode) != 0) {
    return 0;
  }
  TevdQprob_Post(0, Audit, tevd_ev::AuditKfsVolumeMounted, fs, volume, mode);
  return 0;
}

int TevdKfsCorrelatorDoVolumeUmounted(Tev *tev) {
  const char *fs = nullptr;
  const char *volume = nullptr;
  if (Tev_GetArgs(tev, 0, "%p %p", &fs, &volume) != 0) {
    return 0;
  }
  TevdQprob_Post(0, Audit, tevd_ev::AuditKfsVolumeUmounted, fs, volume);
  return 0;
}

int TevdKfsCorrelatorDoATSSupportLost(Tev *tev) {
  const char *volume = nullptr;
  if (Tev_GetArgs(tev, 0, "%p", &volume) != 0) {
    return 0;
  }
  // "notsupport" and "intialization" are the event's own words.
  TevdQprob_Post(0, Problem, tevd_ev::ProblemKfsAtsSupportLost, volume);
  return 0;
}

int TevdKfsCorrelatorDoSpanIncompatibility(Tev *tev) {
  const char *volume = nullptr;
  KfsUuid u;
  if (Tev_GetArgs(tev, 0, "%p" KFS_UUID_FMT, &volume, KFS_UUID_OUT(u)) != 0) {
    return 0;
  }
  KfsUuidFormat(&u);
  TevdQprob_Post(0, Problem, tevd_ev::ProblemKfsSpanstateIncompatibilityDetected, volume, u.text);
  return 0;
}

int TevdKfsCorrelatorDoLockmodeInconsistent(Tev *tev) {
  const char *volume = nullptr;
  const char *atOpen = nullptr;
  const char *now = nullptr;
  const char *host = nullptr;
  KfsUuid u;
  if (Tev_GetArgs(tev, 0, "%p" KFS_UUID_FMT "%p %p %p", &volume, KFS_UUID_OUT(u), &atOpen, &now,
                  &host) != 0) {
    return 0;
  }
  KfsUuidFormat(&u);
  TevdQprob_Post(0, Problem, tevd_ev::ProblemKfsLockmodeInconsistencyDetected, volume, u.text,
                 atOpen, now, host);
  return 0;
}

int TevdKfsCorrelatorDoATSIncompatibility(Tev *tev) {
  const char *volume = nullptr;
  KfsUuid u;
  if (Tev_GetArgs(tev, 0, "%p" KFS_UUID_FMT, &volume, KFS_UUID_OUT(u)) != 0) {
    return 0;
  }
  KfsUuidFormat(&u);
  TevdQprob_Post(0, Problem, tevd_ev::ProblemKfsAtsIncompatibilityDetected, volume, u.text);
  return 0;
}

int TevdKfsCorrelatorDoSpannedLockmodeInconsistent(Tev *tev) {
  const char *volume = nullptr;
  const char *atOpen = nullptr;
  const char *now = nullptr;
  const char *host = nullptr;
  KfsUuid u;
  if (Tev_GetArgs(tev, 0, "%p" KFS_UUID_FMT "%p %p %p", &volume, KFS_UUID_OUT(u), &atOpen, &now,
                  &host) != 0) {
    return 0;
  }
  KfsUuidFormat(&u);
  TevdQprob_Post(0, Problem, tevd_ev::ProblemKfsSpannedLockmodeInconsistencyDetected, volume,
                 u.text, atOpen, now, host);
  return 0;
}

int TevdKfsCorrelatorDoVolumeNameAndLabel(Tev *tev) {
  const char *label = nullptr;
  KfsUuid u;
  if (Tev_GetArgs(tev, 0, KFS_UUID_FMT "%p", KFS_UUID_OUT(u), &label) != 0) {
    return 0;
  }
  KfsUuidFormat(&u);
  const char *id = KfsId(tev);
  // The management agent renders these events by identifier; "%s %s" only
  // feeds the local log line.
  if (Tev_IsID(id, "tev.kfs.heartbeat.timedout")) {
    TevdQprob_Post(0, Problem, tevd_ev::ProblemKfsHeartbeatTimedout, u.text, label);
  } else if (Tev_IsID(id, "tev.kfs.heartbeat.recovered")) {
    // A problem, not a clear: the agent's catalogue knows it under this id.
    TevdQprob_Post(0, Problem, tevd_ev::ProblemKfsHeartbeatRecovered, u.text, label);
  } else if (Tev_IsID(id, "tev.kfs.journal.createfailed")) {
    TevdQprob_Post(0, Problem, tevd_ev::ProblemKfsJournalCreatefailed, u.text, label);
  } else if (Tev_IsID(id, "tev.kfs.heartbeat.unrecoverable")) {
    TevdQprob_Post(0, Problem, tevd_ev::ProblemKfsHeartbeatUnrecoverable, u.text, label);
  } else if (Tev_IsID(id, "tev.kfs.lock.corruptondisk.v2")) {
    TevdQprob_Post(0, Problem, tevd_ev::ProblemKfsLockCorruptondiskV2, u.text, label);
  } else if (Tev_IsID(id, "tev.kfs.resource.corruptondisk")) {
    TevdQprob_Post(0, Problem, tevd_ev::ProblemKfsResourceCorruptondisk, u.text, label);
  } else if (Tev_IsID(id, "tev.kfs.heartbeat.corruptondisk")) {
    TevdQprob_Post(0, Problem, tevd_ev::ProblemKfsHeartbeatCorruptondisk, u.text, label);
  } else {
    TevdNotReached(tevd_tag::kKfsVolumeUnknownId);
  }
  return 0;
}

int TevdKfsCorrelatorDoNFSVolume(Tev *tev) {
  const char *first = nullptr;
  const char *second = nullptr;
  const char *last = nullptr;
  KfsUuid u;
  if (Tev_GetArgs(tev, 0, "%p %p" KFS_UUID_FMT "%p", &first, &second, KFS_UUID_OUT(u), &last) !=
      0) {
    return 0;
  }
  KfsUuidFormat(&u);
  const char *id = KfsId(tev);
  if (Tev_IsID(id, "tev.kfs.nfs.server.disconnect")) {
    TevdQprob_Post(0, Problem, tevd_ev::ProblemKfsNfsServerDisconnect, first, second, u.text, last);
  } else if (Tev_IsID(id, "tev.kfs.nfs.server.restored")) {
    // A problem, not a clear, as the identifier says.
    TevdQprob_Post(0, Problem, tevd_ev::ProblemKfsNfsServerRestored, first, second, u.text, last);
  } else {
    TevdNotReached(tevd_tag::kKfsNfsUnknownId);
  }
  return 0;
}

TevHandlerMap TevdKfsCorrelator_BuildMap(void) {
  static const struct {
    const char *id;
    TevHandler handler;
  } rows[] = {
      {"tev.kfs.error.volume.is.locked", TevdKfsCorrelatorDoVolumeLocked},
      {"tev.kfs.extent.offline", TevdKfsCorrelatorDoExtentOffline},
      {"tev.kfs.extent.online", TevdKfsCorrelatorDoExtentOnline},
      {"tev.kfs.volume.mounted", TevdKfsCorrelatorDoVolumeMounted},
      {"tev.kfs.volume.umounted", TevdKfsCorrelatorDoVolumeUmounted},
      {"tev.kfs.ats.support.lost", TevdKfsCorrelatorDoATSSupportLost},
      {"tev.kfs.spanstate.incompatibility.detected", TevdKfsCorrelatorDoSpanIncompatibility},
      {"tev.kfs.lockmode.inconsistency.detected", TevdKfsCorrelatorDoLockmodeInconsistent},
      {"tev.kfs.ats.incompatibility.detected", TevdKfsCorrelatorDoATSIncompatibility},
      {"tev.kfs.spanned.lockmode.inconsistency.detected",
       TevdKfsCorrelatorDoSpannedLockmodeInconsistent},
      {"tev.kfs.heartbeat.timedout", TevdKfsCorrelatorDoVolumeNameAndLabel},
      {"tev.kfs.heartbeat.recovered", TevdKfsCorrelatorDoVolumeNameAndLabel},
      {"tev.kfs.journal.createfailed", TevdKfsCorrelatorDoVolumeNameAndLabel},
      {"tev.kfs.heartbeat.unrecoverable", TevdKfsCorrelatorDoVolumeNameAndLabel},
      {"tev.kfs.lock.corruptondisk.v2", TevdKfsCorrelatorDoVolumeNameAndLabel},
      {"tev.kfs.resource.corruptondisk", TevdKfsCorrelatorDoVolumeNameAndLabel},
      {"tev.kfs.heartbeat.corruptondisk", TevdKfsCorrelatorDoVolumeNameAndLabel},
      {"tev.kfs.nfs.server.disconnect", TevdKfsCorrelatorDoNFSVolume},
      {"tev.kfs.nfs.server.restored", TevdKfsCorrelatorDoNFSVolume},
  };
  TevHandlerMap map;
  for (const auto &row : rows) {
    map[row.id] = row.handler;
  }
  return map;
}

void TevdCorrelator_StartKfs(void) {
  TevdCorrelator_Start("kfs", "kfs", TevdKfsCorrelatorCorrelate, TevdKfsCorrelator_BuildMap());
}
