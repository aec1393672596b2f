// Path and device tracking of the SCSI correlator against a scratch host model:
// path down/up by redundancy status, the reported-down table, the datastore
// list, the path-state and power-on-reset counters, device loss events.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "Harness.h"
#include "TevdTestSupport.h"
#include "tevdScsiCorrelator.h"

using tevdtest::I;
using tevdtest::S;

namespace {

using Evs = std::vector<std::string>;
const char kDown[] = "tev.scsi.scsipath.pathstate.dead";
const char kPor[] = "tev.scsi.scsipath.por";

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
  // A device with its redundancy status and partitions (number -> volume).
  void AddDevice(const std::string &device, int status,
                 const std::map<int, std::string> &partitions = {}) {
    SetStatus(device, status);
    for (const auto &p : partitions) {
      root_.Write("platform/storage/devices/" + device + "/partitions/" + std::to_string(p.first),
                  p.second);
    }
  }
  void SetStatus(const std::string &device, int status) {
    root_.Write("platform/storage/devices/" + device + "/status", std::to_string(status));
  }
  void Obs(const std::string &id, const std::vector<MsgFmt_Value> &args, int times = 1) {
    for (int i = 0; i < times; i++) {
      tevdtest::TevPtr tev = tevdtest::MakeTev(id, args);
      TevdCorrelator_Dispatch(TevdScsiCorrelatorDoDefault, map_, tev.get());
    }
  }
  void Down(const std::string &path, const std::string &left, int times = 1) {
    Obs(kDown, {S(path), S(left)}, times);
  }
  void Up(const std::string &path, const std::string &previous) {
    Obs("tev.scsi.scsipath.pathstate.on", {S(path), S(previous)});
  }
  // Starts a fresh sweep interval for the path-state table.
  void StartCountingInterval() {
    Obs("tev.scsi.scsipath.add", {S("warmup")});
    Obs(kPor, {S("warmup")});
  }
  // Posted events as "id arg arg ...", and forgotten.
  Evs Events() {
    Evs out;
    for (const QprobMessage &m : capture_.Take()) {
      std::string e = m.className + ":" + m.id;
      for (const std::string &a : tevdtest::ArgsText(m.args)) e += " " + a;
      out.push_back(e);
    }
    return out;
  }
  int Count(const char *name, bool por = false) {
    return TevdScsiCorrelator_CounterForTest(name, por);
  }

  tevdtest::ScratchRoot root_;
  tevdtest::FakeClock clock_;
  tevdtest::EventCapture capture_;
  tevdtest::LogLines log_{root_};
  TevHandlerMap map_ = TevdScsiCorrelator_BuildMap();
};

TEST_F(ScsiPathTest, PathDownAndUpAreClassifiedByTheDevicesRedundancyStatus) {
  struct Row {
    int downStatus;
    const char *down;  // "" when nothing is posted
    int upStatus;
    const char *up;
  } rows[] = {
      {0, "", 3, ""},  // status 0 leaves no trace: a path up without a path down
      {1, "connectivity.lost", 2, "connectivity.restored"},
      {2, "redundancy.lost", 3, "redundancy.restored"},
      {3, "redundancy.degraded", 3, "redundancy.restored"},
      {3, "redundancy.degraded", 1, ""},  // nothing restored, and the entry goes
      {3, "redundancy.degraded", 0, ""},
      {4, "", 3, "redundancy.restored"},  // unknown status marks the device silently
  };
  AddPath("p1", "naa.1");
  for (const Row &r : rows) {
    SCOPED_TRACE(r.downStatus * 10 + r.upStatus);
    TevdScsiCorrelator_ResetForTest();
    AddDevice("naa.1", r.downStatus, {{1, "ds1"}});
    Down("p1", "on");
    Evs want;
    if (*r.down)
      want.push_back(std::string("problem:kos.problem.storage.") + r.down +
                     " S:naa.1 S:p1 S:\"ds1\"");
    EXPECT_EQ(want, Events());
    EXPECT_EQ(r.downStatus != 0, TevdScsiCorrelator_IsReportedDownForTest("naa.1"));
    SetStatus("naa.1", r.upStatus);
    Up("p1", "dead");
    want.clear();
    if (*r.up)
      want.push_back(std::string("clear:kos.clear.storage.") + r.up + " S:naa.1 S:\"ds1\" S:p1");
    EXPECT_EQ(want, Events());
    EXPECT_FALSE(TevdScsiCorrelator_IsReportedDownForTest("naa.1"));
    SetStatus("naa.1", 3);
    Up("p1", "dead");  // the entry went with the first path up
    EXPECT_EQ(Evs{}, Events());
  }
}

TEST_F(ScsiPathTest, LogLinesNameDeviceAndPathInTemplateOrder) {
  AddPath("p1", "naa.1");
  AddDevice("naa.1", 3, {{1, "ds1"}});
  Obs("tev.scsi.scsipath.pathstate.off", {S("p1"), S("standby")});
  EXPECT_TRUE(log_.SawEnding(
      "[kos.problem.storage.redundancy.degraded] Path redundancy to storage device naa.1 "
      "degraded. Path p1 is down. Affected datastores: \"ds1\"."));
  Obs("tev.scsi.scsipath.pathstate.standby", {S("p1"), S("dead")});
  EXPECT_TRUE(log_.SawEnding(
      "[kos.clear.storage.redundancy.restored] Path redundancy to storage device naa.1 "
      "(Datastores: \"ds1\") restored. Path p1 is active again."));
}

