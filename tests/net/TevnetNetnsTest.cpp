// tevnet against the real kernel: a network namespace with a Linux bridge
// ksw0 whose uplinks are the veth ends hwnic0 and hwnic1; their peers lnk0
// and lnk1 play the cables. The real tevd runs under a scratch root with port
// groups pg-guests and pg-mgmt on ksw0, and the management-agent stand-in
// receives its events.
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

#include "DaemonSockets.h"
#include "Harness.h"

namespace {

using tevdtest::AgentStandIn;
using tevdtest::Eventually;
using tevdtest::ScratchRoot;

std::string IpBin() {
  for (const char *p : {"/usr/sbin/ip", "/sbin/ip", "/usr/bin/ip", "/bin/ip"}) {
    if (access(p, X_OK) == 0) return p;
  }
  return "";
}

class TevnetNetns : public ::testing::Test {
 protected:
  void SetUp() override {
    if (IpBin().empty()) GTEST_SKIP() << "SKIPPED: no ip binary (Debian package iproute2)";
    ns_ = "tevnet-t" + std::to_string(getpid());
    if (!Ip("netns add " + ns_)) {
      GTEST_SKIP() << "SKIPPED: cannot create a network namespace (needs root and netns "
                      "support): tevnet's kernel tests did not run";
    }
    haveNs_ = true;
    ASSERT_TRUE(In("link add ksw0 type bridge") && In("link set ksw0 up"));
    for (const char *i : {"0", "1"})
      AddUplink("ksw0", std::string("hwnic") + i, std::string("lnk") + i);
    tevdtest::MakeHost(root_);
    root_.Write("platform/options/Net/LinkFlappingThreshold", "2");
    root_.Write("platform/network/portgroups/pg-guests", "ksw0");
    root_.Write("platform/network/portgroups/pg-mgmt", "ksw0");
    agent_.reset(new AgentStandIn(root_, AgentStandIn::Read));
    ASSERT_TRUE(agent_->ok());
    tevd_.reset(new tevdtest::DaemonProcess(root_));
    ASSERT_TRUE(tevd_->WaitReady()) << tevd_->Stderr();
  }
  void TearDown() override {
    tevnet_.reset();
    tevd_.reset();
    agent_.reset();
    if (haveNs_) Ip("netns del " + ns_);
  }

  bool Ip(const std::string &args) {
    return system((IpBin() + " " + args + " >/dev/null 2>&1").c_str()) == 0;
  }
  bool In(const std::string &args) { return Ip("-n " + ns_ + " " + args); }
  void AddUplink(const std::string &sw, const std::string &nic, const std::string &peer) {
    ASSERT_TRUE(In("link add " + nic + " type veth peer name " + peer) &&
                In("link set " + nic + " master " + sw) && In("link set " + nic + " up") &&
                In("link set " + peer + " up"));
  }
  bool AdminUp(const std::string &nic) {
    FILE *p =
        popen((IpBin() + " -n " + ns_ + " -o link show " + nic + " 2>/dev/null").c_str(), "r");
    if (p == nullptr) return false;
    char buf[512] = "";
    bool got = fgets(buf, sizeof buf, p) != nullptr;
    pclose(p);
    std::string line = got ? buf : "";
    size_t open = line.find('<'), close = line.find('>');
    if (open == std::string::npos || close == std::string::npos) return false;
    std::string flags = "," + line.substr(open + 1, close - open - 1) + ",";
    return flags.find(",UP,") != std::string::npos;
  }

  std::string Err() { return tevnet_->Stderr(); }
  void StartTevnet(const std::vector<std::string> &extra = {}) {
    std::vector<std::string> argv = {
        "netns",     "exec",  ns_, tevdtest::BinaryPath("TEVNET_BIN", "tools/tevnet/tevnet"),
        "--include", "hwnic*"};
    argv.insert(argv.end(), extra.begin(), extra.end());
    tevnet_.reset(new tevdtest::Process(root_, IpBin(), argv, {}, "tevnet"));
    ASSERT_TRUE(WaitLog("watching 2 NICs", 5000)) << Err();
  }
  bool WaitLog(const std::string &text, int timeoutMs) {
    return Eventually([&] { return tevnet_->Stderr().find(text) != std::string::npos; }, timeoutMs);
  }
  // The first event `id` posted at or after index `from`, waited for.
  bool WaitEvent(const std::string &id, QprobMessage *out, int timeoutMs = 6000) {
    return Eventually(
        [&] {
          for (const QprobMessage &m : agent_->Messages()) {
            if (m.id == id) {
              *out = m;
              return true;
            }
          }
          return false;
        },
        timeoutMs);
  }
  size_t Count(const std::string &id) {
    size_t n = 0;
    for (const QprobMessage &m : agent_->Messages()) n += m.id == id ? 1 : 0;
    return n;
  }
  static std::vector<std::string> Strings(const QprobMessage &m) {
    std::vector<std::string> out;
    for (const MsgFmt_Value &v : m.args) out.push_back(v.str);
    return out;
  }
  void Flap(const std::string &peer, int times) {
    for (int i = 0; i < times; ++i) {
      ASSERT_TRUE(In("link set " + peer + " down"));
      std::this_thread::sleep_for(std::chrono::milliseconds(150));
      ASSERT_TRUE(In("link set " + peer + " up"));
      std::this_thread::sleep_for(std::chrono::milliseconds(150));
    }
  }

