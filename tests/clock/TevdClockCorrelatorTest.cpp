// Clock correction correlator: hourly suppression per handler table, the
// signed hour after the clock went back, sync re-enabled by any loss of
// synchronisation, the six-value suffix of the correction-delta family, and
// the default handler's log line. Expected events are literal texts decoded
// from the wire or read from the log; time moves only through the fake clock.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "LogCapture.h"
#include "TevdTestSupport.h"
#include "tevdClockCorrelator.h"
#include "tevdCorrelator.h"

using tevdtest::ArgsText;
using tevdtest::I;
using tevdtest::MakeTev;
using tevdtest::S;

namespace {

class ClockTest : public ::testing::Test {
 protected:
  void SetUp() override { TevdClockCorrelator_ResetForTest(); }
  void TearDown() override { TevdClockCorrelator_ResetForTest(); }

  // Runs `handler` on a fresh observation; returns the ids it posted.
  std::vector<std::string> Handle(TevHandler handler, const char *id,
                                  const std::vector<MsgFmt_Value> &args = {}) {
    auto tev = MakeTev(id, args);
    handler(tev.get());
    std::vector<std::string> ids;
    for (const QprobMessage &m : events.Take()) {
      ids.push_back(m.id);
    }
    return ids;
  }

  tevdtest::ScratchRoot root;
  tevdtest::FakeClock clock;
  tevdtest::EventCapture events;
  tevdtest::LogCapture log{root};
};

using Ids = std::vector<std::string>;

// One good observation of each of the twelve identifiers.
struct Observation {
  const char *id;
  TevHandler handler;
  std::vector<MsgFmt_Value> args;
  const char *event;
};

std::vector<Observation> AllObservations() {
  return {
      {"tev.clock.correction.step.unsync", TevdClockCorrelator_Sync, {I(5), I(6)},
       "kos.problem.clock.correction.step.unsync"},
      {"tev.clock.correction.adjtime.sync", TevdClockCorrelator_Sync, {},
       "kos.problem.clock.correction.adjtime.sync"},
      {"tev.clock.correction.adjtime.unsync", TevdClockCorrelator_Sync, {},
       "kos.problem.clock.correction.adjtime.unsync"},
      {"tev.clock.correction.adjtime.lostsync", TevdClockCorrelator_Sync, {},
       "kos.problem.clock.correction.adjtime.lostsync"},
      {"tev.clock.correction.delta.warning", TevdClockCorrelator_CorrectionDelta,
       {I(1), I(2), I(3), I(4), I(5), I(6)}, "kos.problem.clock.correction.delta.warning"},
      {"tev.clock.correction.delta.failed", TevdClockCorrelator_CorrectionDelta,
       {I(1), I(2), I(3), I(4), I(5)}, "kos.problem.clock.correction.delta.failed"},
      {"tev.clock.correction.delta.allowed", TevdClockCorrelator_CorrectionDelta,
       {I(1), I(2), I(3), I(4)}, "kos.problem.clock.correction.delta.allowed"},
      {"tev.clock.state.reset", TevdClockCorrelator_SetValue, {}, "kos.problem.clock.state.reset"},
      {"tev.clock.parameter.set.maxNegPhaseCorrection", TevdClockCorrelator_SetValue, {I(-7)},
       "kos.problem.clock.parameter.set.maxNegPhaseCorrection"},
      {"tev.clock.parameter.set.maxPosPhaseCorrection", TevdClockCorrelator_SetValue, {I(7)},
       "kos.problem.clock.parameter.set.maxPosPhaseCorrection"},
      {"tev.clock.parameter.set.numLargeCorrections", TevdClockCorrelator_SetValue, {I(3)},
       "kos.problem.clock.parameter.set.numLargeCorrections"},
      {"tev.clock.parameter.set.maxLargeCorrections", TevdClockCorrelator_SetValue, {I(4)},
       "kos.problem.clock.parameter.set.maxLargeCorrections"},
  };
}

}  // namespace

