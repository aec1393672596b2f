// The tevctl binary: each test plays the daemon's (or the agent's, or the log's) side of a socket
// under a private root and checks the bytes or lines that cross it.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "Harness.h"
#include "TevRecord.h"

using namespace tevdtest;

namespace {

// One datagram or message within `ms`; empty when none came.
std::vector<uint8_t> Receive(int fd, int ms) {
  pollfd p = {fd, POLLIN, 0};
  std::vector<uint8_t> buf(1 << 20);
  ssize_t n = poll(&p, 1, ms) == 1 ? recv(fd, buf.data(), buf.size(), MSG_DONTWAIT) : 0;
  buf.resize(static_cast<size_t>(std::max<ssize_t>(n, 0)));
  return buf;
}

// Connects to the stream socket at `path`, sends `bytes` and hangs up.
void SendTo(const std::string &path, const std::vector<uint8_t> &bytes) {
  int fd = PlatformSocket_Connect(path, SOCK_STREAM);
  EXPECT_TRUE(SendRecord(fd, bytes));
  close(fd);
}

}  // namespace

TEST(TevctlPost, TypedArgumentsReachAsyncContextAndBadInputGetsOneLineAndSendsNothing) {
  ScratchRoot root;
  int fd = PlatformSocket_Listen(
      PlatformEndpoint_PathUnder(root.path(), PlatformEndpoint::AsyncContext), SOCK_DGRAM);
  ASSERT_GE(fd, 0);
  RunResult r = RunTevctl(root, {"post", "--ts", "1700000000123456", "tev.net.test.typed",
                                 "nic %s speed %d big %ld u %u ul %lu hex %x f %f", "hwnic0", "-5",
                                 "-9000000000", "7", "18446744073709551615", "0xdeadbeef", "1.5"});
  EXPECT_EQ(r.status, 0) << r.err;
  std::vector<uint8_t> rec = Receive(fd, 2000);
  TevRecordView v;
  ASSERT_TRUE(TevRecord_Decode(rec.data(), rec.size(), &v));
  EXPECT_EQ(v.id, "tev.net.test.typed");
  EXPECT_EQ(v.timestampUs, 1700000000123456u);
  EXPECT_EQ(v.message,
            "nic hwnic0 speed -5 big -9000000000 u 7 ul 18446744073709551615 hex deadbeef f "
            "1.500000");
  EXPECT_EQ(ArgsText(v.args),
            (std::vector<std::string>{"S:hwnic0", "I:-5", "L:-9000000000", "U:7",
                                      "UL:18446744073709551615", "U:3735928559", "D:1.5"}));
  const struct {
    std::vector<std::string> args;
    const char *reasonPart;
  } cases[] = {
      {{"post", "net.x.y", "no args"}, "must begin with \"tev.\""},
      {{"post", "tev.a.b", "%d and %s", "5"}, "takes 2 arguments, 1 given"},
      {{"post", "tev.a.b", "%d", "abc"}, "\"abc\" is not a valid int32"},
      {{"post", "tev.a.b", "%lu", "12x"}, "is not a valid uint64"},
      {{"post", "--domain", "22", "tev.a.b", "x"}, "--domain must be 0..21"},
      {{"post", "--bogus", "tev.a.b", "x"}, "unknown option --bogus"},
      {{"post", "--domain=22", "tev.a.b", "x"}, "--domain must be 0..21"},
      {{"post", "--domain"}, "option --domain needs a value"},
      {{"post", "--help=1"}, "option --help takes no value"},
      {{"post", "--", "--domain", "x"}, "must begin with \"tev.\""},  // "--" ends the options
  };
  for (const auto &c : cases) {
    r = RunTevctl(root, c.args);
    EXPECT_NE(r.status, 0) << c.reasonPart;
    EXPECT_EQ(CountOccurrences(r.err, "\n"), 1u) << r.err;
    EXPECT_EQ(r.err.rfind("tevctl post: ", 0), 0u) << r.err;
    EXPECT_TRUE(Contains(r.err, c.reasonPart));
  }
  EXPECT_TRUE(Receive(fd, 0).empty()) << "a rejected post still sent a record";
  close(fd);
}

// A qprob message built byte by byte: ts 1000, host identity at 16, total length 123 = 72 + 16
// (identifier with NUL) + 35 (a string slot, an int32 slot and "ab\0").
std::vector<uint8_t> HandBuiltQprob() {
  std::vector<uint8_t> m(123, 0);
  auto put = [&](size_t at, const char *bytes, size_t n) { memcpy(&m[at], bytes, n); };
  m[0] = 0xe8, m[1] = 3;                                // time stamp 1000 us
  put(16, "01234567-89ab-cdef-0123-456789abcdef", 37);  // host identity, NUL, 2 bytes padding
  m[56] = 123, m[60] = 2, m[64] = 16;                   // length, arguments, identifier length
  put(68, "kos.problem.t.x", 16);
  m[84] = 6, m[88] = 2, m[92] = 32;  // string of 2 characters at 32
  m[100] = 1;                        // int32 -2
  put(108, "\xfe\xff\xff\xff\xff\xff\xff\xff", 8);
  put(116, "ab", 3);
  return m;
}

