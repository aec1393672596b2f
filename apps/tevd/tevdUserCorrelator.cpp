// User-level event translations. One table of plain rows {observation id,
// event class, event id, argument kinds, template} walked by one generic
// handler; the template is "@&!*@*@(" + event id + ")" + text, glued at
// compile time. Because the template reaches TevdQprob_Post from data, the
// compiler's printf check cannot see it; a static_assert below checks every
// row's conversions against its argument kinds and its event id against its
// class instead. The poster switches on the kinds to pass 0..4 arguments of
// the right C types, so no va_list crosses the table.
#include "tevdUserCorrelator.h"

#include <cstdint>
#include <cstring>

#include "tevdQprob.h"

namespace {

// Conversions of the template, in argument order: s = %s, d = %d, l = %lu.
enum class UserArgs : uint8_t { None, S, D, LU, SS, DS, DD, SLU, SSD, SDD, SSDD };

constexpr const char *UserArgKinds(UserArgs a) {
  switch (a) {
    case UserArgs::None: return "";
    case UserArgs::S: return "s";
    case UserArgs::D: return "d";
    case UserArgs::LU: return "l";
    case UserArgs::SS: return "ss";
    case UserArgs::DS: return "ds";
    case UserArgs::DD: return "dd";
    case UserArgs::SLU: return "sl";
    case UserArgs::SSD: return "ssd";
    case UserArgs::SDD: return "sdd";
    case UserArgs::SSDD: return "ssdd";
  }
  return "?";
}

struct UserRow {
  const char *tevId;
  EventClass cls;
  const char *eventId;
  UserArgs args;
  const char *templ;
};

#define USER_ROW(tev, cls, ev, args, text) \
  { tev, cls, ev, UserArgs::args, "@&!*@*@(" ev ")" text }

constexpr UserRow kUserRows[] = {
    // Problems.
    USER_ROW("tev.user.iorm.nonhvworkload", Problem, "kos.problem.iorm.nonhvworkload", S,
             "An I/O workload not managed by storage I/O control was detected on datastore %s."),
    USER_ROW("tev.user.iorm.badversion", Problem, "kos.problem.iorm.badversion", SSDD,
             "Storage I/O control of host %s on datastore %s runs version %d; version %d is "
             "required."),
    USER_ROW("tev.user.dhclient.lease.offered.noexpiry", Problem,
             "kos.problem.dhclient.lease.offered.noexpiry", S,
             "A DHCP lease without an expiry time was offered on interface %s."),
    USER_ROW("tev.user.hsyslogd.storage.logdir.invalid", Problem,
             "kos.problem.hsyslogd.storage.logdir.invalid", SS,
             "The log directory %s cannot be used: %s."),
    USER_ROW("tev.user.test.test0", Problem, "kos.problem.test.test0", None,
             "Test with no arguments."),
    USER_ROW("tev.user.test.test2", Problem, "kos.problem.test.test2", DS,
             "Test with both %d and %s."),
    USER_ROW("tev.user.hsyslogd.remote.failure", Problem, "kos.problem.hsyslogd.remote.failure",
             S, "The connection to the remote log host %s has failed."),
    USER_ROW("tev.user.hsyslogd.storage.failure", Problem, "kos.problem.hsyslogd.storage.failure",
             None, "Logging to local storage has failed."),
    USER_ROW("tev.user.hsyslogd.unexpected", Problem, "kos.problem.hsyslogd.unexpected", S,
             "The log daemon reported an unexpected condition: %s."),
    USER_ROW("tev.user.kosimage.install.invalidhardware", Problem,
             "kos.problem.kosimage.install.invalidhardware", SS,
             "The image cannot be installed on this hardware (%s): %s."),
    USER_ROW("tev.user.kosimage.install.stage.error", Problem,
             "kos.problem.kosimage.install.stage.error", SS,
             "Staging the image %s failed: %s."),
    USER_ROW("tev.user.kosimage.install.error", Problem, "kos.problem.kosimage.install.error", S,
             "Image installation failed: %s."),
    USER_ROW("tev.user.dhclient.lease.none", Problem, "kos.problem.dhclient.lease.none", S,
             "Unable to obtain a DHCP lease on interface %s."),
    USER_ROW("tev.user.ntpd.clock.correction.error", Problem,
             "kos.problem.ntpd.clock.correction.error", DD,
             "The time daemon did not correct the clock: the offset of %d seconds exceeds the "
             "limit of %d seconds."),
    USER_ROW("tev.user.host.coredump", Problem, "kos.problem.host.coredump", None,
             "A core dump of the host was found."),
    USER_ROW("tev.user.coredump.unconfigured", Problem, "kos.problem.coredump.unconfigured", None,
             "No core dump target is configured."),
    USER_ROW("tev.user.coredump.extraction.failed.nospace", Problem,
             "kos.problem.coredump.extraction.failed.nospace", LU,
             "A core dump could not be extracted: %lu MB of free space are needed."),
    USER_ROW("tev.user.coredump.unconfigured2", Problem, "kos.problem.coredump.unconfigured2",
             None, "No core dump target is configured; host core dumps cannot be saved."),
    USER_ROW("tev.user.coredump.capacity.insufficient", Problem,
             "kos.problem.coredump.capacity.insufficient", LU,
             "The core dump target is too small; at least %lu MB are needed."),
    USER_ROW("tev.user.coredump.copyspace", Problem, "kos.problem.coredump.copyspace", D,
             "Copying the core dump needs %d MB more free space."),
    USER_ROW("tev.user.scratch.partition.size.small", Problem,
             "kos.problem.scratch.partition.size.small", SLU,
             "The scratch partition %s is smaller than the recommended %lu MB."),
    USER_ROW("tev.user.scratch.partition.unconfigured", Problem,
             "kos.problem.scratch.partition.unconfigured", LU,
             "No scratch partition is configured; %lu MB are recommended."),
    USER_ROW("tev.user.iofilter.disabled", Problem, "kos.problem.iofilter.disabled", SS,
             "The I/O filter %s has been disabled: %s."),
    USER_ROW("tev.user.driver.abnormal", Problem, "kos.problem.driver.abnormal", SSD,
             "The driver %s reported an abnormal condition: %s (code %d)."),
    // Audits.
    USER_ROW("tev.user.kcon.login.passwd.changed", Audit, "kos.audit.kcon.login.passwd.changed",
             S, "The password of user %s was changed on the console."),
    USER_ROW("tev.user.kcon.login.failed", Audit, "kos.audit.kcon.login.failed", S,
             "A console login as user %s failed."),
    USER_ROW("tev.user.kcon.factory.network.restored", Audit,
             "kos.audit.kcon.network.factoryrestore", None,
             "The network settings were restored to factory defaults from the console."),
    USER_ROW("tev.user.kcon.restarting.hostagents", Audit, "kos.audit.kcon.hostagents.restart",
             None, "The management agents are being restarted from the console."),
    USER_ROW("tev.user.kcon.network.restart", Audit, "kos.audit.kcon.network.restart", S,
             "The management network was restarted from the console: %s."),
    USER_ROW("tev.user.kcon.restore.factory.defaults", Audit,
             "kos.audit.kcon.defaults.factoryrestore", None,
             "The host configuration was reset to factory defaults from the console."),
    USER_ROW("tev.user.kcon.reboot.host", Audit, "kos.audit.kcon.host.reboot", None,
             "A reboot of the host was requested from the console."),
    USER_ROW("tev.user.kcon.shutdown.host", Audit, "kos.audit.kcon.host.shutdown", None,
             "A shutdown of the host was requested from the console."),
    USER_ROW("tev.user.koscli.host.reboot", Audit, "kos.audit.koscli.host.reboot", S,
             "A reboot of the host was requested from the command line. Reason: %s"),
    USER_ROW("tev.user.koscli.host.poweroff", Audit, "kos.audit.koscli.host.poweroff", S,
             "A power-off of the host was requested from the command line. Reason: %s"),
    USER_ROW("tev.user.test.test1s", Audit, "kos.audit.test.test1s", S,
             "Test with one string argument, %s."),
    USER_ROW("tev.user.test.test1d", Audit, "kos.audit.test.test1d", D,
             "Test with one integer argument, %d."),
    USER_ROW("tev.user.shell.enabled", Audit, "kos.audit.shell.enabled", None,
             "The local shell is enabled."),
    USER_ROW("tev.user.shell.disabled", Audit, "kos.audit.shell.disabled", None,
             "The local shell is disabled."),
    USER_ROW("tev.user.ssh.enabled", Audit, "kos.audit.ssh.enabled", None,
             "SSH access to the host is enabled."),
    USER_ROW("tev.user.ssh.disabled", Audit, "kos.audit.ssh.disabled", None,
             "SSH access to the host is disabled."),
    USER_ROW("tev.user.kcon.enabled", Audit, "kos.audit.kcon.enabled", None,
             "The console user interface is enabled."),
    USER_ROW("tev.user.kcon.disabled", Audit, "kos.audit.kcon.disabled", None,
             "The console user interface is disabled."),
    USER_ROW("tev.user.lockdownmode.enabled", Audit, "kos.audit.lockdownmode.enabled", None,
             "Lockdown mode is enabled."),
    USER_ROW("tev.user.lockdownmode.disabled", Audit, "kos.audit.lockdownmode.disabled", None,
             "Lockdown mode is disabled."),
    USER_ROW("tev.user.account.loginfailures", Audit, "kos.audit.account.loginfailures", S,
             "Repeated login failures for user %s."),
    USER_ROW("tev.user.account.locked", Audit, "kos.audit.account.locked", SDD,
             "The account of user %s was locked after %d failed logins; it unlocks in %d "
             "seconds."),
    USER_ROW("tev.user.maintenancemode.entering", Audit, "kos.audit.maintenancemode.entering",
             None, "The host has begun entering maintenance mode."),
    USER_ROW("tev.user.maintenancemode.canceled", Audit, "kos.audit.maintenancemode.canceled",
             None, "Entering maintenance mode was canceled."),
    USER_ROW("tev.user.maintenancemode.entered", Audit, "kos.audit.maintenancemode.entered", None,
             "The host has entered maintenance mode."),
    USER_ROW("tev.user.maintenancemode.exited", Audit, "kos.audit.maintenancemode.exited", None,
             "The host has exited maintenance mode."),
    USER_ROW("tev.user.maintenancemode.failed", Audit, "kos.audit.maintenancemode.failed", None,
             "The host failed to enter maintenance mode."),
    USER_ROW("tev.user.kosimage.hostacceptance.changed", Audit,
             "kos.audit.kosimage.hostacceptance.changed", SS,
             "The host acceptance level changed from %s to %s."),
    USER_ROW("tev.user.kosimage.install.securityalert", Audit,
             "kos.audit.kosimage.install.securityalert", SS,
             "Security alert during image installation (%s): %s."),
    USER_ROW("tev.user.kosimage.kbun.install.successful", Audit,
             "kos.audit.kosimage.kbun.install.successful", DD,
             "%d bundles were installed successfully; %d need a reboot."),
    USER_ROW("tev.user.kosimage.kbun.remove.successful", Audit,
             "kos.audit.kosimage.kbun.remove.successful", D,
             "%d bundles were removed successfully."),
    USER_ROW("tev.user.kosimage.install.novalidation", Audit,
             "kos.audit.kosimage.install.novalidation", None,
             "An image was installed without signature validation."),
    USER_ROW("tev.user.kosimage.profile.install.successful", Audit,
             "kos.audit.kosimage.profile.install.successful", SDD,
             "The image profile %s was installed successfully: %d bundles added, %d removed."),
    USER_ROW("tev.user.kosimage.profile.update.successful", Audit,
             "kos.audit.kosimage.profile.update.successful", SDD,
             "The image profile %s was updated successfully: %d bundles added, %d removed."),
    USER_ROW("tev.user.host.boot", Audit, "kos.audit.host.boot", None, "Host has booted."),
    USER_ROW("tev.user.host.stop.reboot", Audit, "kos.audit.host.stop.reboot", None,
             "The host is being rebooted."),
    USER_ROW("tev.user.host.stop.shutdown", Audit, "kos.audit.host.stop.shutdown", None,
             "The host is being shut down."),
    // Clears.
    USER_ROW("tev.user.coredump.configured", Clear, "kos.clear.coredump.configured", None,
             "A core dump target is configured."),
    USER_ROW("tev.user.coredump.configured2", Clear, "kos.clear.coredump.configured2", None,
             "A core dump target is configured; host core dumps can be saved."),
};
#undef USER_ROW

constexpr int kNumUserRows = static_cast<int>(sizeof kUserRows / sizeof kUserRows[0]);
static_assert(kNumUserRows == 63, "the user-level table has 63 rows");

// ---- compile-time checks standing in for the printf attribute -------------

constexpr bool StartsWith(const char *s, const char *prefix) {
  for (; *prefix != '\0'; ++s, ++prefix) {
    if (*s != *prefix) {
      return false;
    }
  }
  return true;
}

constexpr const char *ClassPrefix(EventClass cls) {
  return cls == Problem ? "kos.problem." : cls == Audit ? "kos.audit." : "kos.clear.";
}

// The template's conversions after the ')' are exactly `kinds`, in order.
constexpr bool ConversionsMatch(const char *templ, const char *kinds) {
  const char *p = templ;
  while (*p != '\0' && *p != ')') {
    ++p;
  }
  if (*p == '\0') {
    return false;
  }
  int k = 0;
  for (++p; *p != '\0'; ++p) {
    if (*p != '%') {
      continue;
    }
    ++p;
    char kind = '?';
    if (*p == '%') {
      continue;
    } else if (*p == 's' || *p == 'd') {
      kind = *p;
    } else if (p[0] == 'l' && p[1] == 'u') {
      kind = 'l';
      ++p;
    } else {
      return false;
    }
    if (kinds[k] != kind) {
      return false;
    }
    ++k;
  }
  return kinds[k] == '\0';
}

constexpr bool RowsAreConsistent() {
  for (const UserRow &row : kUserRows) {
    if (!StartsWith(row.eventId, ClassPrefix(row.cls)) || !StartsWith(row.tevId, "tev.user.") ||
        !ConversionsMatch(row.templ, UserArgKinds(row.args))) {
      return false;
    }
  }
  return true;
}
static_assert(RowsAreConsistent(), "a row's template, class or kinds disagree");

// ---- reading and posting ---------------------------------------------------

struct UserArg {
  const char *s = nullptr;
  int32_t i = 0;
};
constexpr int kMaxUserArgs = 4;

const UserRow *FindRow(Tev *tev) {
  const char *id = nullptr;
  if (Tev_GetID(tev, &id) != 0 || id == nullptr) {
    return nullptr;
  }
  for (const UserRow &row : kUserRows) {
    if (strcmp(row.tevId, id) == 0) {
      return &row;
    }
  }
  return nullptr;
}

// From the highest index down to 0; argument i feeds conversion i.
bool ReadArgs(Tev *tev, const char *kinds, UserArg *out) {
  for (int i = static_cast<int>(strlen(kinds)) - 1; i >= 0; --i) {
    int rc = kinds[i] == 's' ? Tev_GetStringArg(tev, i, &out[i].s)
                             : Tev_GetIntArg(tev, i, &out[i].i);
    if (rc != 0) {
      return false;
    }
  }
  return true;
}

// %lu arguments travel as the unsigned value of the 32-bit integer read.
unsigned long AsUlong(const UserArg &a) {
  return static_cast<unsigned long>(static_cast<uint32_t>(a.i));
}

void PostRow(const UserRow &row, const UserArg *a) {
  const EventClass c = row.cls;
  const char *t = row.templ;
  switch (row.args) {
    case UserArgs::None:
#pragma GCC diagnostic push
      // The template is table data without conversions, checked by the
      // static_assert above; there is nothing for the format check to see.
#pragma GCC diagnostic ignored "-Wformat-security"
      TevdQprob_Post(0, c, t);
#pragma GCC diagnostic pop
      break;
    case UserArgs::S: TevdQprob_Post(0, c, t, a[0].s); break;
    case UserArgs::D: TevdQprob_Post(0, c, t, a[0].i); break;
    case UserArgs::LU: TevdQprob_Post(0, c, t, AsUlong(a[0])); break;
    case UserArgs::SS: TevdQprob_Post(0, c, t, a[0].s, a[1].s); break;
    case UserArgs::DS: TevdQprob_Post(0, c, t, a[0].i, a[1].s); break;
    case UserArgs::DD: TevdQprob_Post(0, c, t, a[0].i, a[1].i); break;
    case UserArgs::SLU: TevdQprob_Post(0, c, t, a[0].s, AsUlong(a[1])); break;
    case UserArgs::SSD: TevdQprob_Post(0, c, t, a[0].s, a[1].s, a[2].i); break;
    case UserArgs::SDD: TevdQprob_Post(0, c, t, a[0].s, a[1].i, a[2].i); break;
    case UserArgs::SSDD: TevdQprob_Post(0, c, t, a[0].s, a[1].s, a[2].i, a[3].i); break;
  }
}

}  // namespace