TEST_F(ClockTest, MapSendsEachIdentifierToItsNamedHandler) {
  TevHandlerMap map = TevdClockCorrelator_BuildMap();
  std::vector<Observation> all = AllObservations();
  EXPECT_EQ(all.size(), map.size());
  for (const Observation &o : all) {
    EXPECT_EQ(o.handler, map[o.id]) << o.id;
  }
}

TEST_F(ClockTest, RepeatWithinAnHourSuppressedAndPostedAgainAfterIt) {
  for (const Observation &o : AllObservations()) {
    TevdClockCorrelator_ResetForTest();
    EXPECT_EQ(Ids{o.event}, Handle(o.handler, o.id, o.args)) << o.id;
    clock.Advance(600);
    EXPECT_EQ(Ids{}, Handle(o.handler, o.id, o.args)) << o.id << " after 600 s";
    // A suppressed observation must not restart the hour.
    clock.Advance(2999);
    EXPECT_EQ(Ids{}, Handle(o.handler, o.id, o.args)) << o.id << " after 3599 s";
    clock.Advance(1);
    EXPECT_EQ(Ids{o.event}, Handle(o.handler, o.id, o.args)) << o.id << " after 3600 s";
  }
}

TEST_F(ClockTest, EachHandlerKeepsItsOwnSuppressionTable) {
  // The sync handler records any identifier it is given; the other handlers
  // must not see those entries.
  EXPECT_EQ(Ids{}, Handle(TevdClockCorrelator_Sync, "tev.clock.state.reset"));
  EXPECT_EQ(Ids{}, Handle(TevdClockCorrelator_Sync, "tev.clock.correction.delta.allowed"));
  EXPECT_EQ(Ids{"kos.problem.clock.state.reset"},
            Handle(TevdClockCorrelator_SetValue, "tev.clock.state.reset"));
  EXPECT_EQ(Ids{"kos.problem.clock.correction.delta.allowed"},
            Handle(TevdClockCorrelator_CorrectionDelta, "tev.clock.correction.delta.allowed",
                   {I(1), I(2), I(3), I(4)}));
  // And one handler's posts leave the others' identifiers alone.
  EXPECT_EQ(Ids{"kos.problem.clock.parameter.set.maxLargeCorrections"},
            Handle(TevdClockCorrelator_SetValue, "tev.clock.parameter.set.maxLargeCorrections",
                   {I(9)}));
  EXPECT_EQ(Ids{"kos.problem.clock.correction.adjtime.sync"},
            Handle(TevdClockCorrelator_Sync, "tev.clock.correction.adjtime.sync"));
}

TEST_F(ClockTest, ClockSteppedBackKeepsSuppressingUntilAnHourPastLast) {
  EXPECT_EQ(Ids{"kos.problem.clock.state.reset"},
            Handle(TevdClockCorrelator_SetValue, "tev.clock.state.reset"));
  clock.Advance(-7200);   // an unsigned difference would look huge and pass
  EXPECT_EQ(Ids{}, Handle(TevdClockCorrelator_SetValue, "tev.clock.state.reset"));
  clock.Advance(7200 + 3599);
  EXPECT_EQ(Ids{}, Handle(TevdClockCorrelator_SetValue, "tev.clock.state.reset"));
  clock.Advance(1);
  EXPECT_EQ(Ids{"kos.problem.clock.state.reset"},
            Handle(TevdClockCorrelator_SetValue, "tev.clock.state.reset"));
}

