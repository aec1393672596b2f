// Network correlator: direct translations, link flapping, and uplink tracking
// driven as the daemon drives it (the fake clock moved a second at a time, the
// alarm run when due, the wake-up routine called when the pipe has data).
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Harness.h"
#include "tevdAlarm.h"
#include "tevdCorrelator.h"
#include "tevdLog.h"
#include "tevdNetCorrelator.h"

using namespace tevdtest;

namespace {

using Args = std::vector<MsgFmt_Value>;
using Seen = std::vector<std::string>;  // "second id arg arg ..."

// "at kind nic [group uplinks]; ...": P/p port group down/up, D/d distributed
// port down/up ("switch/port"), L/l bare link down/up, W watchdog; '_' is a space.
struct Story {
  const char *name;
  const char *obs;
  Seen want;
};

class NetTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char *pg : {"pg guests", "pg-mgmt", "pg-storage"}) {
      root_.Write(std::string("platform/network/portgroups/") + pg, "ksw0");
    }
    root_.Write("platform/network/portgroups/Other", "ksw9");
    root_.Write("platform/network/portgroups/Blank", "");
    ASSERT_TRUE(TevdNetCorrelator_Prepare(&pipeFd_));
  }
  // The tracker lives as long as the process: each story has NICs of its own, and a
  // quiet minute lets every time-out of this test expire before the next one starts.
  void TearDown() override {
    Seen rest;
    RunTo(now_ + 60, &rest);
    TevdAlarm_ResetForTest();
  }
  void Feed(const std::string &id, const std::vector<MsgFmt_Value> &args) {
    TevPtr tev = MakeTev("tev.net." + id, args);
    TevdCorrelator_Dispatch(TevdNetCorrelatorIgnore, map_, tev.get());
  }
  void Apply(char kind, const std::string &nic, std::string g, int up) {
    std::replace(g.begin(), g.end(), '_', ' ');
    std::string sw = g.substr(0, g.find('/')), port = g.substr(g.find('/') + 1);
    switch (kind) {
      case 'P': Feed("pg.uplink.transition.down", {S(nic), S(g), I(up), I(99)}); break;
      case 'p': Feed("pg.uplink.transition.up", {S(nic), S(g), I(up)}); break;
      case 'D': Feed("dvport.uplink.transition.down", {S(nic), S(sw), S(port), I(up), I(5)}); break;
      case 'd': Feed("dvport.uplink.transition.up", {S(nic), S(sw), S(port), I(up)}); break;
      case 'L': Feed("hwnic.linkstate.down", {S(nic)}); break;
      case 'l': Feed("hwnic.linkstate.up", {S(nic)}); break;
      case 'W': Feed("uplink.watchdog.timeout", {S(nic)}); break;
      default: FAIL() << kind;
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
        for (const std::string &a : ArgsText(m.args)) e += " " + a;
        seen->push_back(e);
      }
    }
  }

  ScratchRoot root_;
  FakeClock clock_{LaterStart()};  // past any earlier test's link downs
  EventCapture capture_;
  TevHandlerMap map_ = TevdNetCorrelator_BuildMap();
  int pipeFd_ = -1;
  int now_ = 0;
};

