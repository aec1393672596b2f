// The forwarder's tables and state, without Alertmanager: templates, label
// names, the pairing table, and the spool, re-send and lifetime under a
// clock the test sets.
#include <gtest/gtest.h>

#include <regex>
#include <set>

#include "TevdTestSupport.h"
#include "tevfwdCore.h"
#include "tevfwdEvents.h"

namespace {

using nlohmann::json;
using tevdtest::S;
using tevfwd::Forwarder;

int NumConversions(const char *text) {
  std::vector<uint32_t> types;
  std::string why;
  EXPECT_TRUE(MsgFmt_TypesOfFormat(text, &types, &why)) << text << ": " << why;
  return static_cast<int>(types.size());
}

TEST(TevfwdTables, EveryTemplateGivesValidDistinctLabelNames) {
  const std::regex valid("[a-z_][a-z0-9_]*");
  ASSERT_GT(tevfwd::Templates().size(), 100u);
  for (const auto &t : tevfwd::Templates()) {
    auto names = tevfwd::ArgLabelNames(t.text, static_cast<size_t>(NumConversions(t.text)));
    std::set<std::string> seen;
    for (const std::string &n : names) {
      EXPECT_TRUE(std::regex_match(n, valid)) << t.id << ": " << n;
      EXPECT_TRUE(seen.insert(n).second) << t.id << ": " << n << " twice";
      EXPECT_TRUE(n != "alertname" && n != "host" && n != "instance" && n != "class" &&
                  n != "severity")
          << t.id;
    }
  }
}

TEST(TevfwdTables, LabelNamesComeFromTheWordBeforeEachArgument) {
  struct Case {
    const char *text;
    std::vector<std::string> names;
  } cases[] = {
      {"Lost uplink redundancy on virtual switch %s. Physical NIC %s is down. Affected port groups: %s",
       {"switch", "nic", "groups"}},
      {"%s free size dropped below %d percent.", {"arg0", "below"}},
      {"uplink %s on KSW %s is blocked", {"uplink", "ksw"}},
      {"%s %s", {"arg0", "arg1"}},
      {"Device %s on device %s", {"device", "device_2"}},
  };
  for (const Case &c : cases) {
    EXPECT_EQ(tevfwd::ArgLabelNames(c.text, c.names.size()), c.names) << c.text;
  }
}

TEST(TevfwdTables, EveryPairingNamesExistingEventsAndArguments) {
  for (const auto &p : tevfwd::ClearPairs()) {
    const auto *resolver = tevfwd::FindTemplate(p.resolver);
    const auto *problem = tevfwd::FindTemplate(p.problem);
    ASSERT_NE(resolver, nullptr) << p.resolver;
    ASSERT_NE(problem, nullptr) << p.problem;
    EXPECT_EQ(std::string(p.problem).rfind("kos.problem.", 0), 0u) << p.problem;
    EXPECT_FALSE(tevfwd::IsResolver(p.problem)) << p.problem << " both resolves and is resolved";
    ASSERT_EQ(strlen(p.resolverArgs), strlen(p.problemArgs)) << p.resolver;
    for (size_t k = 0; p.resolverArgs[k] != '\0'; ++k) {
      EXPECT_LT(p.resolverArgs[k] - '0', NumConversions(resolver->text)) << p.resolver;
      EXPECT_LT(p.problemArgs[k] - '0', NumConversions(problem->text)) << p.problem;
    }
  }
}

QprobMessage Msg(const std::string &id, std::vector<MsgFmt_Value> args, uint64_t tsMs = 1000000) {
  QprobMessage m;
  m.id = id;
  m.className = id.substr(4, id.find('.', 4) - 4);
  m.hostUuid = "6f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0";
  m.timestampUs = tsMs * 1000;
  m.args = std::move(args);
  return m;
}

tevfwd::Options Opts(const std::string &spool = "") {
  tevfwd::Options o;
  o.alertmanagers = {"a", "b"};
  o.resendMs = 60000;
  o.lifetimeMs = 3600000;
  o.auditLifetimeMs = 300000;
  o.spoolDir = spool;
  o.hostName = "h1";
  return o;
}

// Delivers everything pending to both replicas; the rendered alerts of replica 0.
json DeliverAll(Forwarder *f, int64_t now) {
  json out = json::array();
  for (size_t r = 0; r < 2; ++r) {
    auto entries = f->PendingFor(r, 1000);
    if (r == 0) out = json::parse(Forwarder::Render(entries, f->options(), now));
    std::vector<uint64_t> seqs;
    for (const auto *e : entries) seqs.push_back(e->seq);
    f->Delivered(r, seqs, false);
  }
  return out;
}

TEST(TevfwdForwarder, ProblemFiresAndItsClearResolvesOnlyTheSameObject) {
  Forwarder f(Opts());
  const int64_t t0 = 1000000;
  f.Accept(Msg("kos.problem.net.redundancy.lost", {S("ksw0"), S("hwnic0"), S("pg-guests")}), t0);
  f.Accept(Msg("kos.problem.net.redundancy.lost", {S("ksw0"), S("hwnic1"), S("pg-guests")}), t0);
  json fired = DeliverAll(&f, t0);
  ASSERT_EQ(fired.size(), 2u);
  const json &a = fired[0];
  EXPECT_EQ(a["labels"]["alertname"], "kos.problem.net.redundancy.lost");
  EXPECT_EQ(a["labels"]["switch"], "ksw0");
  EXPECT_EQ(a["labels"]["nic"], "hwnic0");
  EXPECT_EQ(a["labels"]["instance"], "h1");
  EXPECT_EQ(a["labels"]["severity"], "warning");
  EXPECT_EQ(a["annotations"]["description"],
            MsgFmt_FormatValues(tevfwd::FindTemplate("kos.problem.net.redundancy.lost")->text,
                                {S("ksw0"), S("hwnic0"), S("pg-guests")}));
  EXPECT_EQ(a["startsAt"], tevfwd::Rfc3339(t0));
  EXPECT_EQ(a["endsAt"], tevfwd::Rfc3339(t0 + 3 * 60000));  // firing: three re-sends ahead
  EXPECT_EQ(f.SpoolLength(), 0u);
  EXPECT_EQ(f.counters().sent, 2u);

  // Argument order differs between the two events: NIC 2 of the clear is NIC 1 of the problem.
  f.Accept(Msg("kos.clear.net.redundancy.restored", {S("ksw0"), S("pg-other"), S("hwnic1")}),
           t0 + 5000);
  json resolved = DeliverAll(&f, t0 + 5000);
  ASSERT_EQ(resolved.size(), 1u);
  EXPECT_EQ(resolved[0]["labels"]["nic"], "hwnic1");
  EXPECT_EQ(resolved[0]["endsAt"], tevfwd::Rfc3339(t0 + 5000));
  EXPECT_EQ(f.ActiveCount(), 1u);
  EXPECT_EQ(f.counters().resolved, 1u);
  // Another host's clear resolves nothing.
  QprobMessage other = Msg("kos.clear.net.redundancy.restored", {S("ksw0"), S("x"), S("hwnic0")});
  other.hostUuid = "00000000-0000-0000-0000-000000000000";
  f.Accept(other, t0 + 6000);
  EXPECT_EQ(f.ActiveCount(), 1u);
}

TEST(TevfwdForwarder, ResendAndLifetimeFollowTheClock) {
  Forwarder f(Opts());
  const int64_t t0 = 1000000;
  f.Accept(Msg("kos.problem.scsi.device.state.off", {S("naa.1")}), t0);
  f.Tick(t0);  // first tick: the spool is not empty, nothing is added
  EXPECT_EQ(f.SpoolLength(), 1u);
  DeliverAll(&f, t0);
  f.Tick(t0 + 59999);
  EXPECT_EQ(f.SpoolLength(), 0u) << "re-sent before the interval";
  f.Tick(t0 + 60000);
  EXPECT_EQ(f.SpoolLength(), 1u) << "not re-sent at the interval";
  json again = DeliverAll(&f, t0 + 60000);
  EXPECT_EQ(again[0]["startsAt"], tevfwd::Rfc3339(t0));
  f.Tick(t0 + 3600000 - 1);
  EXPECT_EQ(f.ActiveCount(), 1u);
  DeliverAll(&f, t0 + 3600000 - 1);
  f.Tick(t0 + 3600000);
  EXPECT_EQ(f.ActiveCount(), 0u);
  EXPECT_EQ(f.counters().expired, 1u);
  json ended = DeliverAll(&f, t0 + 3600000);
  ASSERT_EQ(ended.size(), 1u);
  EXPECT_EQ(ended[0]["endsAt"], tevfwd::Rfc3339(t0 + 3600000));
}

TEST(TevfwdForwarder, AuditsOnlyWhenAskedAndShortLived) {
  for (bool audits : {false, true}) {
    tevfwd::Options o = Opts();
    o.audits = audits;
    Forwarder f(o);
    f.Accept(Msg("kos.audit.net.firewall.enabled", {S("port7")}, 2000000), 2000000);
    ASSERT_EQ(f.SpoolLength(), audits ? 1u : 0u);
    if (!audits) continue;
    json a = DeliverAll(&f, 2000000);
    EXPECT_EQ(a[0]["labels"]["severity"], "info");
    EXPECT_EQ(a[0]["endsAt"], tevfwd::Rfc3339(2000000 + 300000));
    EXPECT_EQ(f.ActiveCount(), 0u);
  }
}

TEST(TevfwdForwarder, SpoolDropsOldestAtItsLimitAndSurvivesARestart) {
  tevdtest::ScratchRoot root;
  root.MakeDir("spool");
  tevfwd::Options o = Opts(root.Abs("spool"));
  o.spoolMaxBytes = 3000;
  {
    Forwarder f(o);
    for (int i = 0; i < 20; ++i) {
      f.Accept(Msg("kos.problem.dhclient.lease.none", {S("mtlnic" + std::to_string(i))}),
               1000000 + i);
    }
    EXPECT_LT(f.SpoolLength(), 20u);
    EXPECT_EQ(f.counters().dropped, 20u - f.SpoolLength());
    auto lines = f.TakeLogLines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("dropped the " + std::to_string(20 - f.SpoolLength()) + " oldest"),
              std::string::npos);
    f.SaveActive();
  }
  Forwarder g(o);
  size_t kept = g.Recover(2000000);
  ASSERT_GT(kept, 0u);
  EXPECT_EQ(g.ActiveCount(), 20u) << "the active set outlives the dropped entries";
  json sent = DeliverAll(&g, 2000000);
  ASSERT_EQ(sent.size(), kept);
  EXPECT_EQ(sent.back()["labels"]["interface"], "mtlnic19") << "newest last, in order";
  // Delivered entries leave the disk.
  Forwarder h(o);
  EXPECT_EQ(h.Recover(2000000), 0u);
}

}  // namespace

