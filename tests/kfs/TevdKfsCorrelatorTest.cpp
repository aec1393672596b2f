// KFS correlator: every registered identifier routed through the dispatcher
// and its event decoded from the wire, the volume UUID text, silent failures
// and the internal-inconsistency Panics.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Harness.h"
#include "TevdTestSupport.h"
#include "tevdKfsCorrelator.h"

using tevdtest::I;
using tevdtest::S;
using tevdtest::U;

namespace {

// UUID 00000001-00000002-0003-001122334455 as nine integer arguments.
std::vector<MsgFmt_Value> Uuid123() {
  return {U(1), U(2), U(3), I(0x00), I(0x11), I(0x22), I(0x33), I(0x44), I(0x55)};
}

std::vector<MsgFmt_Value> Cat(std::vector<MsgFmt_Value> a, const std::vector<MsgFmt_Value> &b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

struct KfsCase {
  const char *tevId;
  std::vector<MsgFmt_Value> in;
  const char *eventId;
  std::vector<std::string> out;
};

const char *const kUuidText = "00000001-00000002-0003-001122334455";

// One row per argument shape (the UUID before, between and after strings).
std::vector<KfsCase> ShapeCases() {
  const std::string u = kUuidText;
  return {
      {"tev.kfs.error.volume.is.locked",
       {S("naa.600")},
       "kos.problem.kfs.error.volume.is.locked",
       {"S:naa.600"}},
      {"tev.kfs.volume.mounted",
       {S("fs3"), S("vol3"), S("ATS-only")},
       "kos.audit.kfs.volume.mounted",
       {"S:fs3", "S:vol3", "S:ATS-only"}},
      {"tev.kfs.lockmode.inconsistency.detected",
       Cat(Cat({S("vol7")}, Uuid123()), {S("ATS"), S("SCSI"), S("mixed")}),
       "kos.problem.kfs.lockmode.inconsistency.detected",
       {"S:vol7", "S:" + u, "S:ATS", "S:SCSI", "S:mixed"}},
      {"tev.kfs.heartbeat.recovered",
       Cat(Uuid123(), {S("L11")}),
       "kos.problem.kfs.heartbeat.recovered",
       {"S:" + u, "S:L11"}},
      {"tev.kfs.nfs.server.restored",
       Cat(Cat({S("srv18"), S("/exp18")}, Uuid123()), {S("n18")}),
       "kos.problem.kfs.nfs.server.restored",
       {"S:srv18", "S:/exp18", "S:" + u, "S:n18"}},
  };
}

class KfsCorrelatorTest : public ::testing::Test {
 protected:
  // Runs one observation the way the agent does.
  void Dispatch(const std::string &id, const std::vector<MsgFmt_Value> &args) {
    tevdtest::TevPtr tev = tevdtest::MakeTev(id, args);
    ASSERT_NE(tev, nullptr);
    TevdCorrelator_Dispatch(TevdKfsCorrelatorCorrelate, map_, tev.get());
  }

  tevdtest::ScratchRoot root_;
  tevdtest::EventCapture events_;
  TevHandlerMap map_ = TevdKfsCorrelator_BuildMap();
};

TEST_F(KfsCorrelatorTest, EachArgumentShapePostsItsEventWithArgumentsInOrder) {
  std::vector<KfsCase> cases = ShapeCases();
  for (const KfsCase &c : cases) {
    SCOPED_TRACE(c.tevId);
    Dispatch(c.tevId, c.in);
    std::vector<QprobMessage> got = events_.Take();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].id, c.eventId);
    EXPECT_EQ(tevdtest::ArgsText(got[0].args), c.out);
  }
}

TEST_F(KfsCorrelatorTest, OnlyMountAndUnmountAreAuditsOnTheWire) {
  for (const KfsCase &c : ShapeCases()) {
    SCOPED_TRACE(c.tevId);
    Dispatch(c.tevId, c.in);
    std::vector<QprobMessage> got = events_.Take();
    ASSERT_EQ(got.size(), 1u);
    const std::string id = c.tevId;
    const bool audit = id == "tev.kfs.volume.mounted" || id == "tev.kfs.volume.umounted";
    EXPECT_EQ(got[0].className, audit ? "audit" : "problem");
  }
}

TEST_F(KfsCorrelatorTest, UuidIsPrintedAsThirtyFiveCharactersWithZeroPadding) {
  struct {
    std::vector<MsgFmt_Value> words;
    const char *text;
  } cases[] = {
      {Uuid123(), "00000001-00000002-0003-001122334455"},
      {{U(0x5f3a1b2c), U(0x0a1b2c3d), U(0x1a2b), I(0x00), I(0x11), I(0x22), I(0x33), I(0x44),
        I(0xff)},
       "5f3a1b2c-0a1b2c3d-1a2b-0011223344ff"},
      {{U(0xffffffffu), U(0xffffffffu), U(0xffff), I(0xff), I(0xff), I(0xff), I(0xff), I(0xff),
        I(0xff)},
       "ffffffff-ffffffff-ffff-ffffffffffff"},
      {{U(0), U(0), U(0), I(0), I(0), I(0), I(0), I(0), I(0)},
       "00000000-00000000-0000-000000000000"},
      // Wider values are cut to the conversion's own width.
      {{U(1), U(2), U(0x12345), I(0x1ab), I(0), I(0), I(0), I(0), I(0)},
       "00000001-00000002-2345-ab0000000000"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.text);
    Dispatch("tev.kfs.heartbeat.timedout", Cat(c.words, {S("label")}));
    std::vector<QprobMessage> got = events_.Take();
    ASSERT_EQ(got.size(), 1u);
    ASSERT_EQ(got[0].args.size(), 2u);
    EXPECT_EQ(got[0].args[0].str, c.text);
    EXPECT_EQ(got[0].args[0].str.size(), 35u);
  }
}

