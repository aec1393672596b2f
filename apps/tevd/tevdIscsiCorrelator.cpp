// iSCSI correlator ("iscsi"): connection, login and discovery failures become
// problems. One row per observation names the read shape and which
// observation argument fills each placeholder; several rows put the second
// argument first, as the event catalogue expects. A failed read drops the
// observation silently; the connection and session observations are
// consumed without an event; unknown identifiers are dropped.
#include "tevdIscsiCorrelator.h"

#include "tevdTranslate.h"

namespace {

// Registration order. Arguments are read at once ("%p" strings, "%u" the
// login code, sent as four hex digits); the order column puts the second
// argument first where the event catalogue expects it.
constexpr TevdRow kIscsiRows[] = {
    {"tev.iscsi.connection.started", TevdIscsiCorrelatorDoIgnore},
    {"tev.iscsi.connection.stopped", TevdIscsiCorrelatorDoIgnore},
    {"tev.iscsi.connection.error", TevdIscsiCorrelatorDoIgnore},
    {"tev.iscsi.session.recovery.timeout", TevdIscsiCorrelatorDoIgnore},
    {"tev.iscsi.target.async.event", TevdIscsiCorrelatorDoIgnore},
    {"tev.iscsi.target.connect.error", TevdIscsiCorrelatorDoTranslation, Problem, TevdRead::OneCall,
     "ss", "10", tevd_ev::ProblemStorageIscsiTargetConnectError},
    {"tev.iscsi.target.login.error", TevdIscsiCorrelatorDoTranslation, Problem, TevdRead::OneCall,
     "ssh", "102", tevd_ev::ProblemStorageIscsiTargetLoginError},
    {"tev.iscsi.target.permanently.removed", TevdIscsiCorrelatorDoTranslation, Problem,
     TevdRead::OneCall, "ss", "01", tevd_ev::ProblemStorageIscsiTargetPermanentlyRemoved},
    {"tev.iscsi.discovery.connect.error", TevdIscsiCorrelatorDoTranslation, Problem,
     TevdRead::OneCall, "ss", "10", tevd_ev::ProblemStorageIscsiDiscoveryConnectError},
    {"tev.iscsi.discovery.login.error", TevdIscsiCorrelatorDoTranslation, Problem,
     TevdRead::OneCall, "ssh", "102", tevd_ev::ProblemStorageIscsiDiscoveryLoginError},
    {"tev.iscsi.isns.discovery.error", TevdIscsiCorrelatorDoTranslation, Problem, TevdRead::OneCall,
     "ssss", "1023", tevd_ev::ProblemStorageIscsiIsnsDiscoveryError},
};
static_assert(TevdTranslate_FirstBadRow(kIscsiRows) == -1,
              "an iSCSI row does not fit its template");

}  // namespace

int TevdIscsiCorrelatorDoIgnore(Tev *tev) { return 0; }

int TevdIscsiCorrelatorDoTranslation(Tev *tev) {
  return TevdTranslate_ById(tev, kIscsiRows, TevdIscsiCorrelatorDoTranslation, true);
}

int TevdIscsiCorrelatorDoDefault(Tev *tev) { return 0; }

TevHandlerMap TevdIscsiCorrelator_BuildMap(void) { return TevdTranslate_BuildMap(kIscsiRows); }

void TevdCorrelator_StartiScsi(void) {
  TevdCorrelator_Start("iscsi", "iscsi", TevdIscsiCorrelatorDoDefault,
                       TevdIscsiCorrelator_BuildMap());
}
