// Uplink redundancy tracking driven the way the daemon drives it: observations
// through the handler map, the fake clock moved by whole seconds, the alarm
// run when due, and the wake-up routine called when the alarm has written into
// the correlator's pipe.
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

struct Seen {
  int second;
  std::string id;
  std::vector<std::string> args;
};

class UplinkTrackerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    TevdAlarm_ResetForTest();
    TevdNetCorrelator_ResetForTest();
    map_ = TevdNetCorrelator_BuildMap();
    ASSERT_TRUE(TevdNetCorrelator_Prepare(&pipeFd_));
    root_.Write("platform/network/portgroups/pg guests", "ksw0");
    root_.Write("platform/network/portgroups/pg-mgmt", "ksw0");
    root_.Write("platform/network/portgroups/pg-storage", "ksw0");
  }
  void TearDown() override {
    TevdNetCorrelator_ResetForTest();
    TevdAlarm_ResetForTest();
  }

  void Feed(const std::string &id, const std::vector<MsgFmt_Value> &args) {
    tevdtest::TevPtr tev = tevdtest::MakeTev(id, args);
    TevdCorrelator_Dispatch(TevdNetCorrelatorIgnore, map_, tev.get());
  }
  void PgDown(const char *nic, const char *pg, int uplinks) {
    Feed("tev.net.pg.uplink.transition.down", {S(nic), S(pg), I(uplinks), I(99)});
  }
  void PgUp(const char *nic, const char *pg, int uplinks) {
    Feed("tev.net.pg.uplink.transition.up", {S(nic), S(pg), I(uplinks)});
  }

  // Moves the clock one second at a time; whenever the alarm has written into
  // the pipe, drains it and runs the wake-up routine, as the agent would.
  void RunFor(int seconds) {
    for (int i = 0; i < seconds; i++) {
      clock_.Advance(1);
      now_++;
      TevdAlarm_RunDueForTest();
      struct pollfd p = {pipeFd_, POLLIN, 0};
      if (poll(&p, 1, 0) == 1) {
        char buf[10];
        ASSERT_GT(read(pipeFd_, buf, sizeof buf), 0);
        TevdNetCorrelator_ProcessTimeouts();
      }
      for (const QprobMessage &m : capture_.Take()) {
        seen_.push_back({now_, m.id, tevdtest::ArgsText(m.args)});
        classes_.push_back(m.className);
      }
    }
  }
  std::vector<Seen> TakeSeen() {
    std::vector<Seen> out;
    out.swap(seen_);
    return out;
  }
  HwnicStateType Bits(const std::string &nic) {
    auto it = tevdNet.hwnicStates.find(nic);
    return it == tevdNet.hwnicStates.end() ? 0 : it->second;
  }

  tevdtest::ScratchRoot root_;
  tevdtest::FakeClock clock_;
  tevdtest::EventCapture capture_;
  TevHandlerMap map_;
  int pipeFd_ = -1;
  int now_ = 0;
  std::vector<Seen> seen_;
  std::vector<std::string> classes_;
};

TEST_F(UplinkTrackerTest, LossWithZeroOneAndThreeUplinksGivesThreeClassesInOrderAtTwoSeconds) {
  PgDown("hwnic1", "pg guests", 0);
  PgDown("hwnic1", "pg-mgmt", 1);
  PgDown("hwnic1", "pg-storage", 3);
  RunFor(1);
  EXPECT_TRUE(TakeSeen().empty());
  RunFor(1);
  std::vector<Seen> seen = TakeSeen();
  ASSERT_EQ(seen.size(), 3u);
  EXPECT_EQ(seen[0].id, "kos.problem.net.connectivity.lost");
  EXPECT_EQ(seen[0].args, (std::vector<std::string>{"S:ksw0", "S:hwnic1", "S:\"pg guests\""}));
  EXPECT_EQ(seen[1].id, "kos.problem.net.redundancy.lost");
  EXPECT_EQ(seen[1].args, (std::vector<std::string>{"S:ksw0", "S:hwnic1", "S:\"pg-mgmt\""}));
  EXPECT_EQ(seen[2].id, "kos.problem.net.redundancy.degraded");
  EXPECT_EQ(seen[2].args, (std::vector<std::string>{"S:ksw0", "S:hwnic1", "S:\"pg-storage\""}));
  EXPECT_EQ(Bits("hwnic1") & HWNIC_PG_DOWN, 0u);
  EXPECT_EQ(tevdNet.pgDownInfo.count("hwnic1"), 0u);
  RunFor(10);
  EXPECT_TRUE(TakeSeen().empty());
}

