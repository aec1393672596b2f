// Network correlator: registration, direct translations, start-up pieces.
// Expected events are written out literally and compared with what was
// decoded from the wire.
#include <dirent.h>
#include <poll.h>
#include <sys/resource.h>
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
using tevdtest::U;

namespace {

class NetCorrelatorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    TevdAlarm_ResetForTest();
    TevdNetCorrelator_ResetForTest();
    map_ = TevdNetCorrelator_BuildMap();
  }
  void TearDown() override {
    TevdNetCorrelator_ResetForTest();
    TevdAlarm_ResetForTest();
  }
  void Feed(const std::string &id, const std::vector<MsgFmt_Value> &args) {
    tevdtest::TevPtr tev = tevdtest::MakeTev(id, args);
    TevdCorrelator_Dispatch(TevdNetCorrelatorIgnore, map_, tev.get());
  }

  tevdtest::ScratchRoot root_;
  tevdtest::EventCapture capture_;
  TevHandlerMap map_;
};

struct DirectCase {
  const char *tevId;
  std::vector<MsgFmt_Value> in;
  const char *eventId;
  std::vector<std::string> out;
};

TEST_F(NetCorrelatorTest, EachArgumentShapeAndOddRowPostsItsEventWithTypedArgs) {
  root_.Write("platform/nodes/vm/vmmGroupInfo/4711", "web-01");
  const std::vector<DirectCase> cases = {
      {"tev.net.e1000.tso6.notsupported",
       {I(4711)},
       "kos.problem.net.e1000.tso6.notsupported",
       {"S:web-01"}},
      {"tev.net.migrate.unsupported.latency",
       {U(150), S("hostA"), S("hostB")},
       "kos.problem.net.migrate.unsupported.latency",
       {"U:150", "S:hostA", "S:hostB"}},
      {"tev.net.uplink.mtu.failed",
       {I(9000), S("hwnic2")},
       "kos.problem.net.uplink.mtu.failed",
       {"I:9000", "S:hwnic2"}},
      {"tev.net.mtlnic.ip.duplicate",
       {S("10.0.0.5"), S("mtl0"), S("00:11:22:33:44:55")},
       "kos.problem.net.mtlnic.ip.duplicate",
       {"S:10.0.0.5", "S:mtl0", "S:00:11:22:33:44:55"}},
      {"tev.net.firewall.config.changed",
       {S("add"), S("sshServer")},
       "kos.audit.net.firewall.config.changed",
       {"S:add", "S:sshServer"}},
      {"tev.net.firewall.port.hookfailed",
       {S("p2")},
       "kos.problem.net.firewall.port.hookfailed",
       {"S:p2"}},
      {"tev.net.firewall.disabled", {}, "kos.audit.net.firewall.disabled", {}},
      {"tev.net.fence.port.fail",
       {S("dvp-1"), S("dvs-A"), I(0xbad0007), I(12)},
       "kos.problem.net.fence.port.badfenceid",
       {"I:12", "S:dvp-1", "S:dvs-A"}},
      {"tev.net.fence.port.fail",
       {S("dvp-2"), S("dvs-B"), I(0xbad0002), I(13)},
       "kos.problem.net.fence.switch.unavailable",
       {"I:13", "S:dvp-2", "S:dvs-B"}},
      {"tev.net.fence.port.fail",
       {S("dvp-3"), S("dvs-C"), I(0), I(14)},
       "kos.problem.net.fence.resource.limited",
       {"I:14", "S:dvp-3", "S:dvs-C"}},
      {"tev.net.portset.port.connect.fail",
       {S("a"), S("b"), S("c")},
       "kos.problem.net.proxyswitch.port.unavailable",
       {"S:c", "S:b", "S:a"}},
      {"tev.net.lacp.enable", {S("ksw0")}, "kos.audit.net.lacp.enable", {"S:ksw0"}},
      {"tev.net.lacp.uplink.transition.up",
       {S("up2"), S("ksw5")},
       "kos.clear.net.lacp.uplink.transition.up",
       {"S:up2", "S:ksw5"}},
      {"tev.net.lacp.uplink.peer.noresponse",
       {S("kswA")},
       "kos.problem.net.lacp.peer.noresponse.2",
       {"S:kswA"}},
  };
  for (const DirectCase &c : cases) {
    SCOPED_TRACE(c.tevId);
    Feed(c.tevId, c.in);
    std::vector<QprobMessage> events = capture_.Take();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].id, c.eventId);
    // The class posted must be the one the event's name carries.
    std::string id = c.eventId;
    EXPECT_EQ(events[0].className, id.substr(4, id.find('.', 4) - 4));
    EXPECT_EQ(tevdtest::ArgsText(events[0].args), c.out);
  }
}

