// SCSI, all-paths-down and iSCSI correlators against a scratch host model: one
// translation row per argument shape and the odd rows, the handlers' failure
// lines, path down/up by redundancy status, the datastore list, the path-state
// and power-on-reset counters (60 s sweep, 600 s period), device loss events.
#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "Harness.h"
#include "tevdApdCorrelator.h"
#include "tevdIscsiCorrelator.h"
#include "tevdScsiCorrelator.h"

using namespace tevdtest;

namespace {

using Args = std::vector<MsgFmt_Value>;
using Evs = std::vector<std::string>;

class ScsiTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_.MakeDir("kfs/volumes");
    for (const char *path : {"p1", "p2", "p3"})
      root_.Write("platform/storage/paths/" + std::string(path), "naa.1");
  }

  // A device with its redundancy status and partitions (number -> volume).
  void Device(const std::string &device, int status, const std::map<int, std::string> &parts = {}) {
    root_.Write("platform/storage/devices/" + device + "/status", std::to_string(status));
    for (const auto &p : parts) {
      root_.Write("platform/storage/devices/" + device + "/partitions/" + std::to_string(p.first),
                  p.second);
    }
  }
  // `id` after "tev.", dispatched through the map of its area.
  void Obs(const std::string &id, const Args &args, int times = 1) {
    for (int i = 0; i < times; i++) {
      TevPtr tev = MakeTev("tev." + id, args);
      if (id.compare(0, 5, "scsi.") == 0) {
        TevdCorrelator_Dispatch(TevdScsiCorrelatorDoDefault, map_, tev.get());
      } else if (id.compare(0, 8, "storage.") == 0) {
        TevdCorrelator_Dispatch(TevdApdCorrelatorDoDefault, apd_, tev.get());
      } else {
        TevdCorrelator_Dispatch(TevdIscsiCorrelatorDoDefault, iscsi_, tev.get());
      }
    }
  }
  void Down(const std::string &path, const std::string &left, int times = 1) {
    Obs("scsi.scsipath.pathstate.dead", {S(path), S(left)}, times);
  }
  void Up(const std::string &path, const std::string &previous) {
    Obs("scsi.scsipath.pathstate.on", {S(path), S(previous)});
  }
  // Starts a fresh sweep interval for both counter tables.
  void StartCounting() {
    Obs("scsi.scsipath.add", {S("warmup")});
    Obs("scsi.scsipath.por", {S("warmup")});
  }
  // Posted events as "class:id arg arg ..." (or without "class:"), and forgotten.
  Evs Events(bool withClass = true) {
    Evs out;
    for (const QprobMessage &m : capture_.Take()) {
      std::string e = (withClass ? m.className + ":" : "") + m.id.substr(4);
      for (const std::string &a : ArgsText(m.args)) e += " " + a;
      out.push_back(e);
    }
    return out;
  }

  // The tracking tables live as long as the process: a test's clock starts far past the
  // last one's, so earlier counts have aged out, and no test leaves a device marked down.
  ScratchRoot root_;
  FakeClock clock_{LaterStart()};
  EventCapture capture_;
  LogLines log_{root_};
  TevHandlerMap map_ = TevdScsiCorrelator_BuildMap();
  TevHandlerMap apd_ = TevdApdCorrelator_BuildMap();
  TevHandlerMap iscsi_ = TevdIscsiCorrelator_BuildMap();
};

TEST_F(ScsiTest, EachArgumentShapePostsItsEventWithArgumentsInOrder) {
  const struct {
    const char *tevId;  // after "tev."
    Args in;
    const char *event;  // id after "kos.", then the typed arguments
  } cases[] = {
      {"scsi.scsipath.limitreached",
       {I(1024), S("p5")},
       "problem.scsi.scsipath.limitreached I:1024 S:p5"},
      {"scsi.scsipath.badpath.unreachpe",
       {S("p1"), S("hba2")},
       "problem.scsi.scsipath.badpath.unreachpe S:p1 S:hba2"},
      {"scsi.device.io.qerr.change.config",
       {I(1), S("naa.1"), I(0)},
       "problem.scsi.device.io.qerr.change.config U:1 S:naa.1 U:0"},
      {"scsi.apd.event.descriptor.alloc.failed",
       {},
       "problem.scsi.apd.event.descriptor.alloc.failed"},
      {"scsi.device.io.latency.high",
       {S("naa.9"), UL(900), UL(10)},  // lower second value too
       "problem.scsi.device.io.latency.high S:naa.9 L:900 L:10"},
      {"storage.apd.timeout",
       {S("naa.600a"), I(140)},
       "problem.storage.apd.timeout S:naa.600a I:140"},
      {"iscsi.target.login.error",
       {S("hba64"), S("iqn.t1"), U(0x201)},
       "problem.storage.iscsi.target.login.error S:iqn.t1 S:hba64 S:0201"},
      {"iscsi.target.login.error",
       {S("a"), S("t"), U(0x12345)},  // cut to its first four
       "problem.storage.iscsi.target.login.error S:t S:a S:1234"},
      {"iscsi.isns.discovery.error",
       {S("hba64"), S("isns1"), S("c"), S("d")},
       "problem.storage.iscsi.isns.discovery.error S:isns1 S:hba64 S:c S:d"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.tevId);
    Obs(c.tevId, c.in);
    EXPECT_EQ(Events(false), Evs{c.event});
  }
}

