// tevctl sink: a stand-in for the management agent. It owns the qprob socket,
// takes one connection at a time (the daemon sends one message per
// connection and closes), reads the whole message up to EOF and prints it as
// one JSON line. Bad input never stops it: a malformed message becomes an
// {"error":...} line and the next connection is served.
#include <cerrno>
#include <cstring>

#include <sys/socket.h>
#include <unistd.h>

#include "Qprob.h"
#include "QprobReceive.h"
#include "tevctl.h"

namespace tevctl {

namespace {

const char kUsage[] =
    "Usage: tevctl sink [--count N] [--timeout SEC]\n"
    "Listens on var/run/orlan/marshd-qprob.sock under the root and prints one\n"
    "JSON line per event message; a malformed one prints {\"error\":\"...\"}.\n"
    "  --count N      exit 0 after N messages (error lines count too)\n"
    "  --timeout SEC  give up after SEC seconds in all: exit 0 without --count,\n"
    "                 1 when fewer than N messages came\n";

// -1: no deadline.
int RemainingMs(int64_t deadline) {
  if (deadline < 0) return -1;
  int64_t left = deadline - NowMs();
  return left > 0 ? static_cast<int>(left) : 0;
}

// Reads until EOF. False when the deadline passes first or the read fails.
bool ReadAll(int fd, int64_t deadline, std::string *data, std::string *why) {
  int error = 0;
  switch (Qprob_ReadToEnd(fd, RemainingMs(deadline), kQprobReceiveMax, data, &error)) {
    case QprobRead::Whole: return true;
    case QprobRead::TimedOut: *why = "timed out before the sender closed"; break;
    case QprobRead::TooLarge:
      *why = "message larger than " + std::to_string(kQprobReceiveMax) + " bytes";
      break;
    default: *why = std::string("read failed: ") + strerror(error); break;
  }
  return false;
}

void PrintError(const std::string &why) {
  PrintLine("{\"error\":\"" + Qprob_JsonEscape(why) + "\"}");
}

}  // namespace

int CmdSink(const std::vector<std::string> &args) {
  const char *cmd = "sink";
  ParsedArgs pa;
  std::string why;
  if (int rc = OpenCommand(cmd, args, {{"count", true}, {"timeout", true}}, kUsage, &pa);
      rc != kGoOn) {
    return rc;
  }
  if (!pa.positional.empty()) return Fail(cmd, "takes no arguments (try --help)");
  uint64_t count = 0, timeout = 0;
  if (int rc = CountAndTimeout(cmd, pa, &count, &timeout)) {
    return rc;
  }
  int64_t deadline = pa.Has("timeout") ? NowMs() + static_cast<int64_t>(timeout) * 1000 : -1;

  std::string path = PlatformEndpoint_Path(PlatformEndpoint::QprobAgent);
  int lfd = PlatformSocket_Listen(path, SOCK_STREAM);
  if (lfd < 0) return Fail(cmd, "cannot listen on %s: %s", path.c_str(), strerror(errno));

  uint64_t seen = 0;
  int status = 0;
  while (count == 0 || seen < count) {
    int ready = WaitReadable(lfd, RemainingMs(deadline));
    if (ready == 0) {
      if (count != 0) {
        status =
            Fail(cmd, "timed out after %llu s with %llu of %llu messages",
                 static_cast<unsigned long long>(timeout), static_cast<unsigned long long>(seen),
                 static_cast<unsigned long long>(count));
      }
      break;
    }
    int cfd = ready < 0 ? -1 : accept4(lfd, nullptr, nullptr, SOCK_CLOEXEC);
    if (cfd < 0) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      status = Fail(cmd, "accept on %s failed: %s", path.c_str(), strerror(errno));
      break;
    }
    std::string data;
    bool whole = ReadAll(cfd, deadline, &data, &why);
    close(cfd);
    ++seen;
    QprobMessage msg;
    if (!whole) {
      PrintError(why);
    } else if (!Qprob_Decode(data.data(), data.size(), &msg, &why)) {
      PrintError("malformed message of " + std::to_string(data.size()) + " bytes: " + why);
    } else {
      PrintLine(Qprob_ToJson(msg));
    }
  }
  close(lfd);
  unlink(path.c_str());
  return status;
}

}  // namespace tevctl