int TevdUserCorrelatorTranslate(Tev *tev) {
  const UserRow *row = FindRow(tev);
  if (row == nullptr) {
    return 0;
  }
  UserArg args[kMaxUserArgs];
  if (!ReadArgs(tev, UserArgKinds(row->args), args)) {
    return 0;
  }
  PostRow(*row, args);
  return 0;
}

int TevdUserCorrelatorDoIormBadVersion(Tev *tev) {
  const UserRow *row = FindRow(tev);
  if (row == nullptr || row->args != UserArgs::SSDD) {
    return 0;
  }
  UserArg a[kMaxUserArgs];
  // Only a negative status stops the event; the library's positive errors
  // let it through with whatever was read (null strings and zeros if none).
  if (Tev_GetArgs(tev, 0, "%p %p %d %d", &a[0].s, &a[1].s, &a[2].i, &a[3].i) < 0) {
    return 0;
  }
  PostRow(*row, a);
  return 0;
}

int TevdUserCorrelatorIgnore(Tev *tev) {
  return 0;
}

int TevdUserCorrelator_NumRows(void) {
  return kNumUserRows;
}

TevHandlerMap TevdUserCorrelator_BuildMap(void) {
  TevHandlerMap map;
  for (const UserRow &row : kUserRows) {
    map[row.tevId] = TevdUserCorrelatorTranslate;
  }
  map["tev.user.iorm.badversion"] = TevdUserCorrelatorDoIormBadVersion;
  return map;
}

void TevdCorrelator_StartUser(void) {
  TevdCorrelator_Start("UserLevel", "user", TevdUserCorrelatorIgnore,
                       TevdUserCorrelator_BuildMap());
}
