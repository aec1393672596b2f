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
#include "tevdNetInternal.h"

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
     "s", "", tevd_ev::ProblemNetMigrateBindtomtl},
    {"tev.net.migrate.unsupported.latency", TevdNetCorrelatorTranslate, Problem, TevdRead::OneCall,
     "uss", "", tevd_ev::ProblemNetMigrateUnsupportedLatency},
    {"tev.net.uplink.mtu.failed", TevdNetCorrelatorTranslate, Problem, TevdRead::ByIndex, "ds", "",
     tevd_ev::ProblemNetUplinkMtuFailed},
    {"tev.net.mtlnic.ip.duplicate", TevdNetCorrelatorTranslate, Problem, TevdRead::ByIndex, "sss",
     "", tevd_ev::ProblemNetMtlnicIpDuplicate},
    {"tev.net.firewall.config.changed", TevdNetCorrelatorFirewallConfig, Audit, TevdRead::OneCall,
     "ss", "", tevd_ev::AuditNetFirewallConfigChanged},
    {"tev.net.firewall.config.failed", TevdNetCorrelatorFirewallConfig, Problem, TevdRead::OneCall,
     "ss", "", tevd_ev::ProblemNetFirewallConfigFailed},
    {"tev.net.firewall.port.hooked", TevdNetCorrelatorFirewallPort, Audit, TevdRead::ByIndex, "s",
     "", tevd_ev::AuditNetFirewallPortHooked},
    {"tev.net.firewall.port.hookfailed", TevdNetCorrelatorFirewallPort, Problem, TevdRead::ByIndex,
     "s", "", tevd_ev::ProblemNetFirewallPortHookfailed},
    {"tev.net.firewall.port.removed", TevdNetCorrelatorFirewallPort, Audit, TevdRead::ByIndex, "s",
     "", tevd_ev::AuditNetFirewallPortRemoved},
    {"tev.net.firewall.disabled", TevdNetCorrelatorTranslate, Audit, TevdRead::ByIndex, "", "",
     tevd_ev::AuditNetFirewallDisabled},
    {"tev.net.firewall.enabled", TevdNetCorrelatorTranslate, Audit, TevdRead::ByIndex, "s", "",
     tevd_ev::AuditNetFirewallEnabled},
    {"tev.net.fence.port.fail", TevdNetCorrelatorFencePortFail},
    {"tev.net.portset.port.full", TevdNetCorrelatorTranslate, Problem, TevdRead::OneCall, "sd", "",
     tevd_ev::ProblemNetPortsetPortFull},
    // The hardware address comes last in the observation but first in the text.
    {"tev.net.portset.port.connect.fail", TevdNetCorrelatorTranslate, Problem, TevdRead::ByIndex,
     "sss", "210", tevd_ev::ProblemNetProxyswitchPortUnavailable},
    {"tev.net.portset.port.vlan.invalidid", TevdNetCorrelatorTranslate, Problem, TevdRead::OneCall,
     "sd", "", tevd_ev::ProblemNetPortsetPortVlanInvalidid},
    {"tev.net.gateway.set.failed", TevdNetCorrelatorTranslate, Problem, TevdRead::ByIndex, "s", "",
     tevd_ev::ProblemNetGatewaySetFailed},
    {"tev.net.heap.belowthreshold", TevdNetCorrelatorTranslate, Problem, TevdRead::OneCall, "sd",
     "", tevd_ev::ProblemNetHeapBelowthreshold},
    {"tev.net.lacp.enable", TevdNetCorrelatorTranslate, Audit, TevdRead::OneCall, "s", "",
     tevd_ev::AuditNetLacpEnable},
    {"tev.net.lacp.disable", TevdNetCorrelatorTranslate, Audit, TevdRead::OneCall, "s", "",
     tevd_ev::AuditNetLacpDisable},
    {"tev.net.lacp.policy.incompatible", TevdNetCorrelatorTranslate, Problem, TevdRead::OneCall,
     "s", "", tevd_ev::ProblemNetLacpPolicyIncompatible},
    {"tev.net.lacp.policy.linkstatus", TevdNetCorrelatorTranslate, Problem, TevdRead::OneCall, "s",
     "", tevd_ev::ProblemNetLacpPolicyLinkstatus},
    {"tev.net.lacp.uplink.inactive", TevdNetCorrelatorTranslate, Problem, TevdRead::OneCall, "s",
     "", tevd_ev::ProblemNetLacpUplinkInactive},
    {"tev.net.lacp.uplink.transition.down", TevdNetCorrelatorTranslate, Problem, TevdRead::OneCall,
     "ss", "", tevd_ev::ProblemNetLacpUplinkTransitionDown},
    {"tev.net.lacp.uplink.transition.up", TevdNetCorrelatorTranslate, Clear, TevdRead::OneCall,
     "ss", "", tevd_ev::ClearNetLacpUplinkTransitionUp},
    // The two "fail" texts name the switch first, yet take the same order.
    {"tev.net.lacp.uplink.fail.speed", TevdNetCorrelatorTranslate, Problem, TevdRead::OneCall, "ss",
     "", tevd_ev::ProblemNetLacpUplinkFailSpeed},
    {"tev.net.lacp.uplink.fail.duplex", TevdNetCorrelatorTranslate, Problem, TevdRead::OneCall,
     "ss", "", tevd_ev::ProblemNetLacpUplinkFailDuplex},
    {"tev.net.lacp.uplink.blocked", TevdNetCorrelatorTranslate, Problem, TevdRead::OneCall, "ss",
     "", tevd_ev::ProblemNetLacpUplinkBlocked},
    {"tev.net.lacp.uplink.unblocked", TevdNetCorrelatorTranslate, Clear, TevdRead::OneCall, "ss",
     "", tevd_ev::ClearNetLacpUplinkUnblocked},
    {"tev.net.lacp.uplink.connected", TevdNetCorrelatorTranslate, Audit, TevdRead::OneCall, "ss",
     "", tevd_ev::AuditNetLacpUplinkConnected},
    {"tev.net.lacp.uplink.disconnected", TevdNetCorrelatorTranslate, Problem, TevdRead::OneCall,
     "ss", "", tevd_ev::ProblemNetLacpUplinkDisconnected},
    // The event keeps its historical ".2" name.
    {"tev.net.lacp.uplink.peer.noresponse", TevdNetCorrelatorTranslate, Problem, TevdRead::OneCall,
     "s", "", tevd_ev::ProblemNetLacpPeerNoresponse2},
    {"tev.net.lacp.lag.transition.down", TevdNetCorrelatorTranslate, Problem, TevdRead::OneCall,
     "ss", "", tevd_ev::ProblemNetLacpLagTransitionDown},
    {"tev.net.lacp.lag.transition.up", TevdNetCorrelatorTranslate, Clear, TevdRead::OneCall, "ss",
     "", tevd_ev::ClearNetLacpLagTransitionUp},
    {"tev.net.portset.unsupported.psclass", TevdNetCorrelatorTranslate, Problem, TevdRead::OneCall,
     "s", "", tevd_ev::ProblemNetPortsetUnsupportedPsclass},
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
    TevdQprob_Post(0, Problem, tevd_ev::ProblemNetFencePortBadfenceid, fenceId, port, vswitch);
  } else if (status == 0xbad0002) {
    TevdQprob_Post(0, Problem, tevd_ev::ProblemNetFenceSwitchUnavailable, fenceId, port, vswitch);
  } else {
    TevdQprob_Post(0, Problem, tevd_ev::ProblemNetFenceResourceLimited, fenceId, port, vswitch);
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
  TevdQprob_Post(0, Problem, tevd_ev::ProblemNetE1000Tso6Notsupported, name.c_str());
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
