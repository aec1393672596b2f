// Path and device tracking of the SCSI correlator against a scratch host model:
// path down/up by redundancy status, the reported-down table, the datastore
// list, the path-state and power-on-reset counters, device loss events.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "ScsiTestLog.h"
#include "TevdTestSupport.h"
#include "tevdScsiCorrelator.h"

using tevdtest::I;
using tevdtest::S;

namespace {

using Args = std::vector<std::string>;

class ScsiPathTest : public ::testing::Test {
 protected:
  void SetUp() override {
    TevdScsiCorrelator_ResetForTest();
    root_.MakeDir("kfs/volumes");
  }
  void TearDown() override { TevdScsiCorrelator_ResetForTest(); }

  void AddPath(const std::string &path, const std::string &device) {
    root_.Write("platform/storage/paths/" + path, device);
  }
  // A device with its redundancy status and its partitions (number -> volume,
  // "" for a partition without a file system).
  void AddDevice(const std::string &device, int status,
                 const std::map<int, std::string> &partitions = {}) {
    root_.Write("platform/storage/devices/" + device + "/status", std::to_string(status));
    for (const auto &p : partitions) {
      root_.Write("platform/storage/devices/" + device + "/partitions/" + std::to_string(p.first),
                  p.second);
    }
  }
  void SetStatus(const std::string &device, int status) {
    root_.Write("platform/storage/devices/" + device + "/status", std::to_string(status));
  }
  void Obs(const std::string &id, const std::vector<MsgFmt_Value> &args) {
    tevdtest::TevPtr tev = tevdtest::MakeTev(id, args);
    TevdCorrelator_Dispatch(TevdScsiCorrelatorDoDefault, map_, tev.get());
    log_.Pump();
  }
  void Down(const std::string &path, const std::string &left) {
    Obs("tev.scsi.scsipath.pathstate.dead", {S(path), S(left)});
  }
  void Up(const std::string &path, const std::string &previous) {
    Obs("tev.scsi.scsipath.pathstate.on", {S(path), S(previous)});
  }
  // Sets both sweep and period clocks of the path-state table to now, so the
  // counts that follow start inside a fresh sweep interval.
  void StartCountingInterval() {
    Obs("tev.scsi.scsipath.add", {S("warmup")});
    Obs("tev.scsi.scsipath.por", {S("warmup")});
  }
  std::vector<QprobMessage> Events() { return capture_.Take(); }