TEST_F(NetTest, EachArgumentShapeAndOddRowPostsItsEventWithTypedArgs) {
  root_.Write("platform/nodes/vm/vmmGroupInfo/4711", "web-01");
  const struct {
    const char *tevId;  // after "tev.net."
    Args in;
    const char *event;  // id after "kos.", then the typed arguments
  } cases[] = {
      {"e1000.tso6.notsupported", {I(4711)}, "problem.net.e1000.tso6.notsupported S:web-01"},
      {"migrate.unsupported.latency",
       {U(150), S("hostA"), S("hostB")},
       "problem.net.migrate.unsupported.latency U:150 S:hostA S:hostB"},
      {"uplink.mtu.failed",
       {I(9000), S("hwnic2")},
       "problem.net.uplink.mtu.failed I:9000 S:hwnic2"},
      {"firewall.config.changed",
       {S("add"), S("ssh")},
       "audit.net.firewall.config.changed S:add S:ssh"},
      {"firewall.disabled", {}, "audit.net.firewall.disabled"},
      {"fence.port.fail",
       {S("dvp-1"), S("dvs-A"), I(0xbad0007), I(12)},
       "problem.net.fence.port.badfenceid I:12 S:dvp-1 S:dvs-A"},
      {"fence.port.fail",
       {S("dvp-2"), S("dvs-B"), I(0xbad0002), I(13)},
       "problem.net.fence.switch.unavailable I:13 S:dvp-2 S:dvs-B"},
      {"fence.port.fail",
       {S("dvp-3"), S("dvs-C"), I(0), I(14)},
       "problem.net.fence.resource.limited I:14 S:dvp-3 S:dvs-C"},
      {"portset.port.connect.fail",
       {S("a"), S("b"), S("c")},
       "problem.net.proxyswitch.port.unavailable S:c S:b S:a"},
      {"lacp.uplink.transition.up",
       {S("up2"), S("ksw5")},
       "clear.net.lacp.uplink.transition.up S:up2 S:ksw5"},
      {"lacp.uplink.peer.noresponse", {S("kswA")}, "problem.net.lacp.peer.noresponse.2 S:kswA"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.tevId);
    Feed(c.tevId, c.in);
    std::vector<QprobMessage> events = capture_.Take();
    ASSERT_EQ(events.size(), 1u);
    std::string line = events[0].id.substr(4);
    for (const std::string &a : ArgsText(events[0].args)) line += " " + a;
    EXPECT_EQ(line, c.event);
    EXPECT_EQ("kos." + events[0].className + ".",
              events[0].id.substr(0, 5 + events[0].className.size()));
  }
}

TEST_F(NetTest, UnreadableArgumentsForeignIdentifiersAndUnknownVmPostAndRecordNothing) {
  const std::vector<std::pair<const char *, Args>> bad = {
      {"tev.net.mtlnic.ip.duplicate", {S("10.0.0.5"), S("mtl0")}},
      {"tev.net.uplink.mtu.failed", {S("9000"), S("hwnic2")}},
      {"tev.net.migrate.unsupported.latency", {U(150), S("a")}},
      {"tev.net.firewall.enabled", {}},
      {"tev.net.fence.port.fail", {S("p"), S("s"), I(0)}},
      {"tev.net.e1000.tso6.notsupported", {S("4711")}},
      {"tev.net.e1000.tso6.notsupported", {I(999)}},  // no such group
      {"tev.net.portset.port.connect.fail", {S("a"), S("b"), I(3)}},
      {"tev.net.something.new", {S("x")}},
      {"tev.net.Firewall.disabled", {}},
      {"tev.net.pg.uplink.transition.down", {S("hwnic1"), S("pg guests"), I(0)}},
      {"tev.net.dvport.uplink.transition.up", {S("hwnic1"), S("dvs"), I(3), I(1)}},
      {"tev.net.uplink.watchdog.timeout", {I(1)}},
  };
  for (const auto &b : bad) Feed(b.first + 8, b.second);
  EXPECT_EQ(capture_.Count(), 0u);
  Seen settled;  // the tracker recorded nothing either: nothing settles later
  RunTo(10, &settled);
  EXPECT_TRUE(settled.empty()) << testing::PrintToString(settled);
  // The shared firewall handlers translate only their own rows, whole ids.
  const struct {
    TevHandler handler;
    const char *id;
    Args args;
  } foreign[] = {
      {TevdNetCorrelatorFirewallPort, "tev.net.firewall.port.hookedX", {S("p1")}},
      {TevdNetCorrelatorFirewallConfig, "tev.net.firewall.config.changedAgain", {S("a"), S("b")}},
      {TevdNetCorrelatorFirewallConfig, "tev.net.firewall.port.hooked", {S("a"), S("b")}},
      {TevdNetCorrelatorFirewallPort, "tev.net.firewall.config.changed", {S("p")}},
  };
  for (const auto &f : foreign) {
    TevPtr tev = MakeTev(f.id, f.args);
    f.handler(tev.get());
    EXPECT_EQ(capture_.Count(), 0u) << f.id;
  }
}