TEST_F(NetCorrelatorTest, SharedHandlersAreRegisteredUnderEachOfTheirIdentifiers) {
  EXPECT_EQ(map_.at("tev.net.hwnic.linkstate.down"), TevdNetCorrelatorLinkDown);
  EXPECT_EQ(map_.at("tev.net.firewall.port.removed"), TevdNetCorrelatorFirewallPort);
  EXPECT_EQ(map_.at("tev.net.firewall.config.failed"), TevdNetCorrelatorFirewallConfig);
}

TEST_F(NetCorrelatorTest, FirewallDisabledPostsWithoutReadingArguments) {
  Feed("tev.net.firewall.disabled", {});
  std::vector<QprobMessage> events = capture_.Take();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].id, "kos.audit.net.firewall.disabled");
  EXPECT_EQ(events[0].className, "audit");
  EXPECT_TRUE(events[0].args.empty());
}

TEST_F(NetCorrelatorTest, SharedFirewallHandlerIgnoresLongerIdentifierWithSamePrefix) {
  tevdtest::TevPtr longer = tevdtest::MakeTev("tev.net.firewall.port.hookedX", {S("p1")});
  TevdNetCorrelatorFirewallPort(longer.get());
  tevdtest::TevPtr config =
      tevdtest::MakeTev("tev.net.firewall.config.changedAgain", {S("a"), S("b")});
  TevdNetCorrelatorFirewallConfig(config.get());
  EXPECT_EQ(capture_.Count(), 0u);
}

TEST_F(NetCorrelatorTest, SharedFirewallHandlerIgnoresTheOtherHandlersIdentifiers) {
  tevdtest::TevPtr port = tevdtest::MakeTev("tev.net.firewall.port.hooked", {S("a"), S("b")});
  TevdNetCorrelatorFirewallConfig(port.get());
  tevdtest::TevPtr config = tevdtest::MakeTev("tev.net.firewall.config.changed", {S("p")});
  TevdNetCorrelatorFirewallPort(config.get());
  EXPECT_EQ(capture_.Count(), 0u);
}

TEST_F(NetCorrelatorTest, DuplicateIpWithOnlyTwoStringsPostsNothing) {
  Feed("tev.net.mtlnic.ip.duplicate", {S("10.0.0.5"), S("mtl0")});
  EXPECT_EQ(capture_.Count(), 0u);
}

TEST_F(NetCorrelatorTest, MissingOrMistypedArgumentEndsHandlerSilently) {
  const std::vector<std::pair<const char *, std::vector<MsgFmt_Value>>> bad = {
      {"tev.net.uplink.mtu.failed", {S("9000"), S("hwnic2")}},
      {"tev.net.uplink.mtu.failed", {I(9000)}},
      {"tev.net.migrate.unsupported.latency", {S("150"), S("a"), S("b")}},
      {"tev.net.migrate.unsupported.latency", {U(150), S("a")}},
      {"tev.net.portset.port.full", {S("ps0")}},
      {"tev.net.portset.port.vlan.invalidid", {I(1), I(2)}},
      {"tev.net.firewall.enabled", {}},
      {"tev.net.firewall.config.changed", {S("add")}},
      {"tev.net.firewall.port.hooked", {I(1)}},
      {"tev.net.fence.port.fail", {S("p"), S("s"), I(0)}},
      {"tev.net.e1000.tso6.notsupported", {S("4711")}},
      {"tev.net.lacp.uplink.blocked", {S("up")}},
      {"tev.net.lacp.enable", {I(3)}},
      {"tev.net.portset.port.connect.fail", {S("a"), S("b"), I(3)}},
  };
  for (const auto &b : bad) {
    SCOPED_TRACE(b.first);
    Feed(b.first, b.second);
    EXPECT_EQ(capture_.Count(), 0u);
  }
}

