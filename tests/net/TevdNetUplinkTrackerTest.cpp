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

using Seen = std::vector<std::string>;  // "second id arg arg ..."

class UplinkTrackerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Restart();
    for (const char *pg : {"pg guests", "pg-mgmt", "pg-storage"}) {
      root_.Write(std::string("platform/network/portgroups/") + pg, "ksw0");
    }
  }
  void Restart() {
    TevdAlarm_ResetForTest();
    TevdNetCorrelator_ResetForTest();
    map_ = TevdNetCorrelator_BuildMap();
    ASSERT_TRUE(TevdNetCorrelator_Prepare(&pipeFd_));
    now_ = 0;
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
  void DvDown(const char *nic, const char *dvs, const char *port, int uplinks) {
    Feed("tev.net.dvport.uplink.transition.down", {S(nic), S(dvs), S(port), I(uplinks), I(5)});
  }
  void DvUp(const char *nic, const char *dvs, const char *port, int uplinks) {
    Feed("tev.net.dvport.uplink.transition.up", {S(nic), S(dvs), S(port), I(uplinks)});
  }
  void Nic(const char *what, const char *nic) { Feed(std::string("tev.net.") + what, {S(nic)}); }

  // Moves the clock one second at a time; whenever the alarm has written into
  // the pipe, drains it and runs the wake-up routine, as the agent would.
  // Returns what was posted meanwhile.
  Seen RunFor(int seconds) {
    Seen seen;
    for (int i = 0; i < seconds; i++) {
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
        std::string e = std::to_string(now_) + " " + m.id;
        for (const std::string &a : tevdtest::ArgsText(m.args)) e += " " + a;
        seen.push_back(e);
      }
    }
    return seen;
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
};

TEST_F(UplinkTrackerTest, LossesAreClassifiedByUplinksLeftAndReportedAtTwoSeconds) {
  PgDown("hwnic1", "pg guests", 0);
  PgDown("hwnic1", "pg-mgmt", 1);
  PgDown("hwnic1", "pg-storage", 3);
  PgDown("hwnic1", "pg-storage", -1);  // negative counts are in no list
  EXPECT_EQ(Seen{}, RunFor(1));
  EXPECT_EQ((Seen{"2 kos.problem.net.connectivity.lost S:ksw0 S:hwnic1 S:\"pg guests\"",
                  "2 kos.problem.net.redundancy.lost S:ksw0 S:hwnic1 S:\"pg-mgmt\"",
                  "2 kos.problem.net.redundancy.degraded S:ksw0 S:hwnic1 S:\"pg-storage\""}),
            RunFor(1));
  EXPECT_EQ(0u, Bits("hwnic1") & HWNIC_PG_DOWN);
  EXPECT_EQ(0u, tevdNet.pgDownInfo.count("hwnic1"));
  EXPECT_EQ(Seen{}, RunFor(10));
}

TEST_F(UplinkTrackerTest, PortGroupsOfOneClassShareOneListNamedByTheFirstSwitch) {
  root_.Write("platform/network/portgroups/Other", "ksw9");
  PgDown("hwnic2", "Other", 0);
  PgDown("hwnic2", "pg guests", 0);
  PgDown("hwnic2", "pg-mgmt", 0);
  EXPECT_EQ((Seen{"2 kos.problem.net.connectivity.lost S:ksw9 S:hwnic2 "
                  "S:\"Other\", \"pg guests\", \"pg-mgmt\""}),
            RunFor(2));
}

TEST_F(UplinkTrackerTest, RestoreUsesOneForConnectivityAndTwoForRedundancyAndSkipsTheRest) {
  PgUp("hwnic3", "pg guests", 1);
  PgUp("hwnic3", "pg-mgmt", 0);
  PgUp("hwnic3", "pg-mgmt", -2);
  PgUp("hwnic3", "pg-storage", 2);
  EXPECT_EQ((Seen{"2 kos.clear.net.connectivity.restored S:ksw0 S:\"pg guests\" S:hwnic3",
                  "2 kos.clear.net.redundancy.restored S:ksw0 S:\"pg-storage\" S:hwnic3"}),
            RunFor(2));
  EXPECT_EQ(0u, tevdNet.pgUpInfo.count("hwnic3"));
  PgUp("hwnic3", "pg-mgmt", 0);
  EXPECT_EQ(Seen{}, RunFor(5));
}

