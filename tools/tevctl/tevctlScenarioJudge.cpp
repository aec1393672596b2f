// tevctl scenario: the judge. Each expectation is held against everything the
// run recorded; an event matches one expectation at most, in the order the
// expectations were written.
#include <fnmatch.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstring>

#include "tevctl.h"
#include "tevctlScenarioJudge.h"

namespace tevctl {
namespace scenario {

namespace {

std::string ValueText(const MsgFmt_Value &v) {
  char buf[64];
  switch (v.type) {
    case MSGFMT_TYPE_INT32:
    case MSGFMT_TYPE_INT64:
      snprintf(buf, sizeof buf, "%lld", static_cast<long long>(static_cast<int64_t>(v.bits)));
      return buf;
    case MSGFMT_TYPE_UINT32:
    case MSGFMT_TYPE_UINT64:
      snprintf(buf, sizeof buf, "%llu", static_cast<unsigned long long>(v.bits));
      return buf;
    case MSGFMT_TYPE_DOUBLE: {
      double d;
      memcpy(&d, &v.bits, sizeof d);
      snprintf(buf, sizeof buf, "%g", d);
      return buf;
    }
    case MSGFMT_TYPE_STRING: return v.isNull ? "NULL" : v.str;
    default: return "?";
  }
}

}  // namespace

std::string ArgsText(const std::vector<MsgFmt_Value> &args) {
  std::string s = "[";
  for (size_t i = 0; i < args.size(); ++i) {
    if (i) s += ", ";
    s += args[i].type == MSGFMT_TYPE_STRING && !args[i].isNull
             ? "\"" + Qprob_JsonEscape(args[i].str) + "\""
             : ValueText(args[i]);
  }
  return s + "]";
}

std::string EventText(const EventSeen &e) {
  return (e.msg.className.empty() ? std::string("?") : e.msg.className) + " " + e.msg.id + " " +
         ArgsText(e.msg.args);
}

namespace {

// A word of an expectation against one decoded argument: "*" takes anything,
// numbers compare by value (so 0x201 matches 513), strings exactly.
bool ArgMatches(const std::string &word, const MsgFmt_Value &v) {
  if (word == "*") return true;
  if (v.type == MSGFMT_TYPE_STRING) return !v.isNull && word == v.str;
  if (word == ValueText(v)) return true;
  MsgFmt_Value parsed;
  std::string why;
  return ParseValue(v.type, word, false, &parsed, &why) && parsed.bits == v.bits;
}

bool EventMatches(const Expect &x, const EventSeen &e) {
  if (x.cls != "*" && x.cls != e.msg.className) return false;
  if (fnmatch(x.pattern.c_str(), e.msg.id.c_str(), 0) != 0) return false;
  if (x.anyArgs) return true;
  if (x.args.size() != e.msg.args.size()) return false;
  for (size_t i = 0; i < x.args.size(); ++i) {
    if (!ArgMatches(x.args[i], e.msg.args[i])) return false;
  }
  return true;
}

bool InWindow(const Expect &x, double t) { return t >= x.from && t <= x.to; }

std::string Stamped(double t, const std::string &text) {
  char buf[32];
  snprintf(buf, sizeof buf, "%7.3f ", t);
  return buf + text;
}

// One verdict: whether it held, where ("" or " (at T s)") and what came instead.
struct Verdict {
  bool pass = false;
  char at[64] = "";
  std::vector<std::string> instead;
  void At(double t) { snprintf(at, sizeof at, " (at %.3f s)", t); }
};

void JudgeEvent(const Expect &x, const RunRecord &rec, std::vector<bool> *used, Verdict *v) {
  for (size_t k = 0; k < rec.events.size() && !v->pass; ++k) {
    if (!(*used)[k] && InWindow(x, rec.events[k].t) && EventMatches(x, rec.events[k])) {
      (*used)[k] = v->pass = true;
      v->At(rec.events[k].t);
    }
  }
  if (v->pass) return;
  for (const EventSeen &e : rec.events) v->instead.push_back(Stamped(e.t, EventText(e)));
  if (v->instead.empty()) v->instead.push_back("no event at all");
}

void JudgeNoEvent(const Expect &x, const RunRecord &rec, Verdict *v) {
  v->pass = true;
  for (const EventSeen &e : rec.events) {
    if (InWindow(x, e.t) && fnmatch(x.pattern.c_str(), e.msg.id.c_str(), 0) == 0) {
      v->pass = false;
      v->instead.push_back(Stamped(e.t, EventText(e)));
    }
  }
}

void JudgeLog(const Expect &x, const RunRecord &rec, Verdict *v) {
  for (const auto &l : rec.logs) {
    if (InWindow(x, l.first) && l.second.find(x.pattern) != std::string::npos) {
      v->pass = true;
      v->At(l.first);
      return;
    }
  }
  for (const auto &l : rec.logs) {
    if (InWindow(x, l.first)) v->instead.push_back(Stamped(l.first, l.second));
  }
  if (v->instead.empty()) v->instead.push_back("no log line in the window");
}

void JudgeExit(const Expect &x, const RunRecord &rec, Verdict *v) {
  int st = rec.status;
  v->pass = rec.exited && (x.exitSignal ? WIFSIGNALED(st) && WTERMSIG(st) == x.exitCode
                                        : WIFEXITED(st) && WEXITSTATUS(st) == x.exitCode);
  if (!v->pass)
    v->instead.push_back(rec.exited ? "tevd ended with " + StatusText(st) : "tevd did not end");
}

}  // namespace

int JudgeExpectations(const Scenario &sc, const RunRecord &rec) {
  std::vector<bool> used(rec.events.size(), false);
  int failed = 0;
  for (size_t i = 0; i < sc.expects.size(); ++i) {
    const Expect &x = sc.expects[i];
    Verdict v;
    switch (x.kind) {
      case Expect::Event: JudgeEvent(x, rec, &used, &v); break;
      case Expect::NoEvent: JudgeNoEvent(x, rec, &v); break;
      case Expect::Log: JudgeLog(x, rec, &v); break;
      case Expect::File:
        v.pass = rec.fileHit[i] >= 0;
        if (v.pass) v.At(rec.fileHit[i]);
        else v.instead.push_back("platform/" + x.pattern + " was " + rec.fileLast[i]);
        break;
      case Expect::Exit: JudgeExit(x, rec, &v); break;
    }
    if (!v.pass) ++failed;
    printf("  %s  line %d: %s%s\n", v.pass ? "PASS" : "FAIL", x.line, x.text.c_str(), v.at);
    for (size_t k = 0; k < v.instead.size() && k < 12; ++k) {
      printf("        %s %s\n", k == 0 ? "got:" : "    ", v.instead[k].c_str());
    }
  }
  return failed;
}

bool HasExitExpect(const Scenario &sc) {
  for (const Expect &x : sc.expects) {
    if (x.kind == Expect::Exit) return true;
  }
  return false;
}

std::string StatusText(int status) {
  if (WIFEXITED(status)) return "exit status " + std::to_string(WEXITSTATUS(status));
  if (WIFSIGNALED(status)) {
    return "signal " + std::to_string(WTERMSIG(status)) + " (" + strsignal(WTERMSIG(status)) + ")";
  }
  return "status " + std::to_string(status);
}

}  // namespace scenario
}  // namespace tevctl
