// Network correlator: the direct translations (one row per argument shape and
// the odd rows) and the wake-up pipe the alarm writes into.
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

using Args = std::vector<MsgFmt_Value>;

class NetCorrelatorTest : public ::testing::Test {
 protected:
  void SetUp() override { TearDown(); }
  void TearDown() override {
    TevdNetCorrelator_ResetForTest();
    TevdAlarm_ResetForTest();
  }
  void Feed(const std::string &id, const Args &args) {
    tevdtest::TevPtr tev = tevdtest::MakeTev(id, args);
    TevdCorrelator_Dispatch(TevdNetCorrelatorIgnore, map_, tev.get());
  }

  tevdtest::ScratchRoot root_;
  tevdtest::EventCapture capture_;
  TevHandlerMap map_ = TevdNetCorrelator_BuildMap();
};

TEST_F(NetCorrelatorTest, EachArgumentShapeAndOddRowPostsItsEventWithTypedArgs) {
  root_.Write("platform/nodes/vm/vmmGroupInfo/4711", "web-01");
  const struct {
    const char *tevId;
    Args in;
    const char *eventId;
    std::vector<std::string> out;
  } cases[] = {
      {"tev.net.e1000.tso6.notsupported",
       {I(4711)},
       "problem.net.e1000.tso6.notsupported",
       {"S:web-01"}},
      {"tev.net.migrate.unsupported.latency",
       {U(150), S("hostA"), S("hostB")},
       "problem.net.migrate.unsupported.latency",
       {"U:150", "S:hostA", "S:hostB"}},
      {"tev.net.uplink.mtu.failed",
       {I(9000), S("hwnic2")},
       "problem.net.uplink.mtu.failed",
       {"I:9000", "S:hwnic2"}},
      {"tev.net.firewall.config.changed",
       {S("add"), S("sshServer")},
       "audit.net.firewall.config.changed",
       {"S:add", "S:sshServer"}},
      {"tev.net.firewall.port.hookfailed",
       {S("p2")},
       "problem.net.firewall.port.hookfailed",
       {"S:p2"}},
      {"tev.net.firewall.disabled", {}, "audit.net.firewall.disabled", {}},
      {"tev.net.fence.port.fail",
       {S("dvp-1"), S("dvs-A"), I(0xbad0007), I(12)},
       "problem.net.fence.port.badfenceid",
       {"I:12", "S:dvp-1", "S:dvs-A"}},
      {"tev.net.fence.port.fail",
       {S("dvp-2"), S("dvs-B"), I(0xbad0002), I(13)},
       "problem.net.fence.switch.unavailable",
       {"I:13", "S:dvp-2", "S:dvs-B"}},
      {"tev.net.fence.port.fail",
       {S("dvp-3"), S("dvs-C"), I(0), I(14)},
       "problem.net.fence.resource.limited",
       {"I:14", "S:dvp-3", "S:dvs-C"}},
      {"tev.net.portset.port.connect.fail",
       {S("a"), S("b"), S("c")},
       "problem.net.proxyswitch.port.unavailable",
       {"S:c", "S:b", "S:a"}},
      {"tev.net.lacp.uplink.transition.up",
       {S("up2"), S("ksw5")},
       "clear.net.lacp.uplink.transition.up",
       {"S:up2", "S:ksw5"}},
      {"tev.net.lacp.uplink.peer.noresponse",
       {S("kswA")},
       "problem.net.lacp.peer.noresponse.2",
       {"S:kswA"}},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.tevId);
    Feed(c.tevId, c.in);
    std::vector<QprobMessage> events = capture_.Take();
    ASSERT_EQ(events.size(), 1u);
    const std::string id = c.eventId;
    EXPECT_EQ(events[0].id, "kos." + id);
    EXPECT_EQ(events[0].className, id.substr(0, id.find('.')));
    EXPECT_EQ(tevdtest::ArgsText(events[0].args), c.out);
  }
}

