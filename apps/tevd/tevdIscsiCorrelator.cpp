// iSCSI correlator ("iscsi"): connection, login and discovery failures become
// problems. One row per observation names the read shape and which
// observation argument fills each placeholder; several rows put the second
// argument first, as the event catalogue expects. A failed read drops the
// observation silently; the connection and session observations are
// consumed without an event; unknown identifiers are dropped.
#include "tevdApdCorrelator.h"

#include <cstdio>

#include "tevdLog.h"
#include "tevdQprob.h"

namespace {

enum class IscsiArgs {
  TwoStrings,         // "%p %p"
  TwoStringsAndCode,  // "%p %p %u": the code is printed as four hex digits
  FourStrings,        // "%p %p %p %p"
};

struct IscsiTranslation {
  const char *id;
  IscsiArgs args;
  bool secondFirst;   // the template takes arg1 before arg0
  const char *templ;
};

const char *const kIgnored[] = {
    "tev.iscsi.connection.started",       "tev.iscsi.connection.stopped",
    "tev.iscsi.connection.error",         "tev.iscsi.session.recovery.timeout",
    "tev.iscsi.target.async.event",
};

const IscsiTranslation kIscsiTranslations[] = {
    {"tev.iscsi.target.connect.error", IscsiArgs::TwoStrings, true,
     "@&!*@*@(kos.problem.storage.iscsi.target.connect.error)Login to iSCSI target %s on %s "
     "failed. The iSCSI initiator could not establish a network connection to the target."},
    {"tev.iscsi.target.login.error", IscsiArgs::TwoStringsAndCode, true,
     "@&!*@*@(kos.problem.storage.iscsi.target.login.error)Login to iSCSI target %s on %s "
     "failed. Target returned login error of: %s."},
    {"tev.iscsi.target.permanently.removed", IscsiArgs::TwoStrings, false,
     "@&!*@*@(kos.problem.storage.iscsi.target.permanently.removed)The target %s was permanently "
     "removed from %s."},
    {"tev.iscsi.discovery.connect.error", IscsiArgs::TwoStrings, true,
     "@&!*@*@(kos.problem.storage.iscsi.discovery.connect.error)iSCSI discovery to %s on %s "
     "failed. The iSCSI Initiator could not establish a network connection to the discovery "
     "address."},
    {"tev.iscsi.discovery.login.error", IscsiArgs::TwoStringsAndCode, true,
     "@&!*@*@(kos.problem.storage.iscsi.discovery.login.error)iSCSI discovery to %s on %s "
     "failed. The Discovery target returned a login error of: %s."},
    {"tev.iscsi.isns.discovery.error", IscsiArgs::FourStrings, true,
     "@&!*@*@(kos.problem.storage.iscsi.isns.discovery.error)iSns discovery to %s on %s failed. "
     "(%s : %s)."},
};

void PostIscsi(Tev *tev, const IscsiTranslation &row) {
  const char *arg0 = nullptr;
  const char *arg1 = nullptr;
  const char *first = nullptr;
  const char *second = nullptr;
  switch (row.args) {
    case IscsiArgs::TwoStrings:
      if (Tev_GetArgs(tev, 0, "%p %p", &arg0, &arg1) != 0) {
        return;
      }
      first = row.secondFirst ? arg1 : arg0;
      second = row.secondFirst ? arg0 : arg1;
      TevdQprob_Post(0, Problem, row.templ, first, second);
      return;
    case IscsiArgs::TwoStringsAndCode: {
      uint32_t code = 0;
      if (Tev_GetArgs(tev, 0, "%p %p %u", &arg0, &arg1, &code) != 0) {
        return;
      }
      // Status class and detail bytes: four digits; a larger value is cut
      // to its first four by the buffer.
      char codeText[5];
      snprintf(codeText, sizeof(codeText), "%04x", code);
      first = row.secondFirst ? arg1 : arg0;
      second = row.secondFirst ? arg0 : arg1;
      TevdQprob_Post(0, Problem, row.templ, first, second, codeText);
      return;
    }
    case IscsiArgs::FourStrings: {
      const char *arg2 = nullptr;
      const char *arg3 = nullptr;
      if (Tev_GetArgs(tev, 0, "%p %p %p %p", &arg0, &arg1, &arg2, &arg3) != 0) {
        return;
      }
      first = row.secondFirst ? arg1 : arg0;
      second = row.secondFirst ? arg0 : arg1;
      TevdQprob_Post(0, Problem, row.templ, first, second, arg2, arg3);
      return;
    }
  }
}

}  // namespace

int TevdIscsiCorrelatorDoIgnore(Tev *tev) { return 0; }

int TevdIscsiCorrelatorDoTranslation(Tev *tev) {
  const char *id = nullptr;
  if (Tev_GetID(tev, &id) != 0 || id == nullptr) {
    TevdLog("FAIL: Received NULL tevID\n");
    return -1;
  }
  for (const IscsiTranslation &row : kIscsiTranslations) {
    if (Tev_IsID(id, row.id)) {
      PostIscsi(tev, row);
      break;
    }
  }
  return 0;
}

int TevdIscsiCorrelatorDoDefault(Tev *tev) { return 0; }

TevHandlerMap TevdIscsiCorrelator_BuildMap(void) {
  TevHandlerMap map;
  for (const char *id : kIgnored) {
    map[id] = TevdIscsiCorrelatorDoIgnore;
  }
  for (const IscsiTranslation &row : kIscsiTranslations) {
    map[row.id] = TevdIscsiCorrelatorDoTranslation;
  }
  return map;
}

void TevdCorrelator_StartiScsi(void) {
  TevdCorrelator_Start("iscsi", "iscsi", TevdIscsiCorrelatorDoDefault,
                       TevdIscsiCorrelator_BuildMap());
}
