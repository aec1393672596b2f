// tevctl scenario record: turns trace lines (what the daemon's trace socket
// serves, live or saved to a file) into a scenario. Each "IN" line becomes a
// timed post, each "OUT" line an expected event in a window around the
// moment it was traced, so an incident captured on one host replays on
// another. The trace keeps only "integer" or "string" of an argument and no
// message text, so the rebuilt observation uses the narrowest printf
// conversion that holds the value and its own format as the message; lines
// that cannot be replayed faithfully are kept as comments saying why.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>

#include <sys/socket.h>
#include <unistd.h>

#include "tevctl.h"
#include "tevctlScenario.h"

namespace tevctl {
namespace scenario {

// Parses one line without its newline. A string argument may hold a
// newline, so a quote left open asks for the next line (TraceParse::More).
TraceParse ParseTraceLine(const std::string &line, TraceLine *out, std::string *why) {
  *out = TraceLine();
  size_t i = 0, n = line.size();
  auto digits = [&](size_t from) {
    size_t j = from;
    while (j < n && line[j] >= '0' && line[j] <= '9') ++j;
    return j;
  };
  size_t dot = digits(0);
  size_t fracEnd = dot < n && line[dot] == '.' ? digits(dot + 1) : dot;
  if (dot == 0 || dot > 12 || dot >= n || line[dot] != '.' || fracEnd == dot + 1 ||
      fracEnd - dot - 1 > 9 || fracEnd >= n || line[fracEnd] != ',') {
    *why = "expected SECONDS.NANOSECONDS at the start";
    return TraceParse::Bad;
  }
  std::string frac = line.substr(dot + 1, fracEnd - dot - 1);
  frac.resize(9, '0');
  out->wallNs = std::stoll(line.substr(0, dot)) * 1000000000LL + std::stoll(frac);
  i = fracEnd + 1;
  if (line.compare(i, 3, "IN,") == 0) {
    out->in = true;
    i += 3;
  } else if (line.compare(i, 4, "OUT,") == 0) {
    out->in = false;
    i += 4;
  } else {
    *why = "expected IN or OUT as the second field";
    return TraceParse::Bad;
  }
  size_t stampEnd = digits(i);
  if (stampEnd == i || stampEnd >= n || line[stampEnd] != ',' ||
      !ParseU64(line.substr(i, stampEnd - i), 64, &out->stamp)) {
    *why = "expected the time stamp (microseconds) as the third field";
    return TraceParse::Bad;
  }
  i = stampEnd + 1;
  size_t comma = line.find(',', i);
  if (comma == std::string::npos || comma == i) {
    *why = "expected the identifier followed by a comma";
    return TraceParse::Bad;
  }
  out->id = line.substr(i, comma - i);
  i = comma + 1;
  while (i < n) {
    if (line[i] != ',') {
      *why = "expected a comma before argument " + std::to_string(out->args.size() + 1);
      return TraceParse::Bad;
    }
    ++i;
    TraceArg a;
    if (i < n && line[i] == '"') {
      a.kind = TraceArg::String;
      for (++i;; ++i) {
        if (i >= n) return TraceParse::More;
        if (line[i] != '"') {
          a.text += line[i];
        } else if (i + 1 < n && line[i + 1] == '"') {
          a.text += '"';
          ++i;
        } else {
          ++i;
          break;
        }
      }
    } else if (line.compare(i, 3, "???") == 0) {
      a.kind = TraceArg::Unknown;
      i += 3;
    } else {
      size_t end = line.find(',', i);
      if (end == std::string::npos) end = n;
      a.kind = TraceArg::Integer;
      a.text = line.substr(i, end - i);
      int64_t s;
      uint64_t u;
      if (!(a.text[0] == '-' ? ParseI64(a.text, 64, &s) : ParseU64(a.text, 64, &u)) ||
          a.text.find("0x") != std::string::npos) {
        *why = "argument " + std::to_string(out->args.size() + 1) + " \"" + a.text +
               "\" is neither a quoted string nor a decimal integer";
        return TraceParse::Bad;
      }
      i = end;
    }
    if (i < n && line[i] != ',') {
      *why = "expected a comma after argument " + std::to_string(out->args.size() + 1);
      return TraceParse::Bad;
    }
    out->args.push_back(a);
  }
  return TraceParse::Ok;
}

namespace {

// The narrowest conversion whose type holds the decimal value: int32, then
// uint32 (a %x or %u value above 2^31), int64, uint64.
const char *IntConversion(const std::string &text) {
  int64_t s;
  uint64_t u;
  if (ParseI64(text, 32, &s)) return "%d";
  if (ParseU64(text, 32, &u)) return "%u";
  if (ParseI64(text, 64, &s)) return "%ld";
  return "%lu";
}

// A word the scenario reader gives back unchanged.
std::string Quote(const std::string &s) {
  std::string q = "\"";
  for (char c : s) {
    if (c == '"' || c == '\\') q += '\\';
    q += c;
  }
  return q + "\"";
}

std::string Seconds(double t) {
  char buf[32];
  snprintf(buf, sizeof buf, "%.3f", t);
  return buf;
}

// An identifier used as a glob matches only itself.
std::string LiteralGlob(const std::string &id) {
  std::string g;
  for (char c : id) {
    if (c == '*' || c == '?' || c == '[' || c == '\\') g += '\\';
    g += c;
  }
  return g;
}

std::string PostLine(const TraceLine &l, double t, std::string *problem) {
  if (l.id.compare(0, 4, "tev.") != 0 || l.id.size() == 4) {
    *problem = "the identifier does not begin with \"tev.\"";
  }
  std::string format, words;
  for (size_t k = 0; k < l.args.size(); ++k) {
    const TraceArg &a = l.args[k];
    std::string conv;
    if (a.kind == TraceArg::Integer) {
      conv = IntConversion(a.text);
      words += " " + a.text;
    } else if (a.kind == TraceArg::String) {
      conv = "%s";
      if (a.text.find('\n') != std::string::npos) {
        *problem = "argument " + std::to_string(k + 1) + " holds a newline";
      }
      words += " " + Quote(a.text);
    } else {
      conv = "%?";
      *problem = "argument " + std::to_string(k + 1) + " has a type the trace does not show (\"???\")";
    }
    format += (k ? " " : "") + conv;
  }
  // User-level services name their observations "tev.user."; everything
  // else came from a kernel (asynchronous) context. The daemon dispatches by
  // identifier alone, so the context only matters for what a reader sees.
  std::string ctx = l.id.compare(0, 9, "tev.user.") == 0 ? "--user " : "";
  return "at " + Seconds(t) + " post " + ctx + l.id + " " + Quote(format) + words;
}

std::string ExpectLine(const TraceLine &l, double from, double to, std::string *problem) {
  std::string cls;
  for (const char *c : {"problem", "audit", "clear"}) {
    if (l.id.compare(0, 4 + strlen(c) + 1, std::string("kos.") + c + ".") == 0) cls = c;
  }
  if (l.id.compare(0, 4, "kos.") != 0) *problem = "the identifier does not begin with \"kos.\"";
  std::string words;
  for (const TraceArg &a : l.args) {
    // Unknown types, null strings (traced as "(null)") and what a line cannot
    // hold match anything.
    if (a.kind == TraceArg::Integer) words += " " + a.text;
    else if (a.kind == TraceArg::String && a.text != "(null)" && a.text.find('\n') == std::string::npos &&
             !(l.args.size() == 1 && a.text == "-"))
      words += " " + Quote(a.text);
    else words += " *";
  }
  if (l.args.empty()) words = " -";
  return "expect event " + (cls.empty() ? "*" : cls) + " " + LiteralGlob(l.id) + words + " within " +
         Seconds(from) + ".." + Seconds(to);
}

}  // namespace

bool Record(std::istream &in, const std::string &source, const RecordOptions &opts, std::string *text,
            std::vector<std::string> *warnings) {
  std::vector<TraceLine> lines;
  std::string raw, pending, why;
  int lineNo = 0, firstOfPending = 0;
  while (std::getline(in, raw)) {
    ++lineNo;
    if (pending.empty()) {
      firstOfPending = lineNo;
      if (raw.empty() || raw == "\r") continue;   // the end of the history, or spacing
      pending = raw;
    } else {
      pending += "\n" + raw;
    }
    TraceLine l;
    TraceParse r = ParseTraceLine(pending, &l, &why);
    if (r == TraceParse::More) continue;
    if (r == TraceParse::Bad) {
      warnings->push_back(source + ":" + std::to_string(firstOfPending) + ": " + why + "; line skipped");
    } else {
      lines.push_back(l);
    }
    pending.clear();
  }
  if (!pending.empty()) {
    warnings->push_back(source + ":" + std::to_string(firstOfPending) +
                        ": a quoted argument is not closed at the end; line skipped");
  }

  size_t ins = 0, outs = 0, skipped = 0;
  std::ostringstream o;
  o << "# Recorded by tevctl scenario record from " << source << ".\n"
    << "# Times are seconds from the first trace line; each event is expected from "
    << Seconds(opts.early) << " s before to " << Seconds(opts.late) << " s after the moment it was traced.\n"
    << "# The trace shows integers and strings only, no message text: see docs/scenarios.md.\n";
  if (!opts.setup.empty()) o << "\n" << opts.setup << (opts.setup.back() == '\n' ? "" : "\n");
  o << "\n";
  int64_t zero = lines.empty() ? 0 : lines.front().wallNs;
  for (const TraceLine &l : lines) {
    double t = l.wallNs > zero ? static_cast<double>(l.wallNs - zero) / 1e9 : 0.0;
    std::string problem, line;
    if (t + opts.late >= 86400) {
      problem = "more than a day after the first line";
      line = l.id;
    } else if (l.in) {
      line = PostLine(l, t, &problem);
    } else {
      line = ExpectLine(l, t > opts.early ? t - opts.early : 0.0, t + opts.late, &problem);
    }
    if (!problem.empty()) {
      ++skipped;
      warnings->push_back(source + ": " + (l.in ? "IN " : "OUT ") + l.id + " at " + Seconds(t) +
                          " s not replayed: " + problem);
      // A comment is one line: a newline inside a string shows as \n.
      std::string shown;
      for (char c : line) shown += c == '\n' ? std::string("\\n") : std::string(1, c);
      o << "# not replayed (" << problem << "): " << shown << "\n";
      continue;
    }
    ++(l.in ? ins : outs);
    o << line << "\n";
  }
  *text = o.str();
  char summary[128];
  snprintf(summary, sizeof summary, "%zu observations, %zu events, %zu lines left as comments", ins,
           outs, skipped);
  warnings->push_back(summary);
  return !lines.empty();
}

}  // namespace scenario

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

}  // namespace

