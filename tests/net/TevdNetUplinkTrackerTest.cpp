// Uplink redundancy tracking and link flapping, driven as the daemon drives
// them: observations through the handler map, the fake clock moved a second
// at a time, the alarm run when due and the wake-up routine called when the
// alarm has written into the correlator's pipe.
#include <poll.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "TevdTestSupport.h"
#include "tevdAlarm.h"
#include "tevdCorrelator.h"
#include "tevdNetCorrelator.h"

using tevdtest::I;
using tevdtest::S;

namespace {

using Seen = std::vector<std::string>;  // "second id arg arg ..."

// One observation at a second: P/p port group down/up, D/d distributed port
// down/up, L/l bare link down/up, W watchdog. `group` is "switch/port" for D/d.
struct Obs {
  int at;
  char kind;
  const char *nic;
  const char *group = "";
  int uplinks = 0;
};

struct Story {
  const char *name;
  std::vector<Obs> obs;
  Seen want;
  int until = 20;
};

class UplinkTrackerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char *pg : {"pg guests", "pg-mgmt", "pg-storage"}) {
      root_.Write(std::string("platform/network/portgroups/") + pg, "ksw0");
    }
    root_.Write("platform/network/portgroups/Other", "ksw9");
    root_.Write("platform/network/portgroups/Blank", "");
  }
  void Restart() {
    TearDown();
    map_ = TevdNetCorrelator_BuildMap();
    ASSERT_TRUE(TevdNetCorrelator_Prepare(&pipeFd_));
    now_ = 0;
  }
  void TearDown() override {
    TevdNetCorrelator_ResetForTest();
    TevdAlarm_ResetForTest();
  }
  void Feed(const std::string &id, const std::vector<MsgFmt_Value> &args) {
    tevdtest::TevPtr tev = tevdtest::MakeTev("tev.net." + id, args);
    TevdCorrelator_Dispatch(TevdNetCorrelatorIgnore, map_, tev.get());
  }
  void Apply(const Obs &o) {
    std::string g = o.group;
    std::string sw = g.substr(0, g.find('/')), port = g.substr(g.find('/') + 1);
    switch (o.kind) {
      case 'P': Feed("pg.uplink.transition.down", {S(o.nic), S(g), I(o.uplinks), I(99)}); break;
      case 'p': Feed("pg.uplink.transition.up", {S(o.nic), S(g), I(o.uplinks)}); break;
      case 'D':
        Feed("dvport.uplink.transition.down", {S(o.nic), S(sw), S(port), I(o.uplinks), I(5)});
        break;
      case 'd':
        Feed("dvport.uplink.transition.up", {S(o.nic), S(sw), S(port), I(o.uplinks)});
        break;
      case 'L': Feed("hwnic.linkstate.down", {S(o.nic)}); break;
      case 'l': Feed("hwnic.linkstate.up", {S(o.nic)}); break;
      case 'W': Feed("uplink.watchdog.timeout", {S(o.nic)}); break;
      default: FAIL() << o.kind;
    }
  }
  // Moves the clock second by second, waking the tracker as the agent would.
  void RunTo(int second, Seen *seen) {
    while (now_ < second) {
      clock_.Advance(1);
      now_++;
      TevdAlarm_RunDueForTest();
      struct pollfd p = {pipeFd_, POLLIN, 0};
      if (poll(&p, 1, 0) == 1) {
        char buf[10];
        EXPECT_GT(read(pipeFd_, buf, sizeof buf), 0);
        TevdNetCorrelator_ProcessTimeouts();
      }
      for (const QprobMessage &m : capture_.Take()) {
        std::string e = std::to_string(now_) + " " + m.id.substr(4);
        for (const std::string &a : tevdtest::ArgsText(m.args)) e += " " + a;
        seen->push_back(e);
      }
    }
  }

  tevdtest::ScratchRoot root_;
  tevdtest::FakeClock clock_;
  tevdtest::EventCapture capture_;
  TevHandlerMap map_;
  int pipeFd_ = -1;
  int now_ = 0;
};

