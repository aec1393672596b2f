// tevnet against the real kernel: in a network namespace, bridge ksw0 with the veth
// uplinks hwnic0, hwnic1 (cables lnk0, lnk1); tevd has pg-guests and pg-mgmt on ksw0.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <fstream>

#include "Harness.h"

namespace {

using namespace tevdtest;
using Strings = std::vector<std::string>;

const char kBothGroups[] = "\"pg-guests\", \"pg-mgmt\"";

class TevnetNetns : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!ns_.why.empty()) TEVD_SKIP_MISSING(ns_.why);
    ASSERT_TRUE(ns_.AddBridge("ksw0") && ns_.AddUplink(0, "ksw0") && ns_.AddUplink(1, "ksw0"));
    MakeHost(root_);
    root_.Write("platform/options/Net/LinkFlappingThreshold", "2");
    root_.Write("platform/network/portgroups/pg-guests", "ksw0");
    root_.Write("platform/network/portgroups/pg-mgmt", "ksw0");
    ASSERT_TRUE(agent_.ok());
    StartTevd();
  }
  void TearDown() override {
    tevnet_.reset();
    tevd_.reset();
  }
  void StartTevd() {
    tevd_.reset(new DaemonProcess(root_));
    ASSERT_TRUE(tevd_->WaitReady()) << tevd_->Stderr();
  }
  bool In(const std::string &args) { return ns_.In(args); }
  bool AdminUp(const std::string &nic) { return In("link show dev " + nic + " up | grep -q ."); }
  // The model's file platform/<path>, "-" when absent.
  std::string Model(const std::string &path) {
    std::string v;
    return root_.Read("platform/" + path, &v) ? v : "-";
  }
  std::unique_ptr<Process> Tevnet(Strings extra, const std::string &tag) {
    extra.insert(extra.begin(), {TevnetBin(), "--include", "nosuch,hwnic*"});
    return ns_.Run(root_, extra, tag);
  }
  void StartTevnet(const Strings &extra = {}) {
    tevnet_ = Tevnet(extra, "tevnet");
    ASSERT_TRUE(WaitLog("watching 2 NICs", 5000)) << Err();
  }
  std::string Err() { return tevnet_->Stderr(); }
  bool WaitLog(const std::string &text, int timeoutMs) {
    return tevnet_->WaitStderr(text, timeoutMs);
  }
  // The string arguments of the `nth` (from 1) event `id`, waited for; empty if none came.
  Strings Event(const std::string &id, size_t nth = 1) {
    Strings out;
    Eventually([&] { return Count(id) >= nth; }, 6000);
    for (const QprobMessage &m : agent_.Messages())
      if (m.id == id && --nth == 0)
        for (const MsgFmt_Value &v : m.args) out.push_back(v.str);
    return out;
  }
  size_t Count(const std::string &id) {
    size_t n = 0;
    for (const QprobMessage &m : agent_.Messages()) n += m.id == id;
    return n;
  }
  // `times` bounces of `cable` (down, up) by one ip process, `gapMs` apart; it ends down when `down`.
  void Bounce(const std::string &cable, int times, int gapMs, bool down = false) {
    std::string batch = root_.Abs("bounces"), pause = std::to_string(gapMs / 1000.0);
    std::ofstream f(batch);
    for (int i = 0; i < times; ++i)
      f << "link set " << cable << " down\nlink set " << cable << " up\n";
    if (down) f << "link set " << cable << " down\n";
    f.close();
    if (gapMs == 0) {
      ASSERT_TRUE(In("-batch " + batch));
    } else {
      std::string script = "while read -r l; do " + ns_.ip() + " -n " + ns_.name() + " $l; sleep " +
                           pause + "; done < " + batch;
      ASSERT_EQ(system(script.c_str()), 0);
    }
  }
  void Flap(const std::string &cable, int times) {
    for (int i = 0; i < 2 * times; ++i) {
      ASSERT_TRUE(In("link set " + cable + (i % 2 == 0 ? " down" : " up")));
      std::this_thread::sleep_for(std::chrono::milliseconds(150));
    }
  }

  Netns ns_;
  ScratchRoot root_;
  AgentStandIn agent_{root_, AgentStandIn::Read};
  std::unique_ptr<DaemonProcess> tevd_;
  std::unique_ptr<Process> tevnet_;
};

