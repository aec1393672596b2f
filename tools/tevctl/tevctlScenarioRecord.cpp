// tevctl scenario record: turns trace lines (what the daemon's trace socket
// serves, live or saved to a file) into a scenario. Each "IN" line becomes a
// timed post, each "OUT" line an expected event in a window around the
// moment it was traced, so an incident captured on one host replays on
// another. The trace keeps only "integer" or "string" of an argument and no
// message text, so the rebuilt observation uses the narrowest printf
// conversion that holds the value and its own format as the message; lines
// that cannot be replayed faithfully are kept as comments saying why.
#include <cstdio>
#include <cstring>
#include <istream>
#include <sstream>

#include "tevctl.h"
#include "tevctlScenario.h"

namespace tevctl {
namespace scenario {

namespace {

size_t Digits(const std::string &line, size_t from) {
  size_t j = from;
  while (j < line.size() && line[j] >= '0' && line[j] <= '9') ++j;
  return j;
}

// "SECONDS.NANOSECONDS,IN|OUT,STAMP,ID" and the comma after it; *i is left
// just past that comma.
bool ParseTraceHead(const std::string &line, TraceLine *out, size_t *i, std::string *why) {
  size_t n = line.size();
  size_t dot = Digits(line, 0);
  size_t fracEnd = dot < n && line[dot] == '.' ? Digits(line, dot + 1) : dot;
  if (dot == 0 || dot > 12 || dot >= n || line[dot] != '.' || fracEnd == dot + 1 ||
      fracEnd - dot - 1 > 9 || fracEnd >= n || line[fracEnd] != ',') {
    *why = "expected SECONDS.NANOSECONDS at the start";
    return false;
  }
  std::string frac = line.substr(dot + 1, fracEnd - dot - 1);
  frac.resize(9, '0');
  out->wallNs = std::stoll(line.substr(0, dot)) * 1000000000LL + std::stoll(frac);
  *i = fracEnd + 1;
  if (line.compare(*i, 3, "IN,") == 0) {
    out->in = true;
    *i += 3;
  } else if (line.compare(*i, 4, "OUT,") == 0) {
    out->in = false;
    *i += 4;
  } else {
    *why = "expected IN or OUT as the second field";
    return false;
  }
  size_t stampEnd = Digits(line, *i);
  if (stampEnd == *i || stampEnd >= n || line[stampEnd] != ',' ||
      !ParseU64(line.substr(*i, stampEnd - *i), 64, &out->stamp)) {
    *why = "expected the time stamp (microseconds) as the third field";
    return false;
  }
  *i = stampEnd + 1;
  size_t comma = line.find(',', *i);
  if (comma == std::string::npos || comma == *i) {
    *why = "expected the identifier followed by a comma";
    return false;
  }
  out->id = line.substr(*i, comma - *i);
  *i = comma + 1;
  return true;
}

// One argument starting at *i (just past its comma); "" doubles a quote.
TraceParse ParseTraceArg(const std::string &line, size_t *i, size_t number, TraceArg *a,
                         std::string *why) {
  size_t n = line.size();
  if (*i < n && line[*i] == '"') {
    a->kind = TraceArg::String;
    for (++*i;; ++*i) {
      if (*i >= n) return TraceParse::More;
      if (line[*i] != '"') {
        a->text += line[*i];
      } else if (*i + 1 < n && line[*i + 1] == '"') {
        a->text += '"';
        ++*i;
      } else {
        ++*i;
        return TraceParse::Ok;
      }
    }
  }
  if (line.compare(*i, 3, "???") == 0) {
    a->kind = TraceArg::Unknown;
    *i += 3;
    return TraceParse::Ok;
  }
  size_t end = line.find(',', *i);
  if (end == std::string::npos) end = n;
  a->kind = TraceArg::Integer;
  a->text = line.substr(*i, end - *i);
  int64_t s;
  uint64_t u;
  if (!(a->text[0] == '-' ? ParseI64(a->text, 64, &s) : ParseU64(a->text, 64, &u)) ||
      a->text.find("0x") != std::string::npos) {
    *why = "argument " + std::to_string(number) + " \"" + a->text +
           "\" is neither a quoted string nor a decimal integer";
    return TraceParse::Bad;
  }
  *i = end;
  return TraceParse::Ok;
}

}  // namespace

// Parses one line without its newline. A string argument may hold a
// newline, so a quote left open asks for the next line (TraceParse::More).
TraceParse ParseTraceLine(const std::string &line, TraceLine *out, std::string *why) {
  *out = TraceLine();
  size_t i = 0, n = line.size();
  if (!ParseTraceHead(line, out, &i, why)) return TraceParse::Bad;
  while (i < n) {
    if (line[i] != ',') {
      *why = "expected a comma before argument " + std::to_string(out->args.size() + 1);
      return TraceParse::Bad;
    }
    ++i;
    TraceArg a;
    TraceParse r = ParseTraceArg(line, &i, out->args.size() + 1, &a, why);
    if (r != TraceParse::Ok) return r;
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
      *problem =
          "argument " + std::to_string(k + 1) + " has a type the trace does not show (\"???\")";
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
    else if (a.kind == TraceArg::String && a.text != "(null)" &&
             a.text.find('\n') == std::string::npos && !(l.args.size() == 1 && a.text == "-"))
      words += " " + Quote(a.text);
    else words += " *";
  }
  if (l.args.empty()) words = " -";
  return "expect event " + (cls.empty() ? "*" : cls) + " " + LiteralGlob(l.id) + words +
         " within " + Seconds(from) + ".." + Seconds(to);
}

}  // namespace

bool Record(std::istream &in, const std::string &source, const RecordOptions &opts,
            std::string *text, std::vector<std::string> *warnings) {
  std::vector<TraceLine> lines;
  std::string raw, pending, why;
  int lineNo = 0, firstOfPending = 0;
  while (std::getline(in, raw)) {
    ++lineNo;
    if (pending.empty()) {
      firstOfPending = lineNo;
      if (raw.empty() || raw == "\r") continue;  // the end of the history, or spacing
      pending = raw;
    } else {
      pending += "\n" + raw;
    }
    TraceLine l;
    TraceParse r = ParseTraceLine(pending, &l, &why);
    if (r == TraceParse::More) continue;
    if (r == TraceParse::Bad) {
      warnings->push_back(source + ":" + std::to_string(firstOfPending) + ": " + why +
                          "; line skipped");
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
    << Seconds(opts.early) << " s before to " << Seconds(opts.late)
    << " s after the moment it was traced.\n"
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
}  // namespace tevctl