TEST_F(NetTest, UplinkStoriesPostTheirEventsAtTheirSeconds) {
  const Story stories[] = {
      {"losses classified by uplinks left (negatives in no list), reported at 2 s",
       "0 P hwnic1 pg_guests 0; 0 P hwnic1 pg-mgmt 1; 0 P hwnic1 pg-storage 3;"
       "0 P hwnic1 pg-storage -1",
       {"2 problem.net.connectivity.lost S:ksw0 S:hwnic1 S:\"pg guests\"",
        "2 problem.net.redundancy.lost S:ksw0 S:hwnic1 S:\"pg-mgmt\"",
        "2 problem.net.redundancy.degraded S:ksw0 S:hwnic1 S:\"pg-storage\""}},
      {"one list per class, named by the first port group's switch",
       "0 P hwnic2 Other 0; 0 P hwnic2 pg_guests 0; 1 P hwnic2 pg-mgmt 0",
       {"2 problem.net.connectivity.lost S:ksw9 S:hwnic2 S:\"Other\", \"pg guests\", \"pg-mgmt\""}},
      {"restore: 1 is connectivity, 2 redundancy, others nothing",
       "0 p hwnic3 pg_guests 1; 0 p hwnic3 pg-mgmt 0; 0 p hwnic3 pg-mgmt -2;"
       "0 p hwnic3 pg-storage 2; 5 p hwnic3 pg-mgmt 0",
       {"2 clear.net.connectivity.restored S:ksw0 S:\"pg guests\" S:hwnic3",
        "2 clear.net.redundancy.restored S:ksw0 S:\"pg-storage\" S:hwnic3"}},
      {"unknown switch: records kept, later losses append and are never posted",
       "0 P hwnic4 Orphan_PG 0; 3 P hwnic4 pg_guests 1",
       {}},
      {"empty switch name: the same", "0 P hwnic11 Blank 0; 3 P hwnic11 pg_guests 1", {}},
      {"bare link down and up after 1 s; hidden behind a port group loss",
       "0 L hwnic6; 1 l hwnic6; 3 P hwnic5 pg_guests 0; 3 L hwnic5",
       {"1 problem.net.hwnic.linkstate.down S:hwnic6", "2 clear.net.hwnic.linkstate.up S:hwnic6",
        "5 problem.net.connectivity.lost S:ksw0 S:hwnic5 S:\"pg guests\""}},
      {"bare link up hidden behind a port group restore",
       "0 p hwnic12 pg_guests 2; 0 l hwnic12",
       {"2 clear.net.redundancy.restored S:ksw0 S:\"pg guests\" S:hwnic12"}},
      {"distributed ports labelled switch/port; they hide the bare link's down and up",
       "0 D hwnic7 dvs-A/101 0; 0 D hwnic7 dvs-A/102 0; 0 D hwnic7 dvs-B/7 1; 0 D hwnic7 dvs-C/9 2;"
       "0 D hwnic7 dvs-C/8 -3; 0 L hwnic7; 2 d hwnic7 dvs-A/101 2; 2 d hwnic7 dvs-B/7 1;"
       "2 l hwnic7",
       {"2 problem.net.dvport.connectivity.lost S:\"dvs-A/101\", \"dvs-A/102\" S:hwnic7",
        "2 problem.net.dvport.redundancy.lost S:\"dvs-B/7\" S:hwnic7",
        "2 problem.net.dvport.redundancy.degraded S:\"dvs-C/9\" S:hwnic7",
        "4 clear.net.dvport.connectivity.restored S:\"dvs-B/7\" S:hwnic7",
        "4 clear.net.dvport.redundancy.restored S:\"dvs-A/101\" S:hwnic7"}},
      {"watchdog folds port group down and up into one reset, then clears everything",
       "0 W hwnic8; 1 P hwnic8 pg_guests 0; 3 p hwnic8 pg_guests 1; 10 L hwnic8",
       {"7 problem.net.hwnic.watchdog.reset S:hwnic8",
        "11 problem.net.hwnic.linkstate.down S:hwnic8"}},
      {"watchdog folds distributed port down and up the same way",
       "0 W hwnic13; 1 D hwnic13 dvs-A/5 0; 3 d hwnic13 dvs-A/5 1",
       {"7 problem.net.hwnic.watchdog.reset S:hwnic13"}},
      {"watchdog holds a loss until its expiry and stays set against a later link up",
       "0 W hwnic9; 1 P hwnic9 pg_guests 1; 8 l hwnic9",
       {"7 problem.net.redundancy.lost S:ksw0 S:hwnic9 S:\"pg guests\""}},
      {"watchdog holds a distributed port loss the same way",
       "0 W hwnic14; 1 D hwnic14 dvs-B/7 0",
       {"7 problem.net.dvport.connectivity.lost S:\"dvs-B/7\" S:hwnic14"}},
      {"bare link down during a watchdog: cleared at 1 s, never reported",
       "0 W hwnic10; 0 L hwnic10",
       {}},
      {"watchdog expiring with a pending link down reports it once",
       "0 W hwnic15; 6 L hwnic15",
       {"7 problem.net.hwnic.linkstate.down S:hwnic15"}},
      // Re-arming measures from the alarm's start, so a later entry may fire late.
      {"one alarm, re-armed for a nearer expiry and for the nearest left",
       "0 W hwnicX; 0 L hwnicY; 0 P hwnicZ pg-mgmt 1; 3 L hwnicY",
       {"1 problem.net.hwnic.linkstate.down S:hwnicY",
        "2 problem.net.redundancy.lost S:ksw0 S:hwnicZ S:\"pg-mgmt\"",
        "5 problem.net.hwnic.linkstate.down S:hwnicY"}},
  };
  for (const Story &s : stories) {
    SCOPED_TRACE(s.name);
    now_ = 0;
    Seen seen;
    std::istringstream in(s.obs);
    for (std::string step; std::getline(in, step, ';');) {
      std::istringstream f(step);
      int at = 0, up = 0;
      char kind = 0;
      std::string nic, group;
      f >> at >> kind >> nic;
      if (std::strchr("PpDd", kind) != nullptr) f >> group >> up;
      RunTo(at, &seen);
      Apply(kind, nic, group, up);
    }
    RunTo(20, &seen);
    EXPECT_EQ(s.want, seen);
  }
}

