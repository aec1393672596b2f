// The forwarder's state, without Alertmanager: label values, resolution by
// object, and the spool, re-send and lifetime under a clock the test sets.
// (The catalogue's own consistency is checked when it compiles.)
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <set>

#include "TevdTestSupport.h"
#include "tevfwdCore.h"
#include "tevfwdEvents.h"

namespace {

using nlohmann::json;
using namespace tevdtest;
using tevfwd::Forwarder;
using tevfwd::Rfc3339;

constexpr int64_t kT0 = 1764000000000;  // 2025-11-24
constexpr int64_t kT1 = kT0 + 1000000;

// Label values are the daemon's argument texts, with its quoted lists (port
// groups, datastores) turned into comma-separated items; object labels match
// when every item of the alert's value is among the recovery's.
TEST(TevfwdEvents, QuotedListsBecomeItemsAndObjectsMatchByItems) {
  const std::pair<const char *, const char *> values[] = {
      {R"("br0")", "br0"},
      {R"("pg-a", "pg-b")", "pg-a,pg-b"},
      {"hwnic0", "hwnic0"},
      {R"("unterminated)", R"("unterminated)"},
      {R"("a" "b")", R"("a" "b")"},
      {R"("a", )", R"("a", )"},
      {"", ""},
  };
  for (const auto &v : values) EXPECT_EQ(tevfwd::LabelValue(v.first), v.second) << v.first;
  EXPECT_TRUE(tevfwd::ItemsCovered("pg-a", "pg-a,pg-b"));
  EXPECT_TRUE(tevfwd::ItemsCovered("pg-b,pg-a", "pg-a,pg-b"));
  EXPECT_FALSE(tevfwd::ItemsCovered("pg-a,pg-c", "pg-a,pg-b"));
  EXPECT_FALSE(tevfwd::ItemsCovered("ksw0", "ksw01"));
  // Names from the catalogue; an event it does not know gets argN.
  EXPECT_EQ(tevfwd::ArgLabelNames(TevdEvents_Find("kos.problem.net.redundancy.lost"), 3),
            (std::vector<std::string>{"switch", "nic", "portgroups"}));
  EXPECT_EQ(tevfwd::ArgLabelNames(nullptr, 2), (std::vector<std::string>{"arg0", "arg1"}));
}

QprobMessage Msg(const std::string &id, std::vector<MsgFmt_Value> args, uint64_t tsMs = kT0) {
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
  o.lifetimeMs = 3600000;
  o.spoolDir = spool;
  o.hostName = "h1";
  return o;
}

// Delivers everything due to both replicas; the alerts replica 0 was sent.
json DeliverAll(Forwarder *f, int64_t now) {
  json out = json::array();
  for (size_t r = 0; r < 2; ++r) {
    auto items = f->Take(r, 1000, now);
    if (r == 0) out = json::parse(Forwarder::Body(items, 0, items.size()));
    f->Done(r, items, false);
  }
  return out;
}

TEST(TevfwdForwarder, AlertCarriesTheCatalogueLabelsSeverityAndAnnotations) {
  tevfwd::Options o = Opts();
  o.runbookUrl = "https://runbooks.example/tevd#";
  Forwarder f(o);
  const int64_t t0 = kT0;
  const std::string lost = "kos.problem.net.connectivity.lost";
  f.Accept(Msg(lost, {S("br0"), S("hwnic1"), S(R"("pg-guests", "pg-mgmt")")}), t0);
  json fired = DeliverAll(&f, t0);
  ASSERT_EQ(fired.size(), 1u);
  EXPECT_EQ(fired[0]["labels"],
            json::parse(R"({"alertname":")" + lost +
                        R"(","class":"problem","host":"6f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0",)"
                        R"("instance":"h1","severity":"critical","switch":"br0","nic":"hwnic1",)"
                        R"("portgroups":"pg-guests,pg-mgmt"})"));
  EXPECT_EQ(fired[0]["annotations"],
            json::parse(R"({"summary":"Network connectivity lost on a virtual switch",)"
                        R"("description":"Lost network connectivity on virtual switch br0. )"
                        R"(Physical NIC hwnic1 is down. Affected port groups: \"pg-guests\", )"
                        R"(\"pg-mgmt\"","runbook_url":"https://runbooks.example/tevd#)" +
                        lost + R"("})"));
  EXPECT_EQ(fired[0]["startsAt"], Rfc3339(t0));
  EXPECT_EQ(fired[0]["endsAt"], Rfc3339(t0 + 3 * 60000));  // firing: three re-sends ahead
  EXPECT_EQ(f.SpoolLength(), 0u);
  EXPECT_EQ(f.counters().sent, 1u);
  // Another host's recovery resolves nothing.
  QprobMessage other =
      Msg("kos.clear.net.redundancy.restored", {S("br0"), S(R"("pg-guests", "pg-mgmt")"), S("x")});
  other.hostUuid = "00000000-0000-0000-0000-000000000000";
  f.Accept(other, t0 + 6);
  EXPECT_EQ(f.ActiveCount(), 1u);
}