  tevdtest::ScratchRoot root_;
  tevdtest::FakeClock clock_;
  tevdtest::EventCapture capture_;
  scsitest::LogSink log_{root_.path()};
  TevHandlerMap map_ = TevdScsiCorrelator_BuildMap();
};

struct DownCase {
  int status;
  const char *eventId;   // nullptr: nothing posted
};

TEST_F(ScsiPathTest, PathDownIsClassifiedByTheDevicesRedundancyStatus) {
  const std::vector<DownCase> cases = {
      {0, nullptr},
      {1, "kos.problem.storage.connectivity.lost"},
      {2, "kos.problem.storage.redundancy.lost"},
      {3, "kos.problem.storage.redundancy.degraded"},
      {4, nullptr},
  };
  AddPath("p1", "naa.1");
  for (const DownCase &c : cases) {
    SCOPED_TRACE(c.status);
    TevdScsiCorrelator_ResetForTest();
    AddDevice("naa.1", c.status, {{1, "ds1"}});
    Down("p1", "on");
    std::vector<QprobMessage> events = Events();
    if (c.eventId == nullptr) {
      EXPECT_TRUE(events.empty());
    } else {
      ASSERT_EQ(events.size(), 1u);
      EXPECT_EQ(events[0].id, c.eventId);
      EXPECT_EQ(tevdtest::ArgsText(events[0].args), (Args{"S:naa.1", "S:p1", "S:\"ds1\""}));
    }
    // Status 0 leaves no trace; any other status marks the device.
    EXPECT_EQ(TevdScsiCorrelator_IsReportedDownForTest("naa.1"), c.status != 0);
  }
}

TEST_F(ScsiPathTest, DegradedPathReturningFromDeadPostsRedundancyRestored) {
  AddPath("p1", "naa.1");
  AddPath("p2", "naa.1");
  AddPath("p3", "naa.1");
  AddDevice("naa.1", 3, {{1, "ds1"}});
  Obs("tev.scsi.scsipath.pathstate.off", {S("p1"), S("standby")});
  std::vector<QprobMessage> down = Events();
  ASSERT_EQ(down.size(), 1u);
  EXPECT_EQ(down[0].id, "kos.problem.storage.redundancy.degraded");
  EXPECT_TRUE(log_.SawEnding(
      "[kos.problem.storage.redundancy.degraded] Path redundancy to storage device naa.1 "
      "degraded. Path p1 is down. Affected datastores: \"ds1\"."));

  Obs("tev.scsi.scsipath.pathstate.standby", {S("p1"), S("dead")});
  std::vector<QprobMessage> up = Events();
  ASSERT_EQ(up.size(), 1u);
  EXPECT_EQ(up[0].id, "kos.clear.storage.redundancy.restored");
  EXPECT_EQ(up[0].className, "clear");
  EXPECT_EQ(tevdtest::ArgsText(up[0].args), (Args{"S:naa.1", "S:\"ds1\"", "S:p1"}));
  EXPECT_TRUE(log_.SawEnding(
      "[kos.clear.storage.redundancy.restored] Path redundancy to storage device naa.1 "
      "(Datastores: \"ds1\") restored. Path p1 is active again."));
  EXPECT_FALSE(TevdScsiCorrelator_IsReportedDownForTest("naa.1"));
}

TEST_F(ScsiPathTest, SinglePathLeftOnReturnPostsConnectivityRestored) {
  AddPath("p1", "naa.1");
  AddDevice("naa.1", 1, {{1, "ds1"}});
  Down("p1", "on");
  ASSERT_EQ(Events().size(), 1u);
  SetStatus("naa.1", 2);
  Up("p1", "off");
  std::vector<QprobMessage> up = Events();
  ASSERT_EQ(up.size(), 1u);
  EXPECT_EQ(up[0].id, "kos.clear.storage.connectivity.restored");
  EXPECT_EQ(tevdtest::ArgsText(up[0].args), (Args{"S:naa.1", "S:\"ds1\"", "S:p1"}));
}

struct PathTextCase {
  int status;
  const char *eventId;
  const char *text;
};

TEST_F(ScsiPathTest, PathDownTextsNameDeviceThenPathThenDatastores) {
  const std::vector<PathTextCase> cases = {
      {1, "kos.problem.storage.connectivity.lost",
       "Lost connectivity to storage device naa.1. Path p1 is down. Affected datastores: "
       "\"ds1\"."},
      {2, "kos.problem.storage.redundancy.lost",
       "Lost path redundancy to storage device naa.1. Path p1 is down. Affected datastores: "
       "\"ds1\"."},
      {3, "kos.problem.storage.redundancy.degraded",
       "Path redundancy to storage device naa.1 degraded. Path p1 is down. Affected datastores: "
       "\"ds1\"."},
  };
  AddPath("p1", "naa.1");
  for (const PathTextCase &c : cases) {
    SCOPED_TRACE(c.status);
    TevdScsiCorrelator_ResetForTest();
    AddDevice("naa.1", c.status, {{1, "ds1"}});
    Down("p1", "standby");
    std::vector<QprobMessage> events = Events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].id, c.eventId);
    EXPECT_EQ(events[0].className, "problem");
    EXPECT_TRUE(log_.SawEnding(std::string("[") + c.eventId + "] " + c.text));
    log_.Take();
  }
}