TEST_F(UplinkTrackerTest, ThreePortGroupsOfOneClassShareOneQuotedCommaList) {
  PgDown("hwnic2", "pg guests", 0);
  PgDown("hwnic2", "pg-mgmt", 0);
  PgDown("hwnic2", "pg-storage", 0);
  RunFor(2);
  std::vector<Seen> seen = TakeSeen();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].second, 2);
  EXPECT_EQ(seen[0].id, "kos.problem.net.connectivity.lost");
  EXPECT_EQ(seen[0].args, (std::vector<std::string>{"S:ksw0", "S:hwnic2",
                                                    "S:\"pg guests\", \"pg-mgmt\", \"pg-storage\""}));
}

TEST_F(UplinkTrackerTest, RestoreUsesOneForConnectivityAndTwoForRedundancyAndSkipsZero) {
  PgUp("hwnic3", "pg guests", 1);
  PgUp("hwnic3", "pg-mgmt", 0);
  PgUp("hwnic3", "pg-storage", 2);
  RunFor(2);
  std::vector<Seen> seen = TakeSeen();
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0].id, "kos.clear.net.connectivity.restored");
  EXPECT_EQ(seen[0].args, (std::vector<std::string>{"S:ksw0", "S:\"pg guests\"", "S:hwnic3"}));
  EXPECT_EQ(seen[1].id, "kos.clear.net.redundancy.restored");
  EXPECT_EQ(seen[1].args, (std::vector<std::string>{"S:ksw0", "S:\"pg-storage\"", "S:hwnic3"}));
  EXPECT_EQ(tevdNet.pgUpInfo.count("hwnic3"), 0u);
}

TEST_F(UplinkTrackerTest, RestoreWithOnlyZeroUplinksPostsNothing) {
  PgUp("hwnic3", "pg-mgmt", 0);
  RunFor(5);
  EXPECT_TRUE(TakeSeen().empty());
}

TEST_F(UplinkTrackerTest, UnknownSwitchNamePostsNothingAndKeepsRecords) {
  PgDown("hwnic4", "Orphan PG", 0);
  RunFor(3);
  EXPECT_TRUE(TakeSeen().empty());
  ASSERT_EQ(tevdNet.pgDownInfo.count("hwnic4"), 1u);
  EXPECT_EQ(tevdNet.pgDownInfo["hwnic4"].size(), 1u);
  EXPECT_EQ(Bits("hwnic4") & HWNIC_PG_DOWN, 0u);
  // The kept entry means the next loss is appended and schedules nothing.
  PgDown("hwnic4", "pg guests", 1);
  EXPECT_EQ(tevdNet.pgDownInfo["hwnic4"].size(), 2u);
  EXPECT_TRUE(tevdNet.hwnicAlarms.empty());
  RunFor(5);
  EXPECT_TRUE(TakeSeen().empty());
}

TEST_F(UplinkTrackerTest, EmptySwitchNameFilePostsNothing) {
  root_.Write("platform/network/portgroups/Blank", "");
  PgDown("hwnic4", "Blank", 0);
  RunFor(3);
  EXPECT_TRUE(TakeSeen().empty());
  EXPECT_EQ(tevdNet.pgDownInfo.count("hwnic4"), 1u);
}

TEST_F(UplinkTrackerTest, LinkDownAfterPortGroupLossSchedulesNoBareReport) {
  PgDown("hwnic5", "pg guests", 0);
  Feed("tev.net.hwnic.linkstate.down", {S("hwnic5")});
  RunFor(10);
  std::vector<Seen> seen = TakeSeen();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].id, "kos.problem.net.connectivity.lost");
}

TEST_F(UplinkTrackerTest, NullNamesAreIgnoredLikeUnreadableArguments) {
  const MsgFmt_Value null = MsgFmt_Value::NullStr();
  Feed("tev.net.pg.uplink.transition.down", {null, S("pg-mgmt"), I(0), I(99)});
  Feed("tev.net.pg.uplink.transition.down", {S("hwnic1"), null, I(0), I(99)});
  Feed("tev.net.dvport.uplink.transition.up", {S("hwnic1"), null, S("p"), I(1)});
  Feed("tev.net.hwnic.linkstate.down", {null});
  Feed("tev.net.uplink.watchdog.timeout", {null});
  RunFor(10);
  EXPECT_TRUE(TakeSeen().empty());
}

