// The counters files of the daemons (var/run/orlan/metrics/NAME.prom) as
// `tevctl metrics` and `tevctl status` read them.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace tevctl {

constexpr const char *kMetricsDir = "/var/run/orlan/metrics";

struct CountersFile {
  std::string program;  // "tevd", "tevnet", "tevfwd": the file's name without .prom
  std::string path;
  std::string text;                       // the exposition text as read
  std::map<std::string, double> samples;  // "name{labels}" -> value
  long pid = 0;                           // the PROGRAM_pid sample, 0 when absent
  bool present = false;                   // the file exists and was read
  bool live = false;                      // its writer still runs
  // No file, but the program's lock is held: it runs without writing
  // counters (a version before them).
  bool lockedWithoutFile = false;
  // The value of one sample, or `dflt` when absent.
  double Get(const std::string &key, double dflt = 0) const;
  // The sum over every label set of one metric.
  double Sum(const std::string &name) const;
  // The samples of a metric with one label, as (label value, value), in the
  // order of the label values.
  std::vector<std::pair<std::string, double>> ByLabel(const std::string &name) const;
};

// Reads PROGRAM.prom under the root and checks its writer: the pid it names
// runs a program of that name.
CountersFile ReadCountersFile(const std::string &program);
// 1 when some process holds PROGRAM's lock under the root, 0 when none
// does, -1 when there is no lock file.
int ProgramLockHeld(const std::string &program);
// The programs whose files are under the root now, tevd first.
std::vector<std::string> CountersPrograms();

}  // namespace tevctl
