// tevctl scenario record: trace text, saved or read live from the trace socket, must become
// exactly the expected scenario lines and a file that `scenario check` accepts.
#include <gtest/gtest.h>

#include "Harness.h"

using namespace tevdtest;

namespace {

// The scenario's lines that are not comments or blank.
std::vector<std::string> Statements(const std::string &text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string l; std::getline(in, l);) {
    if (!l.empty() && l[0] != '#') out.push_back(l);
  }
  return out;
}

RunResult Record(const ScratchRoot &root, const std::string &trace,
                 std::vector<std::string> options) {
  std::ofstream(root.Abs("saved.trace")) << trace;
  options.insert(options.begin(), {"scenario", "record", "--from-trace", root.Abs("saved.trace")});
  return RunTevctl(root, options);
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

const std::vector<std::string> kWant = {
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

TEST(ScenarioRecord, SavedTraceBecomesTimedPostsAndEventWindowsThatCheckAccepts) {
  ScratchRoot root;
  RunResult r = Record(root, kTrace, {"-o", root.Abs("rec.scn")});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(Statements(Slurp(root.Abs("rec.scn"))), kWant);
  EXPECT_TRUE(Contains(r.err, "3 observations, 3 events, 0 lines left as comments"));
  RunResult c = RunTevctl(root, {"scenario", "check", root.Abs("rec.scn")});
  EXPECT_EQ(c.status, 0) << c.err;
  EXPECT_TRUE(Contains(c.out, "rec.scn: ok (3 steps, 3 expectations, ends at 5.100 s)"));
  r = Record(root, kTrace, {"--early", "0.5", "--late", "3"});
  EXPECT_TRUE(Contains(r.out, "expect event audit kos.audit.host.boot - within 2.500..6.000\n"));
}

TEST(ScenarioRecord, UnreplayableLinesStayCommentsBadLinesAreNamedAndNothingFails) {
  ScratchRoot root;
  RunResult r = Record(root,
                       "1700000000.000000000,IN,1,tev.x.dbl,,???\n"
                       "not a trace line\n"
                       "1700000000.500000000,IN,1,tev.x.nl,,\"two\nlines\"\n"
                       "1700000001.000000000,IN,1,tev.x.ok,,3\n",
                       {});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(Statements(r.out), std::vector<std::string>{"at 1.000 post tev.x.ok \"%d\" 3"});
  for (const char *comment :
       {"# not replayed (argument 1 has a type the trace does not show (\"???\")): at 0.000 post "
        "tev.x.dbl \"%?\"\n",
        "# not replayed (argument 1 holds a newline): at 0.500 post tev.x.nl \"%s\" "
        "\"two\\nlines\"\n"}) {
    EXPECT_TRUE(Contains(r.out, comment));
  }
  EXPECT_TRUE(Contains(r.err, root.Abs("saved.trace") +
                                  ":2: expected SECONDS.NANOSECONDS at the start; line skipped"));
  r = Record(root, "\n", {});
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(Contains(r.err, "no trace line was read"));
  r = RunTevctl(root, {"scenario", "record", "--history"});
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(Contains(r.err, "cannot connect to " + PlatformEndpoint_PathUnder(
                                                         root.path(), PlatformEndpoint::Trace)));
}

// Live, `tevctl trace` and the recorder follow the trace socket until the daemon's side closes
// or, with --history, to the blank line that ends the history while that side stays open.
TEST(ScenarioRecord, TraceAndLiveRecordingFollowTheTraceSocket) {
  ScratchRoot root;
  int lfd = PlatformSocket_Listen(PlatformEndpoint_PathUnder(root.path(), PlatformEndpoint::Trace),
                                  SOCK_STREAM);
  const std::string stream = kTrace, history = stream.substr(0, stream.find("\n\n") + 1);
  int run = 0;
  for (bool record : {false, true}) {
    for (bool historyOnly : {false, true}) {
      std::vector<std::string> args = {"trace"};
      if (record) args = {"scenario", "record"};
      if (historyOnly) args.push_back("--history");
      Process c(root, TevctlBin(), args, {}, "run" + std::to_string(++run));
      pollfd p = {lfd, POLLIN, 0};
      ASSERT_EQ(poll(&p, 1, 5000), 1);
      int cfd = accept(lfd, nullptr, nullptr);
      ASSERT_TRUE(SendRecord(cfd, std::vector<uint8_t>(stream.begin(), stream.end())));
      if (!historyOnly) close(cfd);
      EXPECT_EQ(c.ExitCode(5000), 0) << c.Stderr();
      if (historyOnly) close(cfd);
      std::vector<std::string> recorded(kWant.begin(), kWant.begin() + (historyOnly ? 2 : 6));
      EXPECT_TRUE(record ? Statements(c.Stdout()) == recorded
                         : c.Stdout() == (historyOnly ? history : stream))
          << c.Stdout();
    }
  }
  close(lfd);
}

}  // namespace
