// tevd -> tevfwd -> two clustered Alertmanagers -> this test's webhook, all
// real processes on loopback under a private root.
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <curl/curl.h>
#include <dirent.h>
#include <sys/stat.h>

#include <sstream>

#include <nlohmann/json.hpp>

#include "Harness.h"
#include "PlatformSocket.h"
#include "tevdQprob.h"
#include "tevfwdEvents.h"

namespace {

using nlohmann::json;
using tevdtest::Eventually;
using tevdtest::Process;

long long NowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

const char kAlertmanager[] = "/usr/bin/prometheus-alertmanager";

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

size_t Collect(char *p, size_t size, size_t n, void *out) {
  static_cast<std::string *>(out)->append(p, size * n);
  return size * n;
}

// GET /api/v2/alerts: the alerts that are not resolved; null when no answer.
json ListAlerts(int port) {
  CURL *h = curl_easy_init();
  std::string body;
  std::string url = "http://127.0.0.1:" + std::to_string(port) + "/api/v2/alerts";
  curl_easy_setopt(h, CURLOPT_URL, url.c_str());
  curl_easy_setopt(h, CURLOPT_TIMEOUT_MS, 2000L);
  curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, Collect);
  curl_easy_setopt(h, CURLOPT_WRITEDATA, &body);
  CURLcode rc = curl_easy_perform(h);
  curl_easy_cleanup(h);
  return rc == CURLE_OK ? json::parse(body, nullptr, false) : json();
}

size_t CountAlerts(int port, const std::string &alertname) {
  size_t n = 0;
  json all = ListAlerts(port);
  if (!all.is_array()) return 0;
  for (const json &a : all) n += a["labels"].value("alertname", "") == alertname;
  return n;
}

// The webhook receiver: every notification body Alertmanager posts.
class Webhook {
 public:
  Webhook() : port_(FreePort()) {
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int one = 1;
    setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    struct sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(static_cast<uint16_t>(port_));
    bind(fd_, reinterpret_cast<sockaddr *>(&a), sizeof a);
    listen(fd_, 16);
    thread_ = std::thread([this] { Serve(); });
  }
  ~Webhook() {
    stop_ = true;
    thread_.join();
    close(fd_);
  }
  int port() const { return port_; }
  // Notifications with `status` ("firing", "resolved") that carry `alertname`.
  size_t Count(const std::string &status, const std::string &alertname) {
    std::lock_guard<std::mutex> lock(mu_);
    size_t n = 0;
    for (const json &b : bodies_) {
      bool has = false;
      for (const json &a : b.value("alerts", json::array()))
        has |= a["labels"].value("alertname", "") == alertname;
      n += has && b.value("status", "") == status;
    }
    return n;
  }

 private:
  void Serve() {
    while (!stop_) {
      struct pollfd p = {fd_, POLLIN, 0};
      if (poll(&p, 1, 50) <= 0) continue;
      int c = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
      if (c < 0) continue;
      std::string req;
      char buf[65536];
      size_t need = std::string::npos;
      for (;;) {
        struct pollfd q = {c, POLLIN, 0};
        if (poll(&q, 1, 2000) <= 0) break;
        ssize_t n = read(c, buf, sizeof buf);
        if (n <= 0) break;
        req.append(buf, static_cast<size_t>(n));
        size_t end = req.find("\r\n\r\n");
        if (end != std::string::npos && need == std::string::npos) {
          size_t cl = req.find("Content-Length: ");
          need = end + 4 + (cl < end ? std::stoul(req.substr(cl + 16)) : 0);
        }
        if (req.size() >= need) break;
      }
      const char ok[] = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
      (void)!write(c, ok, sizeof ok - 1);
      close(c);
      size_t end = req.find("\r\n\r\n");
      if (end == std::string::npos) continue;
      json body = json::parse(req.substr(end + 4), nullptr, false);
      std::lock_guard<std::mutex> lock(mu_);
      if (body.is_object()) bodies_.push_back(body);
    }
  }
  int port_, fd_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
  std::mutex mu_;
  std::vector<json> bodies_;
};

