// tevd -> tevfwd -> two clustered Alertmanagers, all real processes on
// loopback under a private root.
#include <curl/curl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <thread>

#include "Harness.h"
#include "PlatformSocket.h"

namespace {

using nlohmann::json;
using namespace tevdtest;
using Args = std::vector<std::string>;

const char kAlertmanager[] = "/usr/bin/prometheus-alertmanager";

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

std::string FwdBin() { return BinaryPath("TEVFWD_BIN", "tools/tevfwd/tevfwd"); }

// A replica that is not Alertmanager: HTTP 400 to a request naming
// `poison`, 200 to any other; it keeps the alerts it took.
class PickyReplica {
 public:
  explicit PickyReplica(std::string poison) : poison_(std::move(poison)) {}
  ~PickyReplica() {
    stop_ = true;
    thread_.join();
    close(lfd_);
  }
  std::vector<json> Took() {
    std::lock_guard<std::mutex> lock(mu_);
    return took_;
  }
  int port = 0;

 private:
  void Serve() {
    while (!stop_) {
      struct pollfd p = {lfd_, POLLIN, 0};
      int fd = poll(&p, 1, 100) > 0 ? accept4(lfd_, nullptr, nullptr, SOCK_CLOEXEC) : -1;
      if (fd < 0) continue;
      std::string req;  // headers and a Content-Length body
      char buf[65536];
      size_t want = std::string::npos, end = 0, cl = 0;
      for (ssize_t n; req.size() < want && (p = {fd, POLLIN, 0}, poll(&p, 1, 2000)) > 0 &&
                      (n = read(fd, buf, sizeof buf)) > 0;) {
        req.append(buf, static_cast<size_t>(n));
        if ((end = req.find("\r\n\r\n")) != std::string::npos &&
            (cl = req.find("Content-Length: ")) != std::string::npos) {
          want = end + 4 + std::stoul(req.substr(cl + 16));
        }
      }
      json alerts = json::parse(req.substr(std::min(req.size(), end + 4)), nullptr, false);
      const bool bad = !alerts.is_array() || req.find(poison_) != std::string::npos;
      std::lock_guard<std::mutex> lock(mu_);
      if (!bad) took_.insert(took_.end(), alerts.begin(), alerts.end());
      std::string answer = bad ? "HTTP/1.1 400 Bad Request" : "HTTP/1.1 200 OK";
      answer += "\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
      (void)!write(fd, answer.data(), answer.size());
      close(fd);
    }
  }
  std::string poison_;
  int lfd_ = ListenLoopback(&port);
  std::atomic<bool> stop_{false};
  std::mutex mu_;
  std::vector<json> took_;
  std::thread thread_{[this] { Serve(); }};
};

// Two Alertmanagers in one cluster, with data that outlives a restart.
class TevfwdE2E : public ::testing::Test {
 protected:
  void SetUp() override {
    if (access(kAlertmanager, X_OK) != 0) {
      TEVD_SKIP_MISSING(std::string(kAlertmanager) +
                        " is missing (package prometheus-alertmanager)");
    }
    MakeHost(root_);
    root_.Write("am/config.yml", "route:\n  receiver: none\nreceivers:\n- name: none\n");
    for (int &port : ports_) port = FreePort();  // web 0, 1; gossip 2, 3
    StartCluster();
  }
  void StartCluster() {
    for (int i = 0; i < 2; ++i) StartReplica(i);
  }
  void StartReplica(int i) {
    am_[i] = std::make_unique<Process>(
        root_, kAlertmanager,
        Args{"--config.file=" + root_.Abs("am/config.yml"),
             "--storage.path=" + root_.Abs("am/data" + std::to_string(i)),
             "--web.listen-address=" + Addr(i), "--cluster.listen-address=" + Addr(2 + i),
             "--cluster.peer=" + Addr(3 - i), "--cluster.peer-timeout=1s",
             "--cluster.gossip-interval=50ms", "--cluster.pushpull-interval=1s",
             "--cluster.settle-timeout=2s", "--log.level=warn"},
        Args{}, "am" + std::to_string(i));
    ASSERT_TRUE(Eventually([&] { return ListAlerts(ports_[i]).is_array(); }, 15000))
        << "Alertmanager did not answer: " << am_[i]->Stderr();
  }
  std::string Addr(int i) const { return "127.0.0.1:" + std::to_string(ports_[i]); }
  // True when both replicas list `n` alerts named `alertname`.
  bool BothList(const std::string &alertname, size_t n) const {
    return CountAlerts(ports_[0], alertname) == n && CountAlerts(ports_[1], alertname) == n;
  }
  // The forwarder, by default to both replicas with one retry; `listenFd`
  // is a socket handed over as the service manager would.
  void StartForwarder(Args args = {}, int listenFd = -1) {
    std::string sock = PlatformEndpoint_PathUnder(root_.path(), PlatformEndpoint::QprobAgent);
    if (listenFd < 0) unlink(sock.c_str());  // a killed forwarder leaves its socket behind
    if (args.empty()) args = Both({"--retry-max", "1"});
    unlink(root_.Abs("tevfwd.stderr").c_str());  // the last one's "listening on" line
    fwd_ = std::make_unique<Process>(root_, FwdBin(), args, Args{}, "tevfwd", listenFd);
    ASSERT_TRUE(fwd_->WaitStderr("listening on")) << fwd_->Stderr();
  }
  Args Both(Args extra) {
    extra.insert(extra.begin(),
                 {"--alertmanager", "http://" + Addr(0), "--alertmanager", "http://" + Addr(1)});
    return extra;
  }
  // The forwarder (as StartForwarder), then tevd.
  void StartChain(Args fwdArgs = {}, int listenFd = -1) {
    StartForwarder(std::move(fwdArgs), listenFd);
    tevd_ = std::make_unique<DaemonProcess>(root_);
    ASSERT_TRUE(tevd_->WaitReady());
  }
  void Post(Args args) {
    args.insert(args.begin(), "post");
    auto r = RunTevctl(root_, args);
    ASSERT_EQ(r.status, 0) << r.err;
  }
  // The agent's socket as the service manager holds it for tevfwd: it outlives the forwarder.
  int ListenAgent() {
    PlatformListen how;
    how.type = SOCK_STREAM;
    how.backlog = 1024;
    return PlatformSocket_Listen(
        PlatformEndpoint_PathUnder(root_.path(), PlatformEndpoint::QprobAgent), how);
  }
  size_t SpoolFiles() {
    size_t n = 0;
    std::error_code ec;
    for (const auto &e : std::filesystem::directory_iterator(root_.Abs("var/lib/tevfwd"), ec))
      n += e.path().filename().string().find(".json") == 16;
    return n;
  }