int CmdScenarioRecord(const std::vector<std::string> &args) {
  const char *cmd = "scenario record";
  std::vector<std::string> words;
  for (const std::string &a : args) words.push_back(a == "-o" ? "--output" : a);
  ParsedArgs pa;
  std::string why;
  if (!ParseArgs(words,
                 {{"from-trace", true}, {"history", false}, {"live", false}, {"seconds", true},
                  {"early", true}, {"late", true}, {"setup", true}, {"output", true}},
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
  if (pa.Has("history") && pa.Has("live")) return Fail(cmd, "--history and --live exclude each other");
  scenario::RecordOptions opts;
  for (const char *name : {"early", "late"}) {
    double v;
    if (!pa.Has(name)) continue;
    if (!ParseDouble(pa.Get(name), &v) || v < 0 || v > 3600) {
      return Fail(cmd, "--%s needs seconds (0..3600), not \"%s\"", name, pa.Get(name).c_str());
    }
    (name[0] == 'e' ? opts.early : opts.late) = v;
  }
  if (pa.Has("setup")) {
    std::ifstream f(pa.Get("setup"));
    if (!f) return Fail(cmd, "cannot read %s", pa.Get("setup").c_str());
    std::stringstream ss;
    ss << f.rdbuf();
    opts.setup = ss.str();
  }

  std::string traceText, source;
  if (fromFile && pa.Get("from-trace") != "-") {
    std::ifstream f(pa.Get("from-trace"));
    if (!f) return Fail(cmd, "cannot read %s", pa.Get("from-trace").c_str());
    std::stringstream ss;
    ss << f.rdbuf();
    traceText = ss.str();
    source = pa.Get("from-trace");
  } else if (fromFile) {
    std::stringstream ss;
    ss << std::cin.rdbuf();
    traceText = ss.str();
    source = "stdin";
  } else {
    int rc = ReadLive(pa, &traceText);
    if (rc != 0) return rc;
    source = PlatformEndpoint_Path(PlatformEndpoint::Trace);
  }

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
