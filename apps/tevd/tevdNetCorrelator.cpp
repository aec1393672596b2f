// Network correlator: start-up, wake-up pipe and the direct translations.
//
// Design: one table, kNetRows, lists the 42 observations in registration
// order. A row with a template is a one-outcome translation: it says how the
// arguments are read (one Tev_GetArgs call, e.g. "%p %d", or single accessors,
// e.g. "i0 s1") and in which order they are posted (e.g. "210"). The generic
// handler and the two shared firewall handlers walk that table; a shared
// handler only looks at its own rows and compares whole identifiers, so a
// longer identifier with the same prefix matches nothing. Handlers with state
// or a host look-up (uplink tracker, fence outcomes, VM name) are written out.
//
// The tracker's timers go through one alarm whose callback, on the alarm
// thread, only writes a token into this correlator's pipe; the framework reads
// it on the "net" thread and runs TevdNetCorrelator_ProcessTimeouts there.
#include "tevdNetCorrelator.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <exception>
#include <vector>

#include "HostCtl.h"
#include "KNO.h"
#include "MtlCtl.h"
#include "tevdAlarm.h"
#include "tevdLog.h"
#include "tevdQprob.h"

namespace {

#define NET_SOURCE "apps/tevd/tevdNetCorrelator"

struct NetRow {
  const char *tevId;
  TevHandler handler;
  EventClass cls;
  const char *templ;   // null: the handler has its own texts
  const char *reads;   // "" none; "%..." one Tev_GetArgs call; "s0 i1" accessors
  const char *order;   // read values as posted, by index
};

const NetRow kNetRows[] = {
    {"tev.net.pg.uplink.transition.down", TevdNetCorrelatorPgUplinkDown, 0, nullptr, nullptr, nullptr},
    {"tev.net.pg.uplink.transition.up", TevdNetCorrelatorPgUplinkUp, 0, nullptr, nullptr, nullptr},
    {"tev.net.dvport.uplink.transition.down", TevdNetCorrelatorDvportUplinkDown, 0, nullptr, nullptr, nullptr},
    {"tev.net.dvport.uplink.transition.up", TevdNetCorrelatorDvportUplinkUp, 0, nullptr, nullptr, nullptr},
    {"tev.net.hwnic.linkstate.up", TevdNetCorrelatorLinkUp, 0, nullptr, nullptr, nullptr},
    {"tev.net.hwnic.linkstate.down", TevdNetCorrelatorLinkDown, 0, nullptr, nullptr, nullptr},
    {"tev.net.uplink.watchdog.timeout", TevdNetCorrelatorWatchdog, 0, nullptr, nullptr, nullptr},
    {"tev.net.e1000.tso6.notsupported", TevdNetCorrelatorTso6NotSupported, 0, nullptr, nullptr, nullptr},
    {"tev.net.migrate.bindtomtl.failed", TevdNetCorrelatorTranslate, Problem,
     "@&!*@*@(kos.problem.net.migrate.bindtomtl)The KOS advanced config option /Migrate/Mtlnic is set "
     "to an invalid mtlnic: '%s'.  /Migrate/Mtlnic specifies a mtlnic that XMove binds to for improved "
     "performance.  Please update the config option with a valid mtlnic or, if you don't want XMove to "
     "bind to a specific mtlnic, remove the invalid mtlnic and leave the option blank.",
     "s0", "0"},
    {"tev.net.migrate.unsupported.latency", TevdNetCorrelatorTranslate, Problem,
     "@&!*@*@(kos.problem.net.migrate.unsupported.latency)Kosi has detected %ums round-trip xMove "
     "network latency between host %s and %s.  High latency xMove networks are only supported if both "
     "Kosi hosts have been configured for xMove latency tolerance.",
     "%u %p %p", "012"},
    {"tev.net.uplink.mtu.failed", TevdNetCorrelatorTranslate, Problem,
     "@&!*@*@(kos.problem.net.uplink.mtu.failed)Mantle failed to set the MTU value %d on the uplink %s.",
     "i0 s1", "01"},
    {"tev.net.mtlnic.ip.duplicate", TevdNetCorrelatorTranslate, Problem,
     "@&!*@*@(kos.problem.net.mtlnic.ip.duplicate)Duplicate IP address detected for %s on interface "
     "%s, current owner being %s.",
     "s0 s1 s2", "012"},
    {"tev.net.firewall.config.changed", TevdNetCorrelatorFirewallConfig, Audit,
     "@&!*@*@(kos.audit.net.firewall.config.changed)Firewall configuration has changed. Operation '%s' "
     "for rule set %s succeeded.",
     "%p %p", "01"},
    {"tev.net.firewall.config.failed", TevdNetCorrelatorFirewallConfig, Problem,
     "@&!*@*@(kos.problem.net.firewall.config.failed)Firewall configuration operation '%s' failed. The "
     "changes were not applied to rule set %s.",
     "%p %p", "01"},
    {"tev.net.firewall.port.hooked", TevdNetCorrelatorFirewallPort, Audit,
     "@&!*@*@(kos.audit.net.firewall.port.hooked)Port %s is now protected by Firewall.", "s0", "0"},
    {"tev.net.firewall.port.hookfailed", TevdNetCorrelatorFirewallPort, Problem,
     "@&!*@*@(kos.problem.net.firewall.port.hookfailed)Adding port %s to Firewall failed.", "s0", "0"},
    {"tev.net.firewall.port.removed", TevdNetCorrelatorFirewallPort, Audit,
     "@&!*@*@(kos.audit.net.firewall.port.removed)Port %s is not protected with Firewall now.", "s0", "0"},
    {"tev.net.firewall.disabled", TevdNetCorrelatorTranslate, Audit,
     "@&!*@*@(kos.audit.net.firewall.disabled)Firewall has been disabled.", "", ""},
    {"tev.net.firewall.enabled", TevdNetCorrelatorTranslate, Audit,
     "@&!*@*@(kos.audit.net.firewall.enabled)Firewall has been enabled for port %s", "s0", "0"},
    {"tev.net.fence.port.fail", TevdNetCorrelatorFencePortFail, 0, nullptr, nullptr, nullptr},
    {"tev.net.portset.port.full", TevdNetCorrelatorTranslate, Problem,
     "@&!*@*@(kos.problem.net.portset.port.full)Portset %s has reached the maximum number of ports "
     "(%d). Cannot apply for any more free ports.",
     "%p %d", "01"},
    // The hardware address comes last in the observation but first in the text.
    {"tev.net.portset.port.connect.fail", TevdNetCorrelatorTranslate, Problem,
     "@&!*@*@(kos.problem.net.proxyswitch.port.unavailable)Virtual NIC with hardware address %s failed "
     "to connect to distributed virtual port %s on switch %s. No more ports available on the host proxy "
     "switch",
     "s0 s1 s2", "210"},
    {"tev.net.portset.port.vlan.invalidid", TevdNetCorrelatorTranslate, Problem,
     "@&!*@*@(kos.problem.net.portset.port.vlan.invalidid)%s VLANID %d is invalid. VLAN ID has to be "
     "between 0 and 4095.",
     "%p %d", "01"},
    {"tev.net.gateway.set.failed", TevdNetCorrelatorTranslate, Problem,
     "@&!*@*@(kos.problem.net.gateway.set.failed)Cannot connect to the specified gateway %s. Failed to "
     "set it.",
     "s0", "0"},
    {"tev.net.heap.belowthreshold", TevdNetCorrelatorTranslate, Problem,
     "@&!*@*@(kos.problem.net.heap.belowthreshold)%s free size dropped below %d percent.", "%p %d", "01"},
    {"tev.net.lacp.enable", TevdNetCorrelatorTranslate, Audit,
     "@&!*@*@(kos.audit.net.lacp.enable)LACP for KSW %s is enabled", "%p", "0"},
    {"tev.net.lacp.disable", TevdNetCorrelatorTranslate, Audit,
     "@&!*@*@(kos.audit.net.lacp.disable)LACP for KSW %s is disabled", "%p", "0"},
    {"tev.net.lacp.policy.incompatible", TevdNetCorrelatorTranslate, Problem,
     "@&!*@*@(kos.problem.net.lacp.policy.incompatible)Current teaming policy for KSW: %s is "
     "incompatible, supported is IP hash only",
     "%p", "0"},
    {"tev.net.lacp.policy.linkstatus", TevdNetCorrelatorTranslate, Problem,
     "@&!*@*@(kos.problem.net.lacp.policy.linkstatus)Current teaming policy for KSW %s is "
     "incompatible, supported link failover detection is link status only.",
     "%p", "0"},
    {"tev.net.lacp.uplink.inactive", TevdNetCorrelatorTranslate, Problem,
     "@&!*@*@(kos.problem.net.lacp.uplink.inactive)All uplinks on KSW %s must be active for LACP", "%p",
     "0"},
    {"tev.net.lacp.uplink.transition.down", TevdNetCorrelatorTranslate, Problem,
     "@&!*@*@(kos.problem.net.lacp.uplink.transition.down)uplink %s on KSW %s is moved out of link "
     "aggregation group.",
     "%p %p", "01"},
    {"tev.net.lacp.uplink.transition.up", TevdNetCorrelatorTranslate, Clear,
     "@&!*@*@(kos.clear.net.lacp.uplink.transition.up)uplink %s on KSW %s is moved into link "
     "aggregation group",
     "%p %p", "01"},
    // The two "fail" texts name the switch first, yet take the same order.
    {"tev.net.lacp.uplink.fail.speed", TevdNetCorrelatorTranslate, Problem,
     "@&!*@*@(kos.problem.net.lacp.uplink.fail.speed)Speed across all uplink ports must be same, KSW %s "
     "uplink %s has different speed",
     "%p %p", "01"},
    {"tev.net.lacp.uplink.fail.duplex", TevdNetCorrelatorTranslate, Problem,
     "@&!*@*@(kos.problem.net.lacp.uplink.fail.duplex)Duplex mode across all uplink ports must be "
     "full, KSW %s uplink %s has different mode",
     "%p %p", "01"},
    {"tev.net.lacp.uplink.blocked", TevdNetCorrelatorTranslate, Problem,
     "@&!*@*@(kos.problem.net.lacp.uplink.blocked)uplink %s on KSW %s is blocked", "%p %p", "01"},
    {"tev.net.lacp.uplink.unblocked", TevdNetCorrelatorTranslate, Clear,
     "@&!*@*@(kos.clear.net.lacp.uplink.unblocked)uplink %s on KSW %s is unblocked", "%p %p", "01"},
    {"tev.net.lacp.uplink.connected", TevdNetCorrelatorTranslate, Audit,
     "@&!*@*@(kos.audit.net.lacp.uplink.connected)uplink %s on KSW %s got connected", "%p %p", "01"},
    {"tev.net.lacp.uplink.disconnected", TevdNetCorrelatorTranslate, Problem,
     "@&!*@*@(kos.problem.net.lacp.uplink.disconnected)uplink %s on KSW %s got disconnected", "%p %p",
     "01"},
    // The event keeps its historical ".2" name.
    {"tev.net.lacp.uplink.peer.noresponse", TevdNetCorrelatorTranslate, Problem,
     "@&!*@*@(kos.problem.net.lacp.peer.noresponse.2)No peer response on KSW %s", "%p", "0"},
    {"tev.net.lacp.lag.transition.down", TevdNetCorrelatorTranslate, Problem,
     "@&!*@*@(kos.problem.net.lacp.lag.transition.down)LAG %s on KSW %s is down.", "%p %p", "01"},
    {"tev.net.lacp.lag.transition.up", TevdNetCorrelatorTranslate, Clear,
     "@&!*@*@(kos.clear.net.lacp.lag.transition.up)LAG %s on KSW %s is up.", "%p %p", "01"},
    {"tev.net.portset.unsupported.psclass", TevdNetCorrelatorTranslate, Problem,
     "@&!*@*@(kos.problem.net.portset.unsupported.psclass)%s is not a Orlan supported portset class, "
     "the relevant module must be unloaded.",
     "%p", "0"},
};
static_assert(sizeof(kNetRows) / sizeof(kNetRows[0]) == 42, "net handles 42 observations");

// One argument value as read: 's' string, 'd' signed, 'u' unsigned.
struct NetArg {
  char type = 0;
  const char *s = nullptr;
  int32_t d = 0;
  uint32_t u = 0;
};
constexpr int kMaxArgs = 4;

// One Tev_GetArgs call for each format the table uses.
bool ReadWithGetArgs(Tev *tev, const char *fmt, NetArg *a, int *n) {
  int rc;
  if (strcmp(fmt, "%p") == 0) {
    rc = Tev_GetArgs(tev, 0, "%p", &a[0].s);
    a[0].type = 's';
    *n = 1;
  } else if (strcmp(fmt, "%p %p") == 0) {
    rc = Tev_GetArgs(tev, 0, "%p %p", &a[0].s, &a[1].s);
    a[0].type = a[1].type = 's';
    *n = 2;
  } else if (strcmp(fmt, "%p %d") == 0) {
    rc = Tev_GetArgs(tev, 0, "%p %d", &a[0].s, &a[1].d);
    a[0].type = 's';
    a[1].type = 'd';
    *n = 2;
  } else if (strcmp(fmt, "%u %p %p") == 0) {
    rc = Tev_GetArgs(tev, 0, "%u %p %p", &a[0].u, &a[1].s, &a[2].s);
    a[0].type = 'u';
    a[1].type = a[2].type = 's';
    *n = 3;
  } else {
    Panic("NOT_REACHED %s:%d\n", NET_SOURCE, __LINE__);
  }
  return rc == 0;
}

// Accessor reads: "s0 i1" = Tev_GetStringArg(0), then Tev_GetIntArg(1).
bool ReadWithAccessors(Tev *tev, const char *layout, NetArg *a, int *n) {
  *n = 0;
  for (const char *p = layout; *p != '\0'; p++) {
    if (*p == ' ') {
      continue;
    }
    if (*n == kMaxArgs || p[1] < '0' || p[1] > '9') {
      Panic("NOT_REACHED %s:%d\n", NET_SOURCE, __LINE__);
    }
    int index = p[1] - '0';
    NetArg &arg = a[(*n)++];
    if (*p == 's') {
      arg.type = 's';
      if (Tev_GetStringArg(tev, index, &arg.s) != 0) {
        return false;
      }
    } else if (*p == 'i') {
      arg.type = 'd';
      if (Tev_GetIntArg(tev, index, &arg.d) != 0) {
        return false;
      }
    } else {
      Panic("NOT_REACHED %s:%d\n", NET_SOURCE, __LINE__);
    }
    p++;
  }
  return true;
}

// Posts `templ` with the values picked by `order`; the template's conversions
// follow the picked types (a test checks every row against its template).
void PostRow(EventClass cls, const char *templ, const NetArg *read, int numRead, const char *order) {
  NetArg a[kMaxArgs];
  char sig[kMaxArgs + 1] = {0};
  int n = 0;
  for (const char *p = order; *p != '\0'; p++) {
    int index = *p - '0';
    if (n == kMaxArgs || index < 0 || index >= numRead) {
      Panic("NOT_REACHED %s:%d\n", NET_SOURCE, __LINE__);
    }
    a[n] = read[index];
    sig[n] = a[n].type;
    n++;
  }
  if (strcmp(sig, "") == 0) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
    TevdQprob_Post(0, cls, templ);
#pragma GCC diagnostic pop
  } else if (strcmp(sig, "s") == 0) {
    TevdQprob_Post(0, cls, templ, a[0].s);
  } else if (strcmp(sig, "ss") == 0) {
    TevdQprob_Post(0, cls, templ, a[0].s, a[1].s);
  } else if (strcmp(sig, "sss") == 0) {
    TevdQprob_Post(0, cls, templ, a[0].s, a[1].s, a[2].s);
  } else if (strcmp(sig, "sd") == 0) {
    TevdQprob_Post(0, cls, templ, a[0].s, a[1].d);
  } else if (strcmp(sig, "ds") == 0) {
    TevdQprob_Post(0, cls, templ, a[0].d, a[1].s);
  } else if (strcmp(sig, "uss") == 0) {
    TevdQprob_Post(0, cls, templ, a[0].u, a[1].s, a[2].s);
  } else {
    Panic("NOT_REACHED %s:%d\n", NET_SOURCE, __LINE__);
  }
}