TEST_F(NetCorrelatorTest, Tso6WithUnknownVirtualMachineGroupPostsNothing) {
  Feed("tev.net.e1000.tso6.notsupported", {I(999)});
  EXPECT_EQ(capture_.Count(), 0u);
}

TEST_F(NetCorrelatorTest, UnregisteredIdentifierGoesToSilentDefaultHandler) {
  Feed("tev.net.something.new", {S("x")});
  Feed("tev.net.Firewall.disabled", {});
  EXPECT_EQ(capture_.Count(), 0u);
}

int ReadPipe(int fd, char *buf, size_t size) {
  struct pollfd p = {fd, POLLIN, 0};
  if (poll(&p, 1, 0) != 1) {
    return 0;
  }
  return static_cast<int>(read(fd, buf, size));
}

TEST_F(NetCorrelatorTest, AlarmCallbackWritesFooAndItsNulIntoOwnPipe) {
  int fd = -1;
  ASSERT_TRUE(TevdNetCorrelator_Prepare(&fd));
  ASSERT_GE(fd, 0);
  ASSERT_GE(tevdNet.tevdNetAlarmId, 0);
  char buf[16] = {};
  EXPECT_EQ(ReadPipe(fd, buf, sizeof buf), 0);
  TevdNetCorrelatorAlarmFired();
  ASSERT_EQ(ReadPipe(fd, buf, sizeof buf), 4);
  EXPECT_EQ(std::string(buf, 4), std::string("foo\0", 4));
}

TEST_F(NetCorrelatorTest, RegisteredAlarmWakesThePipeWhenTrackerTimeoutIsDue) {
  tevdtest::FakeClock clock;
  int fd = -1;
  ASSERT_TRUE(TevdNetCorrelator_Prepare(&fd));
  Feed("tev.net.uplink.watchdog.timeout", {S("hwnic0")});
  char buf[16];
  clock.Advance(6);
  EXPECT_EQ(TevdAlarm_RunDueForTest(), 0);
  EXPECT_EQ(ReadPipe(fd, buf, sizeof buf), 0);
  clock.Advance(1);
  EXPECT_EQ(TevdAlarm_RunDueForTest(), 1);
  EXPECT_EQ(ReadPipe(fd, buf, sizeof buf), 4);
}

size_t OpenFdCount() {
  size_t n = 0;
  DIR *d = opendir("/proc/self/fd");
  while (d != nullptr && readdir(d) != nullptr) {
    n++;
  }
  if (d != nullptr) {
    closedir(d);
  }
  return n;
}

TEST_F(NetCorrelatorTest, NoFreeAlarmSlotGivesUpWithoutPipeOrAgent) {
  for (int i = 0; i < TEVD_ALARM_MAX; i++) {
    ASSERT_EQ(TevdAlarm_Register([] {}), i);
  }
  size_t before = OpenFdCount();
  int fd = -7;
  EXPECT_FALSE(TevdNetCorrelator_Prepare(&fd));
  EXPECT_EQ(fd, -7);
  EXPECT_EQ(tevdNet.tevdNetAlarmId, -1);
  EXPECT_EQ(OpenFdCount(), before);
  // Returns at once instead of becoming the agent loop.
  TevdCorrelator_StartNet();
  EXPECT_EQ(OpenFdCount(), before);
}

// With no descriptor allowed, pipe() fails after the alarm was registered.
void PrepareWithoutDescriptors() {
  struct rlimit none = {0, 0};
  setrlimit(RLIMIT_NOFILE, &none);
  int fd = -1;
  TevdNetCorrelator_Prepare(&fd);
}

TEST_F(NetCorrelatorTest, PipeFailureIsFatal) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(PrepareWithoutDescriptors(), "Failed to initialize pipes for this thread: ");
}

}  // namespace