TEST_F(UplinkTrackerTest, EachStoryPostsItsEventsAtTheirSeconds) {
  const Story stories[] = {
      {"losses classified by uplinks left, reported at 2 s",
       {{0, 'P', "hwnic1", "pg guests", 0},
        {0, 'P', "hwnic1", "pg-mgmt", 1},
        {0, 'P', "hwnic1", "pg-storage", 3},
        {0, 'P', "hwnic1", "pg-storage", -1}},  // negative counts are in no list
       {"2 problem.net.connectivity.lost S:ksw0 S:hwnic1 S:\"pg guests\"",
        "2 problem.net.redundancy.lost S:ksw0 S:hwnic1 S:\"pg-mgmt\"",
        "2 problem.net.redundancy.degraded S:ksw0 S:hwnic1 S:\"pg-storage\""}},
      {"one list per class, named by the first port group's switch",
       {{0, 'P', "hwnic2", "Other", 0},
        {0, 'P', "hwnic2", "pg guests", 0},
        {1, 'P', "hwnic2", "pg-mgmt", 0}},
       {"2 problem.net.connectivity.lost S:ksw9 S:hwnic2 "
        "S:\"Other\", \"pg guests\", \"pg-mgmt\""}},
      {"restore: 1 is connectivity, 2 redundancy, others nothing",
       {{0, 'p', "hwnic3", "pg guests", 1},
        {0, 'p', "hwnic3", "pg-mgmt", 0},
        {0, 'p', "hwnic3", "pg-mgmt", -2},
        {0, 'p', "hwnic3", "pg-storage", 2},
        {5, 'p', "hwnic3", "pg-mgmt", 0}},
       {"2 clear.net.connectivity.restored S:ksw0 S:\"pg guests\" S:hwnic3",
        "2 clear.net.redundancy.restored S:ksw0 S:\"pg-storage\" S:hwnic3"}},
      {"unknown switch: records kept, later losses append and are never posted",
       {{0, 'P', "hwnic4", "Orphan PG", 0}, {3, 'P', "hwnic4", "pg guests", 1}},
       {}},
      {"empty switch name: same",
       {{0, 'P', "hwnic4", "Blank", 0}, {3, 'P', "hwnic4", "pg guests", 1}},
       {}},
      {"bare link down and up after 1 s; hidden behind a port group loss",
       {{0, 'L', "hwnic6"},
        {1, 'l', "hwnic6"},
        {3, 'P', "hwnic5", "pg guests", 0},
        {3, 'L', "hwnic5"}},
       {"1 problem.net.hwnic.linkstate.down S:hwnic6", "2 clear.net.hwnic.linkstate.up S:hwnic6",
        "5 problem.net.connectivity.lost S:ksw0 S:hwnic5 S:\"pg guests\""}},
      {"bare link up hidden behind a port group restore",
       {{0, 'p', "hwnic6", "pg guests", 2}, {0, 'l', "hwnic6"}},
       {"2 clear.net.redundancy.restored S:ksw0 S:\"pg guests\" S:hwnic6"}},
      {"distributed ports labelled switch/port; they hide the bare link's down and up",
       {{0, 'D', "hwnic7", "dvs-A/101", 0},
        {0, 'D', "hwnic7", "dvs-A/102", 0},
        {0, 'D', "hwnic7", "dvs-B/7", 1},
        {0, 'D', "hwnic7", "dvs-C/9", 2},
        {0, 'D', "hwnic7", "dvs-C/8", -3},
        {0, 'L', "hwnic7"},
        {2, 'd', "hwnic7", "dvs-A/101", 2},
        {2, 'd', "hwnic7", "dvs-B/7", 1},
        {2, 'l', "hwnic7"}},
       {"2 problem.net.dvport.connectivity.lost S:\"dvs-A/101\", \"dvs-A/102\" S:hwnic7",
        "2 problem.net.dvport.redundancy.lost S:\"dvs-B/7\" S:hwnic7",
        "2 problem.net.dvport.redundancy.degraded S:\"dvs-C/9\" S:hwnic7",
        "4 clear.net.dvport.connectivity.restored S:\"dvs-B/7\" S:hwnic7",
        "4 clear.net.dvport.redundancy.restored S:\"dvs-A/101\" S:hwnic7"}},
      {"watchdog folds port group down and up into one reset, then clears everything",
       {{0, 'W', "hwnic8"},
        {1, 'P', "hwnic8", "pg guests", 0},
        {3, 'p', "hwnic8", "pg guests", 1},
        {10, 'L', "hwnic8"}},
       {"7 problem.net.hwnic.watchdog.reset S:hwnic8",
        "11 problem.net.hwnic.linkstate.down S:hwnic8"}},
      {"watchdog folds distributed port down and up the same way",
       {{0, 'W', "hwnic8"}, {1, 'D', "hwnic8", "dvs-A/5", 0}, {3, 'd', "hwnic8", "dvs-A/5", 1}},
       {"7 problem.net.hwnic.watchdog.reset S:hwnic8"}},
      {"watchdog holds a loss until its expiry and stays set against a later link up",
       {{0, 'W', "hwnic9"}, {1, 'P', "hwnic9", "pg guests", 1}, {8, 'l', "hwnic9"}},
       {"7 problem.net.redundancy.lost S:ksw0 S:hwnic9 S:\"pg guests\""}},
      {"watchdog holds a distributed port loss the same way",
       {{0, 'W', "hwnic9"}, {1, 'D', "hwnic9", "dvs-B/7", 0}},
       {"7 problem.net.dvport.connectivity.lost S:\"dvs-B/7\" S:hwnic9"}},
      {"bare link down during a watchdog: cleared at 1 s, never reported",
       {{0, 'W', "hwnic10"}, {0, 'L', "hwnic10"}},
       {}},
      {"watchdog expiring with a pending link down reports it once",
       {{0, 'W', "hwnic15"}, {6, 'L', "hwnic15"}},
       {"7 problem.net.hwnic.linkstate.down S:hwnic15"}},
      // Re-arming measures from the alarm's start, so a later entry may fire late.
      {"one alarm, re-armed for a nearer expiry and for the nearest left",
       {{0, 'W', "hwnicX"},
        {0, 'L', "hwnicY"},
        {0, 'P', "hwnicZ", "pg-mgmt", 1},
        {3, 'L', "hwnicY"}},
       {"1 problem.net.hwnic.linkstate.down S:hwnicY",
        "2 problem.net.redundancy.lost S:ksw0 S:hwnicZ S:\"pg-mgmt\"",
        "5 problem.net.hwnic.linkstate.down S:hwnicY"}},
  };
  for (const Story &s : stories) {
    SCOPED_TRACE(s.name);
    Restart();
    Seen seen;
    for (const Obs &o : s.obs) {
      RunTo(o.at, &seen);
      Apply(o);
    }
    RunTo(s.until, &seen);
    EXPECT_EQ(s.want, seen);
  }
}