// Finds the row of `tev`'s identifier among those owned by `owner`, reads its
// arguments and posts. An unknown identifier or a failed read posts nothing.
int TranslateOwnRow(Tev *tev, TevHandler owner) {
  const char *id = nullptr;
  if (Tev_GetID(tev, &id) != 0 || id == nullptr) {
    return 0;
  }
  for (const NetRow &row : kNetRows) {
    if (row.handler != owner || row.templ == nullptr || strcmp(row.tevId, id) != 0) {
      continue;
    }
    NetArg read[kMaxArgs];
    int numRead = 0;
    bool ok = row.reads[0] == '%' ? ReadWithGetArgs(tev, row.reads, read, &numRead)
                                  : ReadWithAccessors(tev, row.reads, read, &numRead);
    if (ok) {
      PostRow(row.cls, row.templ, read, numRead, row.order);
    }
    return 0;
  }
  return 0;
}

// Wake-up pipe: [0] read end polled by the agent, [1] written by the alarm.
int netPipe[2] = {-1, -1};
std::atomic<int> netPipeWriteFd{-1};

}  // namespace

int TevdNetCorrelatorIgnore(Tev *) { return 0; }

int TevdNetCorrelatorTranslate(Tev *tev) { return TranslateOwnRow(tev, TevdNetCorrelatorTranslate); }

