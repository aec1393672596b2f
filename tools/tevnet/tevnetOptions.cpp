// tevnet's command line: its usage text and its options, read with the
// tools' one parser (ToolOptions.h).
#include <cstdio>
#include <cstdlib>

#include "ToolOptions.h"
#include "tevdVersion.h"
#include "tevnet.h"

namespace tevnet {

namespace {

const char kUsage[] =
    "Usage: tevnet [--include PATTERN]... [--exclude PATTERN]... [--enforce[=all]]\n"
    "              [--flap-quiet SECONDS] [--domain N] [--once]\n"
    "Posts the link state of this host's physical NICs, and the uplink transitions\n"
    "of the port groups of its Linux bridges and bonds, to tevd under TEVD_ROOT\n"
    "(default /), and keeps the host model's network part current.\n"
    "  --include PATTERN  watch the Ethernet interfaces whose name matches (shell\n"
    "                     pattern; repeatable, or a comma-separated list), veth and\n"
    "                     tap ends too; default: those with a device behind them\n"
    "  --exclude PATTERN  never watch NICs whose name matches (repeatable, or a list)\n"
    "  --enforce          when tevd writes 1 to a NIC's linkFlapping node, set the NIC\n"
    "                     administratively down (needs CAP_NET_ADMIN); 0 brings it up.\n"
    "                     Refused (and logged) when no other uplink of the NIC's switch\n"
    "                     has carrier, or when the NIC is no switch's uplink.\n"
    "  --enforce=all      the same without that refusal: can cut off a host reached\n"
    "                     over the NIC\n"
    "  --flap-quiet SECONDS  write 0 to a linkFlapping node of 1 once its NIC has not\n"
    "                     changed for this long (default 300; 0: only by hand); not\n"
    "                     while the NIC is administratively down\n"
    "  --domain N         asynchronous context to post to (0..21, default 0)\n"
    "  --once             post the current state of every NIC and exit\n"
    "  --help, --version\n"
    "Without --enforce a link-flapping verdict is only logged.\n"
    "SIGHUP writes the host model's network part afresh from the link table; SIGUSR1\n"
    "logs the switches and uplinks seen. SIGTERM or SIGINT stops. One tevnet per\n"
    "root: a second one refuses to start (var/run/orlan/tevnet.lock).\n";

// A whole decimal number up to `max`; false for anything else ("", "1x", "-1").
bool ParseUpTo(const std::string &v, unsigned long max, unsigned long *out) {
  char *end = nullptr;
  *out = strtoul(v.c_str(), &end, 10);
  return !v.empty() && *end == '\0' && *out <= max;
}

// Each word an option, "--name value" or "--name=value".
const std::vector<toolopt::Option> kOptions = {
    {"--help", toolopt::Takes::Nothing},       {"-h", toolopt::Takes::Nothing},
    {"--version", toolopt::Takes::Nothing},    {"--once", toolopt::Takes::Nothing},
    {"--enforce", toolopt::Takes::InlineOnly}, {"--include", toolopt::Takes::Value},
    {"--exclude", toolopt::Takes::Value},      {"--flap-quiet", toolopt::Takes::Value},
    {"--domain", toolopt::Takes::Value},
};

// One option: false, with the exit status, to stop (after --help and
// --version too).
bool TakeOption(const std::string &name, const std::string *value, Options *opts, int *exitCode) {
  const std::string v = value != nullptr ? *value : "";
  unsigned long n = 0;
  *exitCode = 2;
  if (name == "--help" || name == "-h" || name == "--version") {
    printf("tevnet %s\n%s", TEVD_VERSION, name == "--version" ? "" : kUsage);
    *exitCode = 0;
    return false;
  } else if (name == "--once") {
    opts->once = true;
  } else if (name == "--enforce") {
    if (value != nullptr && v != "all") {
      fprintf(stderr, "tevnet: unknown option \"--enforce=%s\" (try --help)\n", v.c_str());
      return false;
    }
    opts->enforce = value != nullptr ? 2 : 1;
  } else if (name == "--include" || name == "--exclude") {
    std::vector<std::string> &to = name == "--include" ? opts->include : opts->exclude;
    for (size_t start = 0, comma; start <= v.size(); start = comma + 1) {
      comma = v.find(',', start);
      if (comma == std::string::npos) comma = v.size();
      if (comma > start) to.push_back(v.substr(start, comma - start));
    }
  } else if (name == "--flap-quiet") {
    if (!ParseUpTo(v, 86400 * 7, &n)) {
      fprintf(stderr, "tevnet: --flap-quiet must be 0..604800 seconds, not \"%s\"\n", v.c_str());
      return false;
    }
    opts->flapQuietSec = static_cast<int>(n);
  } else if (name == "--domain") {
    if (!ParseUpTo(v, 21, &n)) {
      fprintf(stderr, "tevnet: --domain must be 0..21, not \"%s\"\n", v.c_str());
      return false;
    }
    opts->domain = static_cast<uint32_t>(n);
  }
  return true;
}

}  // namespace

bool ParseOptions(int argc, char **argv, Options *opts, int *exitCode) {
  toolopt::Syntax syntax;
  syntax.inlineValues = true;
  toolopt::Problem problem;
  auto take = [&](const toolopt::Option &o, const std::string *value) {
    return TakeOption(o.name, value, opts, exitCode);
  };
  toolopt::Outcome outcome = toolopt::ParseMain(argc, argv, kOptions, syntax, take, &problem);
  if (outcome == toolopt::Outcome::Bad) {
    // A value missing or unwanted makes the word one tevnet does not know.
    fprintf(stderr, "tevnet: unknown option \"%s\" (try --help)\n", problem.word.c_str());
    *exitCode = 2;
  }
  return outcome == toolopt::Outcome::Done;
}

}  // namespace tevnet
