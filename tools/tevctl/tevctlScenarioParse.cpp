// tevctl scenario: the parser. One line is one statement; every mistake is
// reported as "FILE:LINE: reason" and parsing goes on, so a writer sees all
// of them at once. Observations are checked the way `tevctl post` checks
// them (identifier, format, argument types), host lines the way `tevctl
// host` would need them, so nothing fails half-way through a run.
#include <algorithm>
#include <cstdio>
#include <fstream>

#include "TevRecordFormat.h"
#include "tevctl.h"
#include "tevctlScenario.h"

namespace tevctl {
namespace scenario {

bool SplitWords(const std::string &line, std::vector<std::string> *words, std::string *why) {
  size_t i = 0, n = line.size();
  while (i < n) {
    while (i < n && (line[i] == ' ' || line[i] == '\t' || line[i] == '\r')) ++i;
    if (i >= n || line[i] == '#') break;
    std::string w;
    while (i < n && line[i] != ' ' && line[i] != '\t' && line[i] != '\r') {
      char c = line[i];
      if (c == '"' || c == '\'') {
        size_t j = i + 1;
        for (; j < n && line[j] != c; ++j) {
          if (c == '"' && line[j] == '\\' && j + 1 < n) ++j;
          w += line[j];
        }
        if (j >= n) {
          *why = std::string("unterminated ") + (c == '"' ? "double" : "single") + " quote";
          return false;
        }
        i = j + 1;
      } else {
        w += c;
        ++i;
      }
    }
    words->push_back(w);
  }
  return true;
}

namespace {

struct Ctx {
  std::string file;
  int line = 0;
  std::vector<std::string> *errors;
  bool Err(const std::string &why) {
    errors->push_back(file + ":" + std::to_string(line) + ": " + why);
    return false;
  }
};

bool ParseSeconds(const std::string &s, double *out) {
  return ParseDouble(s, out) && *out >= 0 && *out < 86400;
}

// "A..B" seconds.
bool ParseWindow(Ctx &c, const std::vector<std::string> &w, size_t at, Expect *e) {
  if (at + 2 != w.size() || w[at] != "within") {
    return c.Err("expected \"within A..B\" at the end of the expectation");
  }
  const std::string &r = w[at + 1];
  size_t dots = r.find("..");
  if (dots == std::string::npos || !ParseSeconds(r.substr(0, dots), &e->from) ||
      !ParseSeconds(r.substr(dots + 2), &e->to) || e->to < e->from) {
    return c.Err("expected a window A..B in seconds (A <= B), not \"" + r + "\"");
  }
  return true;
}

// Checks a host line's words (after "host") for the runner's `tevctl host`.
bool CheckHost(Ctx &c, const std::vector<std::string> &w) {
  struct Shape {
    const char *sub;
    size_t min, max;
    const char *usage;
  };
  static const Shape kShapes[] = {
      {"set", 2, 2, "host set REL VALUE"},
      {"nic", 1, 1, "host nic NAME"},
      {"portgroup", 2, 2, "host portgroup PG SWITCH"},
      {"path", 2, 2, "host path PATH DEVICE"},
      {"device", 2, 64, "host device DEV STATUS [N=VOLUME...]"},
      {"vm", 2, 4, "host vm [--group GID] WORLDID NAME"},
  };
  if (w.empty()) return c.Err("expected a host sub-command: set, nic, portgroup, path, device, vm");
  for (const Shape &s : kShapes) {
    if (w[0] != s.sub) continue;
    size_t n = w.size() - 1;
    if (n < s.min || n > s.max) return c.Err(std::string("expected \"") + s.usage + "\"");
    if (w[0] == "set" && (w[1].find("..") != std::string::npos || w[1][0] == '/')) {
      return c.Err("host set needs a path relative to platform/ without \"..\"");
    }
    if (w[0] == "device") {
      uint64_t st;
      if (!ParseU64(w[2], 32, &st) || st > 3) return c.Err("device status must be 0..3");
      for (size_t i = 3; i < w.size(); ++i) {
        size_t eq = w[i].find('=');
        if (eq == std::string::npos || !ParseU64(w[i].substr(0, eq), 32, &st)) {
          return c.Err("partition \"" + w[i] + "\" is not N=VOLUME");
        }
      }
    }
    if (w[0] == "vm") {
      size_t first = 1;
      if (w[1] == "--group") {
        int64_t g;
        if (w.size() != 5 || !ParseI64(w[2], 64, &g))
          return c.Err("expected \"host vm --group GID WORLDID NAME\"");
        first = 3;
      } else if (w.size() != 3) {
        return c.Err(std::string("expected \"") + s.usage + "\"");
      }
      int64_t id;
      if (!ParseI64(w[first], 32, &id))
        return c.Err("world id \"" + w[first] + "\" is not a number");
    }
    return true;
  }
  return c.Err("unknown host sub-command \"" + w[0] +
               "\" (expected set, nic, portgroup, path, device or vm)");
}

// "post [--user | --domain N] [--msg TEXT] ID FORMAT ARGS..."
bool ParsePost(Ctx &c, const std::vector<std::string> &w, size_t i, Step *s) {
  for (; i < w.size() && w[i].compare(0, 2, "--") == 0; ++i) {
    if (w[i] == "--user") {
      s->user = true;
    } else if (w[i] == "--domain" && i + 1 < w.size()) {
      uint64_t d;
      if (!ParseU64(w[++i], 32, &d) || d >= TEVLIB_NUM_ASYNC_DOMAINS) {
        return c.Err("--domain must be 0.." + std::to_string(TEVLIB_NUM_ASYNC_DOMAINS - 1));
      }
      s->domain = static_cast<unsigned>(d);
    } else if (w[i] == "--msg" && i + 1 < w.size()) {
      s->message = w[++i];
    } else {
      return c.Err("unknown post option \"" + w[i] +
                   "\" (expected --user, --domain N, --msg TEXT)");
    }
  }
  if (i + 2 > w.size()) return c.Err("expected \"post [--user] ID FORMAT [ARG...]\"");
  s->id = w[i];
  s->format = w[i + 1];
  if (s->id.compare(0, 4, "tev.") != 0 || s->id.size() == 4) {
    return c.Err("unknown identifier \"" + s->id + "\": observations begin with \"tev.\"");
  }
  std::vector<uint32_t> types;
  std::string why;
  if (!MsgFmt_TypesOfFormat(s->format.c_str(), &types, &why)) {
    return c.Err("bad format \"" + s->format + "\": " + why);
  }
  size_t given = w.size() - i - 2;
  if (given != types.size()) {
    return c.Err("format \"" + s->format + "\" takes " + std::to_string(types.size()) +
                 " argument(s), " + std::to_string(given) + " given");
  }
  s->values.resize(types.size());
  for (size_t k = 0; k < types.size(); ++k) {
    if (!ParseValue(types[k], w[i + 2 + k], false, &s->values[k], &why)) {
      return c.Err("argument " + std::to_string(k + 1) + ": " + why);
    }
  }
  if (s->message.empty()) s->message = MsgFmt_FormatValues(s->format.c_str(), s->values);
  return true;
}

// "at T [repeat N every DT] (post ...|host ...|agent stop|agent start)"
bool ParseAt(Ctx &c, const std::vector<std::string> &w, Scenario *sc) {
  Step s;
  s.line = c.line;
  if (w.size() < 3 || !ParseSeconds(w[1], &s.at)) {
    return c.Err("expected \"at SECONDS ACTION\" with SECONDS a number");
  }
  size_t i = 2;
  if (w[i] == "repeat") {
    uint64_t n;
    if (i + 4 > w.size() || !ParseU64(w[i + 1], 16, &n) || n == 0 || w[i + 2] != "every" ||
        !ParseSeconds(w[i + 3], &s.every)) {
      return c.Err("expected \"repeat N every SECONDS\"");
    }
    s.repeat = static_cast<int>(n);
    i += 4;
  }
  if (i >= w.size()) return c.Err("expected an action: post, host, agent stop, agent start");
  const std::string &act = w[i];
  if (act == "post") {
    s.kind = Step::Post;
    if (!ParsePost(c, w, i + 1, &s)) return false;
  } else if (act == "host") {
    s.kind = Step::Host;
    s.words.assign(w.begin() + static_cast<long>(i) + 1, w.end());
    if (!CheckHost(c, s.words)) return false;
  } else if (act == "agent" && i + 2 == w.size() && (w[i + 1] == "stop" || w[i + 1] == "start")) {
    s.kind = w[i + 1] == "stop" ? Step::AgentStop : Step::AgentStart;
  } else {
    return c.Err("expected an action: post, host, agent stop, agent start; not \"" + act + "\"");
  }
  sc->steps.push_back(s);
  return true;
}

// "expect event CLASS ID [ARG...] within A..B".
bool ParseExpectEvent(Ctx &c, const std::vector<std::string> &w, Expect *ep) {
  Expect &e = *ep;
  e.kind = Expect::Event;
  if (w.size() < 6) return c.Err("expected \"expect event CLASS ID [ARG...] within A..B\"");
  e.cls = w[2];
  if (e.cls != "problem" && e.cls != "audit" && e.cls != "clear" && e.cls != "*") {
    return c.Err("event class must be problem, audit, clear or *, not \"" + e.cls + "\"");
  }
  e.pattern = w[3];
  if (e.pattern.compare(0, 4, "kos.") != 0) {
    return c.Err("event identifier \"" + e.pattern + "\" must begin with \"kos.\"");
  }
  size_t within = w.size() - 2;
  e.args.assign(w.begin() + 4, w.begin() + static_cast<long>(within));
  e.anyArgs = e.args.empty();
  if (e.args.size() == 1 && e.args[0] == "-") {  // "-": exactly no arguments
    e.args.clear();
    e.anyArgs = false;
  }
  return ParseWindow(c, w, within, &e);
}

bool ParseExpect(Ctx &c, const std::vector<std::string> &w, const std::string &raw, Scenario *sc) {
  Expect e;
  e.line = c.line;
  e.text = raw;
  size_t first = raw.find_first_not_of(" \t");
  if (first != std::string::npos) e.text = raw.substr(first);
  if (w.size() < 2) return c.Err("expected \"expect event|no event|log|file|exit ...\"");
  const std::string &k = w[1];
  if (k == "event") {
    if (!ParseExpectEvent(c, w, &e)) return false;
  } else if (k == "no") {
    e.kind = Expect::NoEvent;
    if (w.size() != 6 || w[2] != "event")
      return c.Err("expected \"expect no event PATTERN within A..B\"");
    e.pattern = w[3];
    if (!ParseWindow(c, w, 4, &e)) return false;
  } else if (k == "log") {
    e.kind = Expect::Log;
    if (w.size() != 5 || w[2].empty())
      return c.Err("expected \"expect log TEXT within A..B\" (quote TEXT)");
    e.pattern = w[2];
    if (!ParseWindow(c, w, 3, &e)) return false;
  } else if (k == "file") {
    e.kind = Expect::File;
    if (w.size() != 6) return c.Err("expected \"expect file REL VALUE within A..B\"");
    e.pattern = w[2];
    e.value = w[3];
    if (e.pattern.find("..") != std::string::npos || e.pattern[0] == '/') {
      return c.Err("file path must be relative to platform/ without \"..\"");
    }
    if (!ParseWindow(c, w, 4, &e)) return false;
  } else if (k == "exit") {
    e.kind = Expect::Exit;
    int64_t v;
    if (w.size() != 3) return c.Err("expected \"expect exit STATUS\" (a number or signal N)");
    std::string s = w[2];
    if (s.compare(0, 6, "signal") == 0) {
      e.exitSignal = true;
      s = s.substr(6);
      if (!s.empty() && (s[0] == ':' || s[0] == '=')) s = s.substr(1);
    }
    if (!ParseI64(s, 32, &v) || v < 0 || v > 255) {
      return c.Err("expected an exit status 0..255 or signalN, not \"" + w[2] + "\"");
    }
    e.exitCode = static_cast<int>(v);
    for (const Expect &o : sc->expects) {
      if (o.kind == Expect::Exit) return c.Err("only one \"expect exit\" per scenario");
    }
  } else {
    return c.Err("expected event, no event, log, file or exit after \"expect\", not \"" + k + "\"");
  }
  sc->expects.push_back(e);
  return true;
}

bool ParseLine(Ctx &c, const std::string &raw, Scenario *sc) {
  std::vector<std::string> w;
  std::string why;
  if (!SplitWords(raw, &w, &why)) return c.Err(why);
  if (w.empty()) return true;
  const std::string &k = w[0];
  if (k == "host") {
    std::vector<std::string> rest(w.begin() + 1, w.end());
    if (!CheckHost(c, rest)) return false;
    sc->setup.push_back(rest);
    return true;
  }
  if (k == "at") return ParseAt(c, w, sc);
  if (k == "expect") return ParseExpect(c, w, raw, sc);
  if (k == "tevd") {
    if (w.size() < 3 || (w[1] != "args" && w[1] != "env")) {
      return c.Err("expected \"tevd args WORD...\" or \"tevd env NAME=VALUE...\"");
    }
    for (size_t i = 2; i < w.size(); ++i) {
      if (w[1] == "env" && w[i].find('=') == std::string::npos) {
        return c.Err("expected NAME=VALUE, not \"" + w[i] + "\"");
      }
      (w[1] == "args" ? sc->tevdArgs : sc->tevdEnv).push_back(w[i]);
    }
    return true;
  }
  if (k == "end") {
    if (w.size() != 2 || !ParseSeconds(w[1], &sc->end)) return c.Err("expected \"end SECONDS\"");
    return true;
  }
  return c.Err("expected host, at, expect, tevd or end at the start of the line, not \"" + k +
               "\"");
}

}  // namespace

bool Parse(const std::string &path, Scenario *out, std::vector<std::string> *errors) {
  Ctx c;
  c.file = path;
  c.errors = errors;
  std::ifstream in(path);
  if (!in) {
    errors->push_back(path + ": cannot be read");
    return false;
  }
  out->file = path;
  std::string raw;
  bool explicitEnd = false;
  while (std::getline(in, raw)) {
    ++c.line;
    double before = out->end;
    ParseLine(c, raw, out);
    if (out->end != before) explicitEnd = true;
  }
  if (!errors->empty()) return false;
  std::stable_sort(out->steps.begin(), out->steps.end(),
                   [](const Step &a, const Step &b) { return a.at < b.at; });
  // Without "end", stop after the last step and the last window, plus slack.
  double last = 0;
  for (const Step &s : out->steps) last = std::max(last, s.at + (s.repeat - 1) * s.every);
  for (const Expect &e : out->expects) last = std::max(last, e.to);
  if (!explicitEnd) {
    out->end = last + 0.5;
  } else if (out->end < last) {
    c.line = 0;
    errors->push_back(path + ": \"end " + std::to_string(out->end) +
                      "\" comes before the last step or window (" + std::to_string(last) + " s)");
    return false;
  }
  return true;
}

}  // namespace scenario
}  // namespace tevctl