// Two Alertmanagers in one cluster, with data that outlives a restart.
class Cluster {
 public:
  Cluster(const tevdtest::ScratchRoot &root, int webhookPort) : root_(root) {
    root.Write("am/config.yml",
               "route:\n  receiver: hook\n  group_by: ['alertname', 'host']\n  group_wait: 500ms\n"
               "  group_interval: 1s\n  repeat_interval: 1h\n"
               "receivers:\n- name: hook\n  webhook_configs:\n  - url: http://127.0.0.1:" +
                   std::to_string(webhookPort) + "/hook\n");
    for (int i = 0; i < 2; ++i) {
      web_[i] = FreePort();
      gossip_[i] = FreePort();
    }
  }
  void Start() {
    for (int i = 0; i < 2; ++i) {
      std::string d = root_.Abs("am/data" + std::to_string(i));
      am_[i] = std::make_unique<Process>(
          root_, kAlertmanager,
          std::vector<std::string>{
              "--config.file=" + root_.Abs("am/config.yml"), "--storage.path=" + d,
              "--web.listen-address=127.0.0.1:" + std::to_string(web_[i]),
              "--cluster.listen-address=127.0.0.1:" + std::to_string(gossip_[i]),
              "--cluster.peer=127.0.0.1:" + std::to_string(gossip_[1 - i]),
              "--cluster.peer-timeout=1s", "--cluster.gossip-interval=50ms",
              "--cluster.pushpull-interval=1s", "--cluster.settle-timeout=2s", "--log.level=warn"},
          std::vector<std::string>{}, "am" + std::to_string(i));
    }
    for (int i = 0; i < 2; ++i) {
      ASSERT_TRUE(Eventually([&] { return ListAlerts(web_[i]).is_array(); }, 15000))
          << "Alertmanager " << i << " did not answer: " << am_[i]->Stderr();
    }
  }
  void Stop() {
    for (auto &a : am_) {
      if (a) {
        a->Signal(SIGTERM);
        a->Wait(5000);
        a.reset();
      }
    }
  }
  std::string Url(int i) const { return "http://127.0.0.1:" + std::to_string(web_[i]); }
  int port(int i) const { return web_[i]; }
  // True when both list `n` alerts named `alertname`.
  bool BothList(const std::string &alertname, size_t n) const {
    return CountAlerts(web_[0], alertname) == n && CountAlerts(web_[1], alertname) == n;
  }

 private:
  const tevdtest::ScratchRoot &root_;
  int web_[2], gossip_[2];
  std::unique_ptr<Process> am_[2];
};

std::string FwdBin() { return tevdtest::BinaryPath("TEVFWD_BIN", "tools/tevfwd/tevfwd"); }

class TevfwdE2E : public ::testing::Test {
 protected:
  void SetUp() override {
    if (access(kAlertmanager, X_OK) != 0) {
      GTEST_SKIP() << "\n\n*** " << kAlertmanager
                   << " is missing: install the Debian package prometheus-alertmanager ***\n";
    }
    tevdtest::MakeHost(root_);
    cluster_ = std::make_unique<Cluster>(root_, hook_.port());
    cluster_->Start();
  }
  void StartForwarder(std::vector<std::string> extra = {}) {
    std::vector<std::string> argv = {"--alertmanager", cluster_->Url(0), "--alertmanager",
                                     cluster_->Url(1), "--retry-max",    "1"};
    argv.insert(argv.end(), extra.begin(), extra.end());
    // A killed forwarder leaves its socket behind; wait for the new one.
    const std::string sock = PlatformEndpoint_PathUnder(root_.path(), PlatformEndpoint::QprobAgent);
    unlink(sock.c_str());
    fwd_ = std::make_unique<Process>(root_, FwdBin(), argv, std::vector<std::string>{}, "tevfwd");
    ASSERT_TRUE(Eventually([&] { return tevdtest::PathExists(sock); }, 5000)) << fwd_->Stderr();
  }
  void Post(const std::vector<std::string> &args) {
    std::vector<std::string> a = {"post"};
    a.insert(a.end(), args.begin(), args.end());
    auto r = tevdtest::RunTevctl(root_, a);
    ASSERT_EQ(r.status, 0) << r.err;
  }
  size_t SpoolFiles() {
    size_t n = 0;
    if (DIR *d = opendir(root_.Abs("var/lib/tevfwd").c_str())) {
      while (struct dirent *e = readdir(d)) n += std::string(e->d_name).find(".json") == 16;
      closedir(d);
    }
    return n;
  }

