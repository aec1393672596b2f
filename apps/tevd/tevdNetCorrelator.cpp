// Network correlator: start-up, wake-up pipe and the direct translations.
//
// Design: one table of the translation engine (tevdTranslate.h), kNetRows,
// lists the 42 observations in registration order. A row with a template is a
// one-outcome translation: its argument kinds, how they are read (one
// Tev_GetArgs call or one accessor per argument) and which argument fills
// each conversion (e.g. "210"). The generic handler and the two shared
// firewall handlers translate only their own rows and compare whole
// identifiers, so a longer identifier with the same prefix matches nothing.
// Handlers with state or a host look-up (uplink tracker, fence outcomes, VM
// name) are written out.
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
#include "tevdTranslate.h"

namespace {

constexpr TevdRow kNetRows[] = {
    {"tev.net.pg.uplink.transition.down", TevdNetCorrelatorPgUplinkDown},
    {"tev.net.pg.uplink.transition.up", TevdNetCorrelatorPgUplinkUp},
    {"tev.net.dvport.uplink.transition.down", TevdNetCorrelatorDvportUplinkDown},
    {"tev.net.dvport.uplink.transition.up", TevdNetCorrelatorDvportUplinkUp},
    {"tev.net.hwnic.linkstate.up", TevdNetCorrelatorLinkUp},
    {"tev.net.hwnic.linkstate.down", TevdNetCorrelatorLinkDown},
    {"tev.net.uplink.watchdog.timeout", TevdNetCorrelatorWatchdog},
    {"tev.net.e1000.tso6.notsupported", TevdNetCorrelatorTso6NotSupported},
    {"tev.net.migrate.bindtomtl.failed", TevdNetCorrelatorTranslate, Problem, TevdRead::ByIndex,
     "s", "",
     "@&!*@*@(kos.problem.net.migrate.bindtomtl)The KOS advanced config option /Migrate/Mtlnic is set "
     "to an invalid mtlnic: '%s'.  /Migrate/Mtlnic specifies a mtlnic that XMove binds to for improved "
     "performance.  Please update the config option with a valid mtlnic or, if you don't want XMove to "
     "bind to a specific mtlnic, remove the invalid mtlnic and leave the option blank."},
    {"tev.net.migrate.unsupported.latency", TevdNetCorrelatorTranslate, Problem, TevdRead::OneCall,
     "uss", "",
     "@&!*@*@(kos.problem.net.migrate.unsupported.latency)Kosi has detected %ums round-trip xMove "
     "network latency between host %s and %s.  High latency xMove networks are only supported if both "
     "Kosi hosts have been configured for xMove latency tolerance."},
    {"tev.net.uplink.mtu.failed", TevdNetCorrelatorTranslate, Problem, TevdRead::ByIndex, "ds", "",
     "@&!*@*@(kos.problem.net.uplink.mtu.failed)Mantle failed to set the MTU value %d on the uplink %s."},
    {"tev.net.mtlnic.ip.duplicate", TevdNetCorrelatorTranslate, Problem, TevdRead::ByIndex, "sss",
     "",
     "@&!*@*@(kos.problem.net.mtlnic.ip.duplicate)Duplicate IP address detected for %s on interface "
     "%s, current owner being %s."},
    {"tev.net.firewall.config.changed", TevdNetCorrelatorFirewallConfig, Audit, TevdRead::OneCall,
     "ss", "",
     "@&!*@*@(kos.audit.net.firewall.config.changed)Firewall configuration has changed. Operation '%s' "
     "for rule set %s succeeded."},
    {"tev.net.firewall.config.failed", TevdNetCorrelatorFirewallConfig, Problem, TevdRead::OneCall,
     "ss", "",
     "@&!*@*@(kos.problem.net.firewall.config.failed)Firewall configuration operation '%s' failed. The "
     "changes were not applied to rule set %s."},
    {"tev.net.firewall.port.hooked", TevdNetCorrelatorFirewallPort, Audit, TevdRead::ByIndex, "s",
     "", "@&!*@*@(kos.audit.net.firewall.port.hooked)Port %s is now protected by Firewall."},
    {"tev.net.firewall.port.hookfailed", TevdNetCorrelatorFirewallPort, Problem, TevdRead::ByIndex,
     "s", "",
     "@&!*@*@(kos.problem.net.firewall.port.hookfailed)Adding port %s to Firewall failed."},
    {"tev.net.firewall.port.removed", TevdNetCorrelatorFirewallPort, Audit, TevdRead::ByIndex, "s",
     "", "@&!*@*@(kos.audit.net.firewall.port.removed)Port %s is not protected with Firewall now."},
    {"tev.net.firewall.disabled", TevdNetCorrelatorTranslate, Audit, TevdRead::ByIndex, "", "",
     "@&!*@*@(kos.audit.net.firewall.disabled)Firewall has been disabled."},
    {"tev.net.firewall.enabled", TevdNetCorrelatorTranslate, Audit, TevdRead::ByIndex, "s", "",
     "@&!*@*@(kos.audit.net.firewall.enabled)Firewall has been enabled for port %s"},
    {"tev.net.fence.port.fail", TevdNetCorrelatorFencePortFail},
    {"tev.net.portset.port.full", TevdNetCorrelatorTranslate, Problem, TevdRead::OneCall, "sd", "",
     "@&!*@*@(kos.problem.net.portset.port.full)Portset %s has reached the maximum number of ports "
     "(%d). Cannot apply for any more free ports."},
    // The hardware address comes last in the observation but first in the text.
    {"tev.net.portset.port.connect.fail", TevdNetCorrelatorTranslate, Problem, TevdRead::ByIndex,
     "sss", "210",
     "@&!*@*@(kos.problem.net.proxyswitch.port.unavailable)Virtual NIC with hardware address %s failed "
     "to connect to distributed virtual port %s on switch %s. No more ports available on the host proxy "
     "switch"},
    {"tev.net.portset.port.vlan.invalidid", TevdNetCorrelatorTranslate, Problem, TevdRead::OneCall,
     "sd", "",
     "@&!*@*@(kos.problem.net.portset.port.vlan.invalidid)%s VLANID %d is invalid. VLAN ID has to be "
     "between 0 and 4095."},
    {"tev.net.gateway.set.failed", TevdNetCorrelatorTranslate, Problem, TevdRead::ByIndex, "s", "",
     "@&!*@*@(kos.problem.net.gateway.set.failed)Cannot connect to the specified gateway %s. Failed to "
     "set it."},
    {"tev.net.heap.belowthreshold", TevdNetCorrelatorTranslate, Problem, TevdRead::OneCall, "sd",
     "", "@&!*@*@(kos.problem.net.heap.belowthreshold)%s free size dropped below %d percent."},
    {"tev.net.lacp.enable", TevdNetCorrelatorTranslate, Audit, TevdRead::OneCall, "s", "",
     "@&!*@*@(kos.audit.net.lacp.enable)LACP for KSW %s is enabled"},
    {"tev.net.lacp.disable", TevdNetCorrelatorTranslate, Audit, TevdRead::OneCall, "s", "",
     "@&!*@*@(kos.audit.net.lacp.disable)LACP for KSW %s is disabled"},
    {"tev.net.lacp.policy.incompatible", TevdNetCorrelatorTranslate, Problem, TevdRead::OneCall,
     "s", "",
     "@&!*@*@(kos.problem.net.lacp.policy.incompatible)Current teaming policy for KSW: %s is "
     "incompatible, supported is IP hash only"},
    {"tev.net.lacp.policy.linkstatus", TevdNetCorrelatorTranslate, Problem, TevdRead::OneCall, "s",
     "",
     "@&!*@*@(kos.problem.net.lacp.policy.linkstatus)Current teaming policy for KSW %s is "
     "incompatible, supported link failover detection is link status only."},
    {"tev.net.lacp.uplink.inactive", TevdNetCorrelatorTranslate, Problem, TevdRead::OneCall, "s",
     "",
     "@&!*@*@(kos.problem.net.lacp.uplink.inactive)All uplinks on KSW %s must be active for LACP"},
    {"tev.net.lacp.uplink.transition.down", TevdNetCorrelatorTranslate, Problem, TevdRead::OneCall,
     "ss", "",
     "@&!*@*@(kos.problem.net.lacp.uplink.transition.down)uplink %s on KSW %s is moved out of link "
     "aggregation group."},
    {"tev.net.lacp.uplink.transition.up", TevdNetCorrelatorTranslate, Clear, TevdRead::OneCall,
     "ss", "",
     "@&!*@*@(kos.clear.net.lacp.uplink.transition.up)uplink %s on KSW %s is moved into link "
     "aggregation group"},
    // The two "fail" texts name the switch first, yet take the same order.
    {"tev.net.lacp.uplink.fail.speed", TevdNetCorrelatorTranslate, Problem, TevdRead::OneCall, "ss",
     "",
     "@&!*@*@(kos.problem.net.lacp.uplink.fail.speed)Speed across all uplink ports must be same, KSW %s "
     "uplink %s has different speed"},
    {"tev.net.lacp.uplink.fail.duplex", TevdNetCorrelatorTranslate, Problem, TevdRead::OneCall,
     "ss", "",
     "@&!*@*@(kos.problem.net.lacp.uplink.fail.duplex)Duplex mode across all uplink ports must be "
     "full, KSW %s uplink %s has different mode"},
    {"tev.net.lacp.uplink.blocked", TevdNetCorrelatorTranslate, Problem, TevdRead::OneCall, "ss",
     "", "@&!*@*@(kos.problem.net.lacp.uplink.blocked)uplink %s on KSW %s is blocked"},
    {"tev.net.lacp.uplink.unblocked", TevdNetCorrelatorTranslate, Clear, TevdRead::OneCall, "ss",
     "", "@&!*@*@(kos.clear.net.lacp.uplink.unblocked)uplink %s on KSW %s is unblocked"},
    {"tev.net.lacp.uplink.connected", TevdNetCorrelatorTranslate, Audit, TevdRead::OneCall, "ss",
     "", "@&!*@*@(kos.audit.net.lacp.uplink.connected)uplink %s on KSW %s got connected"},
    {"tev.net.lacp.uplink.disconnected", TevdNetCorrelatorTranslate, Problem, TevdRead::OneCall,
     "ss", "",
     "@&!*@*@(kos.problem.net.lacp.uplink.disconnected)uplink %s on KSW %s got disconnected"},
    // The event keeps its historical ".2" name.
    {"tev.net.lacp.uplink.peer.noresponse", TevdNetCorrelatorTranslate, Problem, TevdRead::OneCall,
     "s", "", "@&!*@*@(kos.problem.net.lacp.peer.noresponse.2)No peer response on KSW %s"},
    {"tev.net.lacp.lag.transition.down", TevdNetCorrelatorTranslate, Problem, TevdRead::OneCall,
     "ss", "", "@&!*@*@(kos.problem.net.lacp.lag.transition.down)LAG %s on KSW %s is down."},
    {"tev.net.lacp.lag.transition.up", TevdNetCorrelatorTranslate, Clear, TevdRead::OneCall, "ss",
     "", "@&!*@*@(kos.clear.net.lacp.lag.transition.up)LAG %s on KSW %s is up."},
    {"tev.net.portset.unsupported.psclass", TevdNetCorrelatorTranslate, Problem, TevdRead::OneCall,
     "s", "",
     "@&!*@*@(kos.problem.net.portset.unsupported.psclass)%s is not a Orlan supported portset class, "
     "the relevant module must be unloaded."},
};
static_assert(sizeof(kNetRows) / sizeof(kNetRows[0]) == 42, "net handles 42 observations");
static_assert(TevdTranslate_FirstBadRow(kNetRows) == -1, "a net row does not fit its template");

// Wake-up pipe: [0] read end polled by the agent, [1] written by the alarm.
int netPipe[2] = {-1, -1};
std::atomic<int> netPipeWriteFd{-1};

}  // namespace

