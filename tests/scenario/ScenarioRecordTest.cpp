// tevctl scenario record: saved trace text (literal lines, as the daemon's
// trace socket serves them) must become exactly the expected scenario lines
// and a file that `scenario check` accepts; and a trace recorded live from a
// running daemon must replay with `scenario run` and pass.
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "Harness.h"
#include "PlatformSocket.h"

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

void WriteText(const std::string &path, const std::string &text) {
  std::ofstream f(path);
  f << text;
}

// The scenario's lines that are not comments or blank.
std::vector<std::string> Statements(const std::string &text) {
  std::vector<std::string> out;
  size_t start = 0;
  for (size_t nl = text.find('\n'); nl != std::string::npos; nl = text.find('\n', start)) {
    std::string l = text.substr(start, nl - start);
    start = nl + 1;
    if (!l.empty() && l[0] != '#') out.push_back(l);
  }
  return out;
}

const char kTrace[] =
    "1700000000.100000000,IN,1700000000099000,tev.net.pg.uplink.transition.down,,\"hwnic1\",\"VM "
    "\"\"Prod\"\" Net\",1,-7\n"
    "1700000000.250000000,IN,1700000000250000,tev.user.host.boot,\n"
    "\n"
    "1700000002.150000001,OUT,1700000002150000,kos.problem.net.redundancy.lost,,\"ksw0\","
    "\"hwnic1\",\"\"\"VM \"\"Prod\"\" Net\"\"\"\n"
    "1700000002.400000000,IN,1700000002400000,tev.x.wide,,4294967295,-3000000000,"
    "18446744073709551615,2147483647\n"
    "1700000003.100000000,OUT,1700000003100000,kos.audit.host.boot,\n"
    "1700000003.200000000,OUT,1700000003200000,kos.clear.x.y,,\"(null)\",5\n";

RunResult Record(const ScratchRoot &root, std::vector<std::string> options) {
  options.insert(options.begin(), {"scenario", "record", "--from-trace", root.Abs("saved.trace")});
  return RunTevctl(root, options);
}

TEST(ScenarioRecord, SavedTraceBecomesTimedPostsAndEventWindowsThatCheckAccepts) {
  ScratchRoot root;
  WriteText(root.Abs("saved.trace"), kTrace);
  RunResult r = Record(root, {"-o", root.Abs("rec.scn")});
  ASSERT_EQ(r.status, 0) << r.err;
  std::vector<std::string> want = {
      "at 0.000 post tev.net.pg.uplink.transition.down \"%s %s %d %d\" \"hwnic1\" \"VM \\\"Prod\\\" "
      "Net\" 1 -7",
      "at 0.150 post --user tev.user.host.boot \"\"",
      "expect event problem kos.problem.net.redundancy.lost \"ksw0\" \"hwnic1\" \"\\\"VM "
      "\\\"Prod\\\" Net\\\"\" within 1.050..3.550",
      "at 2.300 post tev.x.wide \"%u %ld %lu %d\" 4294967295 -3000000000 18446744073709551615 "
      "2147483647",
      "expect event audit kos.audit.host.boot - within 2.000..4.500",
      "expect event clear kos.clear.x.y * 5 within 2.100..4.600",
  };
  EXPECT_EQ(Statements(Slurp(root.Abs("rec.scn"))), want);
  EXPECT_NE(r.err.find("3 observations, 3 events, 0 lines left as comments"), std::string::npos)
      << r.err;
  RunResult c = RunTevctl(root, {"scenario", "check", root.Abs("rec.scn")});
  EXPECT_EQ(c.status, 0) << c.err;
  EXPECT_NE(c.out.find("rec.scn: ok (3 steps, 3 expectations, ends at 5.100 s)"), std::string::npos)
      << c.out;
  r = Record(root, {"--early", "0.5", "--late", "3"});
  EXPECT_NE(r.out.find("expect event audit kos.audit.host.boot - within 2.500..6.000\n"),
            std::string::npos)
      << r.out;
}

TEST(ScenarioRecord, UnreplayableLinesStayCommentsAndBadLinesAreNamed) {
  ScratchRoot root;
  WriteText(root.Abs("saved.trace"),
            "1700000000.000000000,IN,1,tev.x.dbl,,???\n"
            "not a trace line\n"
            "1700000000.500000000,IN,1,tev.x.nl,,\"two\nlines\"\n"
            "1700000001.000000000,IN,1,tev.x.ok,,3\n");
  RunResult r = Record(root, {});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(Statements(r.out), std::vector<std::string>{"at 1.000 post tev.x.ok \"%d\" 3"});
  EXPECT_NE(r.out.find("# not replayed (argument 1 has a type the trace does not show (\"???\")): "
                       "at 0.000 post tev.x.dbl \"%?\"\n"),
            std::string::npos)
      << r.out;
  EXPECT_NE(r.out.find("# not replayed (argument 1 holds a newline): at 0.500 post tev.x.nl \"%s\" "
                       "\"two\\nlines\"\n"),
            std::string::npos)
      << r.out;
  EXPECT_NE(r.err.find(root.Abs("saved.trace") +
                       ":2: expected SECONDS.NANOSECONDS at the start; line skipped"),
            std::string::npos)
      << r.err;
}

