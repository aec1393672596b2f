// User-level event translations: one row of the translation engine
// (tevdTranslate.h) per observation, {observation id, event class, event id,
// argument kinds, text}; the template is "@&!*@*@(" + event id + ")" + text,
// glued at compile time and checked against the kinds there. Arguments are
// read by index from the highest down; a failed read posts nothing and logs
// nothing.
#include "tevdUserCorrelator.h"

#include "tevdTranslate.h"

namespace {

#define USER_ROW(tev, cls, ev, kinds, text)                                  \
  {                                                                          \
    tev, TevdUserCorrelatorTranslate, cls, TevdRead::ByIndexDown, kinds, "", \
        "@&!*@*@(" ev ")" text                                               \
  }

constexpr TevdRow kUserRows[] = {
    // Problems.
    USER_ROW("tev.user.iorm.nonhvworkload", Problem, "kos.problem.iorm.nonhvworkload", "s",
             "An I/O workload not managed by storage I/O control was detected on datastore %s."),
    // Read at once ("%p %p %d %d"); only a negative status stops the event,
    // which then carries what the read left (null strings and zeros).
    {"tev.user.iorm.badversion", TevdUserCorrelatorDoIormBadVersion, Problem,
     TevdRead::OneCallLenient, "ssdd", "",
     "@&!*@*@(kos.problem.iorm.badversion)Storage I/O control of host %s on datastore %s runs "
     "version %d; version %d is required."},
    USER_ROW("tev.user.dhclient.lease.offered.noexpiry", Problem,
             "kos.problem.dhclient.lease.offered.noexpiry", "s",
             "A DHCP lease without an expiry time was offered on interface %s."),
    USER_ROW("tev.user.hsyslogd.storage.logdir.invalid", Problem,
             "kos.problem.hsyslogd.storage.logdir.invalid", "ss",
             "The log directory %s cannot be used: %s."),
    USER_ROW("tev.user.test.test0", Problem, "kos.problem.test.test0", "",
             "Test with no arguments."),
    USER_ROW("tev.user.test.test2", Problem, "kos.problem.test.test2", "ds",
             "Test with both %d and %s."),
    USER_ROW("tev.user.hsyslogd.remote.failure", Problem, "kos.problem.hsyslogd.remote.failure",
             "s", "The connection to the remote log host %s has failed."),
    USER_ROW("tev.user.hsyslogd.storage.failure", Problem, "kos.problem.hsyslogd.storage.failure",
             "", "Logging to local storage has failed."),
    USER_ROW("tev.user.hsyslogd.unexpected", Problem, "kos.problem.hsyslogd.unexpected", "s",
             "The log daemon reported an unexpected condition: %s."),
    USER_ROW("tev.user.kosimage.install.invalidhardware", Problem,
             "kos.problem.kosimage.install.invalidhardware", "ss",
             "The image cannot be installed on this hardware (%s): %s."),
    USER_ROW("tev.user.kosimage.install.stage.error", Problem,
             "kos.problem.kosimage.install.stage.error", "ss", "Staging the image %s failed: %s."),
    USER_ROW("tev.user.kosimage.install.error", Problem, "kos.problem.kosimage.install.error", "s",
             "Image installation failed: %s."),
    USER_ROW("tev.user.dhclient.lease.none", Problem, "kos.problem.dhclient.lease.none", "s",
             "Unable to obtain a DHCP lease on interface %s."),
    USER_ROW("tev.user.ntpd.clock.correction.error", Problem,
             "kos.problem.ntpd.clock.correction.error", "dd",
             "The time daemon did not correct the clock: the offset of %d seconds exceeds the "
             "limit of %d seconds."),
    USER_ROW("tev.user.host.coredump", Problem, "kos.problem.host.coredump", "",
             "A core dump of the host was found."),
    USER_ROW("tev.user.coredump.unconfigured", Problem, "kos.problem.coredump.unconfigured", "",
             "No core dump target is configured."),
    USER_ROW("tev.user.coredump.extraction.failed.nospace", Problem,
             "kos.problem.coredump.extraction.failed.nospace", "d",
             "A core dump could not be extracted: %lu MB of free space are needed."),
    USER_ROW("tev.user.coredump.unconfigured2", Problem, "kos.problem.coredump.unconfigured2", "",
             "No core dump target is configured; host core dumps cannot be saved."),
    USER_ROW("tev.user.coredump.capacity.insufficient", Problem,
             "kos.problem.coredump.capacity.insufficient", "d",
             "The core dump target is too small; at least %lu MB are needed."),
    USER_ROW("tev.user.coredump.copyspace", Problem, "kos.problem.coredump.copyspace", "d",
             "Copying the core dump needs %d MB more free space."),
    USER_ROW("tev.user.scratch.partition.size.small", Problem,
             "kos.problem.scratch.partition.size.small", "sd",
             "The scratch partition %s is smaller than the recommended %lu MB."),
    USER_ROW("tev.user.scratch.partition.unconfigured", Problem,
             "kos.problem.scratch.partition.unconfigured", "d",
             "No scratch partition is configured; %lu MB are recommended."),
    USER_ROW("tev.user.iofilter.disabled", Problem, "kos.problem.iofilter.disabled", "ss",
             "The I/O filter %s has been disabled: %s."),
    USER_ROW("tev.user.driver.abnormal", Problem, "kos.problem.driver.abnormal", "ssd",
             "The driver %s reported an abnormal condition: %s (code %d)."),
    // Audits.
    USER_ROW("tev.user.kcon.login.passwd.changed", Audit, "kos.audit.kcon.login.passwd.changed",
             "s", "The password of user %s was changed on the console."),
    USER_ROW("tev.user.kcon.login.failed", Audit, "kos.audit.kcon.login.failed", "s",
             "A console login as user %s failed."),
    USER_ROW("tev.user.kcon.factory.network.restored", Audit,
             "kos.audit.kcon.network.factoryrestore", "",
             "The network settings were restored to factory defaults from the console."),
    USER_ROW("tev.user.kcon.restarting.hostagents", Audit, "kos.audit.kcon.hostagents.restart", "",
             "The management agents are being restarted from the console."),
    USER_ROW("tev.user.kcon.network.restart", Audit, "kos.audit.kcon.network.restart", "s",
             "The management network was restarted from the console: %s."),
    USER_ROW("tev.user.kcon.restore.factory.defaults", Audit,
             "kos.audit.kcon.defaults.factoryrestore", "",
             "The host configuration was reset to factory defaults from the console."),
    USER_ROW("tev.user.kcon.reboot.host", Audit, "kos.audit.kcon.host.reboot", "",
             "A reboot of the host was requested from the console."),
    USER_ROW("tev.user.kcon.shutdown.host", Audit, "kos.audit.kcon.host.shutdown", "",
             "A shutdown of the host was requested from the console."),
    USER_ROW("tev.user.koscli.host.reboot", Audit, "kos.audit.koscli.host.reboot", "s",
             "A reboot of the host was requested from the command line. Reason: %s"),
    USER_ROW("tev.user.koscli.host.poweroff", Audit, "kos.audit.koscli.host.poweroff", "s",
             "A power-off of the host was requested from the command line. Reason: %s"),
    USER_ROW("tev.user.test.test1s", Audit, "kos.audit.test.test1s", "s",
             "Test with one string argument, %s."),
    USER_ROW("tev.user.test.test1d", Audit, "kos.audit.test.test1d", "d",
             "Test with one integer argument, %d."),
    USER_ROW("tev.user.shell.enabled", Audit, "kos.audit.shell.enabled", "",
             "The local shell is enabled."),
    USER_ROW("tev.user.shell.disabled", Audit, "kos.audit.shell.disabled", "",
             "The local shell is disabled."),
    USER_ROW("tev.user.ssh.enabled", Audit, "kos.audit.ssh.enabled", "",
             "SSH access to the host is enabled."),
    USER_ROW("tev.user.ssh.disabled", Audit, "kos.audit.ssh.disabled", "",
             "SSH access to the host is disabled."),
    USER_ROW("tev.user.kcon.enabled", Audit, "kos.audit.kcon.enabled", "",
             "The console user interface is enabled."),
    USER_ROW("tev.user.kcon.disabled", Audit, "kos.audit.kcon.disabled", "",
             "The console user interface is disabled."),
    USER_ROW("tev.user.lockdownmode.enabled", Audit, "kos.audit.lockdownmode.enabled", "",
             "Lockdown mode is enabled."),
    USER_ROW("tev.user.lockdownmode.disabled", Audit, "kos.audit.lockdownmode.disabled", "",
             "Lockdown mode is disabled."),
    USER_ROW("tev.user.account.loginfailures", Audit, "kos.audit.account.loginfailures", "s",
             "Repeated login failures for user %s."),
    USER_ROW("tev.user.account.locked", Audit, "kos.audit.account.locked", "sdd",
             "The account of user %s was locked after %d failed logins; it unlocks in %d "
             "seconds."),
    USER_ROW("tev.user.maintenancemode.entering", Audit, "kos.audit.maintenancemode.entering", "",
             "The host has begun entering maintenance mode."),
    USER_ROW("tev.user.maintenancemode.canceled", Audit, "kos.audit.maintenancemode.canceled", "",
             "Entering maintenance mode was canceled."),
    USER_ROW("tev.user.maintenancemode.entered", Audit, "kos.audit.maintenancemode.entered", "",
             "The host has entered maintenance mode."),
    USER_ROW("tev.user.maintenancemode.exited", Audit, "kos.audit.maintenancemode.exited", "",
             "The host has exited maintenance mode."),
    USER_ROW("tev.user.maintenancemode.failed", Audit, "kos.audit.maintenancemode.failed", "",
             "The host failed to enter maintenance mode."),
    USER_ROW("tev.user.kosimage.hostacceptance.changed", Audit,
             "kos.audit.kosimage.hostacceptance.changed", "ss",
             "The host acceptance level changed from %s to %s."),
    USER_ROW("tev.user.kosimage.install.securityalert", Audit,
             "kos.audit.kosimage.install.securityalert", "ss",
             "Security alert during image installation (%s): %s."),
    USER_ROW("tev.user.kosimage.kbun.install.successful", Audit,
             "kos.audit.kosimage.kbun.install.successful", "dd",
             "%d bundles were installed successfully; %d need a reboot."),
    USER_ROW("tev.user.kosimage.kbun.remove.successful", Audit,
             "kos.audit.kosimage.kbun.remove.successful", "d",
             "%d bundles were removed successfully."),
    USER_ROW("tev.user.kosimage.install.novalidation", Audit,
             "kos.audit.kosimage.install.novalidation", "",
             "An image was installed without signature validation."),
    USER_ROW("tev.user.kosimage.profile.install.successful", Audit,
             "kos.audit.kosimage.profile.install.successful", "sdd",
             "The image profile %s was installed successfully: %d bundles added, %d removed."),
    USER_ROW("tev.user.kosimage.profile.update.successful", Audit,
             "kos.audit.kosimage.profile.update.successful", "sdd",
             "The image profile %s was updated successfully: %d bundles added, %d removed."),
    USER_ROW("tev.user.host.boot", Audit, "kos.audit.host.boot", "", "Host has booted."),
    USER_ROW("tev.user.host.stop.reboot", Audit, "kos.audit.host.stop.reboot", "",
             "The host is being rebooted."),
    USER_ROW("tev.user.host.stop.shutdown", Audit, "kos.audit.host.stop.shutdown", "",
             "The host is being shut down."),
    // Clears.
    USER_ROW("tev.user.coredump.configured", Clear, "kos.clear.coredump.configured", "",
             "A core dump target is configured."),
    USER_ROW("tev.user.coredump.configured2", Clear, "kos.clear.coredump.configured2", "",
             "A core dump target is configured; host core dumps can be saved."),
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
