// tevd-selftest under a root made by `tevctl host init`, fed by `tevctl selftest`: it prints
// PASS/FAIL lines and exits with the number of failures (the correlator's rows are unit-tested).
// The production tevd must not run the self-test whatever its environment says.
#include <gtest/gtest.h>

#include "Harness.h"

using namespace tevdtest;

namespace {

// Runs `tevctl selftest` against `bin`; the daemon's stdout, its exit status (-1: still
// running after `waitMs`) and tevctl's result.
struct SelftestRun {
  std::string out;
  int status;
  RunResult post;
};
SelftestRun RunSelftest(const std::string &bin, int waitMs) {
  ScratchRoot root;
  EXPECT_EQ(RunTevctl(root, {"host", "init"}).status, 0);
  // The variable once switched the agents on; it must stay without effect.
  Process tevd(root, bin, {}, {"TEVD_EXTRA_AGENTS=1"});
  RunResult post = RunTevctl(root, {"selftest", "--wait", "5"}, 8000);
  int status = tevd.ExitCode(waitMs);  // the end marker ends a self-test run
  return {tevd.Stdout(), status, post};
}

}  // namespace

TEST(Selftest, FullSequencePassesAll21RowsAndExitsZero) {
  SelftestRun run = RunSelftest(TevdSelftestBin(), 8000);
  ASSERT_EQ(run.post.status, 0) << run.post.err;
  EXPECT_EQ(CountOccurrences(run.post.out, "posted "), 25u) << run.post.out;
  EXPECT_EQ(CountOccurrences(run.out, "PASS: ["), 21u) << run.out;
  for (const char *line : {"PASS: [0]: tev.tests.async.noData\n",
                           "PASS: [20]: tev.tests.corrupt.format.tag.notreally2\n",
                           "INFO: Tests completed. Failures = 0\n"}) {
    EXPECT_NE(run.out.find(line), std::string::npos) << line << " missing in " << run.out;
  }
  EXPECT_EQ(run.out.find("FAIL"), std::string::npos) << run.out;
  EXPECT_EQ(run.status, 0) << run.out;
}

TEST(Selftest, ProductionDaemonIgnoresTheSequenceAndKeepsRunning) {
  SelftestRun run = RunSelftest(TevdBin(), 1500);
  ASSERT_EQ(run.post.status, 0) << run.post.err;
  EXPECT_EQ(run.out.find("PASS"), std::string::npos) << run.out;
  EXPECT_EQ(run.out.find("Tests completed"), std::string::npos) << run.out;
  EXPECT_EQ(run.status, -1) << "ended at the end marker: " << run.out;
}