TEST_F(ScsiTest, UnreadableArgumentsAndUnmappedIdentifiersLogALineAndPostNothing) {
  // The library reports a missing or mistyped argument as 22 (EINVAL).
  const struct {
    const char *tevId;  // after "tev.scsi."
    Args in;
    const char *line;
  } cases[] = {
      {"device.io.qerr.changed",
       {S("naa.1"), S("x"), I(0)},
       "Failed to correlate tev.scsi.device.io.qerr.changed: 22"},
      {"device.detach.failed",
       {I(4)},
       "Failed to get params for correlation tev.scsi.device.detach.failed: 22"},
      {"device.state.on", {}, "Failed to get device name: 22"},
      {"scsipath.badpath.unreachpe",
       {S("p7")},
       "Failed to get PE-incapable adapter name for path p7 : 22"},
      {"scsipath.limitreached", {S("p")}, "Failed to get path limit reached path count: 22"},
      {"scsipath.limitreached", {I(8)}, "Failed to get path limit reached path name: 22"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.tevId);
    Obs(std::string("scsi.") + c.tevId, c.in);
    EXPECT_EQ(capture_.Count(), 0u);
    EXPECT_EQ(log_.TakeDiagnostics(), std::vector<std::string>{c.line});
  }
  const std::vector<std::pair<const char *, Args>> silent = {
      {"tev.storage.apd.timeout", {S("naa.600a")}},
      {"tev.storage.apd.start", {I(5)}},
      {"tev.iscsi.target.login.error", {S("hba64"), S("iqn.t1")}},
      {"tev.iscsi.isns.discovery.error", {S("a"), S("b"), S("c")}},
      {"tev.iscsi.target.connect.error", {S("a"), I(2)}},
      {"tev.iscsi.connection.started", {S("hba64"), S("iqn.t1")}},  // ignored on purpose
  };
  for (const auto &s : silent) Obs(s.first + 4, s.second);
  EXPECT_EQ(capture_.Count(), 0u);
  EXPECT_EQ(log_.TakeDiagnostics(), std::vector<std::string>{});
  Obs("iscsi.brand.new", {S("a")});  // not even an observation line
  EXPECT_EQ(log_.Take(), std::vector<std::string>{});
  // Identifiers no map has go to the fallbacks, which log them.
  Obs("scsi.device.brandnew", {S("naa.1")});
  Obs("scsi.device.state.ON", {S("naa.1")});
  Obs("storage.apd.bogus", {S("x")});
  TevPtr tev = MakeTev("tev.scsi.scsipath.badpath.other", {S("p1")});
  TevdScsiCorrelatorDoBadPePath(tev.get());
  EXPECT_EQ(capture_.Count(), 0u);
  EXPECT_EQ(log_.TakeDiagnostics(), (std::vector<std::string>{
                                        "No correlator for tev.scsi.device.brandnew ",
                                        "No correlator for tev.scsi.device.state.ON ",
                                        "No correlator for tev.storage.apd.bogus ",
                                        "Unknown TEV ID: tev.scsi.scsipath.badpath.other",
                                    }));
}

