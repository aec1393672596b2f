// Link flapping detection for the "net" correlator.
//
// Every link-down observation of a physical NIC is noted with its wall-clock
// second. When more than LinkFlappingThreshold of them fall within the last 60
// seconds, the kernel is told to take the NIC down and an event is posted. The
// threshold is read on every call so that a changed option applies at once;
// 0 turns the take-down off. After a take-down attempt, successful or not, the
// NIC's count starts afresh. Runs on the "net" agent thread only.
//
// A node that cannot be written (a read-only file system under a hardened
// unit, say) would silently disable the take-down and its event: the first
// failure for each node is logged with the file and the error.
#include <cstdint>
#include <cstring>
#include <exception>
#include <set>
#include <string>

#include "HostCtl.h"
#include "KNO.h"
#include "MtlCtl.h"
#include "TevClock.h"
#include "tevdLog.h"
#include "tevdNetInternal.h"
#include "tevdQprob.h"

namespace {

constexpr int64_t kFlapWindowSeconds = 60;

// False when the option cannot be read.
bool ReadThreshold(uint32_t *threshold) {
  try {
    *threshold = static_cast<uint32_t>(
        MtlCtl::Adv::AdvancedIntegerOptionImpl("Net", "LinkFlappingThreshold").GetValue());
    return true;
  } catch (const HostCtl::Lib::HostCtlException &) {
    return false;
  } catch (const std::exception &) {
    return false;
  }
}

// False when the kernel refused the write.
bool TakeNicDown(const std::string &nic) {
  try {
    MtlCtl::Util::Sysinfo node(KNO_NODE_net_pNics_linkFlapping);
    node.AddInstancePath(nic);
    node.AddInput(1);
    node.Set();
    return true;
  } catch (const HostCtl::Lib::HostCtlException &e) {
    static std::set<std::string> logged;
    if (e.Errno() != 0 && logged.insert(e.Path()).second) {
      TevdLog("Cannot write kernel node %s: %s (errno %d); physical NIC %s is not taken down\n",
              e.Path().c_str(), strerror(e.Errno()), e.Errno(), nic.c_str());
    }
    return false;
  } catch (const std::exception &) {
    return false;
  }
}

}  // namespace

void TevdNetCorrelatorNoteLinkDown(const std::string &nic) {
  int64_t now = TevClock_NowSeconds();
  std::deque<int64_t> &history = tevdNet.hwnicFlapHistory[nic];
  history.push_back(now);
  // A time exactly 60 s old still counts.
  while (!history.empty() && history.front() < now - kFlapWindowSeconds) {
    history.pop_front();
  }
  uint32_t threshold = 0;
  if (!ReadThreshold(&threshold) || threshold == 0) {
    return;
  }
  if (threshold >= history.size()) {
    return;
  }
  if (TakeNicDown(nic)) {
    TevdQprob_Post(0, Problem, tevd_ev::ProblemNetHwnicLinkstateFlapping, nic.c_str());
  }
  history.clear();
}
