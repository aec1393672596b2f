// tevd -> tevfwd -> two clustered Alertmanagers, all real processes on
// loopback under a private root.
#include <curl/curl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "Harness.h"
#include "PlatformSocket.h"

namespace {

using nlohmann::json;
using tevdtest::Eventually;
using tevdtest::Process;
using Args = std::vector<std::string>;

const char kAlertmanager[] = "/usr/bin/prometheus-alertmanager";

// A free loopback TCP port.
int FreePort() {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  struct sockaddr_in a = {};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a);
  getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
  close(fd);
  return ntohs(a.sin_port);
}

// GET /api/v2/alerts: the alerts that are not resolved; null when no answer.
json ListAlerts(int port) {
  CURL *h = curl_easy_init();
  std::string body, url = "http://127.0.0.1:" + std::to_string(port) + "/api/v2/alerts";
  curl_easy_setopt(h, CURLOPT_URL, url.c_str());
  curl_easy_setopt(h, CURLOPT_TIMEOUT_MS, 2000L);
  curl_easy_setopt(
      h, CURLOPT_WRITEFUNCTION, +[](char *p, size_t size, size_t n, void *out) {
        static_cast<std::string *>(out)->append(p, size * n);
        return size * n;
      });
  curl_easy_setopt(h, CURLOPT_WRITEDATA, &body);
  CURLcode rc = curl_easy_perform(h);
  curl_easy_cleanup(h);
  return rc == CURLE_OK ? json::parse(body, nullptr, false) : json();
}

size_t CountAlerts(int port, const std::string &alertname) {
  size_t n = 0;
  json all = ListAlerts(port);
  for (const json &a : all.is_array() ? all : json::array())
    n += a["labels"].value("alertname", "") == alertname;
  return n;
}

std::string FwdBin() { return tevdtest::BinaryPath("TEVFWD_BIN", "tools/tevfwd/tevfwd"); }

// Two Alertmanagers in one cluster, with data that outlives a restart.
class TevfwdE2E : public ::testing::Test {
 protected:
  void SetUp() override {
    if (access(kAlertmanager, X_OK) != 0) {
      TEVD_SKIP_MISSING(std::string(kAlertmanager) + " is missing (package prometheus-alertmanager)");
    }
    tevdtest::MakeHost(root_);
    root_.Write("am/config.yml", "route:\n  receiver: none\nreceivers:\n- name: none\n");
    for (int &port : ports_) port = FreePort();  // web 0, 1; gossip 2, 3
    StartCluster();
  }
  void StartCluster() {
    for (int i = 0; i < 2; ++i) {
      am_[i] = std::make_unique<Process>(
          root_, kAlertmanager,
          Args{"--config.file=" + root_.Abs("am/config.yml"),
               "--storage.path=" + root_.Abs("am/data" + std::to_string(i)),
               "--web.listen-address=" + Addr(i), "--cluster.listen-address=" + Addr(2 + i),
               "--cluster.peer=" + Addr(3 - i), "--cluster.peer-timeout=1s",
               "--cluster.gossip-interval=50ms", "--cluster.pushpull-interval=1s",
               "--cluster.settle-timeout=2s", "--log.level=warn"},
          Args{}, "am" + std::to_string(i));
    }
    ASSERT_TRUE(Eventually(
        [&] { return ListAlerts(ports_[0]).is_array() && ListAlerts(ports_[1]).is_array(); },
        15000))
        << "Alertmanager did not answer: " << am_[0]->Stderr() << am_[1]->Stderr();
  }
  void StopCluster() {
    for (auto &a : am_) a->Signal(SIGTERM);
    for (auto &a : am_) a->Wait(5000);
  }
  std::string Addr(int i) const { return "127.0.0.1:" + std::to_string(ports_[i]); }
  // True when both replicas list `n` alerts named `alertname`.
  bool BothList(const std::string &alertname, size_t n) const {
    return CountAlerts(ports_[0], alertname) == n && CountAlerts(ports_[1], alertname) == n;
  }
  // The forwarder to both replicas, one retry.
  void StartForwarder() {
    std::string sock = PlatformEndpoint_PathUnder(root_.path(), PlatformEndpoint::QprobAgent);
    unlink(sock.c_str());  // a killed forwarder leaves its socket behind
    fwd_ = std::make_unique<Process>(root_, FwdBin(), Both({"--retry-max", "1"}), Args{}, "tevfwd");
    ASSERT_TRUE(Eventually([&] { return tevdtest::PathExists(sock); }, 5000)) << fwd_->Stderr();
  }
  Args Both(Args extra) {
    extra.insert(extra.begin(),
                 {"--alertmanager", "http://" + Addr(0), "--alertmanager", "http://" + Addr(1)});
    return extra;
  }
  void StartChain() {
    StartForwarder();
    tevd_ = std::make_unique<tevdtest::DaemonProcess>(root_);
    ASSERT_TRUE(tevd_->WaitReady());
  }
  void Post(Args args) {
    args.insert(args.begin(), "post");
    auto r = tevdtest::RunTevctl(root_, args);
    ASSERT_EQ(r.status, 0) << r.err;
  }
  size_t SpoolFiles() {
    size_t n = 0;
    std::error_code ec;
    for (const auto &e : std::filesystem::directory_iterator(root_.Abs("var/lib/tevfwd"), ec))
      n += e.path().filename().string().find(".json") == 16;
    return n;
  }