TEST_F(UplinkTrackerTest, UnknownOrEmptySwitchNamePostsNothingAndKeepsRecords) {
  root_.Write("platform/network/portgroups/Blank", "");
  for (const char *pg : {"Orphan PG", "Blank"}) {
    SCOPED_TRACE(pg);
    Restart();
    PgDown("hwnic4", pg, 0);
    EXPECT_EQ(Seen{}, RunFor(3));
    ASSERT_EQ(1u, tevdNet.pgDownInfo.count("hwnic4"));
    EXPECT_EQ(1u, tevdNet.pgDownInfo["hwnic4"].size());
    EXPECT_EQ(0u, Bits("hwnic4") & HWNIC_PG_DOWN);
    // The kept entry means the next loss is appended and schedules nothing.
    PgDown("hwnic4", "pg guests", 1);
    EXPECT_EQ(2u, tevdNet.pgDownInfo["hwnic4"].size());
    EXPECT_TRUE(tevdNet.hwnicAlarms.empty());
    EXPECT_EQ(Seen{}, RunFor(5));
  }
}

TEST_F(UplinkTrackerTest, BareLinkDownAndUpReportedAfterOneSecondUnlessAPortGroupWentDown) {
  Nic("hwnic.linkstate.down", "hwnic6");
  EXPECT_EQ(Seen{"1 kos.problem.net.hwnic.linkstate.down S:hwnic6"}, RunFor(1));
  Nic("hwnic.linkstate.up", "hwnic6");
  EXPECT_EQ(Seen{"2 kos.clear.net.hwnic.linkstate.up S:hwnic6"}, RunFor(1));
  PgDown("hwnic5", "pg guests", 0);
  Nic("hwnic.linkstate.down", "hwnic5");
  EXPECT_EQ(Seen{"4 kos.problem.net.connectivity.lost S:ksw0 S:hwnic5 S:\"pg guests\""},
            RunFor(10));
}

TEST_F(UplinkTrackerTest, DistributedPortsAreLabelledFirstSlashSecond) {
  DvDown("hwnic7", "dvs-A", "101", 0);
  DvDown("hwnic7", "dvs-A", "102", 0);
  DvDown("hwnic7", "dvs-B", "7", 1);
  DvDown("hwnic7", "dvs-C", "9", 2);
  DvDown("hwnic7", "dvs-C", "8", -3);
  EXPECT_EQ(
      (Seen{"2 kos.problem.net.dvport.connectivity.lost S:\"dvs-A/101\", \"dvs-A/102\" S:hwnic7",
            "2 kos.problem.net.dvport.redundancy.lost S:\"dvs-B/7\" S:hwnic7",
            "2 kos.problem.net.dvport.redundancy.degraded S:\"dvs-C/9\" S:hwnic7"}),
      RunFor(2));
  DvUp("hwnic7", "dvs-A", "101", 2);
  DvUp("hwnic7", "dvs-B", "7", 1);
  EXPECT_EQ((Seen{"4 kos.clear.net.dvport.connectivity.restored S:\"dvs-B/7\" S:hwnic7",
                  "4 kos.clear.net.dvport.redundancy.restored S:\"dvs-A/101\" S:hwnic7"}),
            RunFor(2));
}

TEST_F(UplinkTrackerTest, WatchdogFoldsDownAndUpIntoOneResetAndClearsAllBits) {
  for (bool distributed : {false, true}) {
    SCOPED_TRACE(distributed);
    Restart();
    Nic("uplink.watchdog.timeout", "hwnic8");
    EXPECT_EQ(Seen{}, RunFor(1));
    distributed ? DvDown("hwnic8", "dvs-A", "5", 0) : PgDown("hwnic8", "pg guests", 0);
    EXPECT_EQ(Seen{}, RunFor(2));
    distributed ? DvUp("hwnic8", "dvs-A", "5", 1) : PgUp("hwnic8", "pg guests", 1);
    EXPECT_EQ(Seen{}, RunFor(3));
    EXPECT_EQ(Seen{"7 kos.problem.net.hwnic.watchdog.reset S:hwnic8"}, RunFor(1));
    EXPECT_EQ(0u, Bits("hwnic8"));
    EXPECT_EQ(0u, tevdNet.pgDownInfo.count("hwnic8") + tevdNet.pgUpInfo.count("hwnic8") +
                      tevdNet.dvPortDownInfo.count("hwnic8") +
                      tevdNet.dvPortUpInfo.count("hwnic8"));
    EXPECT_EQ(Seen{}, RunFor(10));
  }
}

