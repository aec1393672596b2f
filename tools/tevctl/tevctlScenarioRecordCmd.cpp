// tevctl scenario record: the command. Reads the trace from a saved file,
// stdin or the daemon's trace socket and writes the scenario.
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>

#include "PlatformSocket.h"
#include "tevctl.h"
#include "tevctlScenario.h"

namespace tevctl {

namespace {

const char kRecordUsage[] =
    "Usage: tevctl scenario record [--from-trace FILE] [--history | --live] [--seconds N]\n"
    "                              [--early SEC] [--late SEC] [--setup FILE] [-o FILE]\n"
    "Turns trace lines (IN observations, OUT events) into a scenario: each IN\n"
    "becomes \"at T post ...\", each OUT \"expect event ...\" within T-early..T+late.\n"
    "Without --from-trace it connects to var/run/orlan/tevd-trace.sock under the\n"
    "root and records until the daemon closes, N seconds pass or Ctrl-C.\n"
    "  --from-trace FILE  a saved trace (tevctl trace > FILE); \"-\" is stdin\n"
    "  --history          live: stop at the end of the daemon's history\n"
    "  --live             live: leave the history out, record new lines only\n"
    "  --seconds N        live: stop after N seconds\n"
    "  --early SEC        window opens SEC before the traced moment (default 1)\n"
    "  --late SEC         window closes SEC after it (default 1.5)\n"
    "  --setup FILE       copy FILE (host and tevd lines) to the head of the scenario\n"
    "  -o FILE            write the scenario to FILE (default stdout)\n";

volatile sig_atomic_t stopRecording = 0;
void OnStop(int) { stopRecording = 1; }

// Reads the trace socket into `into`. History lines come first, then a
// blank line, then live lines.
int ReadLive(const ParsedArgs &pa, std::string *into) {
  const char *cmd = "scenario record";
  double seconds = 0;
  if (pa.Has("seconds") && (!ParseDouble(pa.Get("seconds"), &seconds) || seconds <= 0)) {
    return Fail(cmd, "--seconds needs a positive number, not \"%s\"", pa.Get("seconds").c_str());
  }
  std::string path = PlatformEndpoint_Path(PlatformEndpoint::Trace);
  int fd = PlatformSocket_Connect(path, SOCK_STREAM);
  if (fd < 0) {
    return Fail(cmd, "cannot connect to %s: %s (is tevd running under this root?)", path.c_str(),
                strerror(errno));
  }
  struct sigaction sa = {};
  sa.sa_handler = OnStop;
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);
  fflush(stdout);
  fprintf(stderr, "tevctl scenario record: recording from %s\n", path.c_str());
  int64_t deadline = seconds > 0 ? NowMs() + static_cast<int64_t>(seconds * 1000) : -1;
  bool historyOnly = pa.Has("history"), liveOnly = pa.Has("live");
  bool inHistory = true;
  std::string partial;
  char buf[65536];
  while (!stopRecording) {
    int wait = 200;
    if (deadline >= 0) {
      int64_t left = deadline - NowMs();
      if (left <= 0) break;
      if (left < wait) wait = static_cast<int>(left);
    }
    int ready = WaitReadable(fd, wait);
    if (ready == 0) continue;
    ssize_t n = ready < 0 ? -1 : read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    partial.append(buf, static_cast<size_t>(n));
    size_t start = 0;
    for (size_t nl = partial.find('\n'); nl != std::string::npos; nl = partial.find('\n', start)) {
      std::string line = partial.substr(start, nl + 1 - start);
      start = nl + 1;
      if (inHistory && line == "\n") {
        inHistory = false;
        if (historyOnly) {
          stopRecording = 1;
          break;
        }
        continue;
      }
      if (!(inHistory && liveOnly)) into->append(line);
    }
    partial.erase(0, start);
  }
  close(fd);
  signal(SIGINT, SIG_DFL);
  signal(SIGTERM, SIG_DFL);
  stopRecording = 0;
  return 0;
}

// The options that shape the scenario; false (after a diagnostic) on a bad one.
bool ReadRecordOptions(const ParsedArgs &pa, scenario::RecordOptions *opts, int *rc) {
  const char *cmd = "scenario record";
  for (const char *name : {"early", "late"}) {
    double v;
    if (!pa.Has(name)) continue;
    if (!ParseDouble(pa.Get(name), &v) || v < 0 || v > 3600) {
      *rc = Fail(cmd, "--%s needs seconds (0..3600), not \"%s\"", name, pa.Get(name).c_str());
      return false;
    }
    (name[0] == 'e' ? opts->early : opts->late) = v;
  }
  if (pa.Has("setup")) {
    std::ifstream f(pa.Get("setup"));
    if (!f) {
      *rc = Fail(cmd, "cannot read %s", pa.Get("setup").c_str());
      return false;
    }
    std::stringstream ss;
    ss << f.rdbuf();
    opts->setup = ss.str();
  }
  return true;
}

// The trace text from a file, stdin or the live socket, and where it came from.
int ReadTrace(const ParsedArgs &pa, std::string *traceText, std::string *source) {
  const char *cmd = "scenario record";
  bool fromFile = pa.Has("from-trace");
  if (fromFile && pa.Get("from-trace") != "-") {
    std::ifstream f(pa.Get("from-trace"));
    if (!f) return Fail(cmd, "cannot read %s", pa.Get("from-trace").c_str());
    std::stringstream ss;
    ss << f.rdbuf();
    *traceText = ss.str();
    *source = pa.Get("from-trace");
  } else if (fromFile) {
    std::stringstream ss;
    ss << std::cin.rdbuf();
    *traceText = ss.str();
    *source = "stdin";
  } else {
    int rc = ReadLive(pa, traceText);
    if (rc != 0) return rc;
    *source = PlatformEndpoint_Path(PlatformEndpoint::Trace);
  }
  return 0;
}

}  // namespace

