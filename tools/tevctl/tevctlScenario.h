// tevctl scenario: what the parser hands the runner. A scenario is the host
// model to lay down, a timeline of steps played in real time from t = 0 (the
// moment the daemon is ready), and expectations checked against what the
// daemon sent, logged and wrote. Everything is checked when parsed, so a bad
// scenario is reported before a daemon is started. docs/scenarios.md has the
// format.
#pragma once

#include <cstdint>
#include <istream>
#include <string>
#include <vector>

#include "MsgFmt.h"

namespace tevctl {
namespace scenario {

// One timed action. `repeat` > 1 plays it again every `every` seconds.
struct Step {
  enum Kind { Post, Host, AgentStop, AgentStart } kind = Post;
  int line = 0;
  double at = 0;
  int repeat = 1;
  double every = 0;
  // Post
  bool user = false;
  unsigned domain = 0;
  std::string id, format, message;
  std::vector<MsgFmt_Value> values;
  // Host: the words after "host", as `tevctl host` takes them.
  std::vector<std::string> words;
};

struct Expect {
  enum Kind { Event, NoEvent, Log, File, Exit } kind = Event;
  int line = 0;
  std::string text;               // the line as written, for the report
  double from = 0, to = 0;        // window in seconds from t = 0
  std::string cls;                // Event: problem|audit|clear|*
  std::string pattern;            // Event/NoEvent: identifier (glob); Log: text; File: REL
  std::vector<std::string> args;  // Event: argument words ("*" matches any)
  bool anyArgs = true;            // Event: no argument words given
  std::string value;              // File: expected content
  int exitCode = 0;               // Exit: status, or signal when `exitSignal`
  bool exitSignal = false;
};

struct Scenario {
  std::string file;
  std::vector<std::vector<std::string>> setup;  // "host" lines, words after "host"
  std::vector<std::string> tevdArgs;
  std::vector<std::string> tevdEnv;  // NAME=VALUE
  std::vector<Step> steps;           // sorted by time when parsed
  std::vector<Expect> expects;
  double end = 0;  // when the daemon is stopped
};

// Reads and checks `path`. False with "FILE:LINE: reason" lines in `errors`.
bool Parse(const std::string &path, Scenario *out, std::vector<std::string> *errors);
// Splits a line into words: blanks separate, "..." and '...' quote (with \"
// and \\ inside double quotes), '#' outside quotes starts a comment.
bool SplitWords(const std::string &line, std::vector<std::string> *words, std::string *why);

struct RunOptions {
  std::string tevd;   // daemon binary
  bool keep = false;  // leave the root in place
};
// Plays one scenario and prints its report. True when every expectation held.
bool Run(const Scenario &sc, const RunOptions &opts);

// Trace lines ("SECONDS.NANOSECONDS,IN|OUT,STAMP,ID,{,ARG}") as the
// recorder reads them. Integers keep their decimal text; "???" (a type the
// trace does not print) is Unknown.
struct TraceArg {
  enum Kind { Integer, String, Unknown } kind = Integer;
  std::string text;
};
struct TraceLine {
  int64_t wallNs = 0;  // the wall-clock time the daemon traced it
  bool in = true;
  uint64_t stamp = 0;
  std::string id;
  std::vector<TraceArg> args;
};
enum class TraceParse { Ok, More, Bad };
// More: a quoted argument is still open (a newline inside a string).
TraceParse ParseTraceLine(const std::string &line, TraceLine *out, std::string *why);

struct RecordOptions {
  double early = 1.0;  // an event's window opens this long before its traced moment
  double late = 1.5;   // and closes this long after it
  std::string setup;   // text put at the head of the scenario (host, tevd lines)
};
// Writes the scenario for the trace read from `in` into `text`. Skipped
// lines and a summary go to `notes`. False when no trace line was read.
bool Record(std::istream &in, const std::string &source, const RecordOptions &opts,
            std::string *text, std::vector<std::string> *notes);

}  // namespace scenario
int CmdScenarioRecord(const std::vector<std::string> &args);
int CmdScenario(const std::vector<std::string> &args);
}  // namespace tevctl