TEST_F(ScsiPathTest, PathLeavingOffOrDeadIsCountedButAddsNoRedundancyEvent) {
  AddPath("p1", "naa.1");
  AddDevice("naa.1", 1);
  StartCountingInterval();
  Down("p1", "off");
  EXPECT_FALSE(TevdScsiCorrelator_IsReportedDownForTest("naa.1"));
  EXPECT_EQ(1, Count("p1"));
  Up("p1", "standby");  // from a state that was not down: no clear considered
  EXPECT_EQ(Evs{}, Events());
  EXPECT_EQ(2, Count("p1"));
}

TEST_F(ScsiPathTest, UnknownPathOrMissingArgumentsPostNothing) {
  AddDevice("naa.1", 2);
  Down("nosuchpath", "on");
  Obs(kDown, {S("p1")});
  Obs("tev.scsi.scsipath.pathstate.on", {I(3), S("dead")});
  EXPECT_TRUE(log_.TakeDiagnostics().empty());
  AddPath("p9", "naa.gone");  // path to a device the host does not know
  Down("p9", "on");
  EXPECT_EQ(Evs{}, Events());
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
  Down("p1", "on");
  ASSERT_TRUE(TevdScsiCorrelator_IsReportedDownForTest("naa.1"));
  EXPECT_DEATH(Up("p1", "dead"), "NOT_REACHED apps/tevd/tevdScsiCorrelator:1018");
}

// ---- datastore list ----------------------------------------------------------

TEST_F(ScsiPathTest, DatastoreListQuotesSkipsPartitionZeroAndDropsDuplicates) {
  AddDevice("naa.1", 2, {{0, "whole"}, {1, "ds1"}, {2, ""}, {3, "ds2"}, {4, "ds1"}});
  std::string text;
  EXPECT_TRUE(TevdScsiCorrelator_GetDatastores("naa.1", &text));
  EXPECT_EQ(text, "\"ds1\", \"ds2\"");
  AddDevice("naa.empty", 2, {{1, ""}});
  EXPECT_FALSE(TevdScsiCorrelator_GetDatastores("naa.empty", &text));
  AddDevice("naa.nodisk", 2);  // no partitions/: not a disk
  EXPECT_FALSE(TevdScsiCorrelator_GetDatastores("naa.nodisk", &text));
  EXPECT_FALSE(TevdScsiCorrelator_GetDatastores("naa.absent", &text));
  root_.Remove("kfs/volumes");
  EXPECT_FALSE(TevdScsiCorrelator_GetDatastores("naa.1", &text));
}

TEST_F(ScsiPathTest, DeviceWithoutDatastoresPrintsUnknown) {
  AddPath("p1", "naa.1");
  AddDevice("naa.1", 2, {{1, ""}});
  Down("p1", "on");
  EXPECT_EQ(Evs{"problem:kos.problem.storage.redundancy.lost S:naa.1 S:p1 S:Unknown"}, Events());
}

// ---- device loss and thin provisioning ------------------------------------------

TEST_F(ScsiPathTest, DeviceLossEventsCarryTheDatastoreList) {
  AddDevice("naa.1", 1, {{1, "ds1"}, {2, "ds2"}});
  for (const char *id : {"state.permanentloss", "state.permanentloss.withreservationheld",
                         "state.permanentloss.noopens", "thinprov.atquota"}) {
    Obs(std::string("tev.scsi.device.") + id, {S("naa.1")});
    EXPECT_EQ(
        Evs{std::string("problem:kos.problem.scsi.device.") + id + " S:naa.1 S:\"ds1\", \"ds2\""},
        Events());
  }
  Obs("tev.scsi.device.state.permanentloss", {S("naa.gone")});
  EXPECT_EQ(Evs{"problem:kos.problem.scsi.device.state.permanentloss S:naa.gone S:Unknown"},
            Events());
  EXPECT_TRUE(log_.SawEnding(
      "[kos.problem.scsi.device.state.permanentloss] Device: naa.gone has been removed or is "
      "permanently inaccessible. Affected datastores (if any): Unknown."));
}

// ---- path-state counters -------------------------------------------------------

TEST_F(ScsiPathTest, TenthPathStateChangeWithinOneSweepIntervalReportsOnce) {
  AddPath("p1", "naa.1");
  AddDevice("naa.1", 3, {{1, "ds1"}});
  StartCountingInterval();
  for (int i = 0; i < 9; ++i) {
    Down("p1", "dead");
    clock_.Advance(5);
  }
  EXPECT_EQ(Evs{}, Events());
  Down("p1", "off");
  EXPECT_EQ(Evs{"problem:kos.problem.storage.connectivity.pathstatechanges S:p1 S:naa.1 S:\"ds1\""},
            Events());
  for (int i = 0; i < 20; ++i) Up("p1", "on");  // later changes of the period: nothing more
  EXPECT_EQ(Evs{}, Events());
  EXPECT_EQ(30, Count("p1"));
}