TEST_F(UplinkTrackerTest, BareLinkDownAndUpReportedAfterOneSecond) {
  Feed("tev.net.hwnic.linkstate.down", {S("hwnic6")});
  RunFor(1);
  std::vector<Seen> seen = TakeSeen();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].id, "kos.problem.net.hwnic.linkstate.down");
  EXPECT_EQ(seen[0].args, (std::vector<std::string>{"S:hwnic6"}));
  Feed("tev.net.hwnic.linkstate.up", {S("hwnic6")});
  RunFor(1);
  seen = TakeSeen();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].id, "kos.clear.net.hwnic.linkstate.up");
  EXPECT_EQ(seen[0].args, (std::vector<std::string>{"S:hwnic6"}));
}

TEST_F(UplinkTrackerTest, DistributedPortsAreLabelledFirstSlashSecond) {
  Feed("tev.net.dvport.uplink.transition.down", {S("hwnic7"), S("dvs-A"), S("101"), I(0), I(5)});
  Feed("tev.net.dvport.uplink.transition.down", {S("hwnic7"), S("dvs-A"), S("102"), I(0), I(5)});
  Feed("tev.net.dvport.uplink.transition.down", {S("hwnic7"), S("dvs-B"), S("7"), I(1), I(5)});
  RunFor(2);
  std::vector<Seen> seen = TakeSeen();
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0].id, "kos.problem.net.dvport.connectivity.lost");
  EXPECT_EQ(seen[0].args, (std::vector<std::string>{"S:\"dvs-A/101\", \"dvs-A/102\"", "S:hwnic7"}));
  EXPECT_EQ(seen[1].id, "kos.problem.net.dvport.redundancy.lost");
  EXPECT_EQ(seen[1].args, (std::vector<std::string>{"S:\"dvs-B/7\"", "S:hwnic7"}));

  Feed("tev.net.dvport.uplink.transition.up", {S("hwnic7"), S("dvs-A"), S("101"), I(2)});
  Feed("tev.net.dvport.uplink.transition.up", {S("hwnic7"), S("dvs-B"), S("7"), I(1)});
  RunFor(2);
  seen = TakeSeen();
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0].id, "kos.clear.net.dvport.connectivity.restored");
  EXPECT_EQ(seen[0].args, (std::vector<std::string>{"S:\"dvs-B/7\"", "S:hwnic7"}));
  EXPECT_EQ(seen[1].id, "kos.clear.net.dvport.redundancy.restored");
  EXPECT_EQ(seen[1].args, (std::vector<std::string>{"S:\"dvs-A/101\"", "S:hwnic7"}));
}

TEST_F(UplinkTrackerTest, DistributedPortWithTwoUplinksLeftIsDegraded) {
  Feed("tev.net.dvport.uplink.transition.down", {S("hwnic7"), S("dvs-A"), S("9"), I(2), I(0)});
  RunFor(2);
  std::vector<Seen> seen = TakeSeen();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].id, "kos.problem.net.dvport.redundancy.degraded");
}

TEST_F(UplinkTrackerTest, WatchdogWithDownAndUpIsOneTransientFailureAndClearsAllBits) {
  Feed("tev.net.uplink.watchdog.timeout", {S("hwnic8")});
  RunFor(1);
  PgDown("hwnic8", "pg guests", 0);
  RunFor(2);
  PgUp("hwnic8", "pg guests", 1);
  RunFor(3);
  EXPECT_TRUE(TakeSeen().empty());
  RunFor(1);   // second 7: the watchdog's expiry
  std::vector<Seen> seen = TakeSeen();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].second, 7);
  EXPECT_EQ(seen[0].id, "kos.problem.net.hwnic.watchdog.reset");
  EXPECT_EQ(seen[0].args, (std::vector<std::string>{"S:hwnic8"}));
  EXPECT_EQ(Bits("hwnic8"), 0u);
  EXPECT_EQ(tevdNet.pgDownInfo.count("hwnic8"), 0u);
  EXPECT_EQ(tevdNet.pgUpInfo.count("hwnic8"), 0u);
  RunFor(10);
  EXPECT_TRUE(TakeSeen().empty());
}