  std::string ns_;
  bool haveNs_ = false;
  ScratchRoot root_;
  std::unique_ptr<AgentStandIn> agent_;
  std::unique_ptr<tevdtest::DaemonProcess> tevd_;
  std::unique_ptr<tevdtest::Process> tevnet_;
};

const char kBothGroups[] = "\"pg-guests\", \"pg-mgmt\"";

TEST_F(TevnetNetns, OneUplinkLostThenBackIsRedundancyLostThenRestored) {
  StartTevnet();
  ASSERT_TRUE(In("link set lnk1 down"));
  QprobMessage m;
  ASSERT_TRUE(WaitEvent("kos.problem.net.redundancy.lost", &m)) << Err();
  EXPECT_EQ(Strings(m), (std::vector<std::string>{"ksw0", "hwnic1", kBothGroups}));
  ASSERT_TRUE(In("link set lnk1 up"));
  ASSERT_TRUE(WaitEvent("kos.clear.net.redundancy.restored", &m)) << Err();
  EXPECT_EQ(Strings(m), (std::vector<std::string>{"ksw0", kBothGroups, "hwnic1"}));
  // The port-group transitions came first, so the bare link state was covered.
  EXPECT_EQ(Count("kos.problem.net.hwnic.linkstate.down"), 0u);
  EXPECT_EQ(Count("kos.clear.net.hwnic.linkstate.up"), 0u);
}

TEST_F(TevnetNetns, ARestartedDaemonIsFoundAgain) {
  StartTevnet();
  tevd_.reset();
  ASSERT_TRUE(In("link set lnk1 down"));  // nobody reads: dropped and counted
  tevd_.reset(new tevdtest::DaemonProcess(root_));
  ASSERT_TRUE(tevd_->WaitReady()) << tevd_->Stderr();
  ASSERT_TRUE(In("link set lnk0 down"));
  QprobMessage m;
  ASSERT_TRUE(WaitEvent("kos.problem.net.connectivity.lost", &m)) << Err();
  EXPECT_EQ(Strings(m), (std::vector<std::string>{"ksw0", "hwnic0", kBothGroups}));
  EXPECT_EQ(Count("kos.problem.net.redundancy.lost"), 0u);
}

TEST_F(TevnetNetns, BothUplinksLostIsConnectivityLostOnTheSecond) {
  StartTevnet();
  ASSERT_TRUE(In("link set lnk0 down") && In("link set lnk1 down"));
  QprobMessage m;
  ASSERT_TRUE(WaitEvent("kos.problem.net.connectivity.lost", &m)) << Err();
  EXPECT_EQ(Strings(m), (std::vector<std::string>{"ksw0", "hwnic1", kBothGroups}));
  ASSERT_TRUE(WaitEvent("kos.problem.net.redundancy.lost", &m));
  EXPECT_EQ(Strings(m), (std::vector<std::string>{"ksw0", "hwnic0", kBothGroups}));
  ASSERT_TRUE(In("link set lnk0 up"));
  ASSERT_TRUE(WaitEvent("kos.clear.net.connectivity.restored", &m)) << Err();
  EXPECT_EQ(Strings(m), (std::vector<std::string>{"ksw0", kBothGroups, "hwnic0"}));
}

TEST_F(TevnetNetns, FlappingUplinkIsTakenDownAndBroughtBackByAnOperator) {
  StartTevnet({"--enforce"});
  Flap("lnk1", 3);  // threshold 2: the third link-down within 60 s
  QprobMessage m;
  ASSERT_TRUE(WaitEvent("kos.problem.net.hwnic.linkstate.flapping", &m)) << Err();
  EXPECT_EQ(Strings(m), (std::vector<std::string>{"hwnic1"}));
  ASSERT_TRUE(Eventually([&] { return !AdminUp("hwnic1"); }, 3000)) << Err();
  EXPECT_TRUE(AdminUp("hwnic0"));
  ASSERT_TRUE(WaitLog("hwnic1: link flapping: set administratively down", 1000));

  root_.Write("platform/nodes/net/pNics/hwnic1/linkFlapping", "0");
  ASSERT_TRUE(Eventually([&] { return AdminUp("hwnic1"); }, 3000)) << Err();
}

TEST_F(TevnetNetns, LastUplinkWithCarrierIsNotTakenDownWithoutEnforceAll) {
  StartTevnet({"--enforce"});
  ASSERT_TRUE(In("link set lnk0 down"));
  Flap("lnk1", 3);
  QprobMessage m;
  ASSERT_TRUE(WaitEvent("kos.problem.net.hwnic.linkstate.flapping", &m)) << Err();
  ASSERT_TRUE(WaitLog("hwnic1: tevd reports the link flapping; NOT taking it down", 3000)) << Err();
  EXPECT_TRUE(AdminUp("hwnic1"));
}

TEST_F(TevnetNetns, OncePostsThePresentStateAndCountsWhatItCouldNotDeliver) {
  ASSERT_TRUE(In("link set lnk1 down"));
  std::vector<std::string> argv = {
      "netns",     "exec",   ns_,     tevdtest::BinaryPath("TEVNET_BIN", "tools/tevnet/tevnet"),
      "--include", "hwnic*", "--once"};
  tevdtest::Process once(root_, IpBin(), argv, {}, "once");
  ASSERT_EQ(once.ExitCode(5000), 0) << once.Stderr();
  QprobMessage m;
  ASSERT_TRUE(WaitEvent("kos.problem.net.redundancy.lost", &m));
  EXPECT_EQ(Strings(m), (std::vector<std::string>{"ksw0", "hwnic1", kBothGroups}));
  ASSERT_TRUE(WaitEvent("kos.clear.net.connectivity.restored", &m));
  EXPECT_EQ(Strings(m), (std::vector<std::string>{"ksw0", kBothGroups, "hwnic0"}));

  tevd_.reset();  // killed: its socket file stays, nobody reads it
  tevdtest::Process again(root_, IpBin(), argv, {}, "again");
  EXPECT_EQ(again.ExitCode(5000), 1);
  // hwnic0: two port groups and the link state; hwnic1 the same.
  EXPECT_NE(again.Stderr().find("6 observations dropped"), std::string::npos) << again.Stderr();
}

TEST_F(TevnetNetns, HostModelFollowsTheLinksAndLeavesOperatorPortGroups) {
  StartTevnet();
  std::string v;
  ASSERT_TRUE(root_.Read("platform/network/vswitches/ksw0/uplinks", &v));
  EXPECT_EQ(v, "hwnic0\nhwnic1\n");
  ASSERT_TRUE(root_.Read("platform/nodes/net/pNics/hwnic0/vswitch", &v));
  EXPECT_EQ(v, "ksw0\n");
  std::string unused;
  EXPECT_FALSE(root_.Read("platform/nodes/net/pNics/lnk0/carrier", &unused));  // not included
  EXPECT_FALSE(root_.Read("platform/network/portgroups/ksw0", &unused));       // ksw0 has groups

  // A new switch without port groups gets one named after it, and its
  // uplink's transitions are posted for it.
  ASSERT_TRUE(In("link add ksw1 type bridge") && In("link set ksw1 up"));
  AddUplink("ksw1", "hwnic2", "lnk2");
  ASSERT_TRUE(Eventually([&] { return root_.Read("platform/network/portgroups/ksw1", &v); }, 3000));
  EXPECT_EQ(v, "ksw1\n");
  ASSERT_TRUE(In("link set lnk2 down"));
  QprobMessage m;
  ASSERT_TRUE(WaitEvent("kos.problem.net.connectivity.lost", &m)) << Err();
  EXPECT_EQ(Strings(m), (std::vector<std::string>{"ksw1", "hwnic2", "\"ksw1\""}));

  // Gone from the host, gone from the model; the operator's files stay.
  ASSERT_TRUE(In("link del ksw1") && In("link del hwnic2"));
  ASSERT_TRUE(
      Eventually([&] { return !root_.Read("platform/network/portgroups/ksw1", &v); }, 3000));
  ASSERT_TRUE(
      Eventually([&] { return !root_.Read("platform/nodes/net/pNics/hwnic2/carrier", &v); }, 3000))
      << Err();
  EXPECT_FALSE(root_.Read("platform/network/vswitches/ksw1/uplinks", &v));
  EXPECT_TRUE(root_.Read("platform/network/portgroups/pg-guests", &v));
  EXPECT_EQ(v, "ksw0");
}

}  // namespace