  tevdtest::ScratchRoot root_;
  int ports_[4] = {};
  std::unique_ptr<Process> am_[2], fwd_;
  std::unique_ptr<tevdtest::DaemonProcess> tevd_;
};

// Both replicas get the same labels, so the cluster deduplicates its notifications.
TEST_F(TevfwdE2E, ProblemFiresOnBothReplicasWithTheSameLabelsAndItsClearResolves) {
  tevdtest::LogLines log(root_);
  StartChain();
  const std::string id = "kos.problem.scsi.device.state.off";
  Post({"tev.scsi.device.state.off", "%s", "naa.600a0b80001"});
  std::string logged = tevdtest::LogLines::Text(log.WaitFor("[" + id + "] "));
  ASSERT_NE(logged.find("[" + id + "] "), std::string::npos) << "tevd did not log the event";
  logged.erase(0, logged.find("[" + id + "] ") + id.size() + 3);
  ASSERT_TRUE(Eventually([&] { return BothList(id, 1); }, 15000)) << fwd_->Stderr();
  const json a = ListAlerts(ports_[1])[0];
  EXPECT_EQ(a["labels"], ListAlerts(ports_[0])[0]["labels"]);
  EXPECT_EQ(a["labels"]["device"], "naa.600a0b80001");
  EXPECT_EQ(a["labels"]["host"], "6f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0");
  EXPECT_EQ(a["annotations"]["description"], logged) << "not the daemon's log text";
  Post({"tev.scsi.device.state.on", "%s", "naa.600a0b80001"});
  EXPECT_TRUE(Eventually([&] { return BothList(id, 0); }, 15000)) << "not resolved";
}

// Both uplinks of a bridge go down and come back: the daemon's recoveries
// name the NICs in the other order, and still nothing stays firing.
TEST_F(TevfwdE2E, BothUplinksDownAndBackLeaveNothingFiring) {
  for (Args a : {Args{"host", "portgroup", "pg-guests", "br0"}, Args{"host", "nic", "hwnic0"},
                 Args{"host", "nic", "hwnic1"}}) {
    ASSERT_EQ(tevdtest::RunTevctl(root_, a).status, 0);
  }
  StartChain();
  auto uplink = [&](const char *nic, bool up, int left) {
    if (up) {
      Post({"tev.net.pg.uplink.transition.up",
            "Uplink %s of port group %s is up, %d active uplinks", nic, "pg-guests",
            std::to_string(left)});
    } else {
      Post({"tev.net.pg.uplink.transition.down",
            "Uplink %s of port group %s is down, %d active uplinks left (%d)", nic, "pg-guests",
            std::to_string(left), "0"});
    }
    Post({up ? "tev.net.hwnic.linkstate.up" : "tev.net.hwnic.linkstate.down",
          up ? "Physical NIC %s linkstate is up" : "Physical NIC %s linkstate is down", nic});
  };
  const std::string lost = "kos.problem.net.redundancy.lost";
  const std::string cut = "kos.problem.net.connectivity.lost";
  uplink("hwnic0", false, 1);
  ASSERT_TRUE(Eventually([&] { return BothList(lost, 1); }, 15000)) << fwd_->Stderr();
  const json a = ListAlerts(ports_[0])[0];
  EXPECT_EQ(a["labels"]["switch"], "br0");
  EXPECT_EQ(a["labels"]["portgroups"], "pg-guests");
  EXPECT_EQ(a["labels"]["severity"], "warning");
  uplink("hwnic1", false, 0);
  ASSERT_TRUE(Eventually([&] { return BothList(cut, 1); }, 15000)) << fwd_->Stderr();
  uplink("hwnic0", true, 1);
  ASSERT_TRUE(Eventually([&] { return BothList(cut, 0); }, 15000)) << fwd_->Stderr();
  EXPECT_TRUE(BothList(lost, 1)) << "one uplink back is not redundancy";
  uplink("hwnic1", true, 2);
  EXPECT_TRUE(Eventually(
      [&] {
        return ListAlerts(ports_[0]) == json::array() && ListAlerts(ports_[1]) == json::array();
      },
      15000))
      << ListAlerts(ports_[0]).dump();
}

