// Clock correction correlator: hourly suppression per handler table (a signed
// hour when the clock went back), sync re-enabled by any loss of synchronisation.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Harness.h"
#include "tevdClockCorrelator.h"
#include "tevdCorrelator.h"

using namespace tevdtest;

namespace {

using Args = std::vector<MsgFmt_Value>;
const char kSync[] = "correction.adjtime.sync";
const auto kSyncH = TevdClockCorrelator_Sync;
const auto kDeltaH = TevdClockCorrelator_CorrectionDelta;
const auto kSetH = TevdClockCorrelator_SetValue;

// One good observation of each identifier (after "tev.clock."), and its handler.
const struct Observation {
  const char *id;
  TevHandler handler;
  Args args;
} kAll[] = {
    {"correction.step.unsync", kSyncH, {I(1700000003), I(123456789)}},
    {kSync, kSyncH, {}},
    {"correction.adjtime.unsync", kSyncH, {}},
    {"correction.adjtime.lostsync", kSyncH, {}},
    {"correction.delta.warning", kDeltaH, {I(1), I(2), I(3), I(4), I(5), I(6)}},
    {"correction.delta.failed", kDeltaH, {I(1), I(2), I(3), I(4), I(5)}},
    {"correction.delta.allowed", kDeltaH, {I(1), I(2), I(3), I(4)}},
    {"state.reset", kSetH, {}},
    {"parameter.set.maxNegPhaseCorrection", kSetH, {I(-100)}},
    {"parameter.set.maxPosPhaseCorrection", kSetH, {I(7)}},
    {"parameter.set.numLargeCorrections", kSetH, {I(3)}},
    {"parameter.set.maxLargeCorrections", kSetH, {I(4)}},
};

class ClockTest : public ::testing::Test {
 protected:
  // Runs `handler` on a fresh observation; returns the ids (after
  // "kos.problem.clock.") and arguments it posted.
  std::string Handle(TevHandler handler, const std::string &id, const Args &args = {}) {
    auto tev = MakeTev("tev.clock." + id, args);
    handler(tev.get());
    std::string out;
    for (const QprobMessage &m : events.Take()) {
      out += m.id.substr(18);
      for (const std::string &a : ArgsText(m.args)) out += " " + a;
    }
    return out;
  }
  std::string Handle(const Observation &o) { return Handle(o.handler, o.id, o.args); }

  ScratchRoot root;
  FakeClock clock{LaterStart()};  // no entry of an earlier test counts
  EventCapture events;
  LogLines log{root};
};

TEST_F(ClockTest, EachIdentifierGoesToItsHandlerRepeatsWithinAnHourAreSuppressedOthersAreLogged) {
  TevHandlerMap map = TevdClockCorrelator_BuildMap();
  EXPECT_EQ(sizeof kAll / sizeof kAll[0], map.size());
  for (const Observation &o : kAll) {
    SCOPED_TRACE(o.id);
    EXPECT_EQ(o.handler, map[std::string("tev.clock.") + o.id]);
    std::string posted = o.id;  // the values in message order
    for (const std::string &a : ArgsText(o.args)) posted += " " + a;
    EXPECT_EQ(posted, Handle(o));
    clock.Advance(600);
    EXPECT_EQ("", Handle(o));
    clock.Advance(2999);  // a suppressed observation must not restart the hour
    EXPECT_EQ("", Handle(o));
    clock.Advance(1);
    EXPECT_EQ(posted, Handle(o));
  }
  // An identifier the map lacks goes to the default handler, which logs it.
  auto tev = MakeTev("tev.clock.parameter.set.maxnegphasecorrection", {I(1)});
  TevdCorrelator_Dispatch(TevdClockCorrelatorHandleOther, map, tev.get());
  EXPECT_EQ(0u, events.Count());
  EXPECT_TRUE(log.SawEnding(
      "No system clock correlator for tev.clock.parameter.set.maxnegphasecorrection"));
}

TEST_F(ClockTest, EachHandlerKeepsItsOwnSuppressionTable) {
  // The sync handler records any identifier it is given; the others must not see it.
  EXPECT_EQ("", Handle(kSyncH, "state.reset"));
  EXPECT_EQ("", Handle(kSyncH, "correction.delta.allowed"));
  EXPECT_EQ("state.reset", Handle(kSetH, "state.reset"));
  EXPECT_EQ("correction.delta.allowed I:1 I:2 I:3 I:4",
            Handle(kDeltaH, "correction.delta.allowed", {I(1), I(2), I(3), I(4)}));
  EXPECT_EQ(kSync, Handle(kSyncH, kSync));
}

TEST_F(ClockTest, ClockSteppedBackKeepsSuppressingUntilAnHourPastLast) {
  EXPECT_EQ("state.reset", Handle(kSetH, "state.reset"));
  clock.Advance(-7200);  // an unsigned difference would look huge and pass
  EXPECT_EQ("", Handle(kSetH, "state.reset"));
  clock.Advance(7200 + 3599);
  EXPECT_EQ("", Handle(kSetH, "state.reset"));
  clock.Advance(1);
  EXPECT_EQ("state.reset", Handle(kSetH, "state.reset"));
}

TEST_F(ClockTest, EveryLossOfSyncLetsTheNextSyncThrough) {
  for (const Observation &loss : kAll) {
    if (loss.handler != kSyncH || std::string(loss.id) == kSync) continue;
    SCOPED_TRACE(loss.id);
    clock.Advance(TEVD_CLOCK_SUPPRESS_SEC);  // the last sync an hour old
    EXPECT_EQ(kSync, Handle(kSyncH, kSync));
    clock.Advance(60);
    EXPECT_NE("", Handle(loss));
    clock.Advance(60);
    EXPECT_EQ(kSync, Handle(kSyncH, kSync));
    clock.Advance(60);
    EXPECT_EQ("", Handle(kSyncH, kSync));  // no loss in between
  }
}

TEST_F(ClockTest, UnreadableObservationsPostNothingAndLeaveTheirEntries) {
  EXPECT_EQ(kSync, Handle(kSyncH, kSync));
  clock.Advance(60);
  // An unreadable step does not re-enable sync, but suppresses itself.
  EXPECT_EQ("", Handle(kSyncH, "correction.step.unsync", {S("x"), I(5)}));
  clock.Advance(60);
  EXPECT_EQ("", Handle(kSyncH, kSync));
  EXPECT_EQ("", Handle(kSyncH, "correction.step.unsync", {I(1), I(5)}));
  const char *param = "parameter.set.numLargeCorrections";
  EXPECT_EQ("", Handle(kSetH, param, {}));
  EXPECT_EQ("", Handle(kSetH, param, {S("three")}));
  EXPECT_EQ(std::string(param) + " I:3", Handle(kSetH, param, {I(3)}));
  const char *delta = "correction.delta.warning";
  EXPECT_EQ("", Handle(kDeltaH, delta, {I(1), I(2), I(3)}));
  EXPECT_NE("", Handle(kDeltaH, delta, {I(1), I(2), I(3), I(4), I(5), I(6)}));
}

}  // namespace