  tevdtest::ScratchRoot root_;
  Webhook hook_;
  std::unique_ptr<Cluster> cluster_;
  std::unique_ptr<Process> fwd_;
};

TEST_F(TevfwdE2E, ProblemFiresOnBothReplicasNotifiesOnceAndItsClearResolves) {
  tevdtest::LogLines log(root_);
  StartForwarder();
  tevdtest::DaemonProcess tevd(root_);
  ASSERT_TRUE(tevd.WaitReady());
  const std::string id = "kos.problem.scsi.device.state.off";
  Post({"tev.scsi.device.state.off", "%s", "naa.600a0b80001"});
  std::string line = log.WaitFor("[" + id + "] ");
  ASSERT_FALSE(line.empty()) << "tevd did not log the event";
  std::string logged = line.substr(line.find("[" + id + "] ") + id.size() + 3);
  while (!logged.empty() && logged.back() == '\n') logged.pop_back();

  ASSERT_TRUE(Eventually([&] { return cluster_->BothList(id, 1); }, 15000)) << fwd_->Stderr();
  for (int i = 0; i < 2; ++i) {
    for (const json &a : ListAlerts(cluster_->port(i))) {
      if (a["labels"]["alertname"] != id) continue;
      EXPECT_EQ(a["labels"]["device"], "naa.600a0b80001");
      EXPECT_EQ(a["labels"]["host"], "6f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0");
      EXPECT_EQ(a["annotations"]["description"], logged) << "not the daemon's log text";
    }
  }
  ASSERT_TRUE(Eventually([&] { return hook_.Count("firing", id) >= 1; }, 15000));
  std::this_thread::sleep_for(
      std::chrono::seconds(3));  // past the second replica's turn (peer timeout 1 s)
  EXPECT_EQ(hook_.Count("firing", id), 1u) << "the cluster notified more than once";

  Post({"tev.scsi.device.state.on", "%s", "naa.600a0b80001"});
  EXPECT_TRUE(Eventually([&] { return cluster_->BothList(id, 0); }, 15000)) << "not resolved";
  EXPECT_TRUE(Eventually([&] { return hook_.Count("resolved", id) >= 1; }, 15000));
}

TEST_F(TevfwdE2E, NothingIsLostWhileAlertmanagerIsDownOrTheForwarderIsKilled) {
  StartForwarder();
  tevdtest::DaemonProcess tevd(root_);
  ASSERT_TRUE(tevd.WaitReady());
  const std::string id = "kos.problem.dhclient.lease.none";
  cluster_->Stop();
  for (int i = 0; i < 4; ++i)
    Post({"--user", "tev.user.dhclient.lease.none", "%s", "mtlnic" + std::to_string(i)});
  ASSERT_TRUE(Eventually([&] { return SpoolFiles() == 4; }, 5000))
      << SpoolFiles() << " spool entries";
  fwd_->Signal(SIGKILL);
  fwd_->Wait(5000);
  StartForwarder();
  Post({"--user", "tev.user.dhclient.lease.none", "%s", "mtlnic4"});
  cluster_->Start();
  EXPECT_TRUE(Eventually([&] { return cluster_->BothList(id, 5); }, 20000))
      << CountAlerts(cluster_->port(0), id) << " and " << CountAlerts(cluster_->port(1), id)
      << " of 5\n"
      << fwd_->Stderr();
  EXPECT_TRUE(Eventually([&] { return SpoolFiles() == 0; }, 5000));
  fwd_->Signal(SIGUSR1);
  EXPECT_TRUE(Eventually(
      [&] { return fwd_->Stderr().find("counters: received 1 sent 5 ") != std::string::npos; },
      5000))
      << fwd_->Stderr();
  // The same counters through tevctl (the file is rewritten every second).
  json c;
  EXPECT_TRUE(Eventually(
      [&] {
        auto r = tevdtest::RunTevctl(root_, {"fwd"});
        c = json::parse(r.out, nullptr, false);
        return r.status == 0 && c.is_object() && c["sent"] == 5 && c["waiting"] == 0;
      },
      5000))
      << c.dump();
  EXPECT_EQ(c["received"], 1);
  EXPECT_EQ(c["active"], 5);
}