TEST_F(UplinkTrackerTest, WatchdogHoldsLossUntilItsExpiryAndStaysSet) {
  Nic("uplink.watchdog.timeout", "hwnic9");
  RunFor(1);
  PgDown("hwnic9", "pg guests", 1);
  EXPECT_EQ(Seen{}, RunFor(5));
  EXPECT_EQ(Seen{"7 kos.problem.net.redundancy.lost S:ksw0 S:hwnic9 S:\"pg guests\""}, RunFor(1));
  EXPECT_EQ(static_cast<HwnicStateType>(HWNIC_WATCHDOG), Bits("hwnic9"));
  // The sticky watchdog bit suppresses a later bare link-up report.
  Nic("hwnic.linkstate.up", "hwnic9");
  EXPECT_EQ(Seen{}, RunFor(5));
}

TEST_F(UplinkTrackerTest, BareLinkDownDuringWatchdogIsNeverReported) {
  Nic("uplink.watchdog.timeout", "hwnic10");
  Nic("hwnic.linkstate.down", "hwnic10");
  EXPECT_EQ(Seen{}, RunFor(10));  // the link-down bit was cleared at 1 s: not down
}

TEST_F(UplinkTrackerTest, WatchdogExpiryWithPendingBareLinkDownReportsItOnce) {
  // Both entries expire at 7 s; the watchdog's, scheduled first, is handled
  // first and reports the link; the link-down entry then sees the watchdog.
  Nic("uplink.watchdog.timeout", "hwnic15");
  RunFor(6);
  Nic("hwnic.linkstate.down", "hwnic15");
  EXPECT_EQ(Seen{"7 kos.problem.net.hwnic.linkstate.down S:hwnic15"}, RunFor(5));
  EXPECT_EQ(static_cast<HwnicStateType>(HWNIC_WATCHDOG), Bits("hwnic15"));
}

TEST_F(UplinkTrackerTest, ScheduleRearmsOnlyForShorterUnsigned32BitDistance) {
  ASSERT_GE(tevdNet.tevdNetAlarmId, 0);
  TevdNetCorrelatorSchedule(7, "hwnicX", HWNIC_WATCHDOG);
  uint64_t t0 = tevdNet.alarmArmedAt;
  EXPECT_EQ(7u, tevdNet.alarmDuration);
  RunFor(1);
  TevdNetCorrelatorSchedule(2, "hwnicX", HWNIC_PG_DOWN);  // 2 - t0 + now = 3 < 7
  EXPECT_EQ(3u, tevdNet.alarmDuration);
  EXPECT_EQ(t0 + 1, tevdNet.alarmArmedAt);
  TevdNetCorrelatorSchedule(7, "hwnicY", HWNIC_WATCHDOG);  // 7, not < 3
  EXPECT_EQ(3u, tevdNet.alarmDuration);
  EXPECT_EQ(2u, tevdNet.hwnicAlarms["hwnicX"].size());
  EXPECT_EQ(1u, tevdNet.hwnicAlarms["hwnicY"].size());
  clock_.Advance(-10);  // 2 - armedAt + now wraps to a huge distance: left alone
  TevdNetCorrelatorSchedule(2, "hwnicY", HWNIC_PG_DOWN);
  EXPECT_EQ(3u, tevdNet.alarmDuration);
  EXPECT_EQ(t0 + 1, tevdNet.alarmArmedAt);
}

TEST_F(UplinkTrackerTest, TimeoutPassRearmsForNearestRemainingEntry) {
  TevdNetCorrelatorSchedule(7, "hwnicX", HWNIC_WATCHDOG);
  uint64_t t0 = tevdNet.alarmArmedAt;
  TevdNetCorrelatorSchedule(1, "hwnicY", HWNIC_LINK_UP);
  EXPECT_EQ(1u, tevdNet.alarmDuration);
  clock_.Advance(1);
  TevdNetCorrelator_ProcessTimeouts();
  EXPECT_EQ(6u, tevdNet.alarmDuration);
  EXPECT_EQ(t0 + 1, tevdNet.alarmArmedAt);
  EXPECT_EQ(0u, tevdNet.hwnicAlarms.count("hwnicY"));
  EXPECT_EQ(1u, tevdNet.hwnicAlarms.count("hwnicX"));
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
