// KFS correlator: one row per argument shape through the dispatcher, the
// volume UUID text, silent failures and the internal-inconsistency panics.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Harness.h"
#include "tevdKfsCorrelator.h"

using namespace tevdtest;

namespace {

using Args = std::vector<MsgFmt_Value>;

// UUID 00000001-00000002-0003-001122334455 as nine integer arguments, between
// the strings `before` and `after`.
Args WithUuid(Args before, const Args &after = {}) {
  for (const MsgFmt_Value &v :
       {U(1), U(2), U(3), I(0), I(0x11), I(0x22), I(0x33), I(0x44), I(0x55)})
    before.push_back(v);
  before.insert(before.end(), after.begin(), after.end());
  return before;
}

class KfsCorrelatorTest : public ::testing::Test {
 protected:
  void Dispatch(const std::string &id, const Args &args) {
    TevPtr tev = MakeTev("tev.kfs." + id, args);
    TevdCorrelator_Dispatch(TevdKfsCorrelatorCorrelate, map_, tev.get());
  }
  // The one posted event as "class id arg arg ...".
  std::string Posted() {
    std::vector<QprobMessage> got = events_.Take();
    if (got.size() != 1) return std::to_string(got.size()) + " events";
    std::string e = got[0].className + " " + got[0].id.substr(9 + got[0].className.size());
    for (const std::string &a : ArgsText(got[0].args)) e += " " + a;
    return e;
  }

  ScratchRoot root_;
  EventCapture events_;
  LogLines log_{root_};
  TevHandlerMap map_ = TevdKfsCorrelator_BuildMap();
};

TEST_F(KfsCorrelatorTest, EachArgumentShapePostsItsEventWithArgumentsInOrder) {
  const std::string u = "S:00000001-00000002-0003-001122334455";
  const struct {
    const char *id;
    Args in;
    std::string want;
  } cases[] = {
      {"error.volume.is.locked", {S("naa.600")}, "problem error.volume.is.locked S:naa.600"},
      {"volume.mounted",
       {S("fs3"), S("vol3"), S("ATS-only")},
       "audit volume.mounted S:fs3 S:vol3 S:ATS-only"},
      {"lockmode.inconsistency.detected", WithUuid({S("v7")}, {S("ATS"), S("SCSI"), S("mixed")}),
       "problem lockmode.inconsistency.detected S:v7 " + u + " S:ATS S:SCSI S:mixed"},
      {"heartbeat.recovered", WithUuid({}, {S("L11")}),
       "problem heartbeat.recovered " + u + " S:L11"},
      {"nfs.server.restored", WithUuid({S("srv18"), S("/exp18")}, {S("n18")}),
       "problem nfs.server.restored S:srv18 S:/exp18 " + u + " S:n18"},
      // Zero padding, and wider values cut to the conversion's own width.
      {"heartbeat.timedout",
       {U(0xffffffffu), U(0xa1b2c3d), U(0x12345), I(0x1ab), I(0), I(0xff), I(0), I(0), I(7),
        S("l")},
       "problem heartbeat.timedout S:ffffffff-0a1b2c3d-2345-ab00ff000007 S:l"},
  };
  for (const auto &c : cases) {
    Dispatch(c.id, c.in);
    EXPECT_EQ(c.want, Posted());
  }
}

TEST_F(KfsCorrelatorTest, UnreadableArgumentsAndUnknownIdentifiersPostNothingAndLogNothing) {
  const std::vector<std::pair<const char *, Args>> bad = {
      {"error.volume.is.locked", {}},
      {"error.volume.is.locked", {I(3)}},
      {"extent.online", {S("dev")}},
      {"volume.mounted", {S("a"), S("b")}},
      {"ats.incompatibility.detected", WithUuid({S("vol"), S("not-a-word")})},
      {"lockmode.inconsistency.detected", WithUuid({S("v")}, {S("a"), S("b")})},
      {"heartbeat.timedout", WithUuid({})},
      {"heartbeat.corruptondisk", WithUuid({S("label")})},
      {"nfs.server.disconnect", WithUuid({S("srv")})},
      {"volume.unknown", {S("a")}},
      {"Extent.Offline", {S("a"), S("b")}},
  };
  for (const auto &b : bad) Dispatch(b.first, b.second);
  EXPECT_EQ(events_.Count(), 0u);
  EXPECT_EQ(log_.TakeDiagnostics(), std::vector<std::string>{});
}

TEST_F(KfsCorrelatorTest, NullDeviceOfExtentOfflineBecomesEmptyOthersStayNull) {
  Dispatch("extent.offline", {MsgFmt_Value::NullStr(), S("ds1")});
  EXPECT_EQ("problem extent.offline S: S:ds1", Posted());
  Dispatch("extent.online", {MsgFmt_Value::NullStr(), S("ds1")});
  EXPECT_EQ("problem extent.online S:(null) S:ds1", Posted());
}

TEST_F(KfsCorrelatorTest, SharedHandlersPanicOnAnIdentifierOutsideTheirFamily) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  TevPtr label = MakeTev("tev.kfs.heartbeat.unknown", WithUuid({}, {S("l")}));
  EXPECT_DEATH(TevdKfsCorrelatorDoVolumeNameAndLabel(label.get()),
               "NOT_REACHED apps/tevd/tevdKfsCorrelator:142");
  TevPtr nfs = MakeTev("tev.kfs.nfs.server.unknown", WithUuid({S("a"), S("b")}, {S("c")}));
  EXPECT_DEATH(TevdKfsCorrelatorDoNFSVolume(nfs.get()),
               "NOT_REACHED apps/tevd/tevdKfsCorrelator:646");
}

}  // namespace
