// End-to-end tests of the tevctl binary: each test gets a private root, plays
// the daemon's (or the agent's, or the log's) side of a socket itself and
// checks the bytes or lines that cross it. Expected values are literals.
#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

#include "Harness.h"
#include "MsgFmt.h"
#include "PlatformSocket.h"
#include "TevLib.h"

using tevdtest::CountLines;
using tevdtest::Eventually;
using tevdtest::PathExists;
using tevdtest::Process;
using tevdtest::RunResult;
using tevdtest::RunTevctl;
using tevdtest::ScratchRoot;
using tevdtest::Slurp;
using tevdtest::TevctlBin;
using tevdtest::TevdBin;

namespace {

int BindUnix(const std::string &path, int type) {
  PlatformListen how;
  how.type = type;
  how.backlog = 8;
  return PlatformSocket_Listen(path, how);
}

// One datagram or message within `ms`; empty when none came.
std::vector<uint8_t> Receive(int fd, int ms) {
  pollfd p = {fd, POLLIN, 0};
  if (poll(&p, 1, ms) != 1) return {};
  std::vector<uint8_t> buf(1 << 20);
  ssize_t n = recv(fd, buf.data(), buf.size(), MSG_DONTWAIT);
  if (n <= 0) return {};
  buf.resize(static_cast<size_t>(n));
  return buf;
}

void SendAll(int fd, const std::vector<uint8_t> &bytes) {
  size_t off = 0;
  while (off < bytes.size()) {
    ssize_t n = send(fd, bytes.data() + off, bytes.size() - off, MSG_NOSIGNAL);
    ASSERT_GT(n, 0);
    off += static_cast<size_t>(n);
  }
}

std::vector<std::string> Lines(const std::string &text) {
  std::vector<std::string> out;
  size_t start = 0;
  for (size_t nl = text.find('\n'); nl != std::string::npos; nl = text.find('\n', start)) {
    out.push_back(text.substr(start, nl - start));
    start = nl + 1;
  }
  return out;
}

}  // namespace

TEST(TevctlPost, TypedArgumentsReachAsyncContextAsRecord) {
  ScratchRoot root;
  int fd = BindUnix(PlatformEndpoint_PathUnder(root.path(), PlatformEndpoint::AsyncContext, 0),
                    SOCK_DGRAM);
  ASSERT_GE(fd, 0);
  RunResult r = RunTevctl(root, {"post", "--ts", "1700000000123456", "tev.net.test.typed",
                                 "nic %s speed %d big %ld u %u ul %lu hex %x f %f", "hwnic0", "-5",
                                 "-9000000000", "7", "18446744073709551615", "0xdeadbeef", "1.5"});
  EXPECT_EQ(r.status, 0) << r.err;
  std::vector<uint8_t> rec = Receive(fd, 2000);
  close(fd);
  ASSERT_FALSE(rec.empty());
  TevRecordView v;
  ASSERT_TRUE(TevRecord_Decode(rec.data(), rec.size(), &v));
  EXPECT_EQ(v.id, "tev.net.test.typed");
  EXPECT_EQ(v.timestampUs, 1700000000123456u);
  EXPECT_EQ(v.message,
            "nic hwnic0 speed -5 big -9000000000 u 7 ul 18446744073709551615 hex deadbeef f "
            "1.500000");
  std::vector<MsgFmt_Value> want = {MsgFmt_Value::Str("hwnic0"),
                                    MsgFmt_Value::I32(-5),
                                    MsgFmt_Value::I64(-9000000000ll),
                                    MsgFmt_Value::U32(7),
                                    MsgFmt_Value::U64(18446744073709551615ull),
                                    MsgFmt_Value::U32(0xdeadbeefu),
                                    MsgFmt_Value::Dbl(1.5)};
  ASSERT_EQ(v.args.size(), want.size());
  for (size_t i = 0; i < want.size(); ++i) EXPECT_TRUE(v.args[i] == want[i]) << "argument " << i;
}

