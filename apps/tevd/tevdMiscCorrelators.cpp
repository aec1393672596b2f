// Correlators of domains whose translations are not defined yet: hardware,
// CPU, user worlds, swap, virtual machines, external components, migration,
// the in-memory root and FAT file systems, distributed storage. Each one
// subscribes to its domain and logs every observation it receives with the
// standard observation line, so nothing of these domains vanishes silently.
//
// The CPU correlator also owns two periodic alarms (60 and 30 seconds), part
// of the daemon's budget of 16. Until its translations exist, each one only
// reports how many CPU observations arrived in its period, and stays quiet
// when none did.
#include <atomic>

#include "tevdAlarm.h"
#include "tevdCorrelator.h"
#include "tevdLog.h"
#include "tevdMiscCorrelators.h"

namespace {

int LogObservation(Tev *tev) {
  TevdLog_Tev(tev);
  return 0;
}

// Observations counted for each alarm's period, read and reset by the alarm
// thread while the "cpu" agent counts.
std::atomic<uint32_t> cpuSeenLong{0};
std::atomic<uint32_t> cpuSeenShort{0};

void ReportCpuPeriod(std::atomic<uint32_t> *seen, unsigned seconds) {
  uint32_t n = seen->exchange(0);
  if (n != 0) {
    TevdLog("cpu: %u observations in the last %u seconds\n", n, seconds);
  }
}

void CpuLongAlarm(void) { ReportCpuPeriod(&cpuSeenLong, TEVD_CPU_LONG_ALARM_SECONDS); }
void CpuShortAlarm(void) { ReportCpuPeriod(&cpuSeenShort, TEVD_CPU_SHORT_ALARM_SECONDS); }

int LogCpuObservation(Tev *tev) {
  cpuSeenLong.fetch_add(1);
  cpuSeenShort.fetch_add(1);
  return LogObservation(tev);
}

}  // namespace

void TevdCpuCorrelator_SetAlarms(void) {
  // With the budget spent the alarm is left unused; the correlator still runs.
  const struct {
    TevdAlarmHandler handler;
    unsigned seconds;
  } kAlarms[] = {{CpuLongAlarm, TEVD_CPU_LONG_ALARM_SECONDS},
                 {CpuShortAlarm, TEVD_CPU_SHORT_ALARM_SECONDS}};
  for (const auto &alarm : kAlarms) {
    int id = TevdAlarm_Register(alarm.handler);
    if (id != -1) {
      TevdAlarm_Set(id, 1, alarm.seconds, nullptr);
    }
  }
}

int TevdCpuCorrelator_Handle(Tev *tev) { return LogCpuObservation(tev); }

void TevdCorrelator_StartHardware(void) {
  TevdCorrelator_Start("Hardware", "hardware", LogObservation, {});
}
void TevdCorrelator_StartCpu(void) {
  TevdCpuCorrelator_SetAlarms();
  TevdCorrelator_Start("cpu", "cpu", LogCpuObservation, {});
}
void TevdCorrelator_StartUW(void) { TevdCorrelator_Start("UserWorld", "uw", LogObservation, {}); }
void TevdCorrelator_StartSwap(void) { TevdCorrelator_Start("SWAP", "swap", LogObservation, {}); }
void TevdCorrelator_StartVM(void) { TevdCorrelator_Start("VM", "vm", LogObservation, {}); }
void TevdCorrelator_StartMigrate(void) {
  TevdCorrelator_Start("migrate", "migrate", LogObservation, {});
}
void TevdCorrelator_StartLumafs(void) {
  TevdCorrelator_Start("Lumafs", "lumafs", LogObservation, {});
}
void TevdCorrelator_StartVfat(void) { TevdCorrelator_Start("Vfat", "vfat", LogObservation, {}); }
void TevdCorrelator_StartNimbo(void) { TevdCorrelator_Start("Nimbo", "nimbo", LogObservation, {}); }

// External components post under their own words; the few identifiers of
// other domains that no correlator takes are listed exactly.
void TevdCorrelator_StartGeneric(void) {
  static const std::vector<std::string> kWords = {"external", "generic", "internal", "mem"};
  static const std::vector<std::string> kIds = {"tev.misc.unclassified"};
  TevdCorrelator_StartWithLists("Generic", kWords, kIds, LogObservation, {});
}