namespace {

// Producers' bytes are not always UTF-8, and files in the spool may be
// damaged: neither may stop the forwarder.
TEST(TevfwdForwarder, BadBytesAndDamagedSpoolFilesAreSurvived) {
  tevdtest::ScratchRoot root;
  root.MakeDir("spool");
  Forwarder f(Opts(root.Abs("spool")));
  f.Accept(Msg("kos.problem.scsi.device.state.off", {S("naa.\xff\xfe")}), 1000000);
  json sent = DeliverAll(&f, 1000000);
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0]["labels"]["device"], "naa.\xef\xbf\xbd\xef\xbf\xbd");
  root.Write("spool/0000000000000007.json",
             "{\"labels\":{\"alertname\":7},\"startsAt\":1,\"endsAt\":0}");
  root.Write("spool/0000000000000008.json", "not json");
  root.Write("spool/active.json", "[{\"labels\":[]},{\"labels\":{\"class\":{}},\"endsAt\":1}]");
  Forwarder g(Opts(root.Abs("spool")));
  EXPECT_EQ(g.Recover(2000000), 1u);  // entry 7 is an alert, if an odd one
  EXPECT_EQ(g.counters().dropped, 1u);
  EXPECT_FALSE(g.TakeLogLines().empty());
}

}  // namespace