TEST_F(UplinkTrackerTest, WatchdogHoldsLossUntilItsExpiryAndStaysSet) {
  Feed("tev.net.uplink.watchdog.timeout", {S("hwnic9")});
  RunFor(1);
  PgDown("hwnic9", "pg guests", 1);
  RunFor(5);
  EXPECT_TRUE(TakeSeen().empty());
  RunFor(1);
  std::vector<Seen> seen = TakeSeen();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].second, 7);
  EXPECT_EQ(seen[0].id, "kos.problem.net.redundancy.lost");
  EXPECT_EQ(Bits("hwnic9"), static_cast<HwnicStateType>(HWNIC_WATCHDOG));
  // The sticky watchdog bit suppresses a later bare link-up report.
  Feed("tev.net.hwnic.linkstate.up", {S("hwnic9")});
  RunFor(5);
  EXPECT_TRUE(TakeSeen().empty());
}

TEST_F(UplinkTrackerTest, BareLinkDownDuringWatchdogIsNeverReported) {
  Feed("tev.net.uplink.watchdog.timeout", {S("hwnic10")});
  Feed("tev.net.hwnic.linkstate.down", {S("hwnic10")});
  RunFor(6);
  EXPECT_TRUE(TakeSeen().empty());
  RunFor(1);
  std::vector<Seen> seen = TakeSeen();
  ASSERT_EQ(seen.size(), 0u);   // the link-down bit was cleared at 1 s: not down
}

TEST_F(UplinkTrackerTest, ScheduleRearmsOnlyForShorterUnsignedDistance) {
  ASSERT_GE(tevdNet.tevdNetAlarmId, 0);
  TevdNetCorrelatorSchedule(7, "hwnicX", HWNIC_WATCHDOG);
  uint64_t t0 = tevdNet.alarmArmedAt;
  EXPECT_EQ(tevdNet.alarmDuration, 7u);
  RunFor(1);
  // d = 2 - armedAt + now = 3 < 7: re-armed.
  TevdNetCorrelatorSchedule(2, "hwnicX", HWNIC_PG_DOWN);
  EXPECT_EQ(tevdNet.alarmDuration, 3u);
  EXPECT_EQ(tevdNet.alarmArmedAt, t0 + 1);
  // d = 7 - armedAt + now = 7, not < 3: left alone.
  TevdNetCorrelatorSchedule(7, "hwnicY", HWNIC_WATCHDOG);
  EXPECT_EQ(tevdNet.alarmDuration, 3u);
  EXPECT_EQ(tevdNet.alarmArmedAt, t0 + 1);
  EXPECT_EQ(tevdNet.hwnicAlarms["hwnicX"].size(), 2u);
  EXPECT_EQ(tevdNet.hwnicAlarms["hwnicY"].size(), 1u);
}

TEST_F(UplinkTrackerTest, NegativeUplinkCountsAreInNoLossOrRestoreList) {
  PgDown("hwnic11", "pg guests", -1);
  PgDown("hwnic11", "pg-mgmt", 0);
  Feed("tev.net.dvport.uplink.transition.down", {S("hwnic12"), S("dvs-A"), S("1"), I(-3), I(0)});
  RunFor(2);
  std::vector<Seen> seen = TakeSeen();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].id, "kos.problem.net.connectivity.lost");
  EXPECT_EQ(seen[0].args, (std::vector<std::string>{"S:ksw0", "S:hwnic11", "S:\"pg-mgmt\""}));
  EXPECT_EQ(tevdNet.dvPortDownInfo.count("hwnic12"), 0u);

  PgUp("hwnic11", "pg guests", -2);
  PgUp("hwnic11", "pg-mgmt", 2);
  RunFor(2);
  seen = TakeSeen();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].id, "kos.clear.net.redundancy.restored");
  EXPECT_EQ(seen[0].args, (std::vector<std::string>{"S:ksw0", "S:\"pg-mgmt\"", "S:hwnic11"}));
}

TEST_F(UplinkTrackerTest, OnlyFirstPortGroupNamesTheSwitchForTheWholeEpisode) {
  root_.Write("platform/network/portgroups/Other", "ksw9");
  PgDown("hwnic13", "Other", 0);
  PgDown("hwnic13", "pg guests", 0);
  RunFor(2);
  std::vector<Seen> seen = TakeSeen();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].id, "kos.problem.net.connectivity.lost");
  EXPECT_EQ(seen[0].args,
            (std::vector<std::string>{"S:ksw9", "S:hwnic13", "S:\"Other\", \"pg guests\""}));
}