TEST_F(KfsCorrelatorTest, UnreadableArgumentsPostNothingAndLogNothing) {
  tevdtest::LogLines log(root_);
  struct {
    const char *id;
    std::vector<MsgFmt_Value> in;
  } bad[] = {
      {"tev.kfs.error.volume.is.locked", {}},
      {"tev.kfs.error.volume.is.locked", {I(3)}},
      {"tev.kfs.extent.online", {S("dev")}},
      {"tev.kfs.volume.mounted", {S("a"), S("b")}},
      {"tev.kfs.spanstate.incompatibility.detected", {S("vol")}},
      {"tev.kfs.ats.incompatibility.detected", Cat({S("vol"), S("not-a-word")}, Uuid123())},
      {"tev.kfs.lockmode.inconsistency.detected", Cat(Cat({S("v")}, Uuid123()), {S("a"), S("b")})},
      {"tev.kfs.heartbeat.timedout", Uuid123()},
      {"tev.kfs.heartbeat.corruptondisk", Cat({S("label")}, Uuid123())},
      {"tev.kfs.nfs.server.disconnect", Cat({S("srv")}, Uuid123())},
  };
  for (const auto &b : bad) {
    SCOPED_TRACE(b.id);
    tevdtest::TevPtr tev = tevdtest::MakeTev(b.id, b.in);
    ASSERT_NE(tev, nullptr);
    // Straight to the handler: the dispatcher's own observation line is not
    // the handler's.
    map_.at(b.id)(tev.get());
    EXPECT_EQ(events_.Count(), 0u);
  }
  // The first line the log receives must be this post's, so none came before.
  tevdtest::TevPtr good = tevdtest::MakeTev("tev.kfs.ats.support.lost", {S("volX")});
  TevdKfsCorrelatorDoATSSupportLost(good.get());
  EXPECT_EQ(events_.Count(), 1u);
  std::string line = log.Next();
  EXPECT_NE(line.find("kos.problem.kfs.ats.support.lost"), std::string::npos) << line;
}

TEST_F(KfsCorrelatorTest, AtsSupportLostKeepsItsOwnSpellingInTheLogLine) {
  tevdtest::LogLines log(root_);
  tevdtest::TevPtr tev = tevdtest::MakeTev("tev.kfs.ats.support.lost", {S("vol5")});
  TevdKfsCorrelatorDoATSSupportLost(tev.get());
  std::string line = log.WaitFor("kos.problem.kfs.ats.support.lost");
  EXPECT_NE(line.find("ATS-Only KFS volume 'vol5' will not be mounted. Host does notsupport ATS "
                      "or ATS intialization has failed."),
            std::string::npos)
      << line;
}

TEST_F(KfsCorrelatorTest, NullDeviceOfExtentOfflineBecomesEmptyOthersStayNull) {
  Dispatch("tev.kfs.extent.offline", {MsgFmt_Value::NullStr(), S("ds1")});
  // Extent online has no substitution: its null goes on as a null string.
  Dispatch("tev.kfs.extent.online", {MsgFmt_Value::NullStr(), S("ds1")});
  std::vector<QprobMessage> got = events_.Take();
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(tevdtest::ArgsText(got[0].args), (std::vector<std::string>{"S:", "S:ds1"}));
  EXPECT_EQ(tevdtest::ArgsText(got[1].args), (std::vector<std::string>{"S:(null)", "S:ds1"}));
  EXPECT_FALSE(got[0].args[0].isNull);
  EXPECT_TRUE(got[1].args[0].isNull);
}

TEST_F(KfsCorrelatorTest, UnregisteredIdGoesToTheFallbackAndPostsNothing) {
  Dispatch("tev.kfs.volume.unknown", {S("a")});
  Dispatch("tev.kfs.Extent.Offline", {S("a"), S("b")});
  EXPECT_EQ(events_.Count(), 0u);
}

using KfsCorrelatorDeathTest = KfsCorrelatorTest;

TEST_F(KfsCorrelatorDeathTest, LabelHandlerPanicsOnIdOutsideItsFamily) {
  tevdtest::TevPtr tev =
      tevdtest::MakeTev("tev.kfs.heartbeat.unknown", Cat(Uuid123(), {S("label")}));
  EXPECT_DEATH(TevdKfsCorrelatorDoVolumeNameAndLabel(tev.get()),
               "NOT_REACHED apps/tevd/tevdKfsCorrelator:142");
}

TEST_F(KfsCorrelatorDeathTest, NfsHandlerPanicsOnIdOtherThanItsTwo) {
  tevdtest::TevPtr tev = tevdtest::MakeTev("tev.kfs.nfs.server.unknown",
                                           Cat(Cat({S("a"), S("b")}, Uuid123()), {S("c")}));
  EXPECT_DEATH(TevdKfsCorrelatorDoNFSVolume(tev.get()),
               "NOT_REACHED apps/tevd/tevdKfsCorrelator:646");
}

}  // namespace