TEST_F(NetCorrelatorTest, UnreadableArgumentsForeignIdentifiersAndUnknownVmPostNothing) {
  const std::vector<std::pair<const char *, Args>> bad = {
      {"tev.net.mtlnic.ip.duplicate", {S("10.0.0.5"), S("mtl0")}},
      {"tev.net.uplink.mtu.failed", {S("9000"), S("hwnic2")}},
      {"tev.net.uplink.mtu.failed", {I(9000)}},
      {"tev.net.migrate.unsupported.latency", {S("150"), S("a"), S("b")}},
      {"tev.net.migrate.unsupported.latency", {U(150), S("a")}},
      {"tev.net.portset.port.vlan.invalidid", {I(1), I(2)}},
      {"tev.net.firewall.enabled", {}},
      {"tev.net.firewall.config.changed", {S("add")}},
      {"tev.net.firewall.port.hooked", {I(1)}},
      {"tev.net.fence.port.fail", {S("p"), S("s"), I(0)}},
      {"tev.net.e1000.tso6.notsupported", {S("4711")}},
      {"tev.net.e1000.tso6.notsupported", {I(999)}},  // no such group
      {"tev.net.lacp.enable", {I(3)}},
      {"tev.net.portset.port.connect.fail", {S("a"), S("b"), I(3)}},
      {"tev.net.something.new", {S("x")}},
      {"tev.net.Firewall.disabled", {}},
  };
  for (const auto &b : bad) {
    SCOPED_TRACE(b.first);
    Feed(b.first, b.second);
    EXPECT_EQ(capture_.Count(), 0u);
  }
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
    tevdtest::TevPtr tev = tevdtest::MakeTev(f.id, f.args);
    f.handler(tev.get());
    EXPECT_EQ(capture_.Count(), 0u) << f.id;
  }
}

int ReadPipe(int fd) {
  char buf[16] = {};
  struct pollfd p = {fd, POLLIN, 0};
  if (poll(&p, 1, 0) != 1) return 0;
  int n = static_cast<int>(read(fd, buf, sizeof buf));
  EXPECT_EQ(std::string(buf, 4), std::string("foo\0", 4));
  return n;
}

TEST_F(NetCorrelatorTest, AlarmWritesFooAndItsNulIntoThePipeWhenATimeoutIsDue) {
  tevdtest::FakeClock clock;
  int fd = -1;
  ASSERT_TRUE(TevdNetCorrelator_Prepare(&fd));
  ASSERT_GE(fd, 0);
  Feed("tev.net.uplink.watchdog.timeout", {S("hwnic0")});
  clock.Advance(6);
  EXPECT_EQ(TevdAlarm_RunDueForTest(), 0);
  EXPECT_EQ(ReadPipe(fd), 0);
  clock.Advance(1);
  EXPECT_EQ(TevdAlarm_RunDueForTest(), 1);
  EXPECT_EQ(ReadPipe(fd), 4);
}

size_t OpenFdCount() {
  size_t n = 0;
  DIR *d = opendir("/proc/self/fd");
  while (d != nullptr && readdir(d) != nullptr) n++;
  if (d != nullptr) closedir(d);
  return n;
}

TEST_F(NetCorrelatorTest, NoFreeAlarmSlotGivesUpWithoutPipeOrAgent) {
  for (int i = 0; i < TEVD_ALARM_MAX; i++) ASSERT_EQ(TevdAlarm_Register([] {}), i);
  size_t before = OpenFdCount();
  int fd = -7;
  EXPECT_FALSE(TevdNetCorrelator_Prepare(&fd));
  EXPECT_EQ(fd, -7);
  TevdCorrelator_StartNet();  // returns at once instead of becoming the agent loop
  EXPECT_EQ(OpenFdCount(), before);
}

TEST_F(NetCorrelatorTest, PipeFailureIsFatal) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto prepare = [] {
    struct rlimit none = {0, 0};
    setrlimit(RLIMIT_NOFILE, &none);  // pipe() fails after the alarm was registered
    int fd = -1;
    TevdNetCorrelator_Prepare(&fd);
  };
  EXPECT_DEATH(prepare(), "Failed to initialize pipes for this thread: ");
}

}  // namespace
