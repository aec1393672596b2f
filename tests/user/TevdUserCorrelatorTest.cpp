// User-level translations: one row per argument shape through the dispatcher,
// each event decoded from the wire; missing and mistyped arguments; the
// iorm.badversion read.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Harness.h"
#include "TevdTestSupport.h"
#include "tevdUserCorrelator.h"

using tevdtest::I;
using tevdtest::S;
using tevdtest::UL;

namespace {

// One row per argument shape and class: the templates themselves are checked
// against their argument lists when the table is compiled.
struct UserCase {
  const char *tevId;
  std::vector<MsgFmt_Value> in;
  const char *eventId;
  std::vector<std::string> out;
};

const std::vector<UserCase> &ShapeCases() {
  static const std::vector<UserCase> cases = {
      {"tev.user.host.coredump", {}, "kos.problem.host.coredump", {}},
      {"tev.user.iorm.nonhvworkload", {S("ds1")}, "kos.problem.iorm.nonhvworkload", {"S:ds1"}},
      {"tev.user.hsyslogd.storage.logdir.invalid",
       {S("/scratch/log"), S("read-only")},
       "kos.problem.hsyslogd.storage.logdir.invalid",
       {"S:/scratch/log", "S:read-only"}},
      {"tev.user.test.test2", {I(42), S("two")}, "kos.problem.test.test2", {"I:42", "S:two"}},
      {"tev.user.ntpd.clock.correction.error",
       {I(-700), I(500)},
       "kos.problem.ntpd.clock.correction.error",
       {"I:-700", "I:500"}},
      {"tev.user.coredump.capacity.insufficient",
       {I(3000)},
       "kos.problem.coredump.capacity.insufficient",
       {"UL:3000"}},
      {"tev.user.kosimage.profile.install.successful",
       {S("std"), I(10), I(1)},
       "kos.audit.kosimage.profile.install.successful",
       {"S:std", "I:10", "I:1"}},
      {"tev.user.host.boot", {}, "kos.audit.host.boot", {}},
      {"tev.user.kcon.reboot.host", {}, "kos.audit.kcon.host.reboot", {}},  // console: own id
      {"tev.user.coredump.configured", {}, "kos.clear.coredump.configured", {}},
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

TEST_F(UserCorrelatorTest, EachArgumentShapePostsItsEventWithTypedArgumentsInIndexOrder) {
  EXPECT_EQ(map_.size(), static_cast<size_t>(TevdUserCorrelator_NumRows()));
  for (const UserCase &c : ShapeCases()) {
    SCOPED_TRACE(c.tevId);
    Dispatch(c.tevId, c.in);
    QprobMessage m = One();
    EXPECT_EQ(m.id, c.eventId);
    EXPECT_EQ(tevdtest::ArgsText(m.args), c.out);
  }
}

TEST_F(UserCorrelatorTest, MissingOrMistypedArgumentPostsNothing) {
  const struct {
    const char *tevId;
    std::vector<MsgFmt_Value> in;
  } bad[] = {
      {"tev.user.test.test2", {I(1)}},          // string at index 1 missing
      {"tev.user.test.test2", {S("x"), I(1)}},  // types swapped
      {"tev.user.test.test2", {}},
      {"tev.user.test.test1s", {I(5)}},    // int for %s
      {"tev.user.test.test1d", {S("5")}},  // string for %d
      {"tev.user.dhclient.lease.none", {}},
      {"tev.user.account.locked", {S("eve"), I(5)}},                   // highest index missing
      {"tev.user.account.locked", {I(0), I(5), I(900)}},               // lowest index mistyped
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
  tevdtest::LogLines log(root_);
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
  tevdtest::LogLines log(root_);
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