// Resolution follows the object: each story's events in order, then the
// alerts still firing. The NIC or path a recovery names is not compared.
TEST(TevfwdForwarder, RecoveriesResolveEveryAlertAboutTheirObject) {
  using Args = std::vector<MsgFmt_Value>;
  struct Story {
    const char *name;
    std::vector<std::pair<std::string, Args>> events;
    std::set<std::string> firing;
  };
  const std::string pg = R"("pg-guests")";
  const Story stories[] = {
      {"both uplinks of a bridge down and back",
       {{"kos.problem.net.redundancy.lost", {S("br0"), S("hwnic0"), S(pg)}},
        {"kos.problem.net.connectivity.lost", {S("br0"), S("hwnic1"), S(pg)}},
        {"kos.clear.net.connectivity.restored", {S("br0"), S(pg), S("hwnic0")}},
        {"kos.clear.net.redundancy.restored", {S("br0"), S(pg), S("hwnic1")}}},
       {}},
      {"one uplink back: connectivity returns, redundancy is still lost",
       {{"kos.problem.net.redundancy.lost", {S("br0"), S("hwnic0"), S(pg)}},
        {"kos.problem.net.connectivity.lost", {S("br0"), S("hwnic1"), S(pg)}},
        {"kos.clear.net.connectivity.restored", {S("br0"), S(pg), S("hwnic1")}}},
       {"kos.problem.net.redundancy.lost"}},
      {"another switch's recovery",
       {{"kos.problem.net.redundancy.lost", {S("br0"), S("hwnic0"), S(pg)}},
        {"kos.clear.net.redundancy.restored", {S("br1"), S(pg), S("hwnic0")}}},
       {"kos.problem.net.redundancy.lost"}},
      {"a recovery of one port group leaves the other's loss",
       {{"kos.problem.net.redundancy.lost", {S("br0"), S("hwnic0"), S(R"("pg-a")")}},
        {"kos.problem.net.redundancy.degraded", {S("br0"), S("hwnic0"), S(R"("pg-b")")}},
        {"kos.clear.net.redundancy.restored", {S("br0"), S(R"("pg-b")"), S("hwnic0")}}},
       {"kos.problem.net.redundancy.lost"}},
      {"both paths of a device down and back",
       {{"kos.problem.storage.redundancy.lost", {S("naa.1"), S("hba1:C0:T0:L1"), S("ds1")}},
        {"kos.problem.storage.connectivity.lost", {S("naa.1"), S("hba2:C0:T0:L1"), S("ds1")}},
        {"kos.clear.storage.connectivity.restored", {S("naa.1"), S("ds1"), S("hba1:C0:T0:L1")}},
        {"kos.clear.storage.redundancy.restored", {S("naa.1"), S("ds1"), S("hba2:C0:T0:L1")}}},
       {}},
      {"a flapping NIC taken down comes back",
       {{"kos.problem.net.hwnic.linkstate.down", {S("hwnic0")}},
        {"kos.problem.net.hwnic.linkstate.flapping", {S("hwnic0")}},
        {"kos.clear.net.hwnic.linkstate.up", {S("hwnic1")}},
        {"kos.clear.net.hwnic.linkstate.up", {S("hwnic0")}}},
       {}},
      {"an uplink's link comes back: its switch's restore names it (deleted: told as up)",
       {{"kos.problem.net.hwnic.linkstate.flapping", {S("hwnic0")}},
        {"kos.clear.net.redundancy.restored", {S("br0"), S(pg), S("hwnic0")}}},
       {}},
      {"a problem-class recovery is not an alert itself",
       {{"kos.problem.kfs.extent.offline", {S("naa.2"), S("fs1")}},
        {"kos.problem.kfs.extent.online", {S("naa.2"), S("fs1")}}},
       {}},
  };
  for (const Story &story : stories) {
    Forwarder f(Opts());
    int64_t t = kT0;
    for (const auto &ev : story.events) {
      f.Accept(Msg(ev.first, ev.second, t), t);
      t += 1000;
    }
    // The last word on each alert (labels) is whether it still fires.
    std::map<std::string, json> last;
    for (const json &a : DeliverAll(&f, t)) last[a["labels"].dump()] = a;
    std::set<std::string> firing;
    for (const auto &kv : last) {
      if (kv.second["endsAt"] > Rfc3339(t)) firing.insert(kv.second["labels"]["alertname"]);
    }
    EXPECT_EQ(firing, story.firing) << story.name;
    EXPECT_EQ(f.ActiveCount(), story.firing.size()) << story.name;
  }
}