TEST_F(ScsiPathTest, PathUpTextsNameDeviceThenDatastoresThenPath) {
  const std::vector<PathTextCase> cases = {
      {2, "kos.clear.storage.connectivity.restored",
       "Connectivity to storage device naa.1 (Datastores: \"ds1\") restored. Path p1 is active "
       "again."},
      {3, "kos.clear.storage.redundancy.restored",
       "Path redundancy to storage device naa.1 (Datastores: \"ds1\") restored. Path p1 is "
       "active again."},
  };
  AddPath("p1", "naa.1");
  for (const PathTextCase &c : cases) {
    SCOPED_TRACE(c.status);
    TevdScsiCorrelator_ResetForTest();
    AddDevice("naa.1", 1, {{1, "ds1"}});
    Down("p1", "on");
    ASSERT_EQ(Events().size(), 1u);
    SetStatus("naa.1", c.status);
    Obs("tev.scsi.scsipath.pathstate.standby", {S("p1"), S("off")});
    std::vector<QprobMessage> events = Events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].id, c.eventId);
    EXPECT_EQ(events[0].className, "clear");
    EXPECT_EQ(tevdtest::ArgsText(events[0].args), (Args{"S:naa.1", "S:\"ds1\"", "S:p1"}));
    EXPECT_TRUE(log_.SawEnding(std::string("[") + c.eventId + "] " + c.text));
    log_.Take();
  }
}

TEST_F(ScsiPathTest, PathUpWithStatusZeroForgetsTheDeviceWithoutAClear) {
  AddPath("p1", "naa.1");
  AddDevice("naa.1", 3);
  Down("p1", "on");
  ASSERT_EQ(Events().size(), 1u);
  SetStatus("naa.1", 0);
  Up("p1", "off");
  EXPECT_TRUE(Events().empty());
  EXPECT_FALSE(TevdScsiCorrelator_IsReportedDownForTest("naa.1"));
  SetStatus("naa.1", 3);
  Up("p1", "dead");   // the entry went with the first path up
  EXPECT_TRUE(Events().empty());
}

TEST_F(ScsiPathTest, PathUpWithoutEarlierPathDownPostsNoClear) {
  AddPath("p1", "naa.1");
  AddDevice("naa.1", 3);
  Up("p1", "dead");
  EXPECT_TRUE(Events().empty());
}

TEST_F(ScsiPathTest, PathUpWithNoPathLeftClearsTheEntrySilently) {
  AddPath("p1", "naa.1");
  AddPath("p2", "naa.1");
  AddDevice("naa.1", 1);
  Down("p1", "on");
  ASSERT_EQ(Events().size(), 1u);
  Up("p2", "dead");   // status still 1: nothing to clear yet
  EXPECT_TRUE(Events().empty());
  EXPECT_FALSE(TevdScsiCorrelator_IsReportedDownForTest("naa.1"));
  SetStatus("naa.1", 3);
  Up("p1", "dead");   // the entry is gone, so no clear follows either
  EXPECT_TRUE(Events().empty());
}

TEST_F(ScsiPathTest, PathLeavingOffOrDeadAddsNoRedundancyEvent) {
  AddPath("p1", "naa.1");
  AddDevice("naa.1", 1);
  StartCountingInterval();
  Down("p1", "off");
  EXPECT_TRUE(Events().empty());
  EXPECT_FALSE(TevdScsiCorrelator_IsReportedDownForTest("naa.1"));
  EXPECT_EQ(TevdScsiCorrelator_CounterForTest("p1", false), 1);   // still counted
  Up("p1", "standby");   // from a state that was not down: no clear considered
  EXPECT_TRUE(Events().empty());
  EXPECT_EQ(TevdScsiCorrelator_CounterForTest("p1", false), 2);
}

TEST_F(ScsiPathTest, UnknownPathOrMissingArgumentsPostNothing) {
  AddDevice("naa.1", 2);
  Down("nosuchpath", "on");
  Obs("tev.scsi.scsipath.pathstate.dead", {S("p1")});
  Obs("tev.scsi.scsipath.pathstate.on", {I(3), S("dead")});
  EXPECT_TRUE(Events().empty());
  EXPECT_TRUE(log_.TakeDiagnostics().empty());
  AddPath("p9", "naa.gone");   // path to a device the host does not know
  Down("p9", "on");
  EXPECT_TRUE(Events().empty());
  EXPECT_FALSE(TevdScsiCorrelator_IsReportedDownForTest("naa.gone"));
}