struct PostErrorCase {
  const char *name;
  std::vector<std::string> args;
  const char *reasonPart;  // must appear in the one-line reason
};

TEST(TevctlPost, BadInputExitsNonZeroWithOneLineReasonAndSendsNothing) {
  const PostErrorCase cases[] = {
      {"id without tev prefix", {"post", "net.x.y", "no args"}, "must begin with \"tev.\""},
      {"too few arguments", {"post", "tev.a.b", "%d and %s", "5"}, "takes 2 arguments, 1 given"},
      {"text for an int", {"post", "tev.a.b", "%d", "abc"}, "\"abc\" is not a valid int32"},
      {"trailing junk", {"post", "tev.a.b", "%lu", "12x"}, "is not a valid uint64"},
      {"bad domain", {"post", "--domain", "22", "tev.a.b", "x"}, "--domain must be 0..21"},
      {"unknown option", {"post", "--bogus", "tev.a.b", "x"}, "unknown option --bogus"},
  };
  ScratchRoot root;
  int fd = BindUnix(PlatformEndpoint_PathUnder(root.path(), PlatformEndpoint::AsyncContext, 0),
                    SOCK_DGRAM);
  ASSERT_GE(fd, 0);
  for (const PostErrorCase &c : cases) {
    RunResult r = RunTevctl(root, c.args);
    EXPECT_NE(r.status, 0) << c.name;
    EXPECT_EQ(CountLines(r.err), 1u) << c.name << ": " << r.err;
    EXPECT_NE(r.err.find(c.reasonPart), std::string::npos) << c.name << ": " << r.err;
    EXPECT_EQ(r.err.compare(0, 13, "tevctl post: "), 0) << c.name << ": " << r.err;
  }
  EXPECT_TRUE(Receive(fd, 0).empty()) << "a rejected post still sent a record";
  close(fd);
}

// A qprob message built byte by byte: ts 1000, host UUID text at 16, total
// length 123 = 72 + 16 (identifier with NUL) + 35 (two slots + "ab\0").
std::vector<uint8_t> HandBuiltQprob() {
  std::vector<uint8_t> m = {
      0xe8, 0x03, 0, 0, 0, 0, 0, 0,  // 0: time stamp 1000 us
      0,    0,    0, 0, 0, 0, 0, 0,  // 8: reserved
  };
  const char uuid[] = "01234567-89ab-cdef-0123-456789abcdef";  // 16: 36 chars + NUL
  m.insert(m.end(), uuid, uuid + 37);
  const uint8_t rest[] = {
      0,                    // 53: last byte of the identity
      0,    0,              // 54: padding
      123,  0,    0,    0,  // 56: total length
      2,    0,    0,    0,  // 60: argument count
      16,   0,    0,    0,  // 64: identifier length with NUL
      'k',  'o',  's',  '.',  'p',  'r',  'o',  'b',
      'l',  'e',  'm',  '.',  't',  '.',  'x',  0,  // 68
      6,    0,    0,    0,    2,    0,    0,    0,
      32,   0,    0,    0,    0,    0,    0,    0,  // string "ab" at 32
      1,    0,    0,    0,    0,    0,    0,    0,
      0xfe, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,  // int32 -2
      'a',  'b',  0,    0,    0,    0,    0,  // the 4 zero bytes that complete the total length
  };
  m.insert(m.end(), rest, rest + sizeof rest);
  return m;
}

