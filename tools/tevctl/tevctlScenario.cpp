// tevctl scenario run: parses every file first (a mistake anywhere stops the
// run before a daemon starts), then plays them one after another, each under
// its own private root. Exit status: 0 all passed, 1 an expectation or the
// run failed, 2 a scenario could not be parsed or tevd was not found.
// `scenario check` only parses; `scenario record` is in
// tevctlScenarioRecord.cpp.
#include <climits>
#include <cstdio>
#include <cstdlib>

#include <sys/stat.h>
#include <unistd.h>

#include "tevctl.h"
#include "tevctlScenario.h"

namespace tevctl {

namespace {

const char kUsage[] =
    "Usage: tevctl scenario run [--tevd PATH] [--keep] FILE...\n"
    "       tevctl scenario check FILE...\n"
    "       tevctl scenario record [--from-trace FILE] [-o FILE] ... (record --help)\n"
    "Plays each scenario file against a fresh tevd under a private root and\n"
    "prints each expectation PASS/FAIL and the timeline of observations in and\n"
    "events out. Exits 1 when anything failed, 2 on a bad scenario.\n"
    "  --tevd PATH  the daemon (default: tevd built next to tevctl)\n"
    "  --keep       leave each root in place for inspection\n"
    "check parses the files and reports mistakes without running anything;\n"
    "record turns a daemon's trace into a scenario.\n"
    "The format is described in docs/scenarios.md.\n";

bool Executable(const std::string &p) {
  struct stat st;
  return stat(p.c_str(), &st) == 0 && S_ISREG(st.st_mode) && access(p.c_str(), X_OK) == 0;
}

// The build tree has tools/tevctl/tevctl and apps/tevd/tevd; the package has
// /usr/bin/tevctl and /usr/sbin/tevd; a plain install may have both in one
// directory.
std::string FindTevd() {
  char self[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n <= 0) return "";
  self[n] = '\0';
  std::string dir = DirName(self);
  for (const std::string &c :
       {dir + "/../../apps/tevd/tevd", dir + "/../sbin/tevd", dir + "/tevd"}) {
    if (Executable(c)) return c;
  }
  return "";
}

}  // namespace

// `scenario check FILE...`: parses every file and reports each one.
int CheckFiles(const std::vector<std::string> &positional) {
  if (positional.size() < 2) return Fail("scenario", "check needs at least one FILE (try --help)");
  std::vector<std::string> errors;
  for (size_t i = 1; i < positional.size(); ++i) {
    scenario::Scenario sc;
    size_t before = errors.size();
    if (scenario::Parse(positional[i], &sc, &errors) && errors.size() == before) {
      printf("%s: ok (%zu steps, %zu expectations, ends at %.3f s)\n", sc.file.c_str(),
             sc.steps.size(), sc.expects.size(), sc.end);
    }
  }
  fflush(stdout);
  for (const std::string &e : errors) fprintf(stderr, "%s\n", e.c_str());
  return errors.empty() ? 0 : 2;
}

int CmdScenario(const std::vector<std::string> &args) {
  const char *cmd = "scenario";
  ParsedArgs lead;
  std::string why;
  if (!ParseArgs(args, {}, &lead, &why)) return Fail(cmd, "%s", why.c_str());
  if (lead.Has("help") || lead.positional.empty()) {
    fputs(kUsage, lead.Has("help") ? stdout : stderr);
    return lead.Has("help") ? 0 : 2;
  }
  if (lead.positional[0] == "record") {
    return CmdScenarioRecord(
        std::vector<std::string>(lead.positional.begin() + 1, lead.positional.end()));
  }
  if (lead.positional[0] == "check") return CheckFiles(lead.positional);
  if (lead.positional[0] != "run") {
    return Fail(cmd, "unknown sub-command \"%s\" (try --help)", lead.positional[0].c_str());
  }
  std::vector<std::string> rest(lead.positional.begin() + 1, lead.positional.end());
  ParsedArgs pa;
  if (int rc = OpenCommand(cmd, rest, {{"tevd", true}, {"keep", false}}, kUsage, &pa);
      rc != kGoOn) {
    return rc;
  }
  if (pa.positional.empty()) return Fail(cmd, "run needs at least one FILE (try --help)");

  std::vector<scenario::Scenario> all(pa.positional.size());
  std::vector<std::string> errors;
  for (size_t i = 0; i < pa.positional.size(); ++i)
    scenario::Parse(pa.positional[i], &all[i], &errors);
  if (!errors.empty()) {
    fflush(stdout);
    for (const std::string &e : errors) fprintf(stderr, "%s\n", e.c_str());
    fprintf(stderr, "tevctl scenario: %zu error%s, nothing was run\n", errors.size(),
            errors.size() == 1 ? "" : "s");
    return 2;
  }

  scenario::RunOptions opts;
  opts.keep = pa.Has("keep");
  opts.tevd = pa.Has("tevd") ? pa.Get("tevd") : FindTevd();
  if (opts.tevd.empty() || !Executable(opts.tevd)) {
    Fail(cmd, "no tevd at \"%s\" (give --tevd PATH)", opts.tevd.c_str());
    return 2;
  }
  // The runner lays each root down itself; do not let a caller's root leak in.
  std::string oldRoot = getenv("TEVD_ROOT") ? getenv("TEVD_ROOT") : "";
  size_t passed = 0;
  for (const scenario::Scenario &sc : all) {
    if (scenario::Run(sc, opts)) ++passed;
  }
  if (oldRoot.empty()) unsetenv("TEVD_ROOT");
  else setenv("TEVD_ROOT", oldRoot.c_str(), 1);
  printf("%zu of %zu scenario%s passed\n", passed, all.size(), all.size() == 1 ? "" : "s");
  fflush(stdout);
  return passed == all.size() ? 0 : 1;
}

}  // namespace tevctl
