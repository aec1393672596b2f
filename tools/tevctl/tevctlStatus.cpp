// tevctl status: one screen on the pipeline's health, or one JSON object
// (--json), from the counters files of tevd and its companions. A part whose
// file is absent is "not running"; one whose file names a process that is
// gone is "not running (stale counters)" and its numbers are not shown. The
// forwarder adds a line per replica it cannot reach, and each is a problem.
#include <cmath>
#include <cstdio>
#include <ctime>
#include <map>

#include "tevctl.h"
#include "tevctlMetrics.h"

namespace tevctl {

namespace {

const char kUsage[] =
    "Usage: tevctl status [--json]\n"
    "Says whether tevd runs (pid, uptime), its main counters and retry list, and\n"
    "the same for tevnet and tevfwd where they run (tevfwd: its replicas up and\n"
    "down, the spool, the firing alerts by severity). Exit status 1 when something\n"
    "is wrong: tevd not running, a companion that died (it left its counters\n"
    "file), events waiting for retry or abandoned, posts dropped, an Alertmanager\n"
    "replica that did not answer tevfwd's last attempt.\n";

struct Part {
  const char *program;
  // (label, metric summed over its labels) shown for a live part.
  std::vector<std::pair<const char *, const char *>> shown;
  // Metrics whose non-zero value is a problem.
  std::vector<std::pair<const char *, const char *>> problems;
};

const Part kParts[] = {
    {"tevd",
     {{"observations read", "tevd_observations_read_total"},
      {"handled", "tevd_observations_handled_total"},
      {"problems", "tevd_events_posted_total{class=\"problem\"}"},
      {"audits", "tevd_events_posted_total{class=\"audit\"}"},
      {"clears", "tevd_events_posted_total{class=\"clear\"}"},
      {"retry list", "tevd_events_retry_list_length"},
      {"abandoned", "tevd_events_abandoned_total"},
      {"rate-limited", "tevd_events_rate_limited_total"},
      {"malformed", "tevd_records_malformed_total"},
      {"refused", "tevd_records_refused_total"},
      {"log lines dropped", "tevd_log_lines_dropped_total"}},
     {{"events wait for retry (the management agent does not take them)",
       "tevd_events_retry_list_length"},
      {"events were abandoned", "tevd_events_abandoned_total"}}},
    {"tevnet",
     {{"NICs watched", "tevnet_nics_watched"},
      {"transitions posted", "tevnet_transitions_posted_total"},
      {"posts dropped", "tevnet_posts_dropped_total"}},
     {{"tevnet dropped posts", "tevnet_posts_dropped_total"}}},
    {"tevfwd",
     {{"replicas up", "tevfwd_replica_up"},
      {"spooled", "tevfwd_spool_alerts"},
      {"active alerts", "tevfwd_active_alerts"}},
     {{"alerts tevfwd dropped (spool full or refused)", "tevfwd_alerts_dropped_total"}}},
};

std::string Uptime(double seconds) {
  long s = seconds > 0 ? static_cast<long>(seconds) : 0;
  char buf[64];
  if (s >= 86400) {
    snprintf(buf, sizeof buf, "%ldd%02ldh%02ldm", s / 86400, s % 86400 / 3600, s % 3600 / 60);
  } else {
    snprintf(buf, sizeof buf, "%ldh%02ldm%02lds", s / 3600, s % 3600 / 60, s % 60);
  }
  return buf;
}

// The value of one row: an exact sample when the name carries labels, else
// the sum over the metric's label sets.
double Value(const CountersFile &f, const char *metric) {
  std::string m = metric;
  return m.find('{') != std::string::npos ? f.Get(m) : f.Sum(m);
}

std::string Number(double v) {
  char buf[48];
  snprintf(buf, sizeof buf, "%.0f", v);
  return buf;
}

// The forwarder's replicas and firing alerts beyond the summed rows: the
// severities, and each replica that did not answer its last attempt, which
// is a problem (alerts wait for it in the spool).
void ForwarderDetail(const CountersFile &f, bool json, std::string *out,
                     std::vector<std::string> *problems) {
  std::map<std::string, double> waiting, age;
  for (const auto &kv : f.ByLabel("tevfwd_replica_queue_alerts")) waiting[kv.first] = kv.second;
  for (const auto &kv : f.ByLabel("tevfwd_replica_queue_age_seconds")) age[kv.first] = kv.second;
  std::string severities, replicas, down;
  for (const auto &kv : f.ByLabel("tevfwd_active_alerts")) {
    const char *sep = severities.empty() ? "" : json ? "," : ", ";
    severities += json ? sep + ("\"" + Qprob_JsonEscape(kv.first) + "\":" + Number(kv.second))
                       : sep + kv.first + " " + Number(kv.second);
  }
  size_t nDown = 0;
  for (const auto &kv : f.ByLabel("tevfwd_replica_up")) {
    const std::string &url = kv.first;
    const bool up = kv.second > 0;
    replicas += std::string(replicas.empty() ? "" : ",") + "{\"replica\":\"" +
                Qprob_JsonEscape(url) + "\",\"up\":" + (up ? "true" : "false") +
                ",\"waiting\":" + Number(waiting[url]) + ",\"oldest_seconds\":" + Number(age[url]) +
                "}";
    if (up) continue;
    ++nDown;
    std::string why = "tevfwd cannot reach " + url + " (its last attempt failed; " +
                      Number(waiting[url]) + " alert(s) wait for it, the oldest " +
                      Number(age[url]) + " s)";
    down += "       DOWN " + url + ": " + Number(waiting[url]) + " alert(s) waiting, the oldest " +
            Number(age[url]) + " s\n";
    problems->push_back(why);
  }
  if (json) {
    *out += ",\"replicas down\":" + std::to_string(nDown) + ",\"active by severity\":{" +
            severities + "},\"replicas\":[" + replicas + "]";
  } else {
    *out += "       firing by severity: " + severities + "\n" + down;
  }
}

// One program's part of --json: {"state":..} with its counters when it runs.
void PartJson(const Part &part, const CountersFile &f, const char *state, double up,
              std::string *out, std::vector<std::string> *problems) {
  const std::string name = part.program;
  *out += "\"" + name + "\":{\"state\":\"" + state + "\"";
  if (f.live) {
    *out += ",\"pid\":" + std::to_string(f.pid) + ",\"uptime_seconds\":" + Number(up);
    for (const auto &row : part.shown) {
      *out += ",\"" + std::string(row.first) + "\":" + Number(Value(f, row.second));
    }
    if (name == "tevfwd") ForwarderDetail(f, true, out, problems);
  }
  *out += "}";
}

// One program's lines: its state, then its counters when it runs, wrapped
// before 80 columns.
void PartText(const Part &part, const CountersFile &f, double up, std::string *out,
              std::vector<std::string> *problems) {
  const std::string name = part.program;
  char head[160];
  if (f.live) {
    snprintf(head, sizeof head, "%-7s running, pid %ld, up %s", part.program, f.pid,
             Uptime(up).c_str());
  } else if (f.present) {
    snprintf(head, sizeof head,
             "%-7s NOT RUNNING (pid %ld is gone; its last counters are "
             "not shown)",
             part.program, f.pid);
  } else if (f.lockedWithoutFile) {
    snprintf(head, sizeof head, "%-7s running, but writes no counters file (see tevctl %s)",
             part.program, name == "tevfwd" ? "fwd" : "log");
  } else {
    snprintf(head, sizeof head, "%-7s not running", part.program);
  }
  *out += head;
  *out += "\n";
  if (!f.live) return;
  std::string line = "       ";
  for (size_t i = 0; i < part.shown.size(); ++i) {
    std::string item =
        std::string(part.shown[i].first) + " " + Number(Value(f, part.shown[i].second));
    if (line.size() + item.size() + 2 > 79) {
      *out += line + "\n";
      line = "       ";
    }
    line += (line.size() > 7 ? ", " : "") + item;
  }
  *out += line + "\n";
  if (name == "tevfwd") ForwarderDetail(f, false, out, problems);
}

// Every program's part, in the order of kParts.
void Parts(bool json, std::string *out, std::vector<std::string> *problems) {
  const double now = static_cast<double>(time(nullptr));
  bool firstPart = true;
  for (const Part &part : kParts) {
    CountersFile f = ReadCountersFile(part.program);
    const std::string name = part.program;
    const char *state = f.live                ? "running"
                        : f.present           ? "stale"
                        : f.lockedWithoutFile ? "running without counters"
                                              : "not running";
    if (name == "tevd" && !f.live) {
      problems->push_back(f.present ? "tevd is not running (its counters file is stale)"
                                    : "tevd is not running");
    } else if (f.present && !f.live) {
      problems->push_back(name + " is not running (pid " + std::to_string(f.pid) +
                          " left its counters file)");
    }
    double up = now - f.Get(name + "_start_time_seconds", now);
    if (json) {
      if (!firstPart) *out += ",";
      PartJson(part, f, state, up, out, problems);
    } else {
      PartText(part, f, up, out, problems);
    }
    firstPart = false;
    if (f.live) {
      for (const auto &p : part.problems) {
        if (Value(f, p.second) > 0) problems->push_back(Number(Value(f, p.second)) + " " + p.first);
      }
    }
  }
}

}  // namespace

int CmdStatus(const std::vector<std::string> &args) {
  const char *cmd = "status";
  ParsedArgs pa;
  if (int rc = OpenCommand(cmd, args, {{"json", false}}, kUsage, &pa); rc != kGoOn) return rc;
  if (!pa.positional.empty()) return Fail(cmd, "takes no arguments (try --help)");
  const bool json = pa.Has("json");
  std::vector<std::string> problems;
  std::string out = json ? "{" : "";
  Parts(json, &out, &problems);
  if (json) {
    out += ",\"problems\":[";
    for (size_t i = 0; i < problems.size(); ++i) {
      out += std::string(i > 0 ? "," : "") + "\"" + Qprob_JsonEscape(problems[i]) + "\"";
    }
    out += "]}\n";
  } else if (problems.empty()) {
    out += "ok\n";
  } else {
    for (const std::string &p : problems) out += "PROBLEM: " + p + "\n";
  }
  fputs(out.c_str(), stdout);
  fflush(stdout);
  return problems.empty() ? 0 : 1;
}

}  // namespace tevctl