TEST(TevctlSink, DecodesHandBuiltMessageAndSurvivesMalformedOnes) {
  ASSERT_EQ(HandBuiltQprob().size(), 123u);
  ScratchRoot root;
  Process sink(root, TevctlBin(), {"sink", "--count", "3", "--timeout", "5"}, {}, "sink");
  std::string sock = PlatformEndpoint_PathUnder(root.path(), PlatformEndpoint::QprobAgent);
  ASSERT_TRUE(Eventually([&] { return PathExists(sock); }, 3000));
  int fd = -1;
  ASSERT_TRUE(
      Eventually([&] { return (fd = PlatformSocket_Connect(sock, SOCK_STREAM)) >= 0; }, 2000));
  SendAll(fd, {'n', 'o', 't', ' ', 'q', 'p', 'r', 'o', 'b'});
  close(fd);
  ASSERT_TRUE(sink.WaitForOutput("\n", 2000));
  std::vector<uint8_t> truncated = HandBuiltQprob();
  truncated.resize(100);  // total length says 123
  fd = PlatformSocket_Connect(sock, SOCK_STREAM);
  SendAll(fd, truncated);
  close(fd);
  fd = PlatformSocket_Connect(sock, SOCK_STREAM);
  SendAll(fd, HandBuiltQprob());
  close(fd);
  ASSERT_EQ(sink.ExitCode(5000), 0) << sink.Stderr();
  std::vector<std::string> lines = Lines(sink.Stdout());
  ASSERT_EQ(lines.size(), 3u) << sink.Stdout();
  EXPECT_EQ(lines[0].compare(0, 10, "{\"error\":\""), 0) << lines[0];
  EXPECT_EQ(lines[1].compare(0, 10, "{\"error\":\""), 0) << lines[1];
  const std::string &ok = lines[2];
  for (const char *part : {"\"ts\":1000", "\"class\":\"problem\"", "\"id\":\"kos.problem.t.x\"",
                           "\"host\":\"01234567-89ab-cdef-0123-456789abcdef\"", "\"ab\"", "-2"}) {
    EXPECT_NE(ok.find(part), std::string::npos) << part << " missing in " << ok;
  }
  EXPECT_LT(ok.find("\"ab\""), ok.find("-2")) << "arguments out of order: " << ok;
}

TEST(TevctlLog, PrintsEachDatagramAsOneLine) {
  ScratchRoot root;
  Process log(root, TevctlBin(), {"log", "--count", "2", "--timeout", "5"}, {}, "log");
  Process strip(root, TevctlBin(),
                {"--root", root.Abs("s"), "log", "--strip", "--count", "1", "--timeout", "5"},
                {"TEVD_ROOT="}, "strip");
  std::string devlog = PlatformEndpoint_PathUnder(root.path(), PlatformEndpoint::LogCollector),
              devlog2 = PlatformEndpoint_PathUnder(root.Abs("s"), PlatformEndpoint::LogCollector);
  ASSERT_TRUE(Eventually([&] { return PathExists(devlog) && PathExists(devlog2); }, 3000));
  int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  auto sendTo = [&](const std::string &path, const std::string &text) {
    ASSERT_EQ(0, PlatformSocket_SendTo(fd, path, text.data(), text.size(), 0));
  };
  const std::string line = "<14>Nov  2 03:04:05 tevd: 2024-11-02T03:04:05.678Z: Exiting. rc:0\n";
  sendTo(devlog, line);
  sendTo(devlog, "<14>Nov  2 03:04:06 tevd: second");
  sendTo(devlog2, line);
  close(fd);
  EXPECT_EQ(log.ExitCode(3000), 0) << log.Stderr();
  EXPECT_EQ(strip.ExitCode(3000), 0) << strip.Stderr();
  EXPECT_EQ(log.Stdout(),
            "<14>Nov  2 03:04:05 tevd: 2024-11-02T03:04:05.678Z: Exiting. rc:0\n"
            "<14>Nov  2 03:04:06 tevd: second\n");
  EXPECT_EQ(strip.Stdout(), "2024-11-02T03:04:05.678Z: Exiting. rc:0\n");
}

