// tevctl metrics: every live daemon's counters in Prometheus' text format,
// read from the files the daemons rewrite under var/run/orlan/metrics/. A
// file whose writer is gone is left out (and named on standard error): a dead
// daemon's last counters must not pass for live ones.
#include "tevctlMetrics.h"

#include <dirent.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "tevctl.h"

namespace tevctl {

double CountersFile::Get(const std::string &key, double dflt) const {
  auto it = samples.find(key);
  return it != samples.end() ? it->second : dflt;
}

double CountersFile::Sum(const std::string &name) const {
  double total = 0;
  for (const auto &s : samples) {
    if (s.first == name || s.first.compare(0, name.size() + 1, name + "{") == 0) {
      total += s.second;
    }
  }
  return total;
}

std::vector<std::pair<std::string, double>> CountersFile::ByLabel(const std::string &name) const {
  std::vector<std::pair<std::string, double>> out;
  for (auto it = samples.lower_bound(name + "{"); it != samples.end(); ++it) {
    const std::string &key = it->first;
    if (key.compare(0, name.size() + 1, name + "{") != 0) break;
    size_t open = key.find("=\"");
    if (open == std::string::npos) continue;
    std::string value;  // unescaped: \\, \" and \n
    for (size_t i = open + 2; i < key.size() && key[i] != '"'; ++i) {
      if (key[i] == '\\' && i + 1 < key.size()) {
        ++i;
        value += key[i] == 'n' ? '\n' : key[i];
      } else {
        value += key[i];
      }
    }
    out.emplace_back(value, it->second);
  }
  return out;
}

namespace {

// With a lock file (var/run/orlan/PROGRAM.lock, flocked by the running
// program for its life): whether process `pid` holds that lock now, as
// /proc/locks lists it (any process for `pid` 0). Read, never taken: a probe lock could make a daemon
// that starts at that moment refuse to run. -1 when there is no lock file.
int HoldsLock(long pid, const std::string &program) {
  struct stat st;
  if (stat(RootPath("/var/run/orlan/" + program + ".lock").c_str(), &st) != 0) return -1;
  char inode[64];
  snprintf(inode, sizeof inode, ":%llu ", static_cast<unsigned long long>(st.st_ino));
  std::ifstream locks("/proc/locks");
  for (std::string line; std::getline(locks, line);) {
    std::istringstream f(line);
    std::string n, kind, mode, access, owner, where;
    f >> n >> kind >> mode >> access >> owner >> where;
    if (kind == "FLOCK" && (pid == 0 || owner == std::to_string(pid)) &&
        (where + " ").find(inode) != std::string::npos) {
      return 1;
    }
  }
  return 0;
}

// True when `pid` runs a program called `program` (the kernel's short name
// starts with it: tevd-selftest writes tevd's file) and, where the program
// keeps a lock file, holds that lock.
bool Runs(long pid, const std::string &program) {
  if (pid <= 0 || (kill(static_cast<pid_t>(pid), 0) != 0 && errno != EPERM)) {
    return false;
  }
  // "PID (NAME) STATE ...": a zombie has ended and no longer writes.
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  std::getline(stat, line);
  size_t open = line.find('(');
  size_t close = line.rfind(')');
  if (open == std::string::npos || close == std::string::npos || close + 2 >= line.size()) {
    return false;
  }
  std::string name = line.substr(open + 1, close - open - 1);
  return line[close + 2] != 'Z' && name.compare(0, program.size(), program) == 0 &&
         HoldsLock(pid, program) != 0;
}

const char kUsage[] =
    "Usage: tevctl metrics\n"
    "Prints the counters of tevd and of the companions that run (tevnet, tevfwd)\n"
    "in Prometheus' text format, from var/run/orlan/metrics/*.prom under the root.\n"
    "A file left by a program that no longer runs is skipped with a note on\n"
    "standard error. Exit status 1 when no program's counters are live.\n";

}  // namespace

CountersFile ReadCountersFile(const std::string &program) {
  CountersFile f;
  f.program = program;
  f.path = RootPath(std::string(kMetricsDir) + "/" + program + ".prom");
  std::ifstream in(f.path);
  if (!in) {
    f.lockedWithoutFile = HoldsLock(0, program) == 1;
    return f;
  }
  std::stringstream all;
  all << in.rdbuf();
  f.text = all.str();
  f.present = true;
  std::istringstream lines(f.text);
  std::string line;
  while (std::getline(lines, line)) {
    if (line.empty() || line[0] == '#') continue;
    size_t sp = line.rfind(' ');
    if (sp == std::string::npos) continue;
    f.samples[line.substr(0, sp)] = strtod(line.c_str() + sp + 1, nullptr);
  }
  f.pid = static_cast<long>(f.Get(program + "_pid"));
  f.live = Runs(f.pid, program);
  return f;
}

int ProgramLockHeld(const std::string &program) { return HoldsLock(0, program); }

std::vector<std::string> CountersPrograms() {
  std::vector<std::string> names;
  DIR *d = opendir(RootPath(kMetricsDir).c_str());
  if (d == nullptr) return names;
  while (struct dirent *e = readdir(d)) {
    std::string n = e->d_name;
    if (n.size() > 5 && n.compare(n.size() - 5, 5, ".prom") == 0) {
      names.push_back(n.substr(0, n.size() - 5));
    }
  }
  closedir(d);
  std::sort(names.begin(), names.end(), [](const std::string &a, const std::string &b) {
    return (a != "tevd") < (b != "tevd") || ((a != "tevd") == (b != "tevd") && a < b);
  });
  return names;
}

int CmdMetrics(const std::vector<std::string> &args) {
  const char *cmd = "metrics";
  ParsedArgs pa;
  if (int rc = OpenCommand(cmd, args, {}, kUsage, &pa); rc != kGoOn) return rc;
  if (!pa.positional.empty()) return Fail(cmd, "takes no arguments (try --help)");
  int live = 0;
  for (const std::string &program : CountersPrograms()) {
    CountersFile f = ReadCountersFile(program);
    if (!f.present) continue;
    if (!f.live) {
      fprintf(stderr, "tevctl metrics: skipped %s: %s (pid %ld) no longer runs\n", f.path.c_str(),
              program.c_str(), f.pid);
      continue;
    }
    fputs(f.text.c_str(), stdout);
    ++live;
  }
  fflush(stdout);
  if (live == 0)
    return Fail(cmd, "no live counters under %s (is tevd running?)", RootPath(kMetricsDir).c_str());
  return 0;
}

}  // namespace tevctl