TEST(TevctlSink, DecodesHandBuiltMessageAndSurvivesMalformedOnes) {
  ScratchRoot root;
  Process sink(root, TevctlBin(), {"sink", "--count", "3", "--timeout", "5"}, {}, "sink");
  std::string sock = PlatformEndpoint_PathUnder(root.path(), PlatformEndpoint::QprobAgent);
  ASSERT_TRUE(Eventually([&] { return PathExists(sock); }, 3000));
  SendTo(sock, {'n', 'o', 't', ' ', 'q', 'p', 'r', 'o', 'b'});
  ASSERT_TRUE(Eventually([&] { return !sink.Stdout().empty(); }, 2000));
  std::vector<uint8_t> truncated = HandBuiltQprob();
  truncated.resize(100);  // total length says 123
  SendTo(sock, truncated);
  SendTo(sock, HandBuiltQprob());
  ASSERT_EQ(sink.ExitCode(5000), 0) << sink.Stderr();
  std::istringstream out(sink.Stdout());
  std::string line;
  for (int i = 0; i < 2 && std::getline(out, line); ++i) {
    EXPECT_EQ(line.rfind("{\"error\":\"", 0), 0u) << line;
  }
  ASSERT_TRUE(std::getline(out, line)) << sink.Stdout();
  for (const char *part : {"\"ts\":1000", "\"class\":\"problem\"", "\"id\":\"kos.problem.t.x\"",
                           "\"host\":\"01234567-89ab-cdef-0123-456789abcdef\"", "\"ab\"", "-2"}) {
    EXPECT_TRUE(Contains(line, part));
  }
  EXPECT_LT(line.find("\"ab\""), line.find("-2")) << "arguments out of order: " << line;
  EXPECT_FALSE(std::getline(out, line)) << sink.Stdout();
}

TEST(TevctlLog, PrintsEachDatagramAsOneLineAndNeedsARoot) {
  ScratchRoot root;
  Process log(root, TevctlBin(), {"log", "--count", "2", "--timeout", "5"}, {}, "log");
  Process strip(root, TevctlBin(),
                {"--root", root.Abs("s"), "log", "--strip", "--count", "1", "--timeout", "5"},
                {"TEVD_ROOT="}, "strip");
  std::string devlog = PlatformEndpoint_PathUnder(root.path(), PlatformEndpoint::LogCollector),
              devlog2 = PlatformEndpoint_PathUnder(root.Abs("s"), PlatformEndpoint::LogCollector);
  ASSERT_TRUE(Eventually([&] { return PathExists(devlog) && PathExists(devlog2); }, 3000));
  int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const std::string line = "<14>Nov  2 03:04:05 tevd: 2024-11-02T03:04:05.678Z: Exiting. rc:0\n";
  const std::string second = "<14>Nov  2 03:04:06 tevd: second";
  auto sendTo = [&](const std::string &path, const std::string &text) {
    EXPECT_EQ(0, PlatformSocket_SendTo(fd, path, text.data(), text.size(), 0));
  };
  sendTo(devlog, line);
  sendTo(devlog, second);
  sendTo(devlog2, line);
  close(fd);
  EXPECT_EQ(log.ExitCode(3000), 0) << log.Stderr();
  EXPECT_EQ(strip.ExitCode(3000), 0) << strip.Stderr();
  EXPECT_EQ(log.Stdout(), line + second + "\n");
  EXPECT_EQ(strip.Stdout(), "2024-11-02T03:04:05.678Z: Exiting. rc:0\n");
  Process rootless(root, TevctlBin(), {"log", "--timeout", "0"}, {"TEVD_ROOT="}, "rootless");
  EXPECT_NE(rootless.ExitCode(3000), 0);
  EXPECT_TRUE(Contains(rootless.Stderr(), "needs a root"));
}

TEST(TevctlHost, InitCreatesEveryNodeOptionAndDirectoryAndBadEntriesAreRejected) {
  ScratchRoot root;
  RunResult r = RunTevctl(root, {"host", "init", "--uuid", "AABBCCDD-0011-2233-4455-66778899aabb"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(Slurp(root.Abs("platform/nodes/system/systemUuid")),
            "aabbccdd-0011-2233-4455-66778899aabb\n");
  EXPECT_EQ(Slurp(root.Abs("platform/options/Net/LinkFlappingThreshold")), "10\n");
  for (const char *dir :
       {"kfs/volumes", "platform/vms", "platform/network/portgroups", "platform/storage/paths",
        "platform/storage/devices", "platform/nodes/net/pNics", "platform/nodes/vm/vmmGroupInfo"}) {
    struct stat st;
    EXPECT_TRUE(stat(root.Abs(dir).c_str(), &st) == 0 && S_ISDIR(st.st_mode)) << dir;
  }
  for (const std::vector<std::string> &c : std::vector<std::vector<std::string>>{
           {"host", "get", "nodes/absent"},
           {"host", "device", "naa.1", "4"},
           {"host", "device", "naa.1", "1", "x=vol"},
           {"host", "set", "../escape", "1"},
           {"host", "init", "--uuid", "not-a-uuid"},
       }) {
    r = RunTevctl(root, c);
    EXPECT_NE(r.status, 0) << c[1] << " " << c[2];
    EXPECT_EQ(CountOccurrences(r.err, "\n"), 1u) << r.err;
  }
  EXPECT_FALSE(PathExists(root.Abs("escape")));
  EXPECT_FALSE(PathExists(root.Abs("platform/storage/devices/naa.1")));
  EXPECT_EQ(Slurp(root.Abs("platform/nodes/system/systemUuid")),
            "aabbccdd-0011-2233-4455-66778899aabb\n");
  // Without --uuid the host is the machine: etc/machine-id under the root, as a UUID.
  ScratchRoot machine;
  machine.Write("etc/machine-id", "0123456789ABCDEF0123456789abcdef\n");
  ASSERT_EQ(RunTevctl(machine, {"host", "init"}).status, 0);
  EXPECT_EQ(Slurp(machine.Abs("platform/nodes/system/systemUuid")),
            "01234567-89ab-cdef-0123-456789abcdef\n");
}
