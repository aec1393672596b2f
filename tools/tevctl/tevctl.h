// tevctl: the operator's and tester's tool for a tevd host. One binary with a
// sub-command per job (post, sink, trace, log, host, selftest). Every command
// works under the root prefix (TEVD_ROOT or --root DIR), reports failures as a
// single line "tevctl CMD: reason" on stderr with a non-zero status, and
// flushes its stdout after every line so that scripts and tests can follow it.
//
// This header holds what the commands share: the option parser (the tools'
// one, ToolOptions.h, with tevctl's syntax and messages), error reporting,
// number parsing and output. Sockets, paths, the host model and
// JSON escaping are the platform's (PlatformSocket.h, PlatformRoot.h, Qprob.h).
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "MsgFmt.h"
#include "PlatformSocket.h"
#include "Qprob.h"

namespace tevctl {

// Prints "tevctl CMD: reason" on stderr (one line) and returns 1, so that a
// command can `return Fail(...)`.
int Fail(const char *cmd, const char *format, ...) __attribute__((format(printf, 2, 3)));

// Options come first, positional arguments after them: parsing stops at the
// first word that is not an option (or after "--"), so values such as "-5" can
// follow an identifier. "--name=value" and "--name value" are both accepted.
// "--root DIR" is known to every command and sets TEVD_ROOT. "-h" is "--help".
struct OptionDef {
  const char *name;  // without the leading "--"
  bool takesValue;
};
struct ParsedArgs {
  std::map<std::string, std::string> opts;  // flags map to ""
  std::vector<std::string> positional;
  bool Has(const std::string &name) const { return opts.count(name) != 0; }
  std::string Get(const std::string &name, const std::string &dflt = "") const;
};
// False with `why` on an unknown option or a missing value.
bool ParseArgs(const std::vector<std::string> &args, const std::vector<OptionDef> &options,
               ParsedArgs *out, std::string *why);
// The opening every command shares: its options parsed into `out`, "--help"
// printing `usage`. kGoOn when the command goes on, else the status to exit
// with (0 after the usage, Fail's on a bad option).
constexpr int kGoOn = -1;
int OpenCommand(const char *cmd, const std::vector<std::string> &args,
                const std::vector<OptionDef> &options, const char *usage, ParsedArgs *out);

// Strict number parsing of a whole word: decimal (signed types may carry '-')
// or "0x" hexadecimal, which gives the bit pattern of the width (so
// "0xdeadbeef" is a valid int32). False on junk, emptiness or overflow.
// Reads the optional --count (positive) and --timeout (seconds) of a
// listening command; 0 when both are sound, else Fail's status. Absent
// options leave 0.
int CountAndTimeout(const char *cmd, const ParsedArgs &pa, uint64_t *count, uint64_t *timeout);
bool ParseI64(const std::string &s, int bits, int64_t *out);
bool ParseU64(const std::string &s, int bits, uint64_t *out);
bool ParseDouble(const std::string &s, double *out);
// A typed argument value from its text, for one MsgFmt type (1..6). A string
// "NULL" becomes a null string only when `nullStrings` is set.
bool ParseValue(uint32_t type, const std::string &text, bool nullStrings, MsgFmt_Value *out,
                std::string *why);
const char *TypeName(uint32_t type);

// Root-relative absolute path ("/var/run/x" -> "$TEVD_ROOT/var/run/x").
std::string RootPath(const std::string &absolute);
// True when TEVD_ROOT is set and not empty.
bool HaveRoot();
std::string DirName(const std::string &path);

// Waits for `fd` to become readable for at most `timeoutMs` (-1: forever).
// 1 readable, 0 timed out, -1 error.
int WaitReadable(int fd, int timeoutMs);
// Milliseconds of a monotonic clock.
int64_t NowMs();
// Microseconds since the epoch (real-time clock).
uint64_t NowUs();

// Writes a whole line plus "\n" to stdout and flushes.
void PrintLine(const std::string &line);

// The commands. `args` excludes the command's own name.
int CmdPost(const std::vector<std::string> &args);
int CmdMetrics(const std::vector<std::string> &args);
int CmdStatus(const std::vector<std::string> &args);
int CmdSink(const std::vector<std::string> &args);
int CmdTrace(const std::vector<std::string> &args);
int CmdLog(const std::vector<std::string> &args);
int CmdHost(const std::vector<std::string> &args);
int CmdSelftest(const std::vector<std::string> &args);
int CmdFwd(const std::vector<std::string> &args);
int CmdEvents(const std::vector<std::string> &args);

}  // namespace tevctl