TEST_F(TevfwdE2E, OnceSendsTheSpoolAndSaysWhetherAllArrived) {
  StartForwarder();
  tevdtest::DaemonProcess tevd(root_);
  ASSERT_TRUE(tevd.WaitReady());
  cluster_->Stop();
  Post({"--user", "tev.user.hsyslogd.remote.failure", "%s", "loghost.example"});
  ASSERT_TRUE(Eventually([&] { return SpoolFiles() == 1; }, 5000));
  fwd_->Signal(SIGTERM);
  ASSERT_EQ(fwd_->ExitCode(5000), 0) << fwd_->Stderr();
  std::vector<std::string> once = {"--alertmanager", cluster_->Url(0), "--alertmanager",
                                   cluster_->Url(1), "--once"};
  Process down(root_, FwdBin(), once, {}, "down");
  EXPECT_EQ(down.ExitCode(10000), 1) << "nothing could be delivered: " << down.Stderr();
  EXPECT_EQ(SpoolFiles(), 1u);
  cluster_->Start();
  Process up(root_, FwdBin(), once, {}, "up");
  EXPECT_EQ(up.ExitCode(10000), 0) << up.Stderr();
  EXPECT_EQ(SpoolFiles(), 0u);
  EXPECT_TRUE(cluster_->BothList("kos.problem.hsyslogd.remote.failure", 1));
}

// tevd's whole rate (1000 events a minute) at once, straight onto the
// forwarder's socket, to one replica: how long and how much CPU.
std::vector<std::string> *gMessages = nullptr;
int KeepMessage(const void *m, size_t len, void *) {
  gMessages->emplace_back(static_cast<const char *>(m), len);
  return 0;
}

TEST_F(TevfwdE2E, KeepsUpWithTheDaemonsRateLimit) {
  std::vector<std::string> messages;
  gMessages = &messages;
  TevdQprob_SetSendHookForTest(KeepMessage, nullptr);
  const std::string id = "kos.problem.dhclient.lease.none";
  const std::string templ = "@&!*@*@(" + id + ")" + tevfwd::FindTemplate(id)->text;
  for (int i = 0; i < 1000; ++i) {
    if (i % 500 == 0) TevdQprob_ResetForTest();
    TevdQprob_Post(0, Problem, templ.c_str(), ("mtlnic" + std::to_string(i)).c_str());
  }
  TevdQprob_SetSendHookForTest(nullptr, nullptr);
  ASSERT_EQ(messages.size(), 1000u);

  fwd_ = std::make_unique<Process>(root_, FwdBin(),
                                   std::vector<std::string>{"--alertmanager", cluster_->Url(0)},
                                   std::vector<std::string>{}, "tevfwd");
  std::string sock = PlatformEndpoint_PathUnder(root_.path(), PlatformEndpoint::QprobAgent);
  ASSERT_TRUE(Eventually([&] { return tevdtest::PathExists(sock); }, 5000));
  long long start = NowMs();
  for (const std::string &m : messages) {
    int fd = PlatformSocket_Connect(sock, SOCK_STREAM);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, m.data(), m.size()), static_cast<ssize_t>(m.size()));
    close(fd);
  }
  long long accepted = NowMs() - start;
  ASSERT_TRUE(Eventually([&] { return CountAlerts(cluster_->port(0), id) == 1000; }, 60000))
      << CountAlerts(cluster_->port(0), id) << " of 1000";
  long long delivered = NowMs() - start;
  std::string stat = tevdtest::Slurp("/proc/" + std::to_string(fwd_->pid()) + "/stat");
  std::istringstream in(stat.substr(stat.rfind(')') + 2));
  std::string field;
  long long utime = 0, stime = 0;
  for (int f = 3; f <= 15 && in >> field; ++f) {
    if (f == 14) utime = std::stoll(field);
    if (f == 15) stime = std::stoll(field);
  }
  double cpu = static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
  printf(
      "[ MEASURED ] 1000 events: accepted in %lld ms, all listed by Alertmanager after %lld ms; "
      "forwarder CPU %.2f s\n",
      accepted, delivered, cpu);
  RecordProperty("cpu_seconds", std::to_string(cpu));
  // tevd needs a minute to send these; the forwarder must need far less than a core for it.
  EXPECT_LT(cpu, 15.0);
}

}  // namespace