TEST(TevfwdForwarder, ResendLifetimeAndAuditsFollowTheClock) {
  Forwarder f(Opts());
  const int64_t t0 = kT0;
  f.Accept(Msg("kos.audit.net.firewall.enabled", {S("port7")}), t0);
  EXPECT_EQ(f.SpoolLength(), 0u) << "audits are sent only when asked for";
  f.Accept(Msg("kos.problem.scsi.device.state.off", {S("naa.1")}), t0);
  EXPECT_EQ(DeliverAll(&f, t0).size(), 1u);
  EXPECT_EQ(DeliverAll(&f, t0 + 59999), json::array()) << "re-sent before the interval";
  json again = DeliverAll(&f, t0 + 60000);
  ASSERT_EQ(again.size(), 1u) << "not re-sent at the interval";
  EXPECT_EQ(again[0]["startsAt"], Rfc3339(t0));
  EXPECT_EQ(f.SpoolLength(), 0u) << "a re-send is no spool entry";
  f.Tick(t0 + 3600000 - 1);
  EXPECT_EQ(f.ActiveCount(), 1u);
  DeliverAll(&f, t0 + 3600000 - 1);
  f.Tick(t0 + 3600000);
  EXPECT_EQ(f.ActiveCount(), 0u);
  EXPECT_EQ(f.counters().expired, 1u);
  json ended = DeliverAll(&f, t0 + 3600000);
  ASSERT_EQ(ended.size(), 1u);
  EXPECT_EQ(ended[0]["endsAt"], Rfc3339(t0 + 3600000));

  tevfwd::Options o = Opts();
  o.audits = true;
  Forwarder g(o);
  g.Accept(Msg("kos.audit.net.firewall.enabled", {S("port7")}, kT1), kT1);
  json a = DeliverAll(&g, kT1);
  ASSERT_EQ(a.size(), 1u);
  EXPECT_EQ(a[0]["labels"]["severity"], "info");
  EXPECT_EQ(a[0]["endsAt"], Rfc3339(kT1 + 300000));
  EXPECT_EQ(g.ActiveCount(), 0u);
}