// ---- link flapping: downs within 60 s against Net/LinkFlappingThreshold ----

const char kThreshold[] = "platform/options/Net/LinkFlappingThreshold";

TEST_F(NetTest, LinkDownsAboveTheThresholdWithinSixtySecondsTakeTheNicDown) {
  const struct {
    const char *threshold;  // "": the option is absent; "3!": the kernel write fails
    const char *downs;      // at these seconds
    size_t posted;
  } rows[] = {
      {"3", "0 10 20", 0},        {"3", "0 10 20 30", 1},       {"3", "0 10 20 60", 1},
      {"3", "0 10 20 61", 0},     {"3", "0 1 2 3 4 5 6 7", 2},  {"0", "0 1 2 3 4 5 6 7 8 9", 0},
      {"", "0 1 2 3 4 5 6 7", 0}, {"3!", "0 1 2 3 4 5 6 7", 0},
  };
  LogLines log(root_);
  int row = 20;  // a NIC of its own per row: hwnic20, hwnic21, ...
  std::string node;
  for (const auto &r : rows) {
    SCOPED_TRACE(::testing::Message() << r.threshold << " at " << r.downs);
    const std::string threshold = r.threshold, nic = "hwnic" + std::to_string(row++);
    node = "platform/nodes/net/pNics/" + nic + "/linkFlapping";
    threshold.empty() ? root_.Remove(kThreshold) : root_.Write(kThreshold, threshold.substr(0, 1));
    if (threshold.find('!') == std::string::npos) root_.MakeDir("platform/nodes/net/pNics/" + nic);
    std::istringstream downs(r.downs);
    for (int s = 0, at = 0; downs >> s; at = s) {
      clock_.Advance(s - at);
      Feed("hwnic.linkstate.down", {S(nic)});
    }
    const Seen want(r.posted, "kos.problem.net.hwnic.linkstate.flapping S:" + nic);
    Seen got;
    for (const QprobMessage &m : capture_.Take()) got.push_back(m.id + " " + ArgsText(m.args)[0]);
    EXPECT_EQ(want, got);
    std::string value;
    EXPECT_EQ(r.posted > 0, root_.Read(node, &value));
    EXPECT_EQ(r.posted > 0 ? "1" : "", value.substr(0, 1));
  }
  // The two failed take-downs of the last row ("3!"): one line, with the file and the error. The
  // log reader is a thread of its own: a marker logged last tells when it has seen them all.
  TevdLog("end of the flapping rows\n");
  ASSERT_TRUE(log.WaitCount("end of the flapping rows", 1, 5000));
  EXPECT_EQ(log.Matching("Cannot write kernel node").size(), 1u);
  EXPECT_TRUE(
      log.Saw("Cannot write kernel node " + root_.Abs(node) +
              ": No such file or directory (errno 2); physical NIC hwnic27 is not taken down"));
}

}  // namespace