int CmdScenarioRecord(const std::vector<std::string> &args) {
  const char *cmd = "scenario record";
  std::vector<std::string> words;
  words.reserve(args.size());
  for (const std::string &a : args) words.push_back(a == "-o" ? "--output" : a);
  ParsedArgs pa;
  std::string why;
  if (!ParseArgs(words,
                 {{"from-trace", true},
                  {"history", false},
                  {"live", false},
                  {"seconds", true},
                  {"early", true},
                  {"late", true},
                  {"setup", true},
                  {"output", true}},
                 &pa, &why)) {
    return Fail(cmd, "%s", why.c_str());
  }
  if (pa.Has("help")) {
    fputs(kRecordUsage, stdout);
    return 0;
  }
  if (!pa.positional.empty()) return Fail(cmd, "takes no positional arguments (try --help)");
  bool fromFile = pa.Has("from-trace");
  if (fromFile && (pa.Has("history") || pa.Has("live") || pa.Has("seconds"))) {
    return Fail(cmd, "--history, --live and --seconds are for live recording, not --from-trace");
  }
  if (pa.Has("history") && pa.Has("live"))
    return Fail(cmd, "--history and --live exclude each other");
  scenario::RecordOptions opts;
  int rc = 0;
  if (!ReadRecordOptions(pa, &opts, &rc)) return rc;
  std::string traceText, source;
  rc = ReadTrace(pa, &traceText, &source);
  if (rc != 0) return rc;

  std::istringstream in(traceText);
  std::string scenarioText;
  std::vector<std::string> notes;
  bool any = scenario::Record(in, source, opts, &scenarioText, &notes);
  if (pa.Has("output")) {
    std::ofstream f(pa.Get("output"));
    f << scenarioText;
    f.close();
    if (!f) return Fail(cmd, "cannot write %s", pa.Get("output").c_str());
  } else {
    fputs(scenarioText.c_str(), stdout);
    fflush(stdout);
  }
  for (const std::string &n : notes) fprintf(stderr, "tevctl scenario record: %s\n", n.c_str());
  if (!any) return Fail(cmd, "no trace line was read from %s", source.c_str());
  return 0;
}

}  // namespace tevctl