int TevdNetCorrelatorFirewallConfig(Tev *tev) {
  return TranslateOwnRow(tev, TevdNetCorrelatorFirewallConfig);
}

int TevdNetCorrelatorFirewallPort(Tev *tev) { return TranslateOwnRow(tev, TevdNetCorrelatorFirewallPort); }

int TevdNetCorrelatorFencePortFail(Tev *tev) {
  const char *port = nullptr;
  const char *vswitch = nullptr;
  int status = 0;
  int fenceId = 0;
  if (Tev_GetArgs(tev, 0, "%p %p %d %d", &port, &vswitch, &status, &fenceId) != 0) {
    return 0;
  }
  // Kernel return codes: invalid fence id, and switch without fence property.
  if (status == 0xbad0007) {
    TevdQprob_Post(0, Problem,
                   "@&!*@*@(kos.problem.net.fence.port.badfenceid)Mantle fails to set fenceId %d on "
                   "distributed virtual port %s on switch %s, reason: invalid fenceId",
                   fenceId, port, vswitch);
  } else if (status == 0xbad0002) {
    TevdQprob_Post(0, Problem,
                   "@&!*@*@(kos.problem.net.fence.switch.unavailable)Mantle fails to set fenceId %d on "
                   "distributed virtual port %s on switch %s, reason: dvSwitch fence property is not set",
                   fenceId, port, vswitch);
  } else {
    TevdQprob_Post(0, Problem,
                   "@&!*@*@(kos.problem.net.fence.resource.limited)Mantle fails to set fenceId %d on "
                   "distributed virtual port %s on switch %s, reason: maximum number of fence networks "
                   "or ports have been reached",
                   fenceId, port, vswitch);
  }
  return 0;
}

