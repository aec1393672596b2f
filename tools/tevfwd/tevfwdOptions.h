// tevfwd's command line, read with the tools' one parser (ToolOptions.h).
#pragma once

#include <cstdint>
#include <string>

#include "tevfwdCore.h"

namespace tevfwd {

// The command line: what the forwarder is told beyond its options.
struct CommandLine {
  Options opt;
  bool once = false;
  int64_t retryMaxSec = 10, timeoutSec = 5;
  std::string spool;
};

// -1 to go on, else the exit status: 0 after --help or --version, 2 for a
// bad command line (said on standard error).
int ParseCommandLine(int argc, char **argv, CommandLine *cl);

}  // namespace tevfwd