// The red team's delivery faults, below the HTTP: a replica that is away
// holds back neither the other's re-sends nor its alerts' firing; re-sends
// never pass through the spool's limit; the active set has a cap that is
// reported; a time Alertmanager would refuse never leaves.
TEST(TevfwdForwarder, EachReplicaHasItsOwnQueueAndResendsAndTheActiveSetACap) {
  tevfwd::Options o = Opts();
  o.spoolMaxBytes = 2000;
  o.activeMax = 3;
  Forwarder f(o);
  for (int i = 0; i < 4; ++i)
    f.Accept(Msg("kos.problem.dhclient.lease.none", {S("mtlnic" + std::to_string(i))}), kT0);
  EXPECT_EQ(f.ActiveCount(), 3u);
  EXPECT_EQ(f.counters().capped, 1u);
  auto lines = f.TakeLogLines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_TRUE(Contains(lines[0], "active set full (3 firing alerts): 1 new"));
  // Replica 1 never answers; replica 0 takes everything, then its re-sends.
  for (int64_t t = kT0; t <= kT0 + 10 * 60000; t += 60000) {
    auto items = f.Take(0, 1000, t);
    EXPECT_EQ(items.size(), t == kT0 ? 4u : 3u) << "at +" << (t - kT0) / 1000 << " s";
    for (const auto &it : items) {
      EXPECT_GT(json::parse(it.text)["endsAt"].get<std::string>(), Rfc3339(t + 120000))
          << "firing on the healthy replica for the next two intervals";
    }
    f.Done(0, items, false);
  }
  EXPECT_EQ(f.SpoolLength(), 4u) << "waiting for replica 1 only; re-sends never spooled";
  EXPECT_EQ(f.counters().dropped, 0u);
  EXPECT_EQ(f.Take(1, 1000, kT0).size(), 4u);
  EXPECT_EQ(f.Take(1, 1000, kT0 + 60000).size(), 4u + 3u) << "its own queue and re-send";
  // A time stamp of the year 33658 leaves as the time it arrived.
  f.Accept(Msg("kos.problem.scsi.device.state.off", {S("naa.1")}, 1000000000000000), kT1);
  EXPECT_EQ(f.counters().retimed, 1u);
  auto items = f.Take(0, 1, kT1);  // spool entries come before re-sends
  ASSERT_EQ(items.size(), 1u);
  EXPECT_EQ(json::parse(items[0].text)["startsAt"], Rfc3339(kT1));
  EXPECT_EQ(json::parse(items[0].text)["labels"]["device"], "naa.1");
}

// Producers' bytes are not always UTF-8, and spool files may be damaged:
// neither may stop the forwarder.
TEST(TevfwdForwarder, SpoolDropsOldestAtItsLimitSurvivesARestartAndDamagedFiles) {
  ScratchRoot root;
  root.MakeDir("spool");
  tevfwd::Options o = Opts(root.Abs("spool"));
  o.spoolMaxBytes = 3000;
  {
    Forwarder f(o);
    for (int i = 0; i < 20; ++i)
      f.Accept(Msg("kos.problem.dhclient.lease.none", {S("mtlnic" + std::to_string(i))}), kT0);
    EXPECT_LT(f.SpoolLength(), 20u);
    EXPECT_EQ(f.counters().dropped, 20u - f.SpoolLength());
    auto lines = f.TakeLogLines();
    ASSERT_EQ(lines.size(), 1u) << lines[0] << " / " << lines.back();
    EXPECT_TRUE(
        Contains(lines[0], "dropped the " + std::to_string(20 - f.SpoolLength()) + " oldest"));
    f.SaveActive();
  }
  Forwarder g(o);
  size_t kept = g.Recover(kT1);
  ASSERT_GT(kept, 0u);
  EXPECT_EQ(g.ActiveCount(), 20u) << "the active set outlives the dropped entries";
  json sent = DeliverAll(&g, kT1);
  ASSERT_EQ(sent.size(), kept + 20) << "the spool in order, then every firing alert re-sent";
  EXPECT_EQ(sent[kept - 1]["labels"]["interface"], "mtlnic19");
  g.Accept(Msg("kos.problem.scsi.device.state.off", {S("naa.\xff\xfe")}), kT1);
  sent = DeliverAll(&g, kT1);
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0]["labels"]["device"], "naa.\xef\xbf\xbd\xef\xbf\xbd");
  // Delivered entries left the disk; damaged files are survived.
  root.Write("spool/0000000000000007.json",
             "{\"labels\":{\"alertname\":7},\"startsAt\":1,\"endsAt\":0}");
  root.Write("spool/0000000000000008.json", "not json");
  root.Write("spool/active.json", "[{\"labels\":[]},{\"labels\":{\"class\":{}},\"endsAt\":1}]");
  Forwarder h(o);
  EXPECT_EQ(h.Recover(kT1), 1u);  // entry 7 is an alert, if an odd one
  EXPECT_EQ(h.counters().dropped, 1u);
  EXPECT_FALSE(h.TakeLogLines().empty());
}

