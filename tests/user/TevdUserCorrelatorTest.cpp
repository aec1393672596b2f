// User-level translations: all 63 rows routed through the dispatcher with
// typed arguments, each event decoded from the wire and compared with a
// literal identifier and literal typed arguments; missing and mistyped
// arguments; the console rows; the iorm.badversion read.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "LogCapture.h"
#include "TevdTestSupport.h"
#include "tevdUserCorrelator.h"

using tevdtest::I;
using tevdtest::S;
using tevdtest::UL;

namespace {

struct UserCase {
  const char *tevId;
  std::vector<MsgFmt_Value> in;
  const char *eventId;
  std::vector<std::string> out;
};

const std::vector<UserCase> &AllUserCases() {
  static const std::vector<UserCase> cases = {
      // Problems.
      {"tev.user.iorm.nonhvworkload", {S("ds1")}, "kos.problem.iorm.nonhvworkload", {"S:ds1"}},
      {"tev.user.iorm.badversion", {S("h1"), S("ds2"), I(3), I(4)}, "kos.problem.iorm.badversion",
       {"S:h1", "S:ds2", "I:3", "I:4"}},
      {"tev.user.dhclient.lease.offered.noexpiry", {S("mtlnic0")},
       "kos.problem.dhclient.lease.offered.noexpiry", {"S:mtlnic0"}},
      {"tev.user.hsyslogd.storage.logdir.invalid", {S("/scratch/log"), S("read-only")},
       "kos.problem.hsyslogd.storage.logdir.invalid", {"S:/scratch/log", "S:read-only"}},
      {"tev.user.test.test0", {}, "kos.problem.test.test0", {}},
      {"tev.user.test.test2", {I(42), S("two")}, "kos.problem.test.test2", {"I:42", "S:two"}},
      {"tev.user.hsyslogd.remote.failure", {S("udp://log:514")},
       "kos.problem.hsyslogd.remote.failure", {"S:udp://log:514"}},
      {"tev.user.hsyslogd.storage.failure", {}, "kos.problem.hsyslogd.storage.failure", {}},
      {"tev.user.hsyslogd.unexpected", {S("oops")}, "kos.problem.hsyslogd.unexpected", {"S:oops"}},
      {"tev.user.kosimage.install.invalidhardware", {S("cpu"), S("too old")},
       "kos.problem.kosimage.install.invalidhardware", {"S:cpu", "S:too old"}},
      {"tev.user.kosimage.install.stage.error", {S("img"), S("no space")},
       "kos.problem.kosimage.install.stage.error", {"S:img", "S:no space"}},
      {"tev.user.kosimage.install.error", {S("bad depot")}, "kos.problem.kosimage.install.error",
       {"S:bad depot"}},
      {"tev.user.dhclient.lease.none", {S("mtlnic1")}, "kos.problem.dhclient.lease.none",
       {"S:mtlnic1"}},
      {"tev.user.ntpd.clock.correction.error", {I(-700), I(500)},
       "kos.problem.ntpd.clock.correction.error", {"I:-700", "I:500"}},
      {"tev.user.host.coredump", {}, "kos.problem.host.coredump", {}},
      {"tev.user.coredump.unconfigured", {}, "kos.problem.coredump.unconfigured", {}},
      {"tev.user.coredump.extraction.failed.nospace", {I(2048)},
       "kos.problem.coredump.extraction.failed.nospace", {"UL:2048"}},
      {"tev.user.coredump.unconfigured2", {}, "kos.problem.coredump.unconfigured2", {}},
      {"tev.user.coredump.capacity.insufficient", {I(3000)},
       "kos.problem.coredump.capacity.insufficient", {"UL:3000"}},
      {"tev.user.coredump.copyspace", {I(17)}, "kos.problem.coredump.copyspace", {"I:17"}},
      {"tev.user.scratch.partition.size.small", {S("mpx.hba0"), I(4096)},
       "kos.problem.scratch.partition.size.small", {"S:mpx.hba0", "UL:4096"}},
      {"tev.user.scratch.partition.unconfigured", {I(4000)},
       "kos.problem.scratch.partition.unconfigured", {"UL:4000"}},
      {"tev.user.iofilter.disabled", {S("flt"), S("expired")}, "kos.problem.iofilter.disabled",
       {"S:flt", "S:expired"}},
      {"tev.user.driver.abnormal", {S("nvme"), S("reset"), I(9)}, "kos.problem.driver.abnormal",
       {"S:nvme", "S:reset", "I:9"}},
      // Audits.
      {"tev.user.kcon.login.passwd.changed", {S("root")}, "kos.audit.kcon.login.passwd.changed",
       {"S:root"}},
      {"tev.user.kcon.login.failed", {S("admin")}, "kos.audit.kcon.login.failed", {"S:admin"}},
      {"tev.user.kcon.factory.network.restored", {}, "kos.audit.kcon.network.factoryrestore", {}},
      {"tev.user.kcon.restarting.hostagents", {}, "kos.audit.kcon.hostagents.restart", {}},
      {"tev.user.kcon.network.restart", {S("mtlnic0")}, "kos.audit.kcon.network.restart",
       {"S:mtlnic0"}},
      {"tev.user.kcon.restore.factory.defaults", {}, "kos.audit.kcon.defaults.factoryrestore", {}},
      {"tev.user.kcon.reboot.host", {}, "kos.audit.kcon.host.reboot", {}},
      {"tev.user.kcon.shutdown.host", {}, "kos.audit.kcon.host.shutdown", {}},
      {"tev.user.koscli.host.reboot", {S("patch")}, "kos.audit.koscli.host.reboot", {"S:patch"}},
      {"tev.user.koscli.host.poweroff", {S("move")}, "kos.audit.koscli.host.poweroff",
       {"S:move"}},
      {"tev.user.test.test1s", {S("one")}, "kos.audit.test.test1s", {"S:one"}},
      {"tev.user.test.test1d", {I(1)}, "kos.audit.test.test1d", {"I:1"}},
      {"tev.user.shell.enabled", {}, "kos.audit.shell.enabled", {}},
      {"tev.user.shell.disabled", {}, "kos.audit.shell.disabled", {}},
      {"tev.user.ssh.enabled", {}, "kos.audit.ssh.enabled", {}},
      {"tev.user.ssh.disabled", {}, "kos.audit.ssh.disabled", {}},
      {"tev.user.kcon.enabled", {}, "kos.audit.kcon.enabled", {}},
      {"tev.user.kcon.disabled", {}, "kos.audit.kcon.disabled", {}},
      {"tev.user.lockdownmode.enabled", {}, "kos.audit.lockdownmode.enabled", {}},
      {"tev.user.lockdownmode.disabled", {}, "kos.audit.lockdownmode.disabled", {}},
      {"tev.user.account.loginfailures", {S("bob")}, "kos.audit.account.loginfailures",
       {"S:bob"}},
      {"tev.user.account.locked", {S("eve"), I(5), I(900)}, "kos.audit.account.locked",
       {"S:eve", "I:5", "I:900"}},
      {"tev.user.maintenancemode.entering", {}, "kos.audit.maintenancemode.entering", {}},
      {"tev.user.maintenancemode.canceled", {}, "kos.audit.maintenancemode.canceled", {}},
      {"tev.user.maintenancemode.entered", {}, "kos.audit.maintenancemode.entered", {}},
      {"tev.user.maintenancemode.exited", {}, "kos.audit.maintenancemode.exited", {}},
      {"tev.user.maintenancemode.failed", {}, "kos.audit.maintenancemode.failed", {}},
      {"tev.user.kosimage.hostacceptance.changed", {S("partner"), S("community")},
       "kos.audit.kosimage.hostacceptance.changed", {"S:partner", "S:community"}},
      {"tev.user.kosimage.install.securityalert", {S("unsigned"), S("drv.kbun")},
       "kos.audit.kosimage.install.securityalert", {"S:unsigned", "S:drv.kbun"}},
      {"tev.user.kosimage.kbun.install.successful", {I(6), I(2)},
       "kos.audit.kosimage.kbun.install.successful", {"I:6", "I:2"}},
      {"tev.user.kosimage.kbun.remove.successful", {I(3)},
       "kos.audit.kosimage.kbun.remove.successful", {"I:3"}},
      {"tev.user.kosimage.install.novalidation", {}, "kos.audit.kosimage.install.novalidation",
       {}},
      {"tev.user.kosimage.profile.install.successful", {S("std"), I(10), I(1)},
       "kos.audit.kosimage.profile.install.successful", {"S:std", "I:10", "I:1"}},
      {"tev.user.kosimage.profile.update.successful", {S("std2"), I(4), I(0)},
       "kos.audit.kosimage.profile.update.successful", {"S:std2", "I:4", "I:0"}},
      {"tev.user.host.boot", {}, "kos.audit.host.boot", {}},
      {"tev.user.host.stop.reboot", {}, "kos.audit.host.stop.reboot", {}},
      {"tev.user.host.stop.shutdown", {}, "kos.audit.host.stop.shutdown", {}},
      // Clears.
      {"tev.user.coredump.configured", {}, "kos.clear.coredump.configured", {}},
      {"tev.user.coredump.configured2", {}, "kos.clear.coredump.configured2", {}},
  };
  return cases;
}

class UserCorrelatorTest : public ::testing::Test {
 protected:
  void Dispatch(const std::string &id, const std::vector<MsgFmt_Value> &args) {
    tevdtest::TevPtr tev = tevdtest::MakeTev(id, args);
    ASSERT_NE(tev, nullptr);
    TevdCorrelator_Dispatch(TevdUserCorrelatorIgnore, map_, tev.get());
  }
  // The one event the last dispatch posted.
  QprobMessage One() {
    std::vector<QprobMessage> got = events_.Take();
    EXPECT_EQ(got.size(), 1u);
    return got.empty() ? QprobMessage() : got[0];
  }