TEST_F(TevnetNetns, UplinksLostAndBackAndFaultsPresentAtStartOrDuringADaemonRestart) {
  ASSERT_TRUE(In("link set lnk1 down"));  // before tevnet starts: still a fault
  StartTevnet();
  EXPECT_EQ(Event("kos.problem.net.redundancy.lost"), (Strings{"ksw0", "hwnic1", kBothGroups}))
      << Err();
  ASSERT_TRUE(In("link set lnk0 down"));
  EXPECT_EQ(Event("kos.problem.net.connectivity.lost"), (Strings{"ksw0", "hwnic0", kBothGroups}));
  ASSERT_TRUE(In("link set lnk0 up"));
  EXPECT_EQ(Event("kos.clear.net.connectivity.restored", 2),
            (Strings{"ksw0", kBothGroups, "hwnic0"}));
  ASSERT_TRUE(In("link set lnk1 up"));
  EXPECT_EQ(Event("kos.clear.net.redundancy.restored"), (Strings{"ksw0", kBothGroups, "hwnic1"}));
  // The port-group transitions came first, so the bare link state was covered.
  EXPECT_EQ(Count("kos.problem.net.hwnic.linkstate.down"), 0u);
  // A link lost while the daemon is away is told to the new daemon unasked.
  tevd_.reset();
  ASSERT_TRUE(In("link set lnk0 down"));
  ASSERT_TRUE(Eventually([&] { return Model("nodes/net/pNics/hwnic0/carrier") == "0\n"; }, 3000));
  StartTevd();
  EXPECT_EQ(Event("kos.problem.net.redundancy.lost", 2), (Strings{"ksw0", "hwnic0", kBothGroups}))
      << Err();
  EXPECT_TRUE(WaitLog("tevd started again: posting the present state", 1000));
  // Both lost while the daemon is away: told one after the other, so that the
  // redundancy is lost too when one comes back (it was told as connectivity only).
  tevd_.reset();
  ASSERT_TRUE(In("link set lnk1 down"));
  ASSERT_TRUE(Eventually([&] { return Model("nodes/net/pNics/hwnic1/carrier") == "0\n"; }, 3000));
  StartTevd();
  EXPECT_EQ(Event("kos.problem.net.redundancy.lost", 3), (Strings{"ksw0", "hwnic0", kBothGroups}));
  EXPECT_EQ(Event("kos.problem.net.connectivity.lost", 2),
            (Strings{"ksw0", "hwnic1", kBothGroups}));
  // Its counters, as an operator reads them.
  RunResult st;
  EXPECT_TRUE(Eventually(
      [&] {
        st = RunTevctl(root_, {"status", "--json"});
        return st.out.find("\"tevnet\":{\"state\":\"running\"") != std::string::npos &&
               st.out.find("\"NICs watched\":2,\"transitions posted\":") != std::string::npos &&
               st.out.find("\"transitions posted\":0,") == std::string::npos;
      },
      5000))
      << st.out;
}

