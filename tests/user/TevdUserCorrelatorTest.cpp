// User-level translations: one row per argument shape and class through the
// dispatcher (the templates are checked against their argument lists when the
// table is compiled), missing and mistyped arguments, the iorm.badversion read.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Harness.h"
#include "tevdUserCorrelator.h"

using namespace tevdtest;

namespace {

using Args = std::vector<MsgFmt_Value>;

class UserCorrelatorTest : public ::testing::Test {
 protected:
  // Dispatches one observation; returns what was posted as "id arg arg ...".
  std::string Post(const std::string &id, const Args &args) {
    TevPtr tev = MakeTev("tev.user." + id, args);
    TevdCorrelator_Dispatch(TevdUserCorrelatorIgnore, map_, tev.get());
    std::string out;
    for (const QprobMessage &m : events_.Take()) {
      out += (out.empty() ? "" : "; ") + m.id.substr(4);
      for (const std::string &a : ArgsText(m.args)) out += " " + a;
    }
    return out;
  }

  ScratchRoot root_;
  EventCapture events_;
  TevHandlerMap map_ = TevdUserCorrelator_BuildMap();
};

TEST_F(UserCorrelatorTest, EachArgumentShapePostsItsEventWithTypedArgumentsInIndexOrder) {
  const struct {
    const char *id;
    Args in;
    const char *want;
  } cases[] = {
      {"host.coredump", {}, "problem.host.coredump"},
      {"hsyslogd.storage.logdir.invalid",
       {S("/scratch/log"), S("read-only")},
       "problem.hsyslogd.storage.logdir.invalid S:/scratch/log S:read-only"},
      {"test.test2", {I(42), S("two")}, "problem.test.test2 I:42 S:two"},
      {"test.test2", {I(4), MsgFmt_Value::NullStr()}, "problem.test.test2 I:4 S:(null)"},
      {"test.test1d", {I(7), S("extra")}, "audit.test.test1d I:7"},  // extras are ignored
      {"ntpd.clock.correction.error",
       {I(-700), I(500)},
       "problem.ntpd.clock.correction.error I:-700 I:500"},
      {"coredump.copyspace", {I(-1)}, "problem.coredump.copyspace I:-1"},
      // An integer read for %lu carries its unsigned value.
      {"coredump.capacity.insufficient",
       {I(3000)},
       "problem.coredump.capacity.insufficient UL:3000"},
      {"scratch.partition.unconfigured",
       {I(-1)},
       "problem.scratch.partition.unconfigured UL:4294967295"},
      {"scratch.partition.unconfigured",
       {UL(5000)},
       "problem.scratch.partition.unconfigured UL:5000"},
      {"kosimage.profile.install.successful",
       {S("std"), I(10), I(1)},
       "audit.kosimage.profile.install.successful S:std I:10 I:1"},
      {"kcon.reboot.host", {}, "audit.kcon.host.reboot"},  // console: an id of its own
      {"coredump.configured", {}, "clear.coredump.configured"},
      {"iorm.badversion",
       {S("host9"), S("ds9"), I(1), I(2)},
       "problem.iorm.badversion S:host9 S:ds9 I:1 I:2"},
      // Stopped only by a negative read status, which the library never gives:
      // the event goes out with the values it starts from.
      {"iorm.badversion", {}, "problem.iorm.badversion S:(null) S:(null) I:0 I:0"},
  };
  for (const auto &c : cases) EXPECT_EQ(c.want, Post(c.id, c.in)) << c.id;
}

TEST_F(UserCorrelatorTest, MissingOrMistypedArgumentPostsNothingAndLogsNothing) {
  LogLines log(root_);
  const std::vector<std::pair<const char *, Args>> bad = {
      {"test.test2", {I(1)}},                                 // string at index 1 missing
      {"test.test2", {S("x"), I(1)}},                         // types swapped
      {"test.test1s", {I(5)}},                                // int for %s
      {"test.test1d", {S("5")}},                              // string for %d
      {"account.locked", {S("eve"), I(5)}},                   // highest index missing
      {"account.locked", {I(0), I(5), I(900)}},               // lowest index mistyped
      {"scratch.partition.size.small", {S("p"), S("4096")}},  // string for %lu
      {"coredump.capacity.insufficient", {}},
      {"driver.abnormal", {S("a"), I(2), I(3)}},
      {"host.unknown", {}},
      {"Host.Boot", {}},
  };
  for (const auto &b : bad) EXPECT_EQ("", Post(b.first, b.second)) << b.first;
  EXPECT_EQ(log.TakeDiagnostics(), std::vector<std::string>{});
}

}  // namespace