int TevdNetCorrelatorTso6NotSupported(Tev *tev) {
  int32_t groupId = 0;
  if (Tev_GetIntArg(tev, 0, &groupId) != 0) {
    return 0;
  }
  std::string name;
  try {
    std::vector<char> record(KNO_VMM_GROUP_INFO_SIZE, '\0');
    MtlCtl::Util::Sysinfo info(KNO_NODE_vm_vmmGroupInfo);
    info.SetInstance(groupId);
    info.Get(record.data(), record.size());
    const char *text = record.data() + KNO_VMM_GROUP_INFO_NAME_OFFSET;
    name.assign(text, strnlen(text, KNO_VMM_GROUP_INFO_SIZE - KNO_VMM_GROUP_INFO_NAME_OFFSET));
  } catch (const HostCtl::Lib::HostCtlException &) {
    name.clear();
    return 0;
  } catch (const std::exception &) {
    return 0;
  }
  TevdQprob_Post(0, Problem,
                 "@&!*@*@(kos.problem.net.e1000.tso6.notsupported)Guest-initiated IPv6 TCP Segmentation "
                 "Offload (TSO) packets ignored. Manually disable TSO inside the guest operating system "
                 "in Virtual Machine %s, or use a different virtual adapter.",
                 name.c_str());
  return 0;
}