// The kernel's notifications read late in one batch (tevnet stopped) are
// still posted one by one; a buffer overrun is made good from the table.
TEST_F(TevnetNetns, EveryBounceIsPostedAndAnOverrunIsReadAgain) {
  tevd_.reset();
  unlink(PlatformEndpoint_PathUnder(root_.path(), PlatformEndpoint::AsyncContext).c_str());
  LogLines posts(PlatformEndpoint_PathUnder(root_.path(), PlatformEndpoint::AsyncContext));
  StartTevnet();
  const std::string down = "Physical NIC hwnic1 linkstate is down",
                    up = "Physical NIC hwnic1 linkstate is up";
  kill(tevnet_->pid(), SIGSTOP);
  Bounce("lnk1", 30, 20);
  kill(tevnet_->pid(), SIGCONT);
  EXPECT_TRUE(posts.WaitCount(up, 30, 10000))
      << posts.Count(down) << " downs, " << posts.Count(up) << " ups\n"
      << Err();
  EXPECT_EQ(posts.Count(down), 30u);
  // Far more than the receive buffer holds, ending down.
  kill(tevnet_->pid(), SIGSTOP);
  Bounce("lnk1", 3000, 0, true);
  kill(tevnet_->pid(), SIGCONT);
  ASSERT_TRUE(WaitLog("netlink: receive buffer overrun, link notifications lost", 20000)) << Err();
  EXPECT_FALSE(Contains(Err(), "Out of memory"));
  // The present state was posted after the overrun: the last word on hwnic1 is down.
  const std::string pgDown = "Uplink hwnic1 of port group pg-guests is down",
                    pgUp = "Uplink hwnic1 of port group pg-guests is up";
  std::this_thread::sleep_for(std::chrono::seconds(4));  // past the restatement after a burst
  EXPECT_EQ(Model("nodes/net/pNics/hwnic1/carrier"), "0\n");
  std::vector<std::string> all = posts.Matching("Uplink hwnic1 of port group pg-guests is");
  ASSERT_FALSE(all.empty());
  EXPECT_TRUE(Contains(all.back(), pgDown));
}

// Also defects: a FIFO in the host model hung tevnet at start; a second tevnet on the root ran
// beside the first; SIGHUP ended it without a word.
TEST_F(TevnetNetns, FlappingUplinkIsTakenDownUnlessTheLastWithCarrierPastAFifoSecondAndSighup) {
  root_.MakeDir("platform/nodes/net/pNics/hwnic0");
  ASSERT_EQ(0, mkfifo(root_.Abs("platform/nodes/net/pNics/hwnic0/carrier").c_str(), 0644));
  StartTevnet({"--enforce"});
  EXPECT_TRUE(WaitLog("Skipped the file ", 5000)) << Err();
  auto second = Tevnet({}, "second");
  EXPECT_EQ(second->ExitCode(5000), 1);
  EXPECT_TRUE(Contains(second->Stderr(), "another tevnet (pid " + std::to_string(tevnet_->pid())));
  tevnet_->Signal(SIGHUP);
  EXPECT_TRUE(WaitLog("SIGHUP: writing the host model afresh", 5000)) << Err();
  Flap("lnk1", 3);  // threshold 2: the third link-down within 60 s
  EXPECT_EQ(Event("kos.problem.net.hwnic.linkstate.flapping"), Strings{"hwnic1"}) << Err();
  ASSERT_TRUE(Eventually([&] { return !AdminUp("hwnic1"); }, 3000)) << Err();
  EXPECT_TRUE(AdminUp("hwnic0"));
  ASSERT_TRUE(WaitLog("hwnic1: link flapping: set administratively down", 1000));
  // The flaps end in one episode of the daemon's, losses reported before
  // recoveries; the loss is told again after it, and stays the last word.
  EXPECT_EQ(Event("kos.problem.net.redundancy.lost", 2), (Strings{"ksw0", "hwnic1", kBothGroups}))
      << Err();
  std::this_thread::sleep_for(std::chrono::seconds(3));
  std::string last;
  for (const QprobMessage &m : agent_.Messages())
    if (m.id.find(".net.redundancy.") != std::string::npos) last = m.id;
  EXPECT_EQ(last, "kos.problem.net.redundancy.lost");
  size_t restored = Count("kos.clear.net.redundancy.restored");
  root_.Write("platform/nodes/net/pNics/hwnic1/linkFlapping", "0");  // the operator
  EXPECT_TRUE(Eventually([&] { return AdminUp("hwnic1"); }, 3000)) << Err();
  EXPECT_EQ(Event("kos.clear.net.redundancy.restored", restored + 1),
            (Strings{"ksw0", kBothGroups, "hwnic1"}));
  // Reported again while hwnic0 has no carrier: without --enforce-all it stays up.
  ASSERT_TRUE(In("link set lnk0 down"));
  root_.Write("platform/nodes/net/pNics/hwnic1/linkFlapping", "1");
  ASSERT_TRUE(WaitLog("hwnic1: tevd reports the link flapping; NOT taking it down", 3000)) << Err();
  EXPECT_TRUE(AdminUp("hwnic1"));
  ExpectCleanExit(*tevnet_, 5000);  // SIGTERM, unlike SIGHUP and SIGUSR1, ends it
}

