// tevctl entry: the command table, global options and the helpers every
// command shares (see tevctl.h). A new command is one row of kCommands.
#include "tevctl.h"

#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <poll.h>
#include <unistd.h>

#include "PlatformRoot.h"
#include "ToolOptions.h"
#include "tevctlScenario.h"
#include "tevdVersion.h"

namespace tevctl {

int Fail(const char *cmd, const char *format, ...) {
  char text[1024];
  va_list ap;
  va_start(ap, format);
  vsnprintf(text, sizeof text, format, ap);
  va_end(ap);
  // One line, whatever the reason contains.
  for (char *p = text; *p; ++p) {
    if (*p == '\n' || *p == '\r') *p = ' ';
  }
  fflush(stdout);
  fprintf(stderr, "tevctl%s%s: %s\n", *cmd ? " " : "", cmd, text);
  return 1;
}

std::string ParsedArgs::Get(const std::string &name, const std::string &dflt) const {
  auto it = opts.find(name);
  return it == opts.end() ? dflt : it->second;
}

bool ParseArgs(const std::vector<std::string> &args, const std::vector<OptionDef> &options,
               ParsedArgs *out, std::string *why) {
  std::vector<OptionDef> all = options;
  all.push_back({"root", true});
  all.push_back({"help", false});
  // The table holds the spellings; the map is keyed by the bare name.
  std::vector<std::string> spelled;
  spelled.reserve(all.size());
  for (const OptionDef &o : all) spelled.push_back(std::string("--") + o.name);
  std::vector<toolopt::Option> table;
  table.reserve(all.size() + 1);
  for (size_t k = 0; k < all.size(); ++k) {
    table.push_back(
        {spelled[k].c_str(), all[k].takesValue ? toolopt::Takes::Value : toolopt::Takes::Nothing});
  }
  table.push_back({"-h", toolopt::Takes::Nothing});
  toolopt::Syntax syntax;
  syntax.inlineValues = true;
  syntax.positionals = true;
  auto keep = [out](const toolopt::Option &o, const std::string *value) {
    std::string name = o.name;
    out->opts[name == "-h" ? "help" : name.substr(2)] = value != nullptr ? *value : "";
    return true;
  };
  toolopt::Problem problem;
  size_t first = 0;
  if (toolopt::Parse(args, table, syntax, keep, &problem, &first) != toolopt::Outcome::Done) {
    switch (problem.kind) {
      case toolopt::Problem::Unknown:
        *why = "unknown option " + problem.name + " (try --help)";
        break;
      case toolopt::Problem::MissingValue:
        *why = "option " + problem.name + " needs a value";
        break;
      default: *why = "option " + problem.name + " takes no value"; break;
    }
    return false;
  }
  out->positional.insert(out->positional.end(), args.begin() + static_cast<long>(first),
                         args.end());
  if (out->Has("root")) {
    if (out->Get("root").empty()) {
      *why = "--root needs a directory";
      return false;
    }
    setenv("TEVD_ROOT", out->Get("root").c_str(), 1);
  }
  return true;
}

int OpenCommand(const char *cmd, const std::vector<std::string> &args,
                const std::vector<OptionDef> &options, const char *usage, ParsedArgs *out) {
  std::string why;
  if (!ParseArgs(args, options, out, &why)) return Fail(cmd, "%s", why.c_str());
  if (out->Has("help")) {
    fputs(usage, stdout);
    return 0;
  }
  return kGoOn;
}

static bool SplitHex(const std::string &s, std::string *digits) {
  if (s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X')) {
    *digits = s.substr(2);
    return true;
  }
  return false;
}

static bool AllOf(const std::string &s, const char *set) {
  return !s.empty() && s.find_first_not_of(set) == std::string::npos;
}

bool ParseU64(const std::string &s, int bits, uint64_t *out) {
  std::string digits;
  int base = 10;
  if (SplitHex(s, &digits)) {
    if (!AllOf(digits, "0123456789abcdefABCDEF")) return false;
    base = 16;
  } else {
    digits = s;
    if (!AllOf(digits, "0123456789")) return false;
  }
  errno = 0;
  unsigned long long v = strtoull(digits.c_str(), nullptr, base);
  if (errno == ERANGE) return false;
  if (bits < 64 && v > ((1ull << bits) - 1)) return false;
  *out = v;
  return true;
}

bool ParseI64(const std::string &s, int bits, int64_t *out) {
  std::string digits;
  if (SplitHex(s, &digits)) {
    uint64_t pattern;
    if (!ParseU64(s, bits, &pattern)) return false;
    // The bit pattern of the width, sign-extended.
    if (bits < 64 && (pattern & (1ull << (bits - 1)))) pattern |= ~((1ull << bits) - 1);
    *out = static_cast<int64_t>(pattern);
    return true;
  }
  size_t start = (!s.empty() && s[0] == '-') ? 1 : 0;
  if (!AllOf(s.substr(start), "0123456789")) return false;
  errno = 0;
  long long v = strtoll(s.c_str(), nullptr, 10);
  if (errno == ERANGE) return false;
  if (bits < 64) {
    long long lo = -(1ll << (bits - 1)), hi = (1ll << (bits - 1)) - 1;
    if (v < lo || v > hi) return false;
  }
  *out = v;
  return true;
}

bool ParseDouble(const std::string &s, double *out) {
  if (s.empty() || isspace(static_cast<unsigned char>(s[0]))) return false;
  char *end = nullptr;
  errno = 0;
  double v = strtod(s.c_str(), &end);
  if (end == nullptr || *end != '\0' || errno == ERANGE) return false;
  *out = v;
  return true;
}

const char *TypeName(uint32_t type) {
  switch (type) {
    case MSGFMT_TYPE_INT32: return "int32";
    case MSGFMT_TYPE_INT64: return "int64";
    case MSGFMT_TYPE_UINT32: return "uint32";
    case MSGFMT_TYPE_UINT64: return "uint64";
    case MSGFMT_TYPE_DOUBLE: return "double";
    case MSGFMT_TYPE_STRING: return "string";
    default: return "unknown";
  }
}

bool ParseValue(uint32_t type, const std::string &text, bool nullStrings, MsgFmt_Value *out,
                std::string *why) {
  int64_t i = 0;
  uint64_t u = 0;
  double d = 0;
  bool ok = true;
  switch (type) {
    case MSGFMT_TYPE_INT32:
      if ((ok = ParseI64(text, 32, &i))) *out = MsgFmt_Value::I32(static_cast<int32_t>(i));
      break;
    case MSGFMT_TYPE_INT64:
      if ((ok = ParseI64(text, 64, &i))) *out = MsgFmt_Value::I64(i);
      break;
    case MSGFMT_TYPE_UINT32:
      if ((ok = ParseU64(text, 32, &u))) *out = MsgFmt_Value::U32(static_cast<uint32_t>(u));
      break;
    case MSGFMT_TYPE_UINT64:
      if ((ok = ParseU64(text, 64, &u))) *out = MsgFmt_Value::U64(u);
      break;
    case MSGFMT_TYPE_DOUBLE:
      if ((ok = ParseDouble(text, &d))) *out = MsgFmt_Value::Dbl(d);
      break;
    case MSGFMT_TYPE_STRING:
      *out = (nullStrings && text == "NULL") ? MsgFmt_Value::NullStr() : MsgFmt_Value::Str(text);
      break;
    default: *why = "unsupported argument type " + std::to_string(type); return false;
  }
  if (!ok) *why = "\"" + text + "\" is not a valid " + TypeName(type);
  return ok;
}

std::string RootPath(const std::string &absolute) { return PlatformRoot_Path(absolute); }

bool HaveRoot() {
  const char *r = getenv("TEVD_ROOT");
  return r != nullptr && *r != '\0';
}

std::string DirName(const std::string &path) {
  size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

int WaitReadable(int fd, int timeoutMs) {
  pollfd p = {fd, POLLIN, 0};
  for (;;) {
    int rc = poll(&p, 1, timeoutMs);
    if (rc < 0 && errno == EINTR) continue;
    if (rc < 0) return -1;
    return rc == 0 ? 0 : 1;
  }
}

int64_t NowMs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

uint64_t NowUs() {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
}

void PrintLine(const std::string &line) {
  fwrite(line.data(), 1, line.size(), stdout);
  fputc('\n', stdout);
  fflush(stdout);
}

int CountAndTimeout(const char *cmd, const ParsedArgs &pa, uint64_t *count, uint64_t *timeout) {
  *count = 0;
  *timeout = 0;
  if (pa.Has("count") && (!ParseU64(pa.Get("count"), 32, count) || *count == 0)) {
    return Fail(cmd, "--count needs a positive number, not \"%s\"", pa.Get("count").c_str());
  }
  if (pa.Has("timeout") && !ParseU64(pa.Get("timeout"), 31, timeout)) {
    return Fail(cmd, "--timeout needs seconds, not \"%s\"", pa.Get("timeout").c_str());
  }
  return 0;
}

}  // namespace tevctl

namespace {

int CmdVersion(const std::vector<std::string> &args) {
  if (args.size() == 1 && (args[0] == "--help" || args[0] == "-h")) {
    puts(
        "Usage: tevctl version\nPrints \"tevctl\" and the version shared by tevd and its companions.");
    return 0;
  }
  if (!args.empty()) return tevctl::Fail("version", "takes no arguments");
  printf("tevctl %s\n", TEVD_VERSION);
  return 0;
}

struct Command {
  const char *name;
  const char *summary;
  int (*run)(const std::vector<std::string> &args);
};

const Command kCommands[] = {
    {"post", "post one observation record to a context of the daemon", tevctl::CmdPost},
    {"sink", "stand in for the management agent: print each event as JSON", tevctl::CmdSink},
    {"trace", "print the daemon's trace history and live trace lines", tevctl::CmdTrace},
    {"log", "collect the daemon's log datagrams from dev/log under the root", tevctl::CmdLog},
    {"host", "create and edit the host model under the root", tevctl::CmdHost},
    {"selftest", "post the self-test observation sequence", tevctl::CmdSelftest},
    {"scenario", "play scenario files against a fresh tevd and check the events",
     tevctl::CmdScenario},
    {"fwd", "print the counters of tevfwd, the forwarder to Alertmanager", tevctl::CmdFwd},
    {"events", "list the events tevd can post: severity, resolution, what to check",
     tevctl::CmdEvents},
    {"metrics", "print the live daemons' counters in Prometheus' text format", tevctl::CmdMetrics},
    {"status", "say whether tevd and its companions run, with their main counters",
     tevctl::CmdStatus},
    {"version", "print the version of tevctl and tevd", CmdVersion},
};

void Usage(FILE *to) {
  fprintf(to, "tevctl " TEVD_VERSION
              "\n"
              "Usage: tevctl [--root DIR] COMMAND [options] [arguments]\n"
              "All paths resolve under DIR, else under $TEVD_ROOT, else under /.\n"
              "Commands:\n");
  for (const Command &c : kCommands) fprintf(to, "  %-9s %s\n", c.name, c.summary);
  fprintf(to, "Run 'tevctl COMMAND --help' for a command's options.\n");
}

}  // namespace

int main(int argc, char **argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  tevctl::ParsedArgs global;
  std::string why;
  if (!tevctl::ParseArgs(args, {}, &global, &why)) return tevctl::Fail("", "%s", why.c_str());
  if (global.Has("help")) {
    Usage(stdout);
    return 0;
  }
  if (global.positional.empty()) {
    Usage(stderr);
    return 2;
  }
  std::string name = global.positional[0];
  std::vector<std::string> rest(global.positional.begin() + 1, global.positional.end());
  for (const Command &c : kCommands) {
    if (name == c.name) return c.run(rest);
  }
  return tevctl::Fail(name.c_str(), "unknown command (try tevctl --help)");
}
