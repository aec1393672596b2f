// tevctl selftest: the user-space half of the daemon's self-test. It posts the
// marker-delimited observation sequence that the self-test correlator checks
// row by row: rows 0..8, an empty corrupt-record window, rows 9..20, the end
// marker. All records travel over one user-level connection so that they
// arrive in the order posted. Rows 9..20 stand for records whose format was
// corrupt in the producer; their finished messages are given literally here.
#include <cerrno>
#include <cstring>

#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include "TevRecord.h"
#include "tevctl.h"

namespace tevctl {

namespace {

const char kUsage[] =
    "Usage: tevctl selftest [--force] [--delay-ms MS] [--wait SEC] [--settle-ms MS]\n"
    "Posts the self-test sequence to the user-level context of the daemon\n"
    "(run tevd-selftest, the daemon built with the self-test agents; it prints\n"
    "PASS/FAIL lines and exits with the number of failures).\n"
    "  --delay-ms MS  pause between two posts\n"
    "  --wait SEC     retry connecting for up to SEC seconds while tevd starts\n"
    "  --settle-ms MS with --wait, pause MS (default 300) after connecting so\n"
    "                 that a starting daemon's agents subscribe first\n"
    "  --force        post even without a root (--root DIR or TEVD_ROOT): the\n"
    "                 records then reach the host's own daemon\n";

struct Row {
  const char *id;
  const char *message;
  std::vector<MsgFmt_Value> args;
};

using V = MsgFmt_Value;

const char kLong[] = "some looong long long long long long string";

// Rows 0..8, checked with their arguments.
std::vector<Row> AsyncRows() {
  return {
      {"tev.tests.async.noData", "this is an observation with no data", {}},
      {"tev.tests.async.withPath",
       "this is an observation with a complicated /a/fake/path${path} path.",
       {V::Str("/a/fake/path")}},
      {"tev.tests.async.withLog", "this is an ob with an associated Log message.", {}},
      {"tev.tests.async.withWarn", "this is an ob with an associated Warn message.", {}},
      {"tev.tests.async.withIntParams",
       "this is an observation with integer parameters. -559038737, deadbeef, "
       "-2401053088876216593",
       {V::I32(-559038737), V::U32(0xdeadbeefu), V::I64(-2401053088876216593ll)}},
      {"tev.tests.async.withUintParams",
       "this is an observation with unsigned integer parameters. 3735928559, deadbeef, "
       "16045690984833335023",
       {V::U32(3735928559u), V::U32(0xdeadbeefu), V::U64(16045690984833335023ull)}},
      {"tev.tests.async.withStringParams",
       "this is an observation with a string parameter: some string",
       {V::Str("some string")}},
      {"tev.tests.async.withLongStringParam",
       "this is an observation with a string parameter: some looong long long long long long "
       "string",
       {V::Str(kLong)}},
      {"tev.tests.async.withLongStringParams",
       "this is an observation with a string parameter: some looong long long long long long "
       "string and another: some string",
       {V::Str(kLong), V::Str("some string")}},
  };
}

// Rows 9..20: the integer arguments are the 0 that each message starts with.
std::vector<Row> CorruptRows() {
  return {
      {"tev.tests.corrupt.format.empty", "", {}},
      {"tev.tests.corrupt.format.doublepercent", "%", {}},
      {"tev.tests.corrupt.format.s.zeros", "", {V::Str("")}},
      {"tev.tests.corrupt.format.s.zero3", "000", {V::Str("000")}},
      {"tev.tests.corrupt.format.tag.invalid1", "0${", {V::I32(0)}},
      {"tev.tests.corrupt.format.tag.invalid2", "0${asdf", {V::I32(0)}},
      {"tev.tests.corrupt.format.tag.nestedInval", "0${a0{df}", {V::I32(0), V::I32(0)}},
      {"tev.tests.corrupt.format.tag.ugly", "0${009__.asdf}", {V::I32(0)}},
      {"tev.tests.corrupt.format.tag.vugly", "0${009__.asdf=bar=baz=foof}", {V::I32(0)}},
      {"tev.tests.corrupt.format.tag.assign.inval", "0${=invalid}", {V::I32(0)}},
      {"tev.tests.corrupt.format.tag.notreally", "%${ignore}", {}},
      {"tev.tests.corrupt.format.tag.notreally2", "%${=ignore}", {}},
  };
}

Row Marker(const char *id) { return {id, "", {}}; }

// The whole sequence. `rows` keeps only the first N table rows; `injectCorrupt`
// puts one observation inside the corrupt window (the correlator must count it
// as a failure). Both exist to test the correlator's failure paths.
std::vector<Row> Sequence(size_t rows, bool injectCorrupt) {
  std::vector<Row> table = AsyncRows();
  std::vector<Row> corrupt = CorruptRows();
  size_t asyncCount = table.size();
  table.insert(table.end(), corrupt.begin(), corrupt.end());
  if (rows < table.size()) table.resize(rows);

  std::vector<Row> seq = {Marker("tev.tests.marker.start")};
  for (size_t i = 0; i < table.size() && i < asyncCount; ++i) seq.push_back(table[i]);
  seq.push_back(Marker("tev.tests.marker.corruptions.start"));
  if (injectCorrupt) {
    seq.push_back({"tev.tests.corrupt.injected",
                   "this observation must not get through during the corrupt window",
                   {V::I32(1)}});
  }
  seq.push_back(Marker("tev.tests.marker.corruptions.end"));
  for (size_t i = asyncCount; i < table.size(); ++i) seq.push_back(table[i]);
  seq.push_back(Marker("tev.tests.marker.end"));
  return seq;
}

void PauseMs(uint64_t ms) {
  struct timespec pause = {static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
  nanosleep(&pause, nullptr);
}

// Connects, retrying for up to `waitMs` while the daemon is not yet listening.
int ConnectWithRetry(const std::string &path, int64_t waitMs) {
  int64_t deadline = NowMs() + waitMs;
  for (;;) {
    int fd = PlatformSocket_Connect(path, SOCK_SEQPACKET);
    if (fd >= 0 || (errno != ENOENT && errno != ECONNREFUSED) || NowMs() >= deadline) return fd;
    PauseMs(20);
  }
}

}  // namespace

int CmdSelftest(const std::vector<std::string> &args) {
  const char *cmd = "selftest";
  ParsedArgs pa;
  if (int rc = OpenCommand(cmd, args,
                           {{"delay-ms", true},
                            {"wait", true},
                            {"settle-ms", true},
                            {"rows", true},
                            {"inject-corrupt", false},
                            {"force", false}},
                           kUsage, &pa);
      rc != kGoOn) {
    return rc;
  }
  if (!pa.positional.empty()) return Fail(cmd, "takes no arguments (try --help)");
  // The sequence is 25 test records: into a production daemon they are noise
  // in its log and trace, so the host's own daemon takes them only on demand.
  if (!HaveRoot() && !pa.Has("force")) {
    return Fail(cmd,
                "no root given: the test records would go to the host's own tevd; give "
                "--root DIR (a daemon started under that root) or --force");
  }
  uint64_t delayMs = 0, waitSec = 0, rows = 21, settleMs = 300;
  if (pa.Has("delay-ms") && !ParseU64(pa.Get("delay-ms"), 31, &delayMs)) {
    return Fail(cmd, "--delay-ms needs milliseconds, not \"%s\"", pa.Get("delay-ms").c_str());
  }
  if (pa.Has("wait") && !ParseU64(pa.Get("wait"), 20, &waitSec)) {
    return Fail(cmd, "--wait needs seconds, not \"%s\"", pa.Get("wait").c_str());
  }
  if (pa.Has("settle-ms") && !ParseU64(pa.Get("settle-ms"), 31, &settleMs)) {
    return Fail(cmd, "--settle-ms needs milliseconds, not \"%s\"", pa.Get("settle-ms").c_str());
  }
  if (pa.Has("rows") && (!ParseU64(pa.Get("rows"), 32, &rows) || rows > 21)) {
    return Fail(cmd, "--rows must be 0..21, not \"%s\"", pa.Get("rows").c_str());
  }

  std::string path = PlatformEndpoint_Path(PlatformEndpoint::UserContext);
  int fd = ConnectWithRetry(path, static_cast<int64_t>(waitSec) * 1000);
  if (fd < 0) {
    return Fail(cmd, "cannot connect to %s: %s (is tevd running under this root?)", path.c_str(),
                strerror(errno));
  }
  // The daemon listens before its agents have subscribed, and a record read
  // before the self-test agent subscribes reaches nobody. --wait says the
  // daemon may be starting, so give its agents a moment.
  if (pa.Has("wait")) PauseMs(settleMs);
  int status = 0;
  std::vector<Row> seq = Sequence(static_cast<size_t>(rows), pa.Has("inject-corrupt"));
  for (size_t i = 0; i < seq.size(); ++i) {
    if (i > 0 && delayMs > 0) PauseMs(delayMs);
    const Row &r = seq[i];
    std::vector<uint8_t> rec = TevRecord_Encode(r.id, r.message, NowUs(), r.args);
    ssize_t n;
    do {
      n = send(fd, rec.data(), rec.size(), MSG_NOSIGNAL);
    } while (n < 0 && errno == EINTR);
    if (n != static_cast<ssize_t>(rec.size())) {
      status = Fail(cmd, "sending %s failed: %s", r.id, n < 0 ? strerror(errno) : "short send");
      break;
    }
    PrintLine(std::string("posted ") + r.id + " (" + std::to_string(r.args.size()) + " args): \"" +
              r.message + "\"");
  }
  close(fd);
  return status;
}

}  // namespace tevctl