TEST(TevctlLog, RefusesToRunWithoutRoot) {
  ScratchRoot root;
  Process c(root, TevctlBin(), {"log", "--timeout", "0"}, {"TEVD_ROOT="}, "c");
  EXPECT_NE(c.ExitCode(3000), 0);
  EXPECT_NE(c.Stderr().find("needs a root"), std::string::npos) << c.Stderr();
}

TEST(TevctlHost, InitCreatesEveryNodeOptionAndDirectory) {
  ScratchRoot root;
  RunResult r = RunTevctl(root, {"host", "init", "--uuid", "AABBCCDD-0011-2233-4455-66778899aabb"});
  ASSERT_EQ(r.status, 0) << r.err;
  struct FileCase {
    const char *rel;
    const char *content;
  };
  const FileCase files[] = {
      {"platform/nodes/system/systemUuid", "aabbccdd-0011-2233-4455-66778899aabb\n"},
      {"platform/options/Net/LinkFlappingThreshold", "10\n"},
  };
  for (const FileCase &f : files) EXPECT_EQ(Slurp(root.Abs(f.rel)), f.content) << f.rel;
  for (const char *dir :
       {"kfs/volumes", "platform/vms", "platform/network/portgroups", "platform/storage/paths",
        "platform/storage/devices", "platform/nodes/net/pNics", "platform/nodes/vm/vmmGroupInfo"}) {
    struct stat st;
    EXPECT_TRUE(stat(root.Abs(dir).c_str(), &st) == 0 && S_ISDIR(st.st_mode)) << dir;
  }
}

TEST(TevctlHost, BadEntriesAreRejected) {
  ScratchRoot root;
  for (const std::vector<std::string> &c : {
           std::vector<std::string>{"host", "get", "nodes/absent"},
           std::vector<std::string>{"host", "device", "naa.1", "4"},
           std::vector<std::string>{"host", "device", "naa.1", "1", "x=vol"},
           std::vector<std::string>{"host", "set", "../escape", "1"},
           std::vector<std::string>{"host", "init", "--uuid", "not-a-uuid"},
       }) {
    RunResult r = RunTevctl(root, c);
    EXPECT_NE(r.status, 0) << c[1] << " " << c[2];
    EXPECT_EQ(CountLines(r.err), 1u) << r.err;
  }
  EXPECT_FALSE(PathExists(root.Abs("escape")));
  EXPECT_FALSE(PathExists(root.Abs("platform/storage/devices/naa.1")));
}

TEST(TevctlTrace, CopiesStreamAndStopsAfterHistoryOnRequest) {
  ScratchRoot root;
  int lfd = BindUnix(PlatformEndpoint_PathUnder(root.path(), PlatformEndpoint::Trace), SOCK_STREAM);
  ASSERT_GE(lfd, 0);
  const std::string stream =
      "1.000000001,IN,5,tev.a.b,\n2.000000002,OUT,6,kos.clear.x,,7\n\nlive\n";
  for (bool historyOnly : {false, true}) {
    std::vector<std::string> args = {"trace"};
    if (historyOnly) args.push_back("--history");
    Process c(root, TevctlBin(), args, {}, historyOnly ? "history" : "all");
    pollfd p = {lfd, POLLIN, 0};
    ASSERT_EQ(poll(&p, 1, 2000), 1);
    int cfd = accept(lfd, nullptr, nullptr);
    ASSERT_GE(cfd, 0);
    SendAll(cfd, std::vector<uint8_t>(stream.begin(), stream.end()));
    if (historyOnly) {
      EXPECT_EQ(c.ExitCode(2000), 0);  // must stop by itself while the daemon side stays open
      close(cfd);
      EXPECT_EQ(c.Stdout(), "1.000000001,IN,5,tev.a.b,\n2.000000002,OUT,6,kos.clear.x,,7\n");
    } else {
      close(cfd);
      EXPECT_EQ(c.ExitCode(2000), 0);
      EXPECT_EQ(c.Stdout(), stream);
    }
  }
  close(lfd);
}
