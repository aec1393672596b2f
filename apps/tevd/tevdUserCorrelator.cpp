// User-level event translations: one row of the translation engine
// (tevdTranslate.h) per observation, {observation id, event class, event,
// argument kinds}; the event's template comes from the catalogue
// (events/tevdEvents.def) and is checked against the kinds at compile time.
// Arguments are read by index from the highest down; a failed read posts
// nothing and logs nothing.
#include "tevdUserCorrelator.h"

#include "tevdTranslate.h"

namespace {

#define USER_ROW(tev, cls, ev, kinds) \
  { tev, TevdUserCorrelatorTranslate, cls, TevdRead::ByIndexDown, kinds, "", tevd_ev::ev }

constexpr TevdRow kUserRows[] = {
    // Problems.
    USER_ROW("tev.user.iorm.nonhvworkload", Problem, ProblemIormNonhvworkload, "s"),
    // Read at once ("%p %p %d %d"); only a negative status stops the event,
    // which then carries what the read left (null strings and zeros).
    {"tev.user.iorm.badversion", TevdUserCorrelatorDoIormBadVersion, Problem,
     TevdRead::OneCallLenient, "ssdd", "", tevd_ev::ProblemIormBadversion},
    USER_ROW("tev.user.dhclient.lease.offered.noexpiry", Problem,
             ProblemDhclientLeaseOfferedNoexpiry, "s"),
    USER_ROW("tev.user.hsyslogd.storage.logdir.invalid", Problem,
             ProblemHsyslogdStorageLogdirInvalid, "ss"),
    USER_ROW("tev.user.test.test0", Problem, ProblemTestTest0, ""),
    USER_ROW("tev.user.test.test2", Problem, ProblemTestTest2, "ds"),
    USER_ROW("tev.user.hsyslogd.remote.failure", Problem, ProblemHsyslogdRemoteFailure, "s"),
    USER_ROW("tev.user.hsyslogd.storage.failure", Problem, ProblemHsyslogdStorageFailure, ""),
    USER_ROW("tev.user.hsyslogd.unexpected", Problem, ProblemHsyslogdUnexpected, "s"),
    USER_ROW("tev.user.kosimage.install.invalidhardware", Problem,
             ProblemKosimageInstallInvalidhardware, "ss"),
    USER_ROW("tev.user.kosimage.install.stage.error", Problem, ProblemKosimageInstallStageError,
             "ss"),
    USER_ROW("tev.user.kosimage.install.error", Problem, ProblemKosimageInstallError, "s"),
    USER_ROW("tev.user.dhclient.lease.none", Problem, ProblemDhclientLeaseNone, "s"),
    USER_ROW("tev.user.ntpd.clock.correction.error", Problem, ProblemNtpdClockCorrectionError,
             "dd"),
    USER_ROW("tev.user.host.coredump", Problem, ProblemHostCoredump, ""),
    USER_ROW("tev.user.coredump.unconfigured", Problem, ProblemCoredumpUnconfigured, ""),
    USER_ROW("tev.user.coredump.extraction.failed.nospace", Problem,
             ProblemCoredumpExtractionFailedNospace, "d"),
    USER_ROW("tev.user.coredump.unconfigured2", Problem, ProblemCoredumpUnconfigured2, ""),
    USER_ROW("tev.user.coredump.capacity.insufficient", Problem,
             ProblemCoredumpCapacityInsufficient, "d"),
    USER_ROW("tev.user.coredump.copyspace", Problem, ProblemCoredumpCopyspace, "d"),
    USER_ROW("tev.user.scratch.partition.size.small", Problem, ProblemScratchPartitionSizeSmall,
             "sd"),
    USER_ROW("tev.user.scratch.partition.unconfigured", Problem,
             ProblemScratchPartitionUnconfigured, "d"),
    USER_ROW("tev.user.iofilter.disabled", Problem, ProblemIofilterDisabled, "ss"),
    USER_ROW("tev.user.driver.abnormal", Problem, ProblemDriverAbnormal, "ssd"),
    // Audits.
    USER_ROW("tev.user.kcon.login.passwd.changed", Audit, AuditKconLoginPasswdChanged, "s"),
    USER_ROW("tev.user.kcon.login.failed", Audit, AuditKconLoginFailed, "s"),
    USER_ROW("tev.user.kcon.factory.network.restored", Audit, AuditKconNetworkFactoryrestore, ""),
    USER_ROW("tev.user.kcon.restarting.hostagents", Audit, AuditKconHostagentsRestart, ""),
    USER_ROW("tev.user.kcon.network.restart", Audit, AuditKconNetworkRestart, "s"),
    USER_ROW("tev.user.kcon.restore.factory.defaults", Audit, AuditKconDefaultsFactoryrestore, ""),
    USER_ROW("tev.user.kcon.reboot.host", Audit, AuditKconHostReboot, ""),
    USER_ROW("tev.user.kcon.shutdown.host", Audit, AuditKconHostShutdown, ""),
    USER_ROW("tev.user.koscli.host.reboot", Audit, AuditKoscliHostReboot, "s"),
    USER_ROW("tev.user.koscli.host.poweroff", Audit, AuditKoscliHostPoweroff, "s"),
    USER_ROW("tev.user.test.test1s", Audit, AuditTestTest1s, "s"),
    USER_ROW("tev.user.test.test1d", Audit, AuditTestTest1d, "d"),
    USER_ROW("tev.user.shell.enabled", Audit, AuditShellEnabled, ""),
    USER_ROW("tev.user.shell.disabled", Audit, AuditShellDisabled, ""),
    USER_ROW("tev.user.ssh.enabled", Audit, AuditSshEnabled, ""),
    USER_ROW("tev.user.ssh.disabled", Audit, AuditSshDisabled, ""),
    USER_ROW("tev.user.kcon.enabled", Audit, AuditKconEnabled, ""),
    USER_ROW("tev.user.kcon.disabled", Audit, AuditKconDisabled, ""),
    USER_ROW("tev.user.lockdownmode.enabled", Audit, AuditLockdownmodeEnabled, ""),
    USER_ROW("tev.user.lockdownmode.disabled", Audit, AuditLockdownmodeDisabled, ""),
    USER_ROW("tev.user.account.loginfailures", Audit, AuditAccountLoginfailures, "s"),
    USER_ROW("tev.user.account.locked", Audit, AuditAccountLocked, "sdd"),
    USER_ROW("tev.user.maintenancemode.entering", Audit, AuditMaintenancemodeEntering, ""),
    USER_ROW("tev.user.maintenancemode.canceled", Audit, AuditMaintenancemodeCanceled, ""),
    USER_ROW("tev.user.maintenancemode.entered", Audit, AuditMaintenancemodeEntered, ""),
    USER_ROW("tev.user.maintenancemode.exited", Audit, AuditMaintenancemodeExited, ""),
    USER_ROW("tev.user.maintenancemode.failed", Audit, AuditMaintenancemodeFailed, ""),
    USER_ROW("tev.user.kosimage.hostacceptance.changed", Audit, AuditKosimageHostacceptanceChanged,
             "ss"),
    USER_ROW("tev.user.kosimage.install.securityalert", Audit, AuditKosimageInstallSecurityalert,
             "ss"),
    USER_ROW("tev.user.kosimage.kbun.install.successful", Audit, AuditKosimageKbunInstallSuccessful,
             "dd"),
    USER_ROW("tev.user.kosimage.kbun.remove.successful", Audit, AuditKosimageKbunRemoveSuccessful,
             "d"),
    USER_ROW("tev.user.kosimage.install.novalidation", Audit, AuditKosimageInstallNovalidation, ""),
    USER_ROW("tev.user.kosimage.profile.install.successful", Audit,
             AuditKosimageProfileInstallSuccessful, "sdd"),
    USER_ROW("tev.user.kosimage.profile.update.successful", Audit,
             AuditKosimageProfileUpdateSuccessful, "sdd"),
    USER_ROW("tev.user.host.boot", Audit, AuditHostBoot, ""),
    USER_ROW("tev.user.host.stop.reboot", Audit, AuditHostStopReboot, ""),
    USER_ROW("tev.user.host.stop.shutdown", Audit, AuditHostStopShutdown, ""),
    // Clears.
    USER_ROW("tev.user.coredump.configured", Clear, ClearCoredumpConfigured, ""),
    USER_ROW("tev.user.coredump.configured2", Clear, ClearCoredumpConfigured2, ""),
};
#undef USER_ROW

constexpr int kNumUserRows = static_cast<int>(sizeof kUserRows / sizeof kUserRows[0]);
static_assert(kNumUserRows == 63, "the user-level table has 63 rows");

constexpr bool IdsAreUserLevel() {
  for (const TevdRow &row : kUserRows) {
    if (!tevd_translate::StartsWith(row.tevId, "tev.user.")) {
      return false;
    }
  }
  return true;
}
static_assert(IdsAreUserLevel(), "a user-level row's identifier is outside tev.user.");
static_assert(TevdTranslate_FirstBadRow(kUserRows) == -1,
              "a user-level row does not fit its template");

}  // namespace

int TevdUserCorrelatorTranslate(Tev *tev) {
  return TevdTranslate_ById(tev, kUserRows, TevdUserCorrelatorTranslate, false);
}

int TevdUserCorrelatorDoIormBadVersion(Tev *tev) {
  return TevdTranslate_ById(tev, kUserRows, TevdUserCorrelatorDoIormBadVersion, false);
}

int TevdUserCorrelatorIgnore(Tev *tev) { return 0; }

int TevdUserCorrelator_NumRows(void) { return kNumUserRows; }

TevHandlerMap TevdUserCorrelator_BuildMap(void) { return TevdTranslate_BuildMap(kUserRows); }

void TevdCorrelator_StartUser(void) {
  TevdCorrelator_Start("UserLevel", "user", TevdUserCorrelatorIgnore,
                       TevdUserCorrelator_BuildMap());
}
