// Which event resolves which: the one table of clear pairings. The argument
// digits name the arguments that identify the object (the switch and NIC, the
// device and path, the device and file system); the other arguments, such as
// affected port-group or datastore lists, may differ between the two events.
// Two problem-class events act as clears (the extent and heartbeat come back
// under problem identifiers); they resolve and are not raised themselves.
#include "tevfwdEvents.h"

namespace tevfwd {

const std::vector<ClearPair> &ClearPairs() {
  static const std::vector<ClearPair> pairs = {
      // resolver                                              problem                                                    by    by
      {"kos.clear.net.redundancy.restored", "kos.problem.net.redundancy.lost", "02", "01"},
      {"kos.clear.net.redundancy.restored", "kos.problem.net.redundancy.degraded", "02", "01"},
      {"kos.clear.net.connectivity.restored", "kos.problem.net.connectivity.lost", "02", "01"},
      {"kos.clear.net.dvport.redundancy.restored", "kos.problem.net.dvport.redundancy.lost", "1",
       "1"},
      {"kos.clear.net.dvport.redundancy.restored", "kos.problem.net.dvport.redundancy.degraded",
       "1", "1"},
      {"kos.clear.net.dvport.connectivity.restored", "kos.problem.net.dvport.connectivity.lost",
       "1", "1"},
      {"kos.clear.net.hwnic.linkstate.up", "kos.problem.net.hwnic.linkstate.down", "0", "0"},
      {"kos.clear.net.lacp.lag.transition.up", "kos.problem.net.lacp.lag.transition.down", "01",
       "01"},
      {"kos.clear.net.lacp.uplink.transition.up", "kos.problem.net.lacp.uplink.transition.down",
       "01", "01"},
      {"kos.clear.net.lacp.uplink.unblocked", "kos.problem.net.lacp.uplink.blocked", "01", "01"},
      {"kos.clear.scsi.device.io.latency.improved", "kos.problem.scsi.device.io.latency.high", "0",
       "0"},
      {"kos.clear.scsi.device.state.on", "kos.problem.scsi.device.state.off", "0", "0"},
      {"kos.clear.scsi.device.state.permanentloss.deviceonline",
       "kos.problem.scsi.device.state.permanentloss", "0", "0"},
      {"kos.clear.scsi.device.state.permanentloss.deviceonline",
       "kos.problem.scsi.device.state.permanentloss.withreservationheld", "0", "0"},
      {"kos.clear.scsi.device.state.permanentloss.deviceonline",
       "kos.problem.scsi.device.state.permanentloss.noopens", "0", "0"},
      {"kos.clear.scsi.device.state.permanentloss.deviceonline",
       "kos.problem.scsi.device.state.permanentloss.pluggedback", "0", "0"},
      {"kos.clear.storage.apd.exit", "kos.problem.storage.apd.start", "0", "0"},
      {"kos.clear.storage.apd.exit", "kos.problem.storage.apd.timeout", "0", "0"},
      {"kos.clear.storage.connectivity.restored", "kos.problem.storage.connectivity.lost", "02",
       "01"},
      {"kos.clear.storage.redundancy.restored", "kos.problem.storage.redundancy.lost", "02", "01"},
      {"kos.clear.storage.redundancy.restored", "kos.problem.storage.redundancy.degraded", "02",
       "01"},
      {"kos.clear.coredump.configured", "kos.problem.coredump.unconfigured", "", ""},
      {"kos.clear.coredump.configured2", "kos.problem.coredump.unconfigured2", "", ""},
      {"kos.problem.kfs.extent.online", "kos.problem.kfs.extent.offline", "01", "01"},
      {"kos.problem.kfs.heartbeat.recovered", "kos.problem.kfs.heartbeat.timedout", "0", "0"},
      {"kos.problem.kfs.nfs.server.restored", "kos.problem.kfs.nfs.server.disconnect", "012",
       "012"},
  };
  return pairs;
}

}  // namespace tevfwd
