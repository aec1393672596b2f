// tevfwd's command line: its usage text and its options.
#include "tevfwdOptions.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "ToolOptions.h"
#include "tevdVersion.h"

namespace tevfwd {

namespace {

const char kUsage[] =
    "Usage: tevfwd --alertmanager URL [--alertmanager URL...] [OPTIONS]\n"
    "Listens on var/run/orlan/marshd-qprob.sock under TEVD_ROOT as tevd's management\n"
    "agent; posts problems as alerts to every URL (the replicas of one Alertmanager\n"
    "cluster, POST /api/v2/alerts); recoveries resolve them (see tevd-events(7)).\n"
    "  --alertmanager URL   an Alertmanager, e.g. http://127.0.0.1:9093 (repeatable)\n"
    "  --audits             forward audit events too, as short-lived severity=info alerts\n"
    "  --resend SEC         re-send firing alerts every SEC seconds (default 60)\n"
    "  --lifetime SEC       end a firing alert whose clear never came after SEC (86400)\n"
    "  --audit-lifetime SEC life of an audit or one-shot alert (default 300)\n"
    "  --runbook-url URL    annotation runbook_url: URL followed by the event identifier\n"
    "  --spool DIR          spool directory (default /var/lib/tevfwd under TEVD_ROOT)\n"
    "  --spool-max BYTES    spool size limit, oldest dropped first (default 16777216)\n"
    "  --active-max N       firing alerts kept for re-sending (default 20000)\n"
    "  --retry-max SEC      longest wait between attempts to a failing URL (default 10)\n"
    "  --timeout SEC        time limit of one HTTP request (default 5)\n"
    "  --once               send what the spool holds, then exit (0: all delivered)\n"
    "  --help, --version\n"
    "SIGUSR1 prints the counters (received, sent, resolved, spooled, dropped) on\n"
    "standard error; they are also in var/run/orlan/tevfwd-counters.json, updated\n"
    "every second ('tevctl fwd' prints them), and for Prometheus, with each replica's\n"
    "state, in var/run/orlan/metrics/tevfwd.prom every 2 s ('tevctl metrics').\n"
    "SIGHUP is logged and ignored (nothing to reload: options come from the command\n"
    "line). SIGTERM or SIGINT stops.\n"
    "One tevfwd per root: a second one refuses to start (var/run/orlan/tevfwd.lock).\n";

bool ParseSeconds(const char *s, int64_t *out) {
  char *end = nullptr;
  errno = 0;
  long long v = strtoll(s, &end, 10);
  if (errno != 0 || end == s || *end != '\0' || v <= 0 || v > 100LL * 365 * 86400) return false;
  *out = v;
  return true;
}

// Each word an option, "--name value" only.
const std::vector<toolopt::Option> kOptions = {
    {"--help", toolopt::Takes::Nothing},         {"-h", toolopt::Takes::Nothing},
    {"--version", toolopt::Takes::Nothing},      {"--alertmanager", toolopt::Takes::Value},
    {"--audits", toolopt::Takes::Nothing},       {"--once", toolopt::Takes::Nothing},
    {"--resend", toolopt::Takes::Value},         {"--lifetime", toolopt::Takes::Value},
    {"--audit-lifetime", toolopt::Takes::Value}, {"--retry-max", toolopt::Takes::Value},
    {"--timeout", toolopt::Takes::Value},        {"--spool", toolopt::Takes::Value},
    {"--runbook-url", toolopt::Takes::Value},    {"--spool-max", toolopt::Takes::Value},
    {"--active-max", toolopt::Takes::Value},
};

// One option. -1 to go on, else the exit status (0 after --help or
// --version, 2 for a bad value).
int TakeOption(const std::string &a, const std::string *value, CommandLine *cl) {
  Options &opt = cl->opt;
  const char *v = value != nullptr ? value->c_str() : "";
  int64_t secs = 0;
  auto seconds = [&](int64_t *out) {
    if (ParseSeconds(v, out)) return true;
    fprintf(stderr, "tevfwd: %s wants a positive whole number, not \"%s\"\n", a.c_str(), v);
    return false;
  };
  if (a == "--help" || a == "-h" || a == "--version") {
    printf("tevfwd %s\n%s", TEVD_VERSION, a == "--version" ? "" : kUsage);
    return 0;
  }
  bool ok = true;
  if (a == "--alertmanager") {
    opt.alertmanagers.push_back(v);
  } else if (a == "--audits") {
    opt.audits = true;
  } else if (a == "--once") {
    cl->once = true;
  } else if (a == "--resend" || a == "--lifetime" || a == "--audit-lifetime") {
    ok = seconds(&secs);
    (a == "--resend"     ? opt.resendMs
     : a == "--lifetime" ? opt.lifetimeMs
                         : opt.auditLifetimeMs) = secs * 1000;
  } else if (a == "--retry-max") {
    ok = seconds(&cl->retryMaxSec);
  } else if (a == "--timeout") {
    ok = seconds(&cl->timeoutSec);
  } else if (a == "--spool" || a == "--runbook-url") {
    (a == "--spool" ? cl->spool : opt.runbookUrl) = v;
  } else if (a == "--spool-max" || a == "--active-max") {
    ok = seconds(&secs);
    if (a == "--spool-max") opt.spoolMaxBytes = static_cast<uint64_t>(secs);
    else opt.activeMax = static_cast<size_t>(secs);
  }
  return ok ? -1 : 2;
}

}  // namespace

int ParseCommandLine(int argc, char **argv, CommandLine *cl) {
  int rc = -1;
  auto take = [&](const toolopt::Option &o, const std::string *value) {
    rc = TakeOption(o.name, value, cl);
    return rc < 0;
  };
  toolopt::Problem problem;
  switch (toolopt::ParseMain(argc, argv, kOptions, toolopt::Syntax(), take, &problem)) {
    case toolopt::Outcome::Stopped: return rc;
    case toolopt::Outcome::Bad:
      if (problem.kind == toolopt::Problem::MissingValue) {
        fprintf(stderr, "tevfwd: %s needs a value (try --help)\n", problem.word.c_str());
      } else {
        fprintf(stderr, "tevfwd: unknown option \"%s\" (try --help)\n", problem.word.c_str());
      }
      return 2;
    case toolopt::Outcome::Done: break;
  }
  if (cl->opt.alertmanagers.empty()) {
    fprintf(stderr, "tevfwd: give at least one --alertmanager URL (try --help)\n");
    return 2;
  }
  if (cl->opt.alertmanagers.size() > 32) {
    fprintf(stderr, "tevfwd: at most 32 --alertmanager URLs\n");
    return 2;
  }
  return -1;
}

}  // namespace tevfwd