  ScratchRoot root_;
  int ports_[4] = {};
  std::unique_ptr<Process> am_[2], fwd_;
  std::unique_ptr<DaemonProcess> tevd_;
};

// Both replicas get the same labels, so the cluster deduplicates its notifications. Then the
// forwarder is killed and comes back on the socket that outlived it (as tevfwd.socket keeps it):
// the event tevd posted meanwhile waited in the backlog, not in tevd's retry list (180 s).
TEST_F(TevfwdE2E, ProblemFiresOnBothReplicasItsClearResolvesAndAForwarderRestartDelaysNothing) {
  LogLines log(root_);
  const int lfd = ListenAgent();
  ASSERT_GE(lfd, 0) << strerror(errno);
  StartChain({}, lfd);
  const std::string id = "kos.problem.scsi.device.state.off";
  Post({"tev.scsi.device.state.off", "%s", "naa.600a0b80001"});
  std::string logged = LogLines::Text(log.WaitFor("[" + id + "] "));
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
  fwd_->Signal(SIGKILL);
  ASSERT_TRUE(fwd_->Wait(5000));
  Post({"tev.scsi.device.state.off", "%s", "naa.600a0b80001"});
  ASSERT_FALSE(log.WaitFor("[" + id + "] ").empty()) << "tevd did not post the event";
  StartForwarder({}, lfd);
  EXPECT_TRUE(Eventually([&] { return BothList(id, 1); }, 5000)) << fwd_->Stderr();
  EXPECT_EQ(log.Count("could not be sent immediately"), 0u);
  close(lfd);
}

TEST_F(TevfwdE2E, NothingIsLostWhileAlertmanagerIsDownOrTheForwarderIsKilled) {
  StartChain();
  const std::string id = "kos.problem.dhclient.lease.none";
  for (auto &a : am_) a->Signal(SIGTERM);
  for (auto &a : am_) a->Wait(5000);
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
  // The start-up line counts both places alerts come back from (--once saved
  // the spool's firing alerts; the spool itself is empty).
  EXPECT_TRUE(
      Contains(fwd_->Stderr(),
               "recovered 0 alert(s) from the spool and 4 firing from active.json; 4 firing now"));
  Post({"--user", "tev.user.dhclient.lease.none", "%s", "mtlnic4"});
  EXPECT_TRUE(Eventually([&] { return BothList(id, 5) && SpoolFiles() == 0; }, 20000))
      << CountAlerts(ports_[0], id) << " and " << CountAlerts(ports_[1], id) << " of 5\n"
      << fwd_->Stderr();
  // Counters on SIGUSR1 and through tevctl (its file is rewritten every second).
  fwd_->Signal(SIGUSR1);
  EXPECT_TRUE(fwd_->WaitStderr("counters: received 1 sent 1 ")) << fwd_->Stderr();
  json c;
  EXPECT_TRUE(Eventually(
      [&] {
        c = json::parse(RunTevctl(root_, {"fwd"}).out, nullptr, false);
        return c.is_object() && c["received"] == 1 && c["sent"] == 1 && c["waiting"] == 0;
      },
      5000))
      << c.dump();
  // The Prometheus file (rewritten every 2 s) counts per replica.
  const std::string r0 = "{replica=\"http://" + Addr(0) + "\"} ";
  std::string m;
  EXPECT_TRUE(Eventually(
      [&] {
        m = RunTevctl(root_, {"metrics"}).out;
        return Contains(m, "\ntevfwd_replica_sent_total" + r0 + "1\n");
      },
      5000))
      << m;
  EXPECT_TRUE(Contains(m, "\ntevfwd_replica_up" + r0 + "1\n"));
  // The recovered firing alerts, re-sent at start.
  EXPECT_TRUE(Contains(m, "\ntevfwd_replica_resent_total" + r0 + "4\n"));
  EXPECT_TRUE(Contains(m, "\ntevfwd_active_alerts{severity=\"critical\"} 5\n"));
  fwd_->Signal(SIGTERM);
  EXPECT_EQ(fwd_->ExitCode(5000), 0) << fwd_->Stderr();
  EXPECT_FALSE(PathExists(root_.Abs("var/run/orlan/metrics/tevfwd.prom")))
      << "a clean exit leaves no counters file behind";
  EXPECT_EQ(RunTevctl(root_, {"fwd"}).status, 1) << "a stopped forwarder shown as live";
}

// The red team's delivery faults, each against the real forwarder.

// One replica that accepts and never answers, listed first with a 30 s time limit, and more
// firing alerts than the spool holds: the healthy replica gets every alert and keeps it firing
// through many re-send intervals (re-sends used to wait behind a spool the stuck replica never
// emptied, and to evict each other from it), and SIGTERM ends the forwarder within 2 s.
TEST_F(TevfwdE2E, HangingReplicaAndALargeActiveSetHoldBackNeitherTheHealthyReplicaNorSigterm) {
  int hangingPort = 0;
  const int hanging = ListenLoopback(&hangingPort);
  StartChain({"--alertmanager", "http://127.0.0.1:" + std::to_string(hangingPort), "--alertmanager",
              "http://" + Addr(0), "--timeout", "30", "--resend", "1", "--spool-max", "4000",
              "--retry-max", "1"});
  const std::string id = "kos.problem.dhclient.lease.none";
  for (int i = 0; i < 40; ++i)
    Post({"--user", "tev.user.dhclient.lease.none", "%s", "mtlnic" + std::to_string(i)});
  ASSERT_TRUE(Eventually([&] { return CountAlerts(ports_[0], id) == 40; }, 10000))
      << CountAlerts(ports_[0], id) << " of 40\n"
      << fwd_->Stderr();
  // Each alert is sent to end three intervals (3 s) ahead: none may end.
  EXPECT_FALSE(Eventually([&] { return CountAlerts(ports_[0], id) != 40; }, 6000))
      << "resolved on the healthy replica while firing\n"
      << fwd_->Stderr();
  json c = json::parse(RunTevctl(root_, {"fwd"}).out, nullptr, false);
  EXPECT_GT(c.value("dropped", 0), 0) << "the spool never reached its limit: " << c.dump();
  fwd_->Signal(SIGTERM);
  EXPECT_EQ(fwd_->ExitCode(2000), 0) << fwd_->Stderr();
  close(hanging);
}

// One alert the replica refuses (HTTP 400) in a batch of five: the batch is
// split until it stands alone, and the other four land.
TEST_F(TevfwdE2E, PoisonAlertIsDroppedAloneAndTheRestOfItsBatchLands) {
  PickyReplica picky("mtlnic-bad");
  const std::string dead = "http://127.0.0.1:" + std::to_string(FreePort());
  StartChain({"--alertmanager", dead});
  for (const char *nic : {"mtlnic0", "mtlnic1", "mtlnic-bad", "mtlnic3", "mtlnic4"})
    Post({"--user", "tev.user.dhclient.lease.none", "%s", nic});
  ASSERT_TRUE(Eventually([&] { return SpoolFiles() == 5; }, 5000)) << SpoolFiles() << " spooled";
  fwd_->Signal(SIGTERM);
  ASSERT_EQ(fwd_->ExitCode(5000), 0);
  Process once(root_, FwdBin(),
               {"--alertmanager", "http://127.0.0.1:" + std::to_string(picky.port), "--once"}, {},
               "once");
  EXPECT_EQ(once.ExitCode(10000), 0) << once.Stderr();
  std::set<std::string> took;
  for (const json &a : picky.Took()) took.insert(a["labels"].value("interface", ""));
  EXPECT_EQ(took, (std::set<std::string>{"mtlnic0", "mtlnic1", "mtlnic3", "mtlnic4"}));
  EXPECT_TRUE(Contains(once.Stderr(), "refused an alert (HTTP 400)"));
}

// Convergence under chaos, on a real kernel: in a network namespace, bridge
// ksw0 with uplinks hwnic0-1 and ksw1 with hwnic2-4 (veth; their cables
// lnkN); tevd, tevnet, tevfwd on a socket that outlives it (as tevfwd.socket
// keeps it) and the two replicas. Seeded rounds of link changes (downs, ups,
// bursts, a veth deleted and re-added) with a restart every third round
// (SIGTERM or SIGKILL of tevd, tevnet, tevfwd, replica 1, in turn). After
// each round the faults the kernel shows must be what both replicas show as
// firing. TEVD_CHAOS_SECONDS (180) is the length; TEVD_CHAOS_SEED repeats a run.
class TevfwdChaos : public TevfwdE2E {
 protected:
  struct Nic {
    bool carrier;
    std::string sw;
  };
  void SetUp() override {
    TevfwdE2E::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    if (!ns_.why.empty()) TEVD_SKIP_MISSING(ns_.why);
    ASSERT_TRUE(ns_.AddBridge("ksw0") && ns_.AddBridge("ksw1"));
    for (int n = 0; n < 5; ++n) ASSERT_TRUE(AddUplink(n));
    lfd_ = ListenAgent();
    ASSERT_GE(lfd_, 0);
  }
  void TearDown() override {
    tevnet_.reset();
    if (lfd_ >= 0) close(lfd_);
  }
  bool In(const std::string &args) { return ns_.In(args); }
  bool AddUplink(int n) { return ns_.AddUplink(n, n < 2 ? "ksw0" : "ksw1"); }
  void StartTevnet() {
    unlink(root_.Abs("tevnet.stderr").c_str());
    tevnet_ = ns_.Run(root_, {TevnetBin(), "--include", "hwnic*"}, "tevnet");
    ASSERT_TRUE(tevnet_->WaitStderr("watching")) << tevnet_->Stderr();
  }
  void StartTevd() {
    tevd_ = std::make_unique<DaemonProcess>(root_);
    ASSERT_TRUE(tevd_->WaitReady()) << tevd_->Stderr();
  }
  // The kernel's NICs hwnicN: carrier and bridge.
  std::map<std::string, Nic> Kernel() {
    std::string out;
    if (FILE *f =
            popen((ns_.ip() + " -n " + ns_.name() + " -j link show 2>/dev/null").c_str(), "r")) {
      char buf[4096];
      for (size_t n; (n = fread(buf, 1, sizeof buf, f)) > 0;) out.append(buf, n);
      pclose(f);
    }
    std::map<std::string, Nic> nics;
    json all = json::parse(out, nullptr, false);
    for (const json &l : all.is_array() ? all : json::array()) {
      std::string name = l.value("ifname", "");
      if (name.rfind("hwnic", 0) != 0) continue;
      const json flags = l.value("flags", json::array());
      nics[name] = {std::find(flags.begin(), flags.end(), "LOWER_UP") != flags.end(),
                    l.value("master", "")};
    }
    return nics;
  }
  // The faults of `nics` ("connectivity.lost/ksw0", "redundancy.lost/ksw1",
  // "hwnic.linkstate.down/hwnic1" for a NIC no switch's uplink: an uplink's
  // loss is told as its switch's); `allowed` gets what may fire as well: the
  // link state of an uplink that is down, a degraded switch not whole, a
  // flapping mark of a NIC in `flapped` (whether each such alert ends once
  // the NIC is back is not judged: those of NICs that are up are counted
  // and reported).
  static std::set<std::string> Faults(const std::map<std::string, Nic> &nics,
                                      const std::set<std::string> &flapped,
                                      std::set<std::string> *allowed) {
    std::set<std::string> want;
    std::map<std::string, std::pair<int, int>> sw;  // members, with carrier
    for (const auto &n : nics) {
      // Four link-downs in a minute mark a NIC flapping, bursts or not; the
      // mark ends with its return.
      if (flapped.count(n.first) != 0 || !n.second.carrier)
        allowed->insert("hwnic.linkstate.flapping/" + n.first);
      if (!n.second.carrier) {
        (n.second.sw.empty() ? want : *allowed).insert("hwnic.linkstate.down/" + n.first);
      }
      if (!n.second.sw.empty()) ++sw[n.second.sw].first, sw[n.second.sw].second += n.second.carrier;
    }
    for (const auto &s : sw) {
      if (s.second.second == 0) want.insert("connectivity.lost/" + s.first);
      if (s.second.second == 1 && s.second.first >= 2) want.insert("redundancy.lost/" + s.first);
      // Lost with connectivity, or never there: a switch left with one uplink.
      if (s.second.second <= 1) allowed->insert("redundancy.lost/" + s.first);
      if (s.second.second < s.second.first) allowed->insert("redundancy.degraded/" + s.first);
    }
    return want;
  }
  // The same keys for what replica `i` shows as firing.
  std::set<std::string> Firing(int i) {
    std::set<std::string> out;
    json all = ListAlerts(ports_[i]);
    for (const json &a : all.is_array() ? all : json::array()) {
      const json &l = a["labels"];
      std::string name = l.value("alertname", "");
      name.erase(0, name.rfind("kos.problem.net.", 0) == 0 ? 16 : 0);
      out.insert(name + "/" + l.value(name.rfind("hwnic", 0) == 0 ? "nic" : "switch", ""));
    }
    return out;
  }
  void Restart(int which, int sig) {
    Process *p = which == 0   ? static_cast<Process *>(tevd_.get())
                 : which == 1 ? tevnet_.get()
                 : which == 2 ? fwd_.get()
                              : am_[1].get();
    p->Signal(sig);
    ASSERT_TRUE(p->Wait(5000));
    if (which == 0) StartTevd();
    if (which == 1) StartTevnet();
    if (which == 2) StartForwarder(Both({"--resend", "2", "--retry-max", "1"}), lfd_);
    if (which == 3) StartReplica(1);
  }