TEST_F(TevfwdE2E, NothingIsLostWhileAlertmanagerIsDownOrTheForwarderIsKilled) {
  StartChain();
  const std::string id = "kos.problem.dhclient.lease.none";
  StopCluster();
  for (int i = 0; i < 4; ++i)
    Post({"--user", "tev.user.dhclient.lease.none", "%s", "mtlnic" + std::to_string(i)});
  ASSERT_TRUE(Eventually([&] { return SpoolFiles() == 4; }, 5000)) << SpoolFiles() << " spooled";
  fwd_->Signal(SIGKILL);
  fwd_->Wait(5000);
  // --once sends the killed forwarder's spool and says whether all arrived.
  Process down(root_, FwdBin(), Both({"--once"}), {}, "down");
  EXPECT_EQ(down.ExitCode(10000), 1) << "nothing could be delivered: " << down.Stderr();
  EXPECT_EQ(SpoolFiles(), 4u);
  StartCluster();
  Process up(root_, FwdBin(), Both({"--once"}), {}, "up");
  EXPECT_EQ(up.ExitCode(10000), 0) << up.Stderr();
  EXPECT_EQ(SpoolFiles(), 0u);
  EXPECT_TRUE(BothList(id, 4));
  StartForwarder();
  Post({"--user", "tev.user.dhclient.lease.none", "%s", "mtlnic4"});
  EXPECT_TRUE(Eventually([&] { return BothList(id, 5) && SpoolFiles() == 0; }, 20000))
      << CountAlerts(ports_[0], id) << " and " << CountAlerts(ports_[1], id) << " of 5\n"
      << fwd_->Stderr();
  // Counters on SIGUSR1 and through tevctl (its file is rewritten every second).
  fwd_->Signal(SIGUSR1);
  EXPECT_TRUE(Eventually(
      [&] { return fwd_->Stderr().find("counters: received 1 sent 1 ") != std::string::npos; },
      5000))
      << fwd_->Stderr();
  json c;
  EXPECT_TRUE(Eventually(
      [&] {
        c = json::parse(tevdtest::RunTevctl(root_, {"fwd"}).out, nullptr, false);
        return c.is_object() && c["received"] == 1 && c["sent"] == 1 && c["waiting"] == 0;
      },
      5000))
      << c.dump();
  fwd_->Signal(SIGTERM);
  EXPECT_EQ(fwd_->ExitCode(5000), 0) << fwd_->Stderr();
  EXPECT_EQ(tevdtest::RunTevctl(root_, {"fwd"}).status, 1) << "a stopped forwarder shown as live";
}

}  // namespace

// Defects: a FIFO in the spool hung tevfwd at start; a second tevfwd on the root took the agent
// socket over; SIGHUP ended it without a word. No Alertmanager is needed for any of these.
TEST(TevfwdProcess, FifoInTheSpoolSecondInstanceAndSighupDoNotStopIt) {
  tevdtest::ScratchRoot root;
  root.MakeDir("var/lib/tevfwd");
  for (const char *name : {"0000000000000001.json", "active.json"})
    ASSERT_EQ(0, mkfifo(root.Abs(std::string("var/lib/tevfwd/") + name).c_str(), 0644));
  const Args args = {"--alertmanager", "http://127.0.0.1:9"};
  Process first(root, FwdBin(), args, {}, "first");
  std::string sock = PlatformEndpoint_PathUnder(root.path(), PlatformEndpoint::QprobAgent);
  ASSERT_TRUE(Eventually([&] { return tevdtest::PathExists(sock); }, 5000)) << first.Stderr();
  EXPECT_NE(first.Stderr().find("Skipped the file "), std::string::npos) << first.Stderr();
  Process second(root, FwdBin(), args, {}, "second");
  EXPECT_EQ(second.ExitCode(5000), 1);
  EXPECT_NE(second.Stderr().find("another tevfwd (pid " + std::to_string(first.pid())),
            std::string::npos)
      << second.Stderr();
  first.Signal(SIGHUP);
  EXPECT_TRUE(Eventually([&] { return first.Stderr().find("SIGHUP") != std::string::npos; }, 5000));
  EXPECT_TRUE(first.Running());
  tevdtest::ExpectCleanExit(first, 5000);
}