// A null name cannot key a table or a host look-up: each stateful handler
// treats it as an unreadable argument.
TEST_F(ScsiPathTest, NullNamesAreUnreadableForTheStatefulHandlers) {
  AddDevice("naa.1", 2);
  AddPath("p1", "naa.1");
  const MsgFmt_Value null = MsgFmt_Value::NullStr();
  Obs("tev.scsi.scsipath.pathstate.dead", {null, S("on")});
  Obs("tev.scsi.scsipath.pathstate.dead", {S("p1"), null});
  Obs("tev.scsi.scsipath.add", {null});
  Obs("tev.scsi.scsipath.por", {null});
  Obs("tev.scsi.device.state.permanentloss", {null});
  Obs("tev.scsi.device.thinprov.atquota", {null});
  EXPECT_TRUE(Events().empty());
  EXPECT_FALSE(TevdScsiCorrelator_IsReportedDownForTest("naa.1"));
  EXPECT_EQ((std::vector<std::string>{"Failed to get path add remove path name: 22",
                                      "Failed to get device name: 22",
                                      "Failed to get thin provisioned device name: 22"}),
            log_.TakeDiagnostics());
}

TEST_F(ScsiPathTest, PathUpWithStatusOutsideTheCodesIsFatal) {
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  AddPath("p1", "naa.1");
  AddDevice("naa.1", 7);
  Down("p1", "on");   // posts nothing, but marks the device
  EXPECT_TRUE(Events().empty());
  ASSERT_TRUE(TevdScsiCorrelator_IsReportedDownForTest("naa.1"));
  EXPECT_DEATH(Up("p1", "dead"), "NOT_REACHED apps/tevd/tevdScsiCorrelator:1018");
}

// ---- datastore list ----------------------------------------------------------

TEST_F(ScsiPathTest, DatastoreListQuotesSkipsPartitionZeroAndDropsDuplicates) {
  AddDevice("naa.1", 2, {{0, "whole"}, {1, "ds1"}, {2, ""}, {3, "ds2"}, {4, "ds1"}});
  std::string text;
  EXPECT_TRUE(TevdScsiCorrelator_GetDatastores("naa.1", &text));
  EXPECT_EQ(text, "\"ds1\", \"ds2\"");
}

TEST_F(ScsiPathTest, DatastoreListFailsWithoutVolumesOrDiskOrDirectory) {
  std::string text;
  AddDevice("naa.empty", 2, {{1, ""}});
  EXPECT_FALSE(TevdScsiCorrelator_GetDatastores("naa.empty", &text));
  AddDevice("naa.nodisk", 2);   // no partitions/: not a disk
  EXPECT_FALSE(TevdScsiCorrelator_GetDatastores("naa.nodisk", &text));
  EXPECT_FALSE(TevdScsiCorrelator_GetDatastores("naa.absent", &text));
  AddDevice("naa.1", 2, {{1, "ds1"}});
  root_.Remove("kfs/volumes");
  EXPECT_FALSE(TevdScsiCorrelator_GetDatastores("naa.1", &text));
}

TEST_F(ScsiPathTest, DeviceWithoutDatastoresPrintsUnknown) {
  AddPath("p1", "naa.1");
  AddDevice("naa.1", 2, {{1, ""}});
  Down("p1", "on");
  std::vector<QprobMessage> events = Events();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(tevdtest::ArgsText(events[0].args), (Args{"S:naa.1", "S:p1", "S:Unknown"}));
}

// ---- device loss and thin provisioning ------------------------------------------