  Netns ns_;
  int lfd_ = -1;
  std::unique_ptr<Process> tevnet_;
};

TEST_F(TevfwdChaos, FiringAlertsConvergeOnTheKernelsFaultsThroughLinkChangesAndRestarts) {
  const char *secs = getenv("TEVD_CHAOS_SECONDS");
  const char *seedText = getenv("TEVD_CHAOS_SEED");
  const unsigned seed = seedText != nullptr ? static_cast<unsigned>(atol(seedText))
                                            : static_cast<unsigned>(time(nullptr));
  const auto length = std::chrono::seconds(secs != nullptr ? atol(secs) : 180);
  fprintf(stderr, "chaos seed %u (TEVD_CHAOS_SEED=%u repeats this run)\n", seed, seed);
  std::mt19937 rng(seed);
  LogLines log(root_);
  std::vector<std::string> events;  // tevd's event lines
  StartForwarder(Both({"--resend", "2", "--retry-max", "1"}), lfd_);
  StartTevd();
  StartTevnet();
  using SteadyClock = std::chrono::steady_clock;
  const auto end = SteadyClock::now() + length;
  int changes = 0, restarts = 0, rounds = 0, deleted = -1;
  size_t stale = 0, missing = 0, flappingUp = 0;
  std::vector<double> visibleMs;
  std::set<std::string> before;
  // NICs that had a burst: tevd may mark them flapping, and the mark ends
  // when the link comes back, or after a quiet time.
  std::set<std::string> flapped;
  auto toggle = [&](int n, bool down) {
    changes += In("link set lnk" + std::to_string(n) + (down ? " down" : " up"));
  };
  while (SteadyClock::now() < end || changes < 100 || restarts < 10) {
    ++rounds;
    for (int k = 0, actions = 1 + static_cast<int>(rng() % 3); k < actions; ++k) {
      int n = static_cast<int>(rng() % 5), kind = static_cast<int>(rng() % 10);
      if (n == deleted) continue;
      if (kind < 7) {
        toggle(n, rng() % 2 == 0);
      } else if (kind < 9) {
        flapped.insert("hwnic" + std::to_string(n));
        for (int b = 0, flips = 3 + static_cast<int>(rng() % 6); b < flips; ++b) {
          toggle(n, b % 2 == 0);
          std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
      } else if (deleted < 0) {
        changes += In("link del hwnic" + std::to_string(n));
        deleted = n;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(rng() % 300));
    }
    if (deleted >= 0 && rounds % 4 == 0) {  // the deleted veth comes back a round later
      changes += AddUplink(deleted);
      deleted = -1;
    }
    if (rounds % 3 == 0) {
      const int which = restarts % 4;
      const int sig = (restarts / 4) % 2 == 0 ? SIGTERM : SIGKILL;
      static const char *const kNames[] = {"tevd", "tevnet", "tevfwd", "replica 1"};
      fprintf(stderr, "round %d: %s of %s\n", rounds, sig == SIGTERM ? "SIGTERM" : "SIGKILL",
              kNames[which]);
      ASSERT_NO_FATAL_FAILURE(Restart(which, sig));
      ++restarts;
    }
    // The kernel is still now: wait for both replicas to show its faults.
    const auto changed = SteadyClock::now();
    std::set<std::string> allowed, want = Faults(Kernel(), flapped, &allowed);
    std::set<std::string> bad[2];
    bool same = false;
    while (!same && SteadyClock::now() < changed + std::chrono::seconds(20)) {
      same = true;
      for (int i = 0; i < 2; ++i) {
        std::set<std::string> firing = Firing(i);
        bad[i].clear();
        for (const auto &f : firing)
          if (want.count(f) == 0 && allowed.count(f) == 0) bad[i].insert("stale " + f);
        for (const auto &w : want)
          if (firing.count(w) == 0) bad[i].insert("missing " + w);
        same = same && bad[i].empty();
      }
      if (!same) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    const double ms =
        std::chrono::duration<double, std::milli>(SteadyClock::now() - changed).count();
    if (same && want != before) visibleMs.push_back(ms);
    for (const std::string &line : log.Take())
      if (line.find("[kos.") != std::string::npos) events.push_back(line);
    if (!same) {
      std::string k;
      for (const auto &n : Kernel())
        k += " " + n.first + (n.second.carrier ? "+" : "-") + n.second.sw;
      fprintf(stderr, "round %d kernel:%s\n", rounds, k.c_str());
      // tevd's last word on each object in question: the daemon's or the forwarder's fault?
      for (const std::string &b : bad[0]) {
        const std::string object = b.substr(b.find('/') + 1);
        int shown = 0;
        for (auto e = events.rbegin(); e != events.rend() && shown < 3; ++e)
          if (e->find(object) != std::string::npos)
            fprintf(stderr, "  tevd: %s\n", e->c_str()), ++shown;
      }
    }
    for (int i = 0; i < 2; ++i) {
      for (const std::string &b : bad[i]) {
        (b[0] == 's' ? stale : missing) += 1;
        fprintf(stderr, "round %d replica %d: %s\n", rounds, i, b.c_str());
      }
    }
    for (const auto &f : Firing(0)) {
      const std::string down = "hwnic.linkstate.down/" + f.substr(f.find('/') + 1);
      flappingUp +=
          f.find("flapping/") != std::string::npos && want.count(down) + allowed.count(down) == 0;
    }
    before = want;
  }
  std::sort(visibleMs.begin(), visibleMs.end());
  const double p50 = visibleMs.empty() ? 0 : visibleMs[visibleMs.size() / 2];
  const double max = visibleMs.empty() ? 0 : visibleMs.back();
  fprintf(
      stderr,
      "chaos seed %u: %d rounds, %d link changes, %d restarts; stale %zu, missing %zu; "
      "change to visible on both replicas: p50 %.0f ms, max %.0f ms (%zu changes of the faults); "
      "rounds ending with a flapping alert of a NIC that is up: %zu\n",
      seed, rounds, changes, restarts, stale, missing, p50, max, visibleMs.size(), flappingUp);
  EXPECT_EQ(stale, 0u);
  EXPECT_EQ(missing, 0u);
  EXPECT_LE(max, 5000) << "a change took longer than 5 s to show on both replicas";
}

}  // namespace

// Defects: a FIFO in the spool hung tevfwd at start; a second tevfwd on the root took the agent
// socket over; SIGHUP ended it without a word. No Alertmanager is needed for any of these.
TEST(TevfwdProcess, FifoInTheSpoolSecondInstanceAndSighupDoNotStopIt) {
  ScratchRoot root;
  root.MakeDir("var/lib/tevfwd");
  for (const char *name : {"0000000000000001.json", "active.json"})
    ASSERT_EQ(0, mkfifo(root.Abs(std::string("var/lib/tevfwd/") + name).c_str(), 0644));
  const Args args = {"--alertmanager", "http://127.0.0.1:9"};
  Process first(root, FwdBin(), args, {}, "first");
  std::string sock = PlatformEndpoint_PathUnder(root.path(), PlatformEndpoint::QprobAgent);
  ASSERT_TRUE(Eventually([&] { return PathExists(sock); }, 5000)) << first.Stderr();
  EXPECT_TRUE(Contains(first.Stderr(), "Skipped the file "));
  Process second(root, FwdBin(), args, {}, "second");
  EXPECT_EQ(second.ExitCode(5000), 1);
  EXPECT_TRUE(Contains(second.Stderr(), "another tevfwd (pid " + std::to_string(first.pid())));
  first.Signal(SIGHUP);
  EXPECT_TRUE(first.WaitStderr("SIGHUP"));
  EXPECT_TRUE(first.Running());
  ExpectCleanExit(first, 5000);
}
