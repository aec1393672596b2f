// The self-test end to end: tevd-selftest (the daemon built with the
// self-test correlator) under a root made by `tevctl host init`, fed by
// `tevctl selftest`. The daemon prints PASS/FAIL lines on stdout and exits
// with the number of failures, which is what these tests read (the
// correlator's rows, short runs and corrupt windows are unit-tested). The
// production tevd must not run the self-test whatever its environment says.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Harness.h"

using namespace tevdtest;

namespace {

struct SelftestRun {
  int tevdStatus = -1;
  int tevctlStatus = -1;
  std::string tevdOut, tevdErr, tevctlOut, tevctlErr;
};

// Starts tevd, runs `tevctl selftest EXTRA...` against it and waits for the
// daemon to end the run.
SelftestRun RunSelftest(const std::vector<std::string> &extra,
                        const std::string &bin = TevdSelftestBin(), int waitMs = 8000) {
  SelftestRun run;
  ScratchRoot root;
  RunResult init = RunTevctl(root, {"host", "init"});
  EXPECT_EQ(init.status, 0) << init.err;
  // The variable once switched the agents on; it must stay without effect.
  Process tevd(root, bin, {}, {"TEVD_EXTRA_AGENTS=1"});
  std::vector<std::string> args = {"selftest", "--wait", "5"};
  args.insert(args.end(), extra.begin(), extra.end());
  RunResult post = RunTevctl(root, args, 8000);
  run.tevctlStatus = post.status;
  run.tevctlOut = post.out;
  run.tevctlErr = post.err;
  // The correlator ends the process at the end marker; its own time-out
  // would end it after 5 s of silence.
  run.tevdStatus = tevd.ExitCode(waitMs);
  run.tevdOut = tevd.Stdout();
  run.tevdErr = tevd.Stderr();
  return run;
}

}  // namespace

TEST(Selftest, FullSequencePassesAll21RowsAndExitsZero) {
  SelftestRun run = RunSelftest({});
  ASSERT_EQ(run.tevctlStatus, 0) << run.tevctlErr;
  EXPECT_EQ(CountOccurrences(run.tevctlOut, "posted "), 25u) << run.tevctlOut;
  EXPECT_EQ(CountOccurrences(run.tevdOut, "PASS: ["), 21u) << run.tevdOut;
  EXPECT_NE(run.tevdOut.find("PASS: [0]: tev.tests.async.noData\n"), std::string::npos);
  EXPECT_NE(run.tevdOut.find("PASS: [20]: tev.tests.corrupt.format.tag.notreally2\n"),
            std::string::npos);
  EXPECT_NE(run.tevdOut.find("INFO: Tests completed. Failures = 0\n"), std::string::npos)
      << run.tevdOut;
  EXPECT_EQ(run.tevdOut.find("FAIL"), std::string::npos) << run.tevdOut;
  EXPECT_EQ(run.tevdStatus, 0) << run.tevdOut << run.tevdErr;
}

TEST(Selftest, ProductionDaemonIgnoresTheSequenceAndKeepsRunning) {
  SelftestRun run = RunSelftest({}, TevdBin(), 1500);
  ASSERT_EQ(run.tevctlStatus, 0) << run.tevctlErr;
  EXPECT_EQ(run.tevdOut.find("PASS"), std::string::npos) << run.tevdOut;
  EXPECT_EQ(run.tevdOut.find("Tests completed"), std::string::npos) << run.tevdOut;
  // Still running at the end marker: the helper had to stop it.
  EXPECT_EQ(run.tevdStatus, -1) << run.tevdOut << run.tevdErr;
}