TEST_F(ClockTest, EveryLossOfSyncLetsTheNextSyncThrough) {
  struct Loss {
    const char *id;
    std::vector<MsgFmt_Value> args;
    const char *event;
  } losses[] = {
      {"tev.clock.correction.adjtime.unsync", {}, "kos.problem.clock.correction.adjtime.unsync"},
      {"tev.clock.correction.adjtime.lostsync", {}, "kos.problem.clock.correction.adjtime.lostsync"},
      {"tev.clock.correction.step.unsync", {I(1700000000), I(5)},
       "kos.problem.clock.correction.step.unsync"},
  };
  for (const Loss &loss : losses) {
    TevdClockCorrelator_ResetForTest();
    EXPECT_EQ(Ids{"kos.problem.clock.correction.adjtime.sync"},
              Handle(TevdClockCorrelator_Sync, "tev.clock.correction.adjtime.sync"));
    clock.Advance(60);
    EXPECT_EQ(Ids{loss.event}, Handle(TevdClockCorrelator_Sync, loss.id, loss.args));
    clock.Advance(60);
    EXPECT_EQ(Ids{"kos.problem.clock.correction.adjtime.sync"},
              Handle(TevdClockCorrelator_Sync, "tev.clock.correction.adjtime.sync"))
        << "sync after " << loss.id;
    clock.Advance(60);
    EXPECT_EQ(Ids{}, Handle(TevdClockCorrelator_Sync, "tev.clock.correction.adjtime.sync"))
        << "a second sync without loss after " << loss.id;
  }
}

TEST_F(ClockTest, UnreadableStepKeepsSyncEntryButSuppressesItself) {
  EXPECT_EQ(Ids{"kos.problem.clock.correction.adjtime.sync"},
            Handle(TevdClockCorrelator_Sync, "tev.clock.correction.adjtime.sync"));
  clock.Advance(60);
  EXPECT_EQ(Ids{}, Handle(TevdClockCorrelator_Sync, "tev.clock.correction.step.unsync",
                          {S("x"), I(5)}));
  clock.Advance(60);
  EXPECT_EQ(Ids{}, Handle(TevdClockCorrelator_Sync, "tev.clock.correction.adjtime.sync"));
  EXPECT_EQ(Ids{}, Handle(TevdClockCorrelator_Sync, "tev.clock.correction.step.unsync",
                          {I(1), I(5)}));
}

TEST_F(ClockTest, UnreadableParameterPostsNothingAndLeavesItsEntry) {
  EXPECT_EQ(Ids{}, Handle(TevdClockCorrelator_SetValue,
                          "tev.clock.parameter.set.numLargeCorrections", {}));
  EXPECT_EQ(Ids{}, Handle(TevdClockCorrelator_SetValue,
                          "tev.clock.parameter.set.numLargeCorrections", {S("three")}));
  EXPECT_EQ(Ids{"kos.problem.clock.parameter.set.numLargeCorrections"},
            Handle(TevdClockCorrelator_SetValue, "tev.clock.parameter.set.numLargeCorrections",
                   {I(3)}));
}

TEST_F(ClockTest, UnreadableDeltaPostsNothingAndLeavesItsEntry) {
  EXPECT_EQ(Ids{}, Handle(TevdClockCorrelator_CorrectionDelta,
                          "tev.clock.correction.delta.warning", {I(1), I(2), I(3)}));
  EXPECT_EQ(Ids{"kos.problem.clock.correction.delta.warning"},
            Handle(TevdClockCorrelator_CorrectionDelta, "tev.clock.correction.delta.warning",
                   {I(1), I(2), I(3), I(4), I(5), I(6)}));
}

