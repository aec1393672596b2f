// tevctl scenario: the runner's state, shared by the file that plays the
// timeline and the one that starts and stops the daemon.
#pragma once

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

#include "tevctl.h"
#include "tevctlScenario.h"
#include "tevctlScenarioJudge.h"

namespace tevctl {
namespace scenario {

struct Conn {
  int fd;
  std::string data;
};
struct Line {
  double t;
  std::string tag, text;
};

class Runner {
 public:
  Runner(const Scenario &sc, const RunOptions &opts) : sc_(sc), opts_(opts) {}
  bool Go();

 private:
  double Now() const { return static_cast<double>(NowMs() - t0_) / 1000.0; }
  void Note(const std::string &tag, const std::string &text) {
    lines_.push_back({Now(), tag, text});
  }
  bool Setup();
  bool StartDaemon();
  void Service(int timeoutMs);
  void ReadPipe(int *fd, std::string *into);
  void AgentStart();
  void AgentStop();
  void Play(const Step &s);
  void WatchFiles();
  bool DaemonGone();
  bool EndedEarly();
  void Stop();
  bool Judge();
  void Cleanup();

  const Scenario &sc_;
  const RunOptions &opts_;
  std::string root_;
  int64_t t0_ = 0;
  int agentFd_ = -1, logFd_ = -1, outFd_ = -1, errFd_ = -1;
  pid_t pid_ = -1;
  int status_ = 0;
  bool exited_ = false;
  double exitAt_ = 0;
  bool stopping_ = false;
  std::vector<Conn> conns_;
  std::vector<EventSeen> events_;
  std::vector<Line> lines_;  // the timeline: IN, OUT, LOG, HOST, AGENT, ERROR
  std::vector<std::pair<double, std::string>> logs_;
  std::string out_, err_;
  std::vector<std::string> problems_;  // run errors that fail the scenario
  std::vector<double> fileHit_;        // per expectation: first time the value was seen (-1)
  std::vector<std::string> fileLast_;
};

}  // namespace scenario
}  // namespace tevctl
