// tevctl log: the log collector of a rooted daemon. With TEVD_ROOT set the
// daemon sends each log line as one syslog-style datagram to $ROOT/dev/log;
// this binds that socket and prints one line per datagram. It refuses to run
// without a root so that it never takes over the system's own /dev/log.
#include <cerrno>
#include <cstring>

#include <sys/socket.h>
#include <unistd.h>

#include "tevctl.h"

namespace tevctl {

namespace {

const char kUsage[] =
    "Usage: tevctl log [--strip] [--count N] [--timeout SEC]\n"
    "Binds dev/log under the root (a root is required) and prints each log\n"
    "datagram as one line.\n"
    "  --strip        drop the \"<14>Mmm dd hh:mm:ss tevd: \" prefix\n"
    "  --count N      exit 0 after N datagrams\n"
    "  --timeout SEC  stop after SEC seconds in all (exit 0)\n";

// "<PRI>Mmm dd hh:mm:ss TAG: text" -> "text"; anything else is left alone.
std::string StripPrefix(const std::string &line) {
  if (line.empty() || line[0] != '<') return line;
  size_t close = line.find('>');
  if (close == std::string::npos || close < 2) return line;
  size_t stamp = close + 1;  // "Mmm dd hh:mm:ss " is 16 characters
  if (line.size() < stamp + 16 || line[stamp + 15] != ' ') return line;
  size_t colon = line.find(": ", stamp + 16);
  if (colon == std::string::npos) return line;
  return line.substr(colon + 2);
}

}  // namespace

int CmdLog(const std::vector<std::string> &args) {
  const char *cmd = "log";
  ParsedArgs pa;
  if (int rc = OpenCommand(cmd, args, {{"strip", false}, {"count", true}, {"timeout", true}},
                           kUsage, &pa);
      rc != kGoOn) {
    return rc;
  }
  if (!pa.positional.empty()) return Fail(cmd, "takes no arguments (try --help)");
  uint64_t count = 0, timeout = 0;
  if (int rc = CountAndTimeout(cmd, pa, &count, &timeout)) {
    return rc;
  }
  if (!HaveRoot()) {
    return Fail(cmd, "needs a root (--root DIR or TEVD_ROOT); will not bind the system's /dev/log");
  }
  int64_t deadline = pa.Has("timeout") ? NowMs() + static_cast<int64_t>(timeout) * 1000 : -1;

  std::string path = PlatformEndpoint_Path(PlatformEndpoint::LogCollector);
  int fd = PlatformSocket_Listen(path, SOCK_DGRAM);
  if (fd < 0) return Fail(cmd, "cannot bind %s: %s", path.c_str(), strerror(errno));

  static char buf[1 << 16];
  uint64_t seen = 0;
  int status = 0;
  while (count == 0 || seen < count) {
    int left = -1;
    if (deadline >= 0) {
      int64_t ms = deadline - NowMs();
      left = ms > 0 ? static_cast<int>(ms) : 0;
    }
    int ready = WaitReadable(fd, left);
    if (ready == 0) break;
    ssize_t n = ready < 0 ? -1 : recv(fd, buf, sizeof buf, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      status = Fail(cmd, "receive on %s failed: %s", path.c_str(), strerror(errno));
      break;
    }
    std::string line(buf, static_cast<size_t>(n));
    while (!line.empty() && (line.back() == '\n' || line.back() == '\0')) line.pop_back();
    PrintLine(pa.Has("strip") ? StripPrefix(line) : line);
    ++seen;
  }
  close(fd);
  unlink(path.c_str());
  return status;
}

}  // namespace tevctl