// Each event is checked on the wire (arguments in order) and in the local
// log line, whose text is the template's, filled in.
TEST_F(ClockTest, EventsCarryTheirValuesInMessageOrder) {
  struct Case {
    TevHandler handler;
    const char *id;
    std::vector<MsgFmt_Value> args;
    std::vector<std::string> wire;
    const char *logged;
  } cases[] = {
      {TevdClockCorrelator_CorrectionDelta, "tev.clock.correction.delta.warning",
       {I(1700000000), I(5000), I(40), I(30), I(2), I(4)},
       {"I:1700000000", "I:5000", "I:40", "I:30", "I:2", "I:4"},
       "[kos.problem.clock.correction.delta.warning] system clock stepped to "
       "1700000000.000005000, but delta 40 > 30 seconds, 2/4 large corrections\n"},
      {TevdClockCorrelator_CorrectionDelta, "tev.clock.correction.delta.failed",
       {I(1700000001), I(7), I(41), I(31), I(3)},
       {"I:1700000001", "I:7", "I:41", "I:31", "I:3"},
       "[kos.problem.clock.correction.delta.failed] system clock step to 1700000001.000000007 "
       "failed, delta 41 > 31 seconds, number of large corrections > 3\n"},
      {TevdClockCorrelator_CorrectionDelta, "tev.clock.correction.delta.allowed",
       {I(1700000002), I(123456789), I(42), I(32)},
       {"I:1700000002", "I:123456789", "I:42", "I:32"},
       "[kos.problem.clock.correction.delta.allowed] system clock stepped to "
       "1700000002.123456789, but delta 42 > 32 seconds\n"},
      {TevdClockCorrelator_Sync, "tev.clock.correction.step.unsync", {I(1700000003), I(9)},
       {"I:1700000003", "I:9"},
       "[kos.problem.clock.correction.step.unsync] system clock stepped to 1700000003.000000009, "
       "lost sync to upstream time servers\n"},
      {TevdClockCorrelator_Sync, "tev.clock.correction.adjtime.sync", {}, {},
       "[kos.problem.clock.correction.adjtime.sync] system clock synchronized to upstream time "
       "servers\n"},
      {TevdClockCorrelator_Sync, "tev.clock.correction.adjtime.unsync", {}, {},
       "[kos.problem.clock.correction.adjtime.unsync] system clock lost synchronization to "
       "upstream time servers\n"},
      {TevdClockCorrelator_Sync, "tev.clock.correction.adjtime.lostsync", {}, {},
       "[kos.problem.clock.correction.adjtime.lostsync] system clock apparently no longer "
       "synchronized to upstream time servers\n"},
      {TevdClockCorrelator_SetValue, "tev.clock.state.reset", {}, {},
       "[kos.problem.clock.state.reset] resetting system clock state\n"},
      {TevdClockCorrelator_SetValue, "tev.clock.parameter.set.maxNegPhaseCorrection", {I(-100)},
       {"I:-100"},
       "[kos.problem.clock.parameter.set.maxNegPhaseCorrection] setting system clock parameter "
       "maxNegPhaseCorrection to -100\n"},
      {TevdClockCorrelator_SetValue, "tev.clock.parameter.set.maxPosPhaseCorrection", {I(100)},
       {"I:100"},
       "[kos.problem.clock.parameter.set.maxPosPhaseCorrection] setting system clock parameter "
       "maxPosPhaseCorrection to 100\n"},
      {TevdClockCorrelator_SetValue, "tev.clock.parameter.set.numLargeCorrections", {I(2)},
       {"I:2"},
       "[kos.problem.clock.parameter.set.numLargeCorrections] setting system clock parameter "
       "numLargeCorrections to 2\n"},
      {TevdClockCorrelator_SetValue, "tev.clock.parameter.set.maxLargeCorrections", {I(8)},
       {"I:8"},
       "[kos.problem.clock.parameter.set.maxLargeCorrections] setting system clock parameter "
       "maxLargeCorrections to 8\n"},
  };
  for (const Case &c : cases) {
    auto tev = MakeTev(c.id, c.args);
    c.handler(tev.get());
    auto got = events.Take();
    ASSERT_EQ(1u, got.size()) << c.id;
    EXPECT_EQ(c.wire, ArgsText(got[0].args)) << c.id;
    EXPECT_NE("", log.WaitFor(c.logged)) << c.id << " did not log: " << c.logged;
  }
}

TEST_F(ClockTest, UnknownIdentifierIsLoggedByTheDefaultHandler) {
  TevHandlerMap map = TevdClockCorrelator_BuildMap();
  auto tev = MakeTev("tev.clock.parameter.set.maxnegphasecorrection", {I(1)});
  TevdCorrelator_Dispatch(TevdClockCorrelatorHandleOther, map, tev.get());
  EXPECT_EQ(0u, events.Count());
  std::string logged = log.WaitFor("No system clock correlator for ");
  const std::string line =
      "No system clock correlator for tev.clock.parameter.set.maxnegphasecorrection\n";
  ASSERT_GE(logged.size(), line.size()) << logged;
  EXPECT_EQ(line, logged.substr(logged.size() - line.size()));
}
