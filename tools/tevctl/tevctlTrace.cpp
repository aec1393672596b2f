// tevctl trace: a client of the daemon's trace socket. The daemon sends its
// history, one blank line, then live lines; this copies the bytes to stdout
// unchanged until the daemon closes (or, with --history, until the blank line).
#include <algorithm>
#include <cerrno>
#include <cstring>

#include <sys/socket.h>
#include <unistd.h>

#include "tevctl.h"

namespace tevctl {

namespace {

const char kUsage[] =
    "Usage: tevctl trace [--history] [--timeout SEC]\n"
    "Connects to var/run/orlan/tevd-trace.sock under the root and prints what\n"
    "the daemon sends (history, a blank line, then live lines) until it closes.\n"
    "  --history      stop at the blank line that ends the history (not printed)\n"
    "  --timeout SEC  stop after SEC seconds (exit 0)\n";

bool WriteOut(const char *p, size_t n) {
  while (n > 0) {
    ssize_t w = write(STDOUT_FILENO, p, n);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) return false;
    p += w;
    n -= static_cast<size_t>(w);
  }
  return true;
}

}  // namespace

int CmdTrace(const std::vector<std::string> &args) {
  const char *cmd = "trace";
  ParsedArgs pa;
  if (int rc = OpenCommand(cmd, args, {{"history", false}, {"timeout", true}}, kUsage, &pa);
      rc != kGoOn) {
    return rc;
  }
  if (!pa.positional.empty()) return Fail(cmd, "takes no arguments (try --help)");
  uint64_t timeout = 0;
  if (pa.Has("timeout") && !ParseU64(pa.Get("timeout"), 31, &timeout)) {
    return Fail(cmd, "--timeout needs seconds, not \"%s\"", pa.Get("timeout").c_str());
  }
  int64_t deadline = pa.Has("timeout") ? NowMs() + static_cast<int64_t>(timeout) * 1000 : -1;
  bool historyOnly = pa.Has("history");

  std::string path = PlatformEndpoint_Path(PlatformEndpoint::Trace);
  int fd = PlatformSocket_Connect(path, SOCK_STREAM);
  if (fd < 0) {
    return Fail(cmd, "cannot connect to %s: %s (is tevd running under this root?)", path.c_str(),
                strerror(errno));
  }
  fflush(stdout);
  char buf[65536];
  bool atLineStart = true;  // the history's end is a "\n" at the start of a line
  int status = 0;
  for (;;) {
    int left = deadline < 0 ? -1 : static_cast<int>(std::max<int64_t>(0, deadline - NowMs()));
    int ready = WaitReadable(fd, left);
    if (ready == 0) break;
    ssize_t n = ready < 0 ? -1 : read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      status = Fail(cmd, "read from %s failed: %s", path.c_str(), strerror(errno));
      break;
    }
    if (n == 0) break;
    size_t len = static_cast<size_t>(n);
    if (historyOnly) {
      size_t end = len;
      for (size_t i = 0; i < len; ++i) {
        if (buf[i] == '\n' && atLineStart) {
          end = i;
          break;
        }
        atLineStart = buf[i] == '\n';
      }
      if (!WriteOut(buf, end)) break;
      if (end < len) break;
      continue;
    }
    if (!WriteOut(buf, len)) break;
  }
  close(fd);
  return status;
}

}  // namespace tevctl