TEST_F(ScsiPathTest, DeviceLossEventsCarryTheDatastoreList) {
  AddDevice("naa.1", 1, {{1, "ds1"}, {2, "ds2"}});
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"tev.scsi.device.state.permanentloss", "kos.problem.scsi.device.state.permanentloss"},
      {"tev.scsi.device.state.permanentloss.withreservationheld",
       "kos.problem.scsi.device.state.permanentloss.withreservationheld"},
      {"tev.scsi.device.state.permanentloss.noopens",
       "kos.problem.scsi.device.state.permanentloss.noopens"},
      {"tev.scsi.device.thinprov.atquota", "kos.problem.scsi.device.thinprov.atquota"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.first);
    Obs(c.first, {S("naa.1")});
    std::vector<QprobMessage> events = Events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].id, c.second);
    EXPECT_EQ(tevdtest::ArgsText(events[0].args), (Args{"S:naa.1", "S:\"ds1\", \"ds2\""}));
  }
  EXPECT_TRUE(log_.SawEnding(
      "[kos.problem.scsi.device.state.permanentloss.noopens] Permanently inaccessible device: "
      "naa.1 has no more opens. It is now safe to unmount datastores (if any): \"ds1\", \"ds2\" "
      "and delete the device"));
  EXPECT_TRUE(log_.SawEnding(
      "[kos.problem.scsi.device.thinprov.atquota] Space utilization on thin-provisioned device "
      "naa.1 exceeded configured threshold. Affected datastores (if any): \"ds1\", \"ds2\"."));
}

TEST_F(ScsiPathTest, ReservationHeldLossTextIsExact) {
  AddDevice("naa.1", 2, {{1, "ds1"}});
  Obs("tev.scsi.device.state.permanentloss.withreservationheld", {S("naa.1")});
  ASSERT_EQ(Events().size(), 1u);
  EXPECT_TRUE(log_.SawEnding(
      "[kos.problem.scsi.device.state.permanentloss.withreservationheld] Device: naa.1 has been "
      "removed or is permanently inaccessible while holding a reservation. Affected datastores "
      "(if any): \"ds1\"."));
}

TEST_F(ScsiPathTest, DeviceLossOfAnUnknownDevicePrintsUnknown) {
  Obs("tev.scsi.device.state.permanentloss", {S("naa.gone")});
  std::vector<QprobMessage> events = Events();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(tevdtest::ArgsText(events[0].args), (Args{"S:naa.gone", "S:Unknown"}));
  EXPECT_TRUE(log_.SawEnding(
      "[kos.problem.scsi.device.state.permanentloss] Device: naa.gone has been removed or is "
      "permanently inaccessible. Affected datastores (if any): Unknown."));
}

// ---- path-state counters -------------------------------------------------------

TEST_F(ScsiPathTest, TenPathStateChangesWithinOneSweepIntervalReportOnce) {
  AddPath("p1", "naa.1");
  AddDevice("naa.1", 3, {{1, "ds1"}});
  StartCountingInterval();
  for (int i = 0; i < 9; ++i) {
    Down("p1", "dead");
    clock_.Advance(5);
  }
  EXPECT_TRUE(Events().empty());
  Down("p1", "off");   // the tenth
  std::vector<QprobMessage> events = Events();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].id, "kos.problem.storage.connectivity.pathstatechanges");
  EXPECT_EQ(tevdtest::ArgsText(events[0].args), (Args{"S:p1", "S:naa.1", "S:\"ds1\""}));
  EXPECT_TRUE(log_.SawEnding(
      "[kos.problem.storage.connectivity.pathstatechanges] Frequent path state changes are "
      "occurring for path p1. This may indicate a storage problem. Affected device: naa.1. "
      "Affected datastores: \"ds1\"."));
  // The eleventh and later changes of the same period report nothing more.
  for (int i = 0; i < 20; ++i) {
    Up("p1", "on");
  }
  EXPECT_TRUE(Events().empty());
  EXPECT_EQ(TevdScsiCorrelator_CounterForTest("p1", false), 30);
}

