// tevctl scenario: what a run recorded, and the judge that holds it against
// the expectations once the daemon has stopped.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "Qprob.h"
#include "tevctlScenario.h"

namespace tevctl {
namespace scenario {

struct EventSeen {
  double t;
  QprobMessage msg;
};

// What the judge looks at; the runner owns all of it.
struct RunRecord {
  const std::vector<EventSeen> &events;
  const std::vector<std::pair<double, std::string>> &logs;
  const std::vector<double> &fileHit;        // per expectation: first time the value was seen (-1)
  const std::vector<std::string> &fileLast;  // per expectation: the last value read
  bool exited;
  int status;
};

// Prints a PASS or FAIL line per expectation, with what came instead of a
// failed one; returns how many failed.
int JudgeExpectations(const Scenario &sc, const RunRecord &rec);

std::string ArgsText(const std::vector<MsgFmt_Value> &args);
std::string EventText(const EventSeen &e);
std::string StatusText(int status);
bool HasExitExpect(const Scenario &sc);

}  // namespace scenario
}  // namespace tevctl
