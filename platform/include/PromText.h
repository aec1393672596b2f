// The counters files of tevd and its companions
// (var/run/orlan/metrics/PROGRAM.prom) in Prometheus' text exposition
// format, version 0.0.4: one builder, so the three programs write the same
// HELP/TYPE lines and escape label values alike. docs/metrics.md.
#pragma once

#include <cstdint>
#include <string>

class PromText {
 public:
  // "# HELP name help" and "# TYPE name type" ("counter", "gauge").
  void Family(const char *name, const char *type, const char *help);
  // One sample; `labels` is "" or as Labels() makes it.
  void Sample(const char *name, const std::string &labels, uint64_t value);
  // A family of one sample without labels.
  void One(const char *name, const char *type, const char *help, uint64_t value);
  // {key="value"}, the value escaped (backslash, double quote, newline).
  static std::string Labels(const char *key, const std::string &value);
  const std::string &text() const { return text_; }

 private:
  std::string text_;
};

// Writes `text` to `relPath` under the root through a temporary name and a
// rename (PlatformRoot_ReplaceFile); 0 or errno.
int PromText_WriteFile(const char *relPath, const std::string &text);