TEST_F(ScsiPathTest, SweepResetsCountersUpToNineButNotAbove) {
  AddPath("p1", "naa.1");
  AddPath("p2", "naa.1");
  AddDevice("naa.1", 3);
  StartCountingInterval();
  for (int i = 0; i < 9; ++i) {
    Down("p1", "dead");
  }
  for (int i = 0; i < 12; ++i) {
    Down("p2", "dead");
  }
  ASSERT_EQ(Events().size(), 1u);   // p2 at its tenth
  clock_.Advance(61);
  Obs("tev.scsi.scsipath.add", {S("other")});   // any observation runs the sweep
  EXPECT_EQ(TevdScsiCorrelator_CounterForTest("p1", false), 0);
  EXPECT_EQ(TevdScsiCorrelator_CounterForTest("p2", false), 12);
  Down("p1", "dead");   // counting restarts from 0
  EXPECT_TRUE(Events().empty());
  EXPECT_EQ(TevdScsiCorrelator_CounterForTest("p1", false), 1);
}

TEST_F(ScsiPathTest, NoSweepAtExactlySixtySeconds) {
  AddPath("p1", "naa.1");
  AddDevice("naa.1", 3);
  StartCountingInterval();
  for (int i = 0; i < 5; ++i) {
    Down("p1", "dead");
  }
  clock_.Advance(60);
  Down("p1", "dead");
  EXPECT_EQ(TevdScsiCorrelator_CounterForTest("p1", false), 6);
}

TEST_F(ScsiPathTest, CountReachingTenAsTheSweepRunsStillReports) {
  // The sweep runs after the observation is counted, so a ninth count followed
  // by a late tenth survives it at 10.
  AddPath("p1", "naa.1");
  AddDevice("naa.1", 3);
  StartCountingInterval();
  for (int i = 0; i < 9; ++i) {
    Down("p1", "dead");
  }
  clock_.Advance(61);
  Down("p1", "dead");
  std::vector<QprobMessage> events = Events();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].id, "kos.problem.storage.connectivity.pathstatechanges");
}

TEST_F(ScsiPathTest, FirstObservationAfterStartIsSweptBecauseNoSweepRanYet) {
  AddPath("p1", "naa.1");
  AddDevice("naa.1", 3);
  Down("p1", "dead");
  EXPECT_EQ(TevdScsiCorrelator_CounterForTest("p1", false), 0);
  for (int i = 0; i < 9; ++i) {
    Down("p1", "dead");
  }
  EXPECT_TRUE(Events().empty());
  Down("p1", "dead");
  EXPECT_EQ(Events().size(), 1u);
}

TEST_F(ScsiPathTest, PeriodEndEmptiesTheTableAndReportsAgain) {
  AddPath("p1", "naa.1");
  AddDevice("naa.1", 0);   // status 0: the datastores print "Unknown"
  StartCountingInterval();
  for (int i = 0; i < 10; ++i) {
    Down("p1", "dead");
  }
  std::vector<QprobMessage> first = Events();
  ASSERT_EQ(first.size(), 1u);
  EXPECT_EQ(tevdtest::ArgsText(first[0].args), (Args{"S:p1", "S:naa.1", "S:Unknown"}));
  clock_.Advance(601);
  Obs("tev.scsi.scsipath.add", {S("warmup")});   // new period, new sweep
  EXPECT_EQ(TevdScsiCorrelator_CounterForTest("p1", false), -1);
  for (int i = 0; i < 10; ++i) {
    Down("p1", "dead");
  }
  EXPECT_EQ(Events().size(), 1u);
}