TEST_F(ScsiPathTest, SweepResetsCountersUpToNineButNotAbove) {
  AddPath("p1", "naa.1");
  AddPath("p2", "naa.1");
  AddDevice("naa.1", 3);
  StartCountingInterval();
  Down("p1", "dead", 9);
  Down("p2", "dead", 12);
  ASSERT_EQ(1u, Events().size());  // p2 at its tenth
  clock_.Advance(60);
  Obs("tev.scsi.scsipath.add", {S("other")});  // no sweep at exactly 60 s
  EXPECT_EQ(9, Count("p1"));
  clock_.Advance(1);
  Obs("tev.scsi.scsipath.add", {S("other")});  // any observation runs the sweep
  EXPECT_EQ(0, Count("p1"));
  EXPECT_EQ(12, Count("p2"));
  Down("p1", "dead");
  EXPECT_EQ(Evs{}, Events());
  EXPECT_EQ(1, Count("p1"));
}

TEST_F(ScsiPathTest, CountReachingTenAsTheSweepRunsStillReports) {
  // The sweep runs after the observation is counted.
  AddPath("p1", "naa.1");
  AddDevice("naa.1", 3);
  StartCountingInterval();
  Down("p1", "dead", 9);
  clock_.Advance(61);
  Down("p1", "dead");
  EXPECT_EQ(1u, Events().size());
}

TEST_F(ScsiPathTest, FirstObservationAfterStartIsSweptBecauseNoSweepRanYet) {
  AddPath("p1", "naa.1");
  AddDevice("naa.1", 3);
  Down("p1", "dead");
  EXPECT_EQ(0, Count("p1"));
  Down("p1", "dead", 9);
  EXPECT_EQ(Evs{}, Events());
  Down("p1", "dead");
  EXPECT_EQ(1u, Events().size());
}

TEST_F(ScsiPathTest, PeriodEndEmptiesTheTableAndReportsAgain) {
  AddPath("p1", "naa.1");
  AddDevice("naa.1", 0);  // status 0: the datastores print "Unknown"
  StartCountingInterval();
  Down("p1", "dead", 10);
  EXPECT_EQ(Evs{"problem:kos.problem.storage.connectivity.pathstatechanges S:p1 S:naa.1 S:Unknown"},
            Events());
  clock_.Advance(601);
  Obs("tev.scsi.scsipath.add", {S("warmup")});  // new period, new sweep
  EXPECT_EQ(-1, Count("p1"));
  Down("p1", "dead", 10);
  EXPECT_EQ(1u, Events().size());
}

TEST_F(ScsiPathTest, AddStartsAtZeroAndRemoveErases) {
  AddPath("p1", "naa.1");
  AddDevice("naa.1", 2);
  StartCountingInterval();
  Obs("tev.scsi.scsipath.add", {S("p1")});
  EXPECT_EQ(0, Count("p1"));
  Obs("tev.scsi.scsipath.add", {S("p1")});  // an add of a known path counts
  EXPECT_EQ(1, Count("p1"));
  Obs("tev.scsi.scsipath.remove", {S("p1")}, 2);
  EXPECT_EQ(-1, Count("p1"));
  EXPECT_EQ(Evs{}, Events());
  tevdtest::TevPtr tev = tevdtest::MakeTev("tev.scsi.scsipath.renamed", {S("p1")});
  TevdScsiCorrelatorDoPathAddRemove(tev.get());
  EXPECT_TRUE(log_.Saw("Unknown TEV ID: tev.scsi.scsipath.renamed\n"));
}

// ---- power-on resets ---------------------------------------------------------------

TEST_F(ScsiPathTest, TenPowerOnResetsReportByPathOrDeviceInTheirOwnTable) {
  AddPath("p1", "naa.1");
  AddDevice("naa.1", 2, {{1, "ds1"}});
  AddDevice("naa.0", 0, {{1, "ds0"}});  // status 0: no datastore look-up
  AddPath("p0", "naa.0");
  StartCountingInterval();
  Obs(kPor, {S("p1")}, 10);
  EXPECT_EQ(Evs{"problem:kos.problem.storage.connectivity.pathpor S:p1 S:naa.1 S:\"ds1\""},
            Events());
  EXPECT_EQ(-1, Count("p1"));  // own table only
  EXPECT_EQ(10, Count("p1", true));
  Obs(kPor, {S("naa.1")}, 10);
  EXPECT_EQ(Evs{"problem:kos.problem.storage.connectivity.devicepor S:naa.1 S:\"ds1\""}, Events());
  Obs(kPor, {S("p0")}, 10);
  EXPECT_EQ(Evs{"problem:kos.problem.storage.connectivity.pathpor S:p0 S:naa.0 S:Unknown"},
            Events());
  Obs(kPor, {S("ghost")}, 12);
  EXPECT_EQ(Evs{}, Events());
}

}  // namespace