int TevdNetCorrelatorIgnore(Tev *) { return 0; }

int TevdNetCorrelatorTranslate(Tev *tev) {
  return TevdTranslate_ById(tev, kNetRows, TevdNetCorrelatorTranslate, false);
}

int TevdNetCorrelatorFirewallConfig(Tev *tev) {
  return TevdTranslate_ById(tev, kNetRows, TevdNetCorrelatorFirewallConfig, false);
}

int TevdNetCorrelatorFirewallPort(Tev *tev) {
  return TevdTranslate_ById(tev, kNetRows, TevdNetCorrelatorFirewallPort, false);
}

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
    TevdQprob_Post(
        0, Problem,
        "@&!*@*@(kos.problem.net.fence.port.badfenceid)Mantle fails to set fenceId %d on "
        "distributed virtual port %s on switch %s, reason: invalid fenceId",
        fenceId, port, vswitch);
  } else if (status == 0xbad0002) {
    TevdQprob_Post(
        0, Problem,
        "@&!*@*@(kos.problem.net.fence.switch.unavailable)Mantle fails to set fenceId %d on "
        "distributed virtual port %s on switch %s, reason: dvSwitch fence property is not set",
        fenceId, port, vswitch);
  } else {
    TevdQprob_Post(
        0, Problem,
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
  TevdQprob_Post(
      0, Problem,
      "@&!*@*@(kos.problem.net.e1000.tso6.notsupported)Guest-initiated IPv6 TCP Segmentation "
      "Offload (TSO) packets ignored. Manually disable TSO inside the guest operating system "
      "in Virtual Machine %s, or use a different virtual adapter.",
      name.c_str());
  return 0;
}

TevHandlerMap TevdNetCorrelator_BuildMap(void) { return TevdTranslate_BuildMap(kNetRows); }

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
  tevdNet.tevdNetAlarmId = TevdAlarm_Register(TevdNetCorrelatorAlarmFired);
  if (tevdNet.tevdNetAlarmId == -1) {
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
  tevdNet = TevdNetTracker();
}