TEST(ScenarioRecord, EmptyTraceFailsAndLiveWithoutDaemonFails) {
  ScratchRoot root;
  WriteText(root.Abs("saved.trace"), "\n");
  RunResult r = Record(root, {});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("no trace line was read"), std::string::npos) << r.err;
  r = RunTevctl(root, {"scenario", "record", "--history"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("cannot connect to " +
                       PlatformEndpoint_PathUnder(root.path(), PlatformEndpoint::Trace)),
            std::string::npos)
      << r.err;
}

// The whole road: a running daemon gets observations, the recorder follows
// its trace socket (history, then live lines) until the daemon ends, and
// the recorded file replays against a fresh daemon with every event in its
// window.
TEST(ScenarioRecord, LiveRecordingOfRunningDaemonReplaysAndPasses) {
  ScratchRoot root;
  ASSERT_EQ(RunTevctl(root, {"host", "init"}).status, 0);
  Process sink(root, TevctlBin(), {"sink"}, {}, "sink");
  ASSERT_TRUE(Eventually(
      [&] {
        return PathExists(PlatformEndpoint_PathUnder(root.path(), PlatformEndpoint::QprobAgent));
      },
      5000));
  tevdtest::DaemonProcess tevd(root);
  ASSERT_TRUE(Eventually(
      [&] {
        return PathExists(PlatformEndpoint_PathUnder(root.path(), PlatformEndpoint::UserContext)) &&
               PathExists(PlatformEndpoint_PathUnder(root.path(), PlatformEndpoint::Trace));
      },
      20000));
  std::this_thread::sleep_for(
      std::chrono::milliseconds(300));  // the agents subscribe after the sockets open

  ASSERT_EQ(RunTevctl(root, {"post", "--user", "tev.user.host.boot", "Host has booted."}).status,
            0);
  Process rec(root, TevctlBin(), {"scenario", "record", "-o", root.Abs("live.scn")}, {}, "rec");
  ASSERT_TRUE(
      Eventually([&] { return rec.Stderr().find("recording from") != std::string::npos; }, 5000));
  ASSERT_EQ(RunTevctl(root, {"post", "tev.clock.parameter.set.maxLargeCorrections",
                             "maxLargeCorrections set to %d", "5"})
                .status,
            0);
  ASSERT_EQ(RunTevctl(root, {"post", "tev.net.hwnic.linkstate.down",
                             "Physical NIC %s linkstate is down", "hwnic1"})
                .status,
            0);
  ASSERT_TRUE(sink.WaitForOutput("kos.problem.net.hwnic.linkstate.down", 10000)) << sink.Stdout();

  // Stopping at the end of the history needs no daemon exit.
  RunResult hist = RunTevctl(root, {"scenario", "record", "--history"});
  EXPECT_EQ(hist.status, 0) << hist.err;
  EXPECT_EQ(Statements(hist.out).size(), 6u) << hist.out;

  tevd.Signal(SIGTERM);
  EXPECT_EQ(tevd.ExitCode(10000), 0);
  ASSERT_EQ(rec.ExitCode(5000), 0) << rec.Stderr();  // the daemon's exit ends the trace stream
  std::string text = Slurp(root.Abs("live.scn"));
  std::vector<std::string> lines = Statements(text);
  ASSERT_EQ(lines.size(), 6u) << text;
  EXPECT_EQ(lines[0], "at 0.000 post --user tev.user.host.boot \"\"");
  EXPECT_NE(text.find(" post tev.clock.parameter.set.maxLargeCorrections \"%d\" 5\n"),
            std::string::npos);
  EXPECT_NE(text.find(" post tev.net.hwnic.linkstate.down \"%s\" \"hwnic1\"\n"), std::string::npos);
  EXPECT_NE(
      text.find("expect event problem kos.problem.net.hwnic.linkstate.down \"hwnic1\" within "),
      std::string::npos);
  EXPECT_NE(text.find("expect event audit kos.audit.host.boot - within 0.000.."),
            std::string::npos);

  RunResult play =
      RunTevctl(root, {"scenario", "run", "--tevd", TevdBin(), root.Abs("live.scn")}, 60000);
  EXPECT_EQ(play.status, 0) << play.out << play.err;
  EXPECT_NE(play.out.find("result: PASS (3 expectations)"), std::string::npos) << play.out;
}

}  // namespace
