// tevd's and tevfwd's counters as an operator reads them: the files node_exporter's textfile
// collector serves, `tevctl metrics` (checked by promtool), and `tevctl status`, which must not
// pass a dead daemon's last counters for live ones.
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <regex>
#include <sstream>

#include "Harness.h"

using namespace tevdtest;

namespace {

const char kNodeExporter[] = "/usr/bin/prometheus-node-exporter";
const char kPromtool[] = "/usr/bin/promtool";
const char kReadNet[] = "tevd_observations_read_total{context=\"async-00\"} ";

// The body of GET /metrics on 127.0.0.1:port (HTTP/1.0: the server closes), "" when no answer.
std::string Scrape(int port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  struct sockaddr_in a = {};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  struct timeval tv = {2, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  std::string body;
  const char req[] = "GET /metrics HTTP/1.0\r\nHost: 127.0.0.1\r\n\r\n";
  if (connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0 &&
      send(fd, req, sizeof req - 1, MSG_NOSIGNAL) > 0) {
    char buf[65536];
    for (ssize_t n; (n = recv(fd, buf, sizeof buf, 0)) > 0;) body.append(buf, n);
  }
  close(fd);
  size_t head = body.find("\r\n\r\n");
  return head == std::string::npos ? "" : body.substr(head + 4);
}

// The value of the sample line that starts with `prefix`, or -1.
long long SampleValue(const std::string &text, const std::string &prefix) {
  size_t at = text.find("\n" + prefix);
  return at == std::string::npos ? -1 : atoll(text.c_str() + at + 1 + prefix.size());
}

using MetricsTest = DaemonTest;

}  // namespace

// The counters move after one observation, as a real collector scrapes them; promtool accepts
// `tevctl metrics`; status shows the daemon and a forwarder whose only Alertmanager is away; with
// the forwarder killed the next event waits in the retry list; status says plainly both are gone
// after a SIGKILL.
TEST_F(MetricsTest, CollectorSeesCountersMoveAndStatusTellsADeadDaemon) {
  const std::string fwdBin = BinaryPath("TEVFWD_BIN", "");
  if (fwdBin.empty() || access(kNodeExporter, X_OK) != 0 || access(kPromtool, X_OK) != 0) {
    TEVD_SKIP_MISSING("tevfwd, promtool or node_exporter is absent (scripts/deps.sh companions)");
  }
  ASSERT_TRUE(Start()) << tevd_->Stderr();
  const std::string prom = root_.Abs("var/run/orlan/metrics/tevd.prom");
  ASSERT_TRUE(Eventually([&] { return PathExists(prom); }, 5000));
  // The event goes to the forwarder, which cannot deliver it: nothing listens on `away`.
  const std::string away = "http://127.0.0.1:" + std::to_string(FreePort());
  const std::string spooled = "tevfwd_spool_alerts ", retries = "tevd_events_retry_list_length ";
  Process fwd(root_, fwdBin, {"--alertmanager", away, "--retry-max", "1"}, {}, "tevfwd");
  const std::string fwdProm = root_.Abs("var/run/orlan/metrics/tevfwd.prom");
  ASSERT_TRUE(Eventually([&] { return PathExists(fwdProm); }, 5000)) << fwd.Stderr();
  const int port = FreePort();
  Process exporter(root_, kNodeExporter,
                   {"--web.listen-address=127.0.0.1:" + std::to_string(port),
                    "--collector.disable-defaults", "--collector.textfile",
                    "--collector.textfile.directory=" + root_.Abs("var/run/orlan/metrics")},
                   {}, "exporter");
  ASSERT_TRUE(Eventually([&] { return SampleValue(Scrape(port), kReadNet) == 0; }, 10000))
      << exporter.Stderr();
  const std::vector<std::string> linkDown = {"post", "tev.net.hwnic.linkstate.down",
                                             "Physical NIC %s linkstate is down", "hwnic1"};
  RunResult post = RunTevctl(root_, linkDown);
  ASSERT_EQ(post.status, 0) << post.err;
  RunResult m;
  ASSERT_TRUE(Eventually(
      [&] {
        m = RunTevctl(root_, {"metrics"});
        return SampleValue(m.out, kReadNet) == 1 && SampleValue(m.out, spooled) == 1;
      },
      10000))
      << m.out << m.err;
  EXPECT_EQ(SampleValue(m.out, "tevd_observations_handled_total{correlator=\"netCorrelator\"} "),
            1);
  EXPECT_EQ(SampleValue(m.out, "tevd_events_posted_total{class=\"problem\"} "), 1) << m.out;
  EXPECT_EQ(SampleValue(m.out, "tevd_pid "), tevd_->pid());
  EXPECT_EQ(SampleValue(m.out, retries), 0) << m.out;
  const std::string replica = "{replica=\"" + away + "\"} ";
  ASSERT_TRUE(Eventually(
      [&] {
        m = RunTevctl(root_, {"metrics"});
        return SampleValue(m.out, "tevfwd_replica_up" + replica) == 0;
      },
      10000))
      << m.out;
  EXPECT_GE(SampleValue(m.out, "tevfwd_replica_failed_total" + replica), 1) << m.out;
  EXPECT_EQ(SampleValue(m.out, "tevfwd_replica_queue_alerts" + replica), 1) << m.out;
  EXPECT_EQ(SampleValue(m.out, "tevfwd_pid "), fwd.pid());
  RunResult status = RunTevctl(root_, {"status"});
  EXPECT_EQ(status.status, 1);
  EXPECT_TRUE(Contains(status.out, "tevd    running, pid " + std::to_string(tevd_->pid())));
  EXPECT_TRUE(Contains(status.out, "tevfwd  running, pid " + std::to_string(fwd.pid())));
  EXPECT_TRUE(Contains(status.out, "PROBLEM: tevfwd cannot reach " + away +
                                       " (its last attempt failed; 1 alert(s) wait for it"));
  EXPECT_TRUE(Eventually(
      [&] {
        std::string scraped = Scrape(port);
        return SampleValue(scraped, kReadNet) == 1 && SampleValue(scraped, spooled) == 1;
      },
      10000));
  root_.Write("metrics.txt", m.out);
  Process check(root_, "/bin/sh",
                {"-c", std::string(kPromtool) + " check metrics < " + root_.Abs("metrics.txt")}, {},
                "promtool");
  EXPECT_EQ(check.ExitCode(10000), 0) << check.Stdout() << check.Stderr();
  Process rules(root_, kPromtool,
                {"check", "rules", TEVD_SOURCE_DIR "/packaging/prometheus/tevd-rules.yml"}, {},
                "rules");
  EXPECT_EQ(rules.ExitCode(10000), 0) << rules.Stdout() << rules.Stderr();
  // No agent listens now: the next event waits in the retry list.
  fwd.Signal(SIGKILL);
  ASSERT_TRUE(fwd.Wait(5000));
  ASSERT_EQ(RunTevctl(root_, linkDown).status, 0);
  EXPECT_TRUE(Eventually(
      [&] { return SampleValue(RunTevctl(root_, {"metrics"}).out, retries) == 1; }, 10000));
  EXPECT_TRUE(Contains(RunTevctl(root_, {"status"}).out, "PROBLEM: 1 events wait for retry"));

  tevd_->Signal(SIGKILL);
  ASSERT_TRUE(tevd_->Wait(5000));
  ASSERT_TRUE(PathExists(prom)) << "a killed daemon leaves its file";
  status = RunTevctl(root_, {"status", "--json"});
  EXPECT_EQ(status.status, 1);
  EXPECT_TRUE(Contains(status.out, "{\"tevd\":{\"state\":\"stale\"}"));
  EXPECT_TRUE(Contains(status.out, "\"tevfwd\":{\"state\":\"stale\"}"));
  EXPECT_TRUE(Contains(status.out, "tevfwd is not running (pid " + std::to_string(fwd.pid())));
  m = RunTevctl(root_, {"metrics"});
  EXPECT_EQ(m.status, 1);
  EXPECT_EQ(m.out, "") << "a dead daemon's counters were printed";
}

// A first run without a host model still ends in the described panic, but the log says first
// which file is missing and which command makes the model.
TEST(FirstRun, WithoutAHostModelTheLogNamesTheFileAndTheCommandBeforeThePanic) {
  ScratchRoot root;
  LogLines log(root);
  Process tevd(root, TevdBin());
  EXPECT_EQ(tevd.ExitCode(10000), 128 + SIGABRT);
  EXPECT_TRUE(Contains(tevd.Stderr(), "NOT_REACHED apps/tevd/tevdPageRetireCorrelator:178"));
  EXPECT_NE("", log.WaitFor("Cannot read the host model's " +
                            root.Abs("platform/nodes/system/pageRetire/threshold") +
                            ": the page-retirement settings are needed at start; 'tevctl host "
                            "init' makes a complete host model."));
}

// A context socket that cannot be made ends the start with its errno, as before; the log names
// the call and the path first.
TEST(FirstRun, AFailedContextOpenNamesTheCallAndThePathBeforeExiting) {
  ScratchRoot root;
  ASSERT_EQ(RunTevctl(root, {"host", "init"}).status, 0);
  const std::string path =
      PlatformEndpoint_PathUnder(root.path(), PlatformEndpoint::AsyncContext, 3);
  root.Write(path.substr(root.path().size() + 1) + "/occupied", "x");  // a directory in the way
  LogLines log(root);
  Process tevd(root, TevdBin());
  int rc = tevd.ExitCode(10000);
  EXPECT_GT(rc, 0);
  EXPECT_LT(rc, 128) << "an errno value, not a signal";
  std::string failed = log.WaitFor("TevLib_AsyncContextOpen failed for " + path + ": ");
  EXPECT_NE("", failed);
  EXPECT_NE("", log.WaitFor("Exiting. rc:" + std::to_string(rc)));
}

// Without a root the self-test sequence would go to the host's own daemon: refused, and nothing
// is posted, unless --force.
TEST(FirstRun, SelftestWithoutARootIsRefused) {
  ScratchRoot root;
  Process p(root, TevctlBin(), {"selftest"}, {"TEVD_ROOT="}, "selftest");
  EXPECT_EQ(p.ExitCode(5000), 1);
  EXPECT_TRUE(Contains(p.Stderr(), "tevctl selftest: no root given"));
  EXPECT_EQ(p.Stdout(), "");
}

// The Alertmanager example of docs/fleet.md is a valid configuration, routes by severity, and
// its inhibition names events the catalogue has: a host's lost uplink inhibits its storage-path
// alerts.
TEST(FleetExample, AlertmanagerConfigurationIsValidAndNamesRealEvents) {
  ScratchRoot root;
  std::string doc = Slurp(TEVD_SOURCE_DIR "/docs/fleet.md");
  size_t at = doc.find("## Example Alertmanager configuration");
  ASSERT_NE(at, std::string::npos);
  size_t from = doc.find("```yaml\n", at);
  ASSERT_NE(from, std::string::npos);
  from += 8;
  std::string yaml = doc.substr(from, doc.find("```", from) - from);
  root.Write("alertmanager.yml", yaml);
  RunResult events = RunTevctl(root, {"events"});
  ASSERT_EQ(events.status, 0);
  auto matching = [&](const std::string &expr) {
    std::regex re(expr);
    size_t n = 0;
    std::istringstream lines(events.out);
    for (std::string line; std::getline(lines, line);) {
      if (line.rfind("kos.", 0) == 0 && std::regex_match(line.substr(0, line.find(' ')), re)) ++n;
    }
    return n;
  };
  EXPECT_EQ(matching(R"(kos\.problem\.net\.(connectivity\.lost|redundancy\.lost))"), 2u);
  EXPECT_GE(matching(R"(kos\.problem\.storage\.(connectivity|redundancy)\..*)"), 4u);
  EXPECT_TRUE(Contains(
      yaml,
      R"x(source_matchers: ['alertname=~"kos\\.problem\\.net\\.(connectivity\\.lost|redundancy\\.lost)"'])x"));
  EXPECT_TRUE(Contains(
      yaml,
      R"x(target_matchers: ['alertname=~"kos\\.problem\\.storage\\.(connectivity|redundancy)\\..*"'])x"));
  const char kAmtool[] = "/usr/bin/amtool";
  if (access(kAmtool, X_OK) != 0) {
    TEVD_SKIP_MISSING("amtool is absent (prometheus-alertmanager: scripts/deps.sh companions)");
  }
  const std::string file = "--config.file=" + root.Abs("alertmanager.yml");
  Process check(root, kAmtool, {"check-config", root.Abs("alertmanager.yml")}, {}, "amtool");
  EXPECT_EQ(check.ExitCode(10000), 0) << check.Stdout() << check.Stderr();
  const struct {
    const char *label;
    const char *receiver;
  } routes[] = {
      {"severity=critical", "pager"}, {"severity=warning", "chat"}, {"severity=info", "chat"}};
  for (const auto &r : routes) {
    Process route(root, kAmtool, {"config", "routes", "test", file, r.label}, {}, "route");
    EXPECT_EQ(route.ExitCode(10000), 0) << route.Stderr();
    EXPECT_EQ(route.Stdout(), std::string(r.receiver) + "\n") << r.label;
  }
}
