// Correlators of domains whose translations are not defined yet: hardware,
// CPU, user worlds, swap, virtual machines, external components, migration,
// the in-memory root and FAT file systems, distributed storage. Each one
// subscribes to its domain and logs every observation it receives with the
// standard observation line, so nothing of these domains vanishes silently.
#include "tevdCorrelator.h"
#include "tevdLog.h"

namespace {

int LogObservation(Tev *tev) {
  TevdLog_Tev(tev);
  return 0;
}

}  // namespace

void TevdCorrelator_StartHardware(void) { TevdCorrelator_Start("Hardware", "hardware", LogObservation, {}); }
void TevdCorrelator_StartCpu(void) { TevdCorrelator_Start("cpu", "cpu", LogObservation, {}); }
void TevdCorrelator_StartUW(void) { TevdCorrelator_Start("UserWorld", "uw", LogObservation, {}); }
void TevdCorrelator_StartSwap(void) { TevdCorrelator_Start("SWAP", "swap", LogObservation, {}); }
void TevdCorrelator_StartVM(void) { TevdCorrelator_Start("VM", "vm", LogObservation, {}); }
void TevdCorrelator_StartMigrate(void) { TevdCorrelator_Start("migrate", "migrate", LogObservation, {}); }
void TevdCorrelator_StartLumafs(void) { TevdCorrelator_Start("Lumafs", "lumafs", LogObservation, {}); }
void TevdCorrelator_StartVfat(void) { TevdCorrelator_Start("Vfat", "vfat", LogObservation, {}); }
void TevdCorrelator_StartNimbo(void) { TevdCorrelator_Start("Nimbo", "nimbo", LogObservation, {}); }

// External components post under their own words; the few identifiers of
// other domains that no correlator takes are listed exactly.
void TevdCorrelator_StartGeneric(void) {
  static const std::vector<std::string> kWords = {"external", "generic", "internal", "mem"};
  static const std::vector<std::string> kIds = {"tev.misc.unclassified"};
  TevdCorrelator_StartWithLists("Generic", kWords, kIds, LogObservation, {});
}