  tevdtest::ScratchRoot root_;
  tevdtest::EventCapture events_;
  TevHandlerMap map_ = TevdUserCorrelator_BuildMap();
};

TEST_F(UserCorrelatorTest, EveryRowPostsItsEventWithTypedArgumentsInIndexOrder) {
  const std::vector<UserCase> &cases = AllUserCases();
  ASSERT_EQ(cases.size(), 63u);
  EXPECT_EQ(map_.size(), 63u);
  EXPECT_EQ(TevdUserCorrelator_NumRows(), 63);
  int problems = 0, audits = 0, clears = 0;
  for (const UserCase &c : cases) {
    SCOPED_TRACE(c.tevId);
    Dispatch(c.tevId, c.in);
    QprobMessage m = One();
    EXPECT_EQ(m.id, c.eventId);
    EXPECT_EQ(tevdtest::ArgsText(m.args), c.out);
    problems += m.className == "problem";
    audits += m.className == "audit";
    clears += m.className == "clear";
  }
  EXPECT_EQ(problems, 24);
  EXPECT_EQ(audits, 37);
  EXPECT_EQ(clears, 2);
}

TEST_F(UserCorrelatorTest, ConsoleRowsUseTheirOwnEventIdsNotThePrefixRule) {
  const struct {
    const char *tevId;
    const char *eventId;
  } rows[] = {
      {"tev.user.kcon.factory.network.restored", "kos.audit.kcon.network.factoryrestore"},
      {"tev.user.kcon.restarting.hostagents", "kos.audit.kcon.hostagents.restart"},
      {"tev.user.kcon.restore.factory.defaults", "kos.audit.kcon.defaults.factoryrestore"},
      {"tev.user.kcon.reboot.host", "kos.audit.kcon.host.reboot"},
      {"tev.user.kcon.shutdown.host", "kos.audit.kcon.host.shutdown"},
  };
  for (const auto &r : rows) {
    SCOPED_TRACE(r.tevId);
    Dispatch(r.tevId, {});
    QprobMessage m = One();
    EXPECT_EQ(m.id, r.eventId);
    EXPECT_EQ(m.className, "audit");
    EXPECT_TRUE(m.args.empty());
  }
}

TEST_F(UserCorrelatorTest, MissingOrMistypedArgumentPostsNothing) {
  const struct {
    const char *tevId;
    std::vector<MsgFmt_Value> in;
  } bad[] = {
      {"tev.user.test.test2", {I(1)}},                       // string at index 1 missing
      {"tev.user.test.test2", {S("x"), I(1)}},               // types swapped
      {"tev.user.test.test2", {}},
      {"tev.user.test.test1s", {I(5)}},                      // int for %s
      {"tev.user.test.test1d", {S("5")}},                    // string for %d
      {"tev.user.dhclient.lease.none", {}},
      {"tev.user.account.locked", {S("eve"), I(5)}},         // highest index missing
      {"tev.user.account.locked", {I(0), I(5), I(900)}},     // lowest index mistyped
      {"tev.user.scratch.partition.size.small", {S("p"), S("4096")}},  // string for %lu
      {"tev.user.coredump.capacity.insufficient", {}},
      {"tev.user.driver.abnormal", {S("a"), I(2), I(3)}},
  };
  for (const auto &b : bad) {
    SCOPED_TRACE(b.tevId);
    Dispatch(b.tevId, b.in);
    EXPECT_EQ(events_.Count(), 0u);
  }
}

TEST_F(UserCorrelatorTest, NullStringIsPostedAsANullString) {
  Dispatch("tev.user.test.test2", {I(4), MsgFmt_Value::NullStr()});
  std::vector<QprobMessage> got = events_.Take();
  ASSERT_EQ(got.size(), 1u);
  ASSERT_EQ(got[0].args.size(), 2u);
  EXPECT_EQ(got[0].args[0].bits, 4u);
  EXPECT_EQ(got[0].args[1].type, static_cast<uint32_t>(MSGFMT_TYPE_STRING));
  EXPECT_TRUE(got[0].args[1].isNull);
}

TEST_F(UserCorrelatorTest, FailedReadLogsNoLineOfItsOwn) {
  tevdtest::LogCapture log(root_);
  tevdtest::TevPtr bad = tevdtest::MakeTev("tev.user.test.test2", {I(1)});
  TevdUserCorrelatorTranslate(bad.get());
  tevdtest::TevPtr good = tevdtest::MakeTev("tev.user.test.test1d", {I(7)});
  TevdUserCorrelatorTranslate(good.get());
  // The first line to arrive is the good event's: the failure logged none.
  std::string line = log.Next();
  EXPECT_NE(line.find("[kos.audit.test.test1d] Test with one integer argument, 7."),
            std::string::npos)
      << line;
}

TEST_F(UserCorrelatorTest, QuotedTemplatesReachTheLogLineUnchanged) {
  tevdtest::LogCapture log(root_);
  Dispatch("tev.user.test.test2", {I(3), S("x")});
  EXPECT_NE(log.WaitFor("kos.problem.test.test2").find("Test with both 3 and x."),
            std::string::npos);
  Dispatch("tev.user.host.boot", {});
  EXPECT_NE(log.WaitFor("[kos.audit.host.boot]").find("Host has booted."), std::string::npos);
  Dispatch("tev.user.maintenancemode.entered", {});
  EXPECT_NE(log.WaitFor("[kos.audit.maintenancemode.entered]")
                .find("The host has entered maintenance mode."),
            std::string::npos);
  Dispatch("tev.user.dhclient.lease.none", {S("mtlnic2")});
  EXPECT_NE(log.WaitFor("[kos.problem.dhclient.lease.none]")
                .find("Unable to obtain a DHCP lease on interface mtlnic2."),
            std::string::npos);
  events_.Take();
}

TEST_F(UserCorrelatorTest, ExtraArgumentsBeyondTheTemplateAreIgnored) {
  Dispatch("tev.user.test.test1d", {I(7), S("extra")});
  QprobMessage m = One();
  EXPECT_EQ(m.id, "kos.audit.test.test1d");
  EXPECT_EQ(tevdtest::ArgsText(m.args), (std::vector<std::string>{"I:7"}));
}

TEST_F(UserCorrelatorTest, UlongArgumentCarriesTheUnsignedValueOfTheIntegerRead) {
  Dispatch("tev.user.coredump.copyspace", {I(-1)});
  EXPECT_EQ(tevdtest::ArgsText(One().args), (std::vector<std::string>{"I:-1"}));
  Dispatch("tev.user.scratch.partition.unconfigured", {I(-1)});
  EXPECT_EQ(tevdtest::ArgsText(One().args), (std::vector<std::string>{"UL:4294967295"}));
  Dispatch("tev.user.scratch.partition.unconfigured", {UL(5000)});
  EXPECT_EQ(tevdtest::ArgsText(One().args), (std::vector<std::string>{"UL:5000"}));
}

TEST_F(UserCorrelatorTest, BadVersionReadsFourArgumentsAtOnce) {
  Dispatch("tev.user.iorm.badversion", {S("host9"), S("ds9"), I(1), I(2)});
  QprobMessage m = One();
  EXPECT_EQ(m.id, "kos.problem.iorm.badversion");
  EXPECT_EQ(m.className, "problem");
  EXPECT_EQ(tevdtest::ArgsText(m.args),
            (std::vector<std::string>{"S:host9", "S:ds9", "I:1", "I:2"}));
}

TEST_F(UserCorrelatorTest, BadVersionIsStoppedOnlyByANegativeReadStatus) {
  // The library reports a failed read with a positive status, which this
  // handler does not treat as failure: the event still goes out, with the
  // values it starts from (null strings, zeros).
  Dispatch("tev.user.iorm.badversion", {});
  QprobMessage m = One();
  EXPECT_EQ(m.id, "kos.problem.iorm.badversion");
  ASSERT_EQ(m.args.size(), 4u);
  EXPECT_TRUE(m.args[0].isNull);
  EXPECT_TRUE(m.args[1].isNull);
  EXPECT_EQ(tevdtest::ArgsText({m.args[2], m.args[3]}), (std::vector<std::string>{"I:0", "I:0"}));
}

TEST_F(UserCorrelatorTest, UnknownUserIdGoesToTheFallbackAndPostsNothing) {
  Dispatch("tev.user.host.unknown", {});
  Dispatch("tev.user.Host.Boot", {});
  EXPECT_EQ(events_.Count(), 0u);
}

}  // namespace