TEST_F(ScsiTest, PathDownAndUpAreClassifiedByTheDevicesRedundancyStatus) {
  const struct {
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
  int row = 0;  // a path and device of its own per row: pr0 of naa.r0, ...
  for (const auto &r : rows) {
    SCOPED_TRACE(r.downStatus * 10 + r.upStatus);
    const std::string path = "pr" + std::to_string(row), dev = "naa.r" + std::to_string(row++);
    root_.Write("platform/storage/paths/" + path, dev);
    Device(dev, r.downStatus, {{1, "ds1"}});
    Down(path, "on");
    EXPECT_EQ(*r.down ? Evs{"problem:problem.storage." + std::string(r.down) + " S:" + dev +
                            " S:" + path + " S:\"ds1\""}
                      : Evs{},
              Events());
    Device(dev, r.upStatus);
    Up(path, "dead");  // a clear shows the down marked the device
    EXPECT_EQ(*r.up ? Evs{"clear:clear.storage." + std::string(r.up) + " S:" + dev +
                          " S:\"ds1\" S:" + path}
                    : Evs{},
              Events());
    Device(dev, 3);
    Up(path, "dead");  // the entry went with the first path up
    EXPECT_EQ(Evs{}, Events());
  }
}

TEST_F(ScsiTest, OnlyLeavingOnOrStandbyTakesAPathAwayAndOnlyOffOrDeadGivesItBack) {
  Device("naa.1", 2);
  StartCounting();
  Down("p1", "off");
  Up("p1", "dead");  // would clear, had the down marked the device
  Up("p1", "standby");
  EXPECT_EQ(Evs{}, Events());
  Down("p1", "dead", 7);  // the three above counted all the same: this is the tenth change
  EXPECT_EQ(Evs{"problem:problem.storage.connectivity.pathstatechanges S:p1 S:naa.1 S:Unknown"},
            Events());
  Obs("scsi.scsipath.pathstate.off", {S("p1"), S("standby")});
  EXPECT_EQ(Evs{"problem:problem.storage.redundancy.lost S:naa.1 S:p1 S:Unknown"}, Events());
  Obs("scsi.scsipath.pathstate.standby", {S("p1"), S("on")});
  EXPECT_EQ(Evs{}, Events());
  Obs("scsi.scsipath.pathstate.standby", {S("p1"), S("off")});
  EXPECT_EQ(Evs{"clear:clear.storage.connectivity.restored S:naa.1 S:Unknown S:p1"}, Events());
}

TEST_F(ScsiTest, UnknownPathsMissingArgumentsAndNullNamesPostNothing) {
  Device("naa.1", 2);
  root_.Write("platform/storage/paths/p9", "naa.gone");  // a device the host does not know
  const MsgFmt_Value null = MsgFmt_Value::NullStr();
  Down("nosuchpath", "on");
  Down("p9", "on");
  Obs("scsi.scsipath.pathstate.dead", {S("p1")});
  Obs("scsi.scsipath.pathstate.on", {I(3), S("dead")});
  Obs("scsi.scsipath.pathstate.dead", {null, S("on")});
  Obs("scsi.scsipath.pathstate.dead", {S("p1"), null});
  Obs("scsi.scsipath.por", {null});
  EXPECT_EQ(log_.TakeDiagnostics(), Evs{});
  Obs("scsi.scsipath.add", {null});
  Obs("scsi.device.state.permanentloss", {null});
  Device("naa.gone", 3);  // both devices known now: a clear would show a mark
  Up("p1", "dead");
  Up("p9", "dead");
  EXPECT_EQ(Evs{}, Events());
  EXPECT_EQ((Evs{"Failed to get path add remove path name: 22", "Failed to get device name: 22"}),
            log_.TakeDiagnostics());
}

TEST_F(ScsiTest, DeviceLossEventsCarryTheDatastoreListWithoutPartitionZeroEmptiesOrRepeats) {
  Device("naa.1", 1, {{0, "whole"}, {1, "ds1"}, {2, ""}, {3, "ds2"}, {4, "ds1"}});
  for (const char *id : {"state.permanentloss", "state.permanentloss.withreservationheld",
                         "state.permanentloss.noopens", "thinprov.atquota"}) {
    Obs(std::string("scsi.device.") + id, {S("naa.1")});
    EXPECT_EQ(Evs{std::string("problem:problem.scsi.device.") + id + " S:naa.1 S:\"ds1\", \"ds2\""},
              Events());
  }
  Device("naa.empty", 2, {{1, ""}});
  Device("naa.nodisk", 2);  // no partitions/: not a disk
  for (const char *device : {"naa.empty", "naa.nodisk", "naa.absent", "naa.1"}) {
    if (std::string(device) == "naa.1") root_.Remove("kfs/volumes");
    Obs("scsi.device.state.permanentloss", {S(device)});
    EXPECT_EQ(Evs{std::string("problem:problem.scsi.device.state.permanentloss S:") + device +
                  " S:Unknown"},
              Events());
  }
}

// ---- path-state and power-on-reset counters ----

// Steps: "S" starts a sweep interval, "+N" moves the clock N s, "Dname*N" N
// path-state changes, "Aname"/"Rname" add/remove, "Pname*N" N power-on resets,
// "#N" N events were posted since the last "#". A counter shows only in the
// change that takes it to ten.
TEST_F(ScsiTest, CountersReportTheTenthChangeOncePerPeriodAndSweepUpToNine) {
  const struct {
    const char *name, *steps;
  } stories[] = {
      {"tenth within one sweep interval, once", "S Dp1*9 +45 #0 Dp1 #1 Dp1*20 #0"},
      {"no sweep at 60 s; then up to nine reset, ten and more kept",
       "S Dp1*9 Dp3*9 Dp2*12 #1 +60 Aother Dp1 #1 +1 Aother Dp3*9 Dp2*10 #0 Dp3 #1"},
      {"counted before the sweep runs", "S Dp1*9 +61 Dp1 #1"},
      {"a first change after a quiet minute is swept at once", "Dp1 Dp1*9 #0 Dp1 #1"},
      {"the period ends after 600 s (a sweep just before keeps the ten)",
       "S Dp1*10 #1 +599 Aw +1 Dp1*10 #0 +1 Dp1*10 #1"},
      {"add starts at zero, add of a known path counts, remove erases",
       "S Ap1 Ap1 Dp1*8 #0 Dp1 #1 Rp1 Rp1 Dp1*9 #0 Dp1 #1"},
      {"resets by path or device, in their own table",
       "S Pp1*10 #1 Dp1*9 #0 Dp1 #1 Pnaa.1*10 #1 Pghost*12 #0"},
  };
  for (const auto &story : stories) {
    SCOPED_TRACE(story.name);
    clock_.Advance(TEVD_SCSI_COUNT_PERIOD + 1);  // the last story's period has ended
    Device("naa.1", 3);
    std::istringstream in(story.steps);
    for (std::string step; in >> step;) {
      std::string arg = step.substr(1), name = arg.substr(0, arg.find_first_of("*:"));
      int n =
          arg.find_first_of("*:") == std::string::npos ? 1 : std::stoi(arg.substr(name.size() + 1));
      switch (step[0]) {
        case 'S': StartCounting(); break;
        case '+': clock_.Advance(std::stoi(arg)); break;
        case 'D': Down(name, "dead", n); break;
        case 'A': Obs("scsi.scsipath.add", {S(name)}); break;
        case 'R': Obs("scsi.scsipath.remove", {S(name)}); break;
        case 'P': Obs("scsi.scsipath.por", {S(name)}, n); break;
        case '#': EXPECT_EQ(static_cast<size_t>(std::stoi(arg)), Events().size()) << step; break;
        default: FAIL() << step;
      }
    }
  }
}

TEST_F(ScsiTest, CounterEventsNameThePathTheDeviceAndItsDatastores) {
  Device("naa.1", 2, {{1, "ds1"}});
  Device("naa.0", 0, {{1, "ds0"}});  // status 0: no datastore look-up
  root_.Write("platform/storage/paths/p0", "naa.0");
  StartCounting();
  Down("p1", "dead", 9);
  Down("p1", "off");  // any state left counts
  Obs("scsi.scsipath.pathstate.on", {S("p0"), S("dead")}, 10);
  Obs("scsi.scsipath.por", {S("p1")}, 10);
  Obs("scsi.scsipath.por", {S("naa.1")}, 10);
  Obs("scsi.scsipath.por", {S("p0")}, 10);
  EXPECT_EQ((Evs{"problem:problem.storage.connectivity.pathstatechanges S:p1 S:naa.1 S:\"ds1\"",
                 "problem:problem.storage.connectivity.pathstatechanges S:p0 S:naa.0 S:Unknown",
                 "problem:problem.storage.connectivity.pathpor S:p1 S:naa.1 S:\"ds1\"",
                 "problem:problem.storage.connectivity.devicepor S:naa.1 S:\"ds1\"",
                 "problem:problem.storage.connectivity.pathpor S:p0 S:naa.0 S:Unknown"}),
            Events());
  TevPtr tev = MakeTev("tev.scsi.scsipath.renamed", {S("p1")});
  TevdScsiCorrelatorDoPathAddRemove(tev.get());
  EXPECT_TRUE(log_.Saw("Unknown TEV ID: tev.scsi.scsipath.renamed\n"));
}

}  // namespace