TEST_F(TevnetNetns, OncePostsThePresentStateAndCountsWhatItCouldNotDeliver) {
  ASSERT_TRUE(In("link set lnk1 down"));
  auto once = Tevnet({"--once"}, "once");
  ASSERT_EQ(once->ExitCode(5000), 0) << once->Stderr();
  EXPECT_EQ(Event("kos.problem.net.redundancy.lost"), (Strings{"ksw0", "hwnic1", kBothGroups}));
  EXPECT_EQ(Event("kos.clear.net.connectivity.restored"), (Strings{"ksw0", kBothGroups, "hwnic0"}));
  tevd_.reset();  // killed: its socket file stays, nobody reads it
  auto again = Tevnet({"--once"}, "again");
  EXPECT_EQ(again->ExitCode(5000), 1);
  // hwnic0: two port groups and the link state; hwnic1 the same.
  EXPECT_TRUE(Contains(again->Stderr(), "6 observations dropped"));
  // By default only NICs with a device behind them: no veth end.
  auto plain = ns_.Run(root_, {TevnetBin()}, "plain");
  EXPECT_TRUE(plain->WaitStderr("watching 0 NICs: none")) << plain->Stderr();
}

TEST_F(TevnetNetns, HostModelFollowsTheLinksAndLeavesOperatorPortGroups) {
  StartTevnet({"--flap-quiet", "1"});
  // A flapping mark ends once the NIC has been quiet (here 1 s).
  root_.Write("platform/nodes/net/pNics/hwnic0/linkFlapping", "1");
  EXPECT_TRUE(
      Eventually([&] { return Model("nodes/net/pNics/hwnic0/linkFlapping") == "0\n"; }, 4000))
      << Err();
  EXPECT_EQ(Model("network/vswitches/ksw0/uplinks"), "hwnic0\nhwnic1\n");
  EXPECT_EQ(Model("nodes/net/pNics/hwnic0/vswitch"), "ksw0\n");
  EXPECT_EQ(Model("nodes/net/pNics/lnk0/carrier"), "-");  // not included
  EXPECT_EQ(Model("network/portgroups/ksw0"), "-");       // ksw0 has groups
  // A new switch without port groups gets one named after it, posted for its uplink.
  ASSERT_TRUE(ns_.AddBridge("ksw1") && ns_.AddUplink(2, "ksw1"));
  EXPECT_TRUE(Eventually([&] { return Model("network/portgroups/ksw1") == "ksw1\n"; }, 3000));
  ASSERT_TRUE(In("link set lnk2 down"));
  EXPECT_EQ(Event("kos.problem.net.connectivity.lost"), (Strings{"ksw1", "hwnic2", "\"ksw1\""}))
      << Err();
  // A deleted NIC is told as up: its alerts can end; also to a daemon that was away then.
  tevd_.reset();
  ASSERT_TRUE(In("link del hwnic2"));
  ASSERT_TRUE(WaitLog("hwnic2: removed", 3000)) << Err();
  StartTevd();
  EXPECT_EQ(Event("kos.clear.net.hwnic.linkstate.up"), Strings{"hwnic2"}) << Err();
  // Gone from the host, gone from the model; the operator's files stay.
  ASSERT_TRUE(In("link del ksw1"));
  EXPECT_TRUE(Eventually(
      [&] {
        return Model("network/portgroups/ksw1") + Model("nodes/net/pNics/hwnic2/carrier") == "--";
      },
      3000))
      << Err();
  EXPECT_EQ(Model("network/vswitches/ksw1/uplinks"), "-");
  EXPECT_EQ(Model("network/portgroups/pg-guests"), "ksw0");
}

}  // namespace