TevHandlerMap TevdNetCorrelator_BuildMap(void) {
  TevHandlerMap map;
  for (const NetRow &row : kNetRows) {
    map.insert({row.tevId, row.handler});
  }
  return map;
}

void TevdNetCorrelatorAlarmFired(void) {
  // "foo" with its NUL: the content is never looked at, only its arrival.
  static const char kToken[] = "foo";
  int fd = netPipeWriteFd.load();
  if (fd >= 0) {
    ssize_t written = write(fd, kToken, sizeof(kToken));
    (void)written;
  }
}

bool TevdNetCorrelator_Prepare(int *readFd) {
  tevdNetAlarmId = TevdAlarm_Register(TevdNetCorrelatorAlarmFired);
  if (tevdNetAlarmId == -1) {
    return false;
  }
  if (pipe(netPipe) != 0) {
    Panic("Failed to initialize pipes for this thread: %s\n", strerror(errno));
  }
  netPipeWriteFd.store(netPipe[1]);
  *readFd = netPipe[0];
  return true;
}

void TevdCorrelator_StartNet(void) {
  TevHandlerMap map = TevdNetCorrelator_BuildMap();
  int readFd = -1;
  if (!TevdNetCorrelator_Prepare(&readFd)) {
    return;
  }
  const int fds[1] = {readFd};
  TevdCorrelator_StartWithWakeup("net", "net", TevdNetCorrelatorIgnore, map,
                                 TevdNetCorrelator_ProcessTimeouts, fds, 1);
}

void TevdNetCorrelator_ResetForTest(void) {
  netPipeWriteFd.store(-1);
  for (int &fd : netPipe) {
    if (fd >= 0) {
      close(fd);
      fd = -1;
    }
  }
  hwnicStates.clear();
  hwnicAlarms.clear();
  pgDownInfo.clear();
  pgUpInfo.clear();
  dvPortDownInfo.clear();
  dvPortUpInfo.clear();
  hwnicFlapHistory.clear();
  tevdNetAlarmId = -1;
  alarmDuration = 0;
  alarmArmedAt = 0;
}