TEST_F(UplinkTrackerTest, LossAndRestoreEventsCarryTheirClasses) {
  PgDown("hwnic14", "pg guests", 0);
  RunFor(2);
  PgUp("hwnic14", "pg guests", 1);
  RunFor(2);
  ASSERT_EQ(classes_.size(), 2u);
  EXPECT_EQ(classes_[0], "problem");
  EXPECT_EQ(classes_[1], "clear");
}

TEST_F(UplinkTrackerTest, WatchdogExpiryWithPendingBareLinkDownReportsItOnce) {
  // Both entries expire at 7 s; the watchdog's, scheduled first, is handled
  // first and reports the link; the link-down entry then sees the watchdog.
  Feed("tev.net.uplink.watchdog.timeout", {S("hwnic15")});
  RunFor(6);
  Feed("tev.net.hwnic.linkstate.down", {S("hwnic15")});
  RunFor(1);
  std::vector<Seen> seen = TakeSeen();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].second, 7);
  EXPECT_EQ(seen[0].id, "kos.problem.net.hwnic.linkstate.down");
  EXPECT_EQ(seen[0].args, (std::vector<std::string>{"S:hwnic15"}));
  EXPECT_EQ(Bits("hwnic15"), static_cast<HwnicStateType>(HWNIC_WATCHDOG));
}

TEST_F(UplinkTrackerTest, WatchdogFoldsDistributedPortDownAndUpIntoOneReset) {
  Feed("tev.net.uplink.watchdog.timeout", {S("hwnic16")});
  Feed("tev.net.dvport.uplink.transition.down", {S("hwnic16"), S("dvs-A"), S("5"), I(0), I(0)});
  RunFor(3);
  Feed("tev.net.dvport.uplink.transition.up", {S("hwnic16"), S("dvs-A"), S("5"), I(1)});
  RunFor(4);
  std::vector<Seen> seen = TakeSeen();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].second, 7);
  EXPECT_EQ(seen[0].id, "kos.problem.net.hwnic.watchdog.reset");
  EXPECT_EQ(tevdNet.dvPortDownInfo.count("hwnic16"), 0u);
  EXPECT_EQ(tevdNet.dvPortUpInfo.count("hwnic16"), 0u);
  EXPECT_EQ(Bits("hwnic16"), 0u);
}

TEST_F(UplinkTrackerTest, ScheduleDistanceWrapsAsUnsigned32BitWhenClockStepsBack) {
  TevdNetCorrelatorSchedule(7, "hwnicX", HWNIC_WATCHDOG);
  uint64_t t0 = tevdNet.alarmArmedAt;
  clock_.Advance(-10);
  // d = 2 - t0 + (t0 - 10) wraps to 4294967288: not shorter, left alone.
  TevdNetCorrelatorSchedule(2, "hwnicY", HWNIC_PG_DOWN);
  EXPECT_EQ(tevdNet.alarmDuration, 7u);
  EXPECT_EQ(tevdNet.alarmArmedAt, t0);
}

TEST_F(UplinkTrackerTest, TimeoutPassRearmsForNearestRemainingEntry) {
  TevdNetCorrelatorSchedule(7, "hwnicX", HWNIC_WATCHDOG);
  uint64_t t0 = tevdNet.alarmArmedAt;
  TevdNetCorrelatorSchedule(1, "hwnicY", HWNIC_LINK_UP);
  EXPECT_EQ(tevdNet.alarmDuration, 1u);
  clock_.Advance(1);
  TevdNetCorrelator_ProcessTimeouts();
  EXPECT_EQ(tevdNet.alarmDuration, 6u);
  EXPECT_EQ(tevdNet.alarmArmedAt, t0 + 1);
  EXPECT_EQ(tevdNet.hwnicAlarms.count("hwnicY"), 0u);
  ASSERT_EQ(tevdNet.hwnicAlarms.count("hwnicX"), 1u);
}

TEST_F(UplinkTrackerTest, TrackerHandlerWithMissingArgumentRecordsNothing) {
  Feed("tev.net.pg.uplink.transition.down", {S("hwnic1"), S("pg guests"), I(0)});
  Feed("tev.net.dvport.uplink.transition.up", {S("hwnic1"), S("dvs"), I(3), I(1)});
  Feed("tev.net.uplink.watchdog.timeout", {I(1)});
  EXPECT_TRUE(tevdNet.pgDownInfo.empty());
  EXPECT_TRUE(tevdNet.dvPortUpInfo.empty());
  EXPECT_TRUE(tevdNet.hwnicAlarms.empty());
  EXPECT_TRUE(tevdNet.hwnicStates.empty());
}

}  // namespace