TEST_F(UplinkTrackerTest, HandlersWithAMissingArgumentRecordNothing) {
  Restart();
  Feed("pg.uplink.transition.down", {S("hwnic1"), S("pg guests"), I(0)});
  Feed("dvport.uplink.transition.up", {S("hwnic1"), S("dvs"), I(3), I(1)});
  Feed("uplink.watchdog.timeout", {I(1)});
  EXPECT_TRUE(tevdNet.hwnicAlarms.empty());
  EXPECT_TRUE(tevdNet.hwnicStates.empty());
}

// ---- link flapping: downs within 60 s against Net/LinkFlappingThreshold ----

const char kThreshold[] = "platform/options/Net/LinkFlappingThreshold";
const char kNode[] = "platform/nodes/net/pNics/hwnic0/linkFlapping";

TEST_F(UplinkTrackerTest, LinkDownsAboveTheThresholdWithinSixtySecondsTakeTheNicDown) {
  struct Row {
    const char *threshold;  // nullptr: the option is absent
    std::vector<int> downs;
    size_t posted;
    size_t history;
  } rows[] = {
      {"3", {0, 10, 20}, 0, 3},
      {"3", {0, 10, 20, 30}, 1, 0},  // the fourth: posted, history emptied
      {"3", {0, 10, 20, 60}, 1, 0},  // exactly 60 s old still counts
      {"3", {0, 10, 20, 61}, 0, 3},  // older is pruned
      {"3", {0, 1, 2, 3, 4, 5, 6, 7}, 2, 0},
      {"0", {0, 1, 2, 3, 4, 5, 6, 7, 8, 9}, 0, 10},  // 0: never, but still recorded
      {nullptr, {0, 1, 2, 3, 4}, 0, 5},
  };
  for (const Row &r : rows) {
    SCOPED_TRACE(::testing::Message()
                 << (r.threshold ? r.threshold : "-") << " x" << r.downs.size());
    Restart();
    r.threshold ? root_.Write(kThreshold, r.threshold) : root_.Remove(kThreshold);
    root_.Remove(kNode);
    root_.MakeDir("platform/nodes/net/pNics/hwnic0");
    int at = 0;
    for (int s : r.downs) {
      clock_.Advance(s - at);
      at = s;
      Feed("hwnic.linkstate.down", {S("hwnic0")});
    }
    std::vector<QprobMessage> got = capture_.Take();
    ASSERT_EQ(r.posted, got.size());
    if (r.posted > 0) {
      EXPECT_EQ("kos.problem.net.hwnic.linkstate.flapping", got[0].id);
      EXPECT_EQ(std::vector<std::string>{"S:hwnic0"}, tevdtest::ArgsText(got[0].args));
    }
    EXPECT_EQ(r.history, tevdNet.hwnicFlapHistory["hwnic0"].size());
    std::string value;
    EXPECT_EQ(r.posted > 0, root_.Read(kNode, &value));
    EXPECT_EQ(r.posted > 0 ? "1" : "", value.substr(0, 1));
  }
}

TEST_F(UplinkTrackerTest, FlapThresholdIsReadOnEveryDownHistoriesArePerNicFailedWritePostsNot) {
  Restart();
  root_.Write(kThreshold, "10");
  root_.MakeDir("platform/nodes/net/pNics/hwnic0");
  for (int i = 0; i < 4; i++) TevdNetCorrelatorNoteLinkDown("hwnic0");
  TevdNetCorrelatorNoteLinkDown("hwnic1");
  EXPECT_EQ(0u, capture_.Count());
  root_.Write(kThreshold, "3");
  TevdNetCorrelatorNoteLinkDown("hwnic0");
  EXPECT_EQ(1u, capture_.Take().size());
  EXPECT_EQ(1u, tevdNet.hwnicFlapHistory["hwnic1"].size());
  root_.Remove("platform/nodes/net/pNics");  // the kernel write fails
  for (int i = 0; i < 4; i++) TevdNetCorrelatorNoteLinkDown("hwnic0");
  EXPECT_EQ(0u, capture_.Count());
  EXPECT_EQ(0u, tevdNet.hwnicFlapHistory["hwnic0"].size());
}

}  // namespace
