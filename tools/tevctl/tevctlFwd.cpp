// tevctl fwd: the counters of tevfwd, the forwarder to Alertmanager, from
// the file it keeps up to date under the root.
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "tevctl.h"
#include "tevctlMetrics.h"

namespace tevctl {

namespace {

const char kUsage[] =
    "Usage: tevctl fwd\n"
    "Prints tevfwd's counters as one JSON line: received, sent, resolved,\n"
    "spooled, dropped, expired, malformed, and the alerts waiting in the spool\n"
    "and firing (from var/run/orlan/tevfwd-counters.json, updated every second).\n"
    "Exit status 1 when tevfwd is not running: its last counters are not shown.\n";

}  // namespace

int CmdFwd(const std::vector<std::string> &args) {
  const char *cmd = "fwd";
  ParsedArgs pa;
  if (int rc = OpenCommand(cmd, args, {}, kUsage, &pa); rc != kGoOn) return rc;
  if (!pa.positional.empty()) return Fail(cmd, "takes no arguments (try --help)");
  std::string path = RootPath("/var/run/orlan/tevfwd-counters.json");
  std::ifstream in(path);
  if (!in)
    return Fail(cmd, "cannot read %s: %s (is tevfwd running?)", path.c_str(), strerror(errno));
  std::string line;
  std::getline(in, line);
  if (line.empty()) return Fail(cmd, "%s is empty", path.c_str());
  // The file outlives the forwarder: a dead one's last counters are not shown.
  if (ProgramLockHeld("tevfwd") == 0) {
    return Fail(cmd, "tevfwd is not running under this root (%s holds its last counters)",
                path.c_str());
  }
  PrintLine(line);
  return 0;
}

}  // namespace tevctl
