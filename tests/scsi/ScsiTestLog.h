// Reads the daemon's log lines in tests: with TEVD_ROOT set, TevdLog sends each
// line as one datagram to $TEVD_ROOT/dev/log, so binding that socket lets a
// test see exactly what a handler logged.
#pragma once

#include <string>
#include <vector>

namespace scsitest {

class LogSink {
 public:
  explicit LogSink(const std::string &root);   // binds ROOT/dev/log
  ~LogSink();
  // Every line received since the last call, without the syslog header, the
  // time prefix and the trailing newline.
  std::vector<std::string> Take();
  // Moves pending datagrams into the taken-later list; call it after each
  // observation, as the socket queues only a few datagrams and the daemon
  // drops lines that do not fit.
  void Pump();
  // True when one of the lines taken or pending equals `message` (compared
  // without its trailing newline).
  bool Saw(const std::string &message);
  // True when a line ends with `suffix` (e.g. "] " + an event's text).
  bool SawEnding(const std::string &suffix);
  // The lines that are not observation lines ("[thread] Nus: [id] msg").
  std::vector<std::string> TakeDiagnostics();

 private:
  int fd_ = -1;
  std::string path_;
  std::vector<std::string> seen_;
};

}  // namespace scsitest