TEST_F(ScsiPathTest, AddStartsAtZeroAndRemoveErases) {
  AddPath("p1", "naa.1");
  AddDevice("naa.1", 2);
  StartCountingInterval();
  Obs("tev.scsi.scsipath.add", {S("p1")});
  EXPECT_EQ(TevdScsiCorrelator_CounterForTest("p1", false), 0);
  Obs("tev.scsi.scsipath.add", {S("p1")});   // an add of a known path counts
  EXPECT_EQ(TevdScsiCorrelator_CounterForTest("p1", false), 1);
  Obs("tev.scsi.scsipath.remove", {S("p1")});
  EXPECT_EQ(TevdScsiCorrelator_CounterForTest("p1", false), -1);
  Obs("tev.scsi.scsipath.remove", {S("p1")});   // absent: nothing
  EXPECT_EQ(TevdScsiCorrelator_CounterForTest("p1", false), -1);
  EXPECT_TRUE(Events().empty());
}

TEST_F(ScsiPathTest, AddRemoveHandlerLogsAnIdentifierItDoesNotKnow) {
  tevdtest::TevPtr tev = tevdtest::MakeTev("tev.scsi.scsipath.renamed", {S("p1")});
  TevdScsiCorrelatorDoPathAddRemove(tev.get());
  EXPECT_TRUE(log_.Saw("Unknown TEV ID: tev.scsi.scsipath.renamed\n"));
}

// ---- power-on resets ---------------------------------------------------------------

TEST_F(ScsiPathTest, TenPowerOnResetsOfAPathReportPathPor) {
  AddPath("p1", "naa.1");
  AddDevice("naa.1", 2, {{1, "ds1"}});
  StartCountingInterval();
  for (int i = 0; i < 10; ++i) {
    Obs("tev.scsi.scsipath.por", {S("p1")});
  }
  std::vector<QprobMessage> events = Events();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].id, "kos.problem.storage.connectivity.pathpor");
  EXPECT_EQ(tevdtest::ArgsText(events[0].args), (Args{"S:p1", "S:naa.1", "S:\"ds1\""}));
  EXPECT_EQ(TevdScsiCorrelator_CounterForTest("p1", false), -1);   // own table only
  EXPECT_EQ(TevdScsiCorrelator_CounterForTest("p1", true), 10);
}

TEST_F(ScsiPathTest, TenPowerOnResetsOfADeviceReportDevicePor) {
  AddDevice("naa.1", 3, {{1, "ds1"}});
  StartCountingInterval();
  for (int i = 0; i < 10; ++i) {
    Obs("tev.scsi.scsipath.por", {S("naa.1")});
  }
  std::vector<QprobMessage> events = Events();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].id, "kos.problem.storage.connectivity.devicepor");
  EXPECT_EQ(tevdtest::ArgsText(events[0].args), (Args{"S:naa.1", "S:\"ds1\""}));
  EXPECT_TRUE(log_.SawEnding(
      "[kos.problem.storage.connectivity.devicepor] Frequent PowerOn Reset Unit Attentions are "
      "occurring on device naa.1. This may indicate a storage problem. Affected datastores: "
      "\"ds1\"."));
}

TEST_F(ScsiPathTest, PathPowerOnResetTextAndStatusZeroPrintsUnknown) {
  AddPath("p1", "naa.1");
  AddDevice("naa.1", 0, {{1, "ds1"}});   // status 0: no datastore look-up
  StartCountingInterval();
  for (int i = 0; i < 10; ++i) {
    Obs("tev.scsi.scsipath.por", {S("p1")});
  }
  std::vector<QprobMessage> events = Events();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].id, "kos.problem.storage.connectivity.pathpor");
  EXPECT_EQ(tevdtest::ArgsText(events[0].args), (Args{"S:p1", "S:naa.1", "S:Unknown"}));
  EXPECT_TRUE(log_.SawEnding(
      "[kos.problem.storage.connectivity.pathpor] Frequent PowerOn Reset Unit Attentions are "
      "occurring on path p1. This may indicate a storage problem. Affected device: naa.1. "
      "Affected datastores: Unknown."));
}

TEST_F(ScsiPathTest, PowerOnResetsOfAnUnknownNamePostNothing) {
  StartCountingInterval();
  for (int i = 0; i < 12; ++i) {
    Obs("tev.scsi.scsipath.por", {S("ghost")});
  }
  EXPECT_TRUE(Events().empty());
}

}  // namespace