// Defect: active.json was saved once a second, spool entries removed once every replica had
// them; a forwarder killed in between brought back an alert whose end both replicas had taken.
TEST(TevfwdForwarder, KillAfterDeliveryNeitherRevivesAnEndedAlertNorLosesANewOne) {
  ScratchRoot root;
  root.MakeDir("spool");
  const tevfwd::Options o = Opts(root.Abs("spool"));
  {
    Forwarder f(o);
    f.Accept(Msg("kos.problem.net.connectivity.lost", {S("ksw1"), S("hwnic2"), S("\"ksw1\"")}),
             kT0);
    DeliverAll(&f, kT0);
    f.Accept(Msg("kos.clear.net.connectivity.restored", {S("ksw1"), S("\"ksw1\""), S("hwnic3")}),
             kT0);
    f.Accept(Msg("kos.problem.dhclient.lease.none", {S("mtlnic0")}), kT0);
    DeliverAll(&f, kT0);
  }  // killed: no save of its own
  Forwarder g(o);
  g.Recover(kT1);
  json sent = DeliverAll(&g, kT1);
  ASSERT_EQ(sent.size(), 1u) << sent.dump();
  EXPECT_EQ(sent[0]["labels"]["alertname"], "kos.problem.dhclient.lease.none");
}

// Defects: entries a full or read-only spool never took counted as spooled, with a log line each;
// 9999999999999999.json pushed later names to 17 digits, which recovery ignored for ever; a
// leftover .tmp stayed; an entry without some keys reached undefined behaviour in the lookup.
TEST(TevfwdForwarder, UnwritableSpoolIsNotCountedAsSpooledAndOddSpoolFilesAreRecovered) {
  ScratchRoot root;
  {
    Forwarder f(Opts(root.Abs("absent")));  // every write fails
    for (int i = 0; i < 5; ++i)
      f.Accept(Msg("kos.problem.dhclient.lease.none", {S("mtlnic" + std::to_string(i))}), 1000000);
    EXPECT_EQ(f.counters().spooled, 0u);
    EXPECT_EQ(f.counters().unspooled, 5u);
    // One line for the five (the test's 1970 time stamps add a line of their own).
    std::vector<std::string> lines;
    for (const std::string &l : f.TakeLogLines())
      if (l.find("cannot write the spool") != std::string::npos) lines.push_back(l);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(Contains(lines[0], ": 5 alert(s) kept in memory only"));
    EXPECT_EQ(DeliverAll(&f, 1000000).size(), 5u) << "still sent from memory";
  }
  const std::string entry = "{\"labels\":{\"alertname\":\"x\"},\"startsAt\":1,\"endsAt\":0}";
  root.Write("spool/9999999999999999.json", entry);
  root.Write("spool/12345678901234567.json", entry);  // left by a counter past 16 digits
  root.Write("spool/0000000000000002.json", "{\"labels\":{},\"startsAt\":1}");  // no endsAt
  root.Write("spool/0000000000000003.json.tmp", "cut short");
  root.Write("spool/active.json.tmp", "cut short");
  Forwarder g(Opts(root.Abs("spool")));
  EXPECT_EQ(g.Recover(2000000), 2u);
  EXPECT_EQ(g.counters().dropped, 1u);
  g.Accept(Msg("kos.problem.dhclient.lease.none", {S("mtlnic9")}), 2000000);
  EXPECT_EQ(g.counters().spooled, 1u);
  std::set<std::string> names;
  for (const auto &e : std::filesystem::directory_iterator(root.Abs("spool")))
    names.insert(e.path().filename().string());
  EXPECT_EQ(names, (std::set<std::string>{"0000000000000001.json", "0000000000000002.json",
                                          "0000000000000003.json"}));
  json sent = DeliverAll(&g, 2000000);
  ASSERT_EQ(sent.size(), 3u + g.ActiveCount()) << "the spool, then every firing alert re-sent";
  EXPECT_TRUE(sent[0]["annotations"].is_object()) << "missing keys are read as empty";
}

}  // namespace
