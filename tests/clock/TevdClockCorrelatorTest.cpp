// Clock correction correlator: hourly suppression per handler table, the
// signed hour after the clock went back, sync re-enabled by any loss of
// synchronisation, the values each family carries, and the default handler's
// log line. Time moves only through the fake clock.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Harness.h"
#include "TevdTestSupport.h"
#include "tevdClockCorrelator.h"
#include "tevdCorrelator.h"

using tevdtest::ArgsText;
using tevdtest::I;
using tevdtest::MakeTev;
using tevdtest::S;

namespace {

using Ids = std::vector<std::string>;
const char kSync[] = "tev.clock.correction.adjtime.sync";

// "tev.clock.x" is posted as "kos.problem.clock.x".
std::string EventOf(const std::string &id) { return "kos.problem" + id.substr(3); }

class ClockTest : public ::testing::Test {
 protected:
  void SetUp() override { TevdClockCorrelator_ResetForTest(); }
  void TearDown() override { TevdClockCorrelator_ResetForTest(); }

  // Runs `handler` on a fresh observation; returns the ids it posted.
  Ids Handle(TevHandler handler, const char *id, const std::vector<MsgFmt_Value> &args = {}) {
    auto tev = MakeTev(id, args);
    handler(tev.get());
    Ids ids;
    for (const QprobMessage &m : events.Take()) ids.push_back(m.id);
    return ids;
  }

  tevdtest::ScratchRoot root;
  tevdtest::FakeClock clock;
  tevdtest::EventCapture events;
  tevdtest::LogLines log{root};
};

// One good observation of each identifier, and its handler.
struct Observation {
  const char *id;
  TevHandler handler;
  std::vector<MsgFmt_Value> args;
};

std::vector<Observation> AllObservations() {
  const auto sync = TevdClockCorrelator_Sync;
  const auto delta = TevdClockCorrelator_CorrectionDelta;
  const auto set = TevdClockCorrelator_SetValue;
  return {
      {"tev.clock.correction.step.unsync", sync, {I(5), I(6)}},
      {kSync, sync, {}},
      {"tev.clock.correction.adjtime.unsync", sync, {}},
      {"tev.clock.correction.adjtime.lostsync", sync, {}},
      {"tev.clock.correction.delta.warning", delta, {I(1), I(2), I(3), I(4), I(5), I(6)}},
      {"tev.clock.correction.delta.failed", delta, {I(1), I(2), I(3), I(4), I(5)}},
      {"tev.clock.correction.delta.allowed", delta, {I(1), I(2), I(3), I(4)}},
      {"tev.clock.state.reset", set, {}},
      {"tev.clock.parameter.set.maxNegPhaseCorrection", set, {I(-7)}},
      {"tev.clock.parameter.set.maxPosPhaseCorrection", set, {I(7)}},
      {"tev.clock.parameter.set.numLargeCorrections", set, {I(3)}},
      {"tev.clock.parameter.set.maxLargeCorrections", set, {I(4)}},
  };
}

}  // namespace

TEST_F(ClockTest, EachIdentifierGoesToItsHandlerAndRepeatsWithinAnHourAreSuppressed) {
  TevHandlerMap map = TevdClockCorrelator_BuildMap();
  std::vector<Observation> all = AllObservations();
  EXPECT_EQ(all.size(), map.size());
  for (const Observation &o : all) {
    SCOPED_TRACE(o.id);
    EXPECT_EQ(o.handler, map[o.id]);
    TevdClockCorrelator_ResetForTest();
    EXPECT_EQ(Ids{EventOf(o.id)}, Handle(o.handler, o.id, o.args));
    clock.Advance(600);
    EXPECT_EQ(Ids{}, Handle(o.handler, o.id, o.args));
    clock.Advance(2999);  // a suppressed observation must not restart the hour
    EXPECT_EQ(Ids{}, Handle(o.handler, o.id, o.args));
    clock.Advance(1);
    EXPECT_EQ(Ids{EventOf(o.id)}, Handle(o.handler, o.id, o.args));
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
  EXPECT_EQ(Ids{"kos.problem.clock.correction.adjtime.sync"},
            Handle(TevdClockCorrelator_Sync, kSync));
}

TEST_F(ClockTest, ClockSteppedBackKeepsSuppressingUntilAnHourPastLast) {
  const char *id = "tev.clock.state.reset";
  EXPECT_EQ(Ids{EventOf(id)}, Handle(TevdClockCorrelator_SetValue, id));
  clock.Advance(-7200);  // an unsigned difference would look huge and pass
  EXPECT_EQ(Ids{}, Handle(TevdClockCorrelator_SetValue, id));
  clock.Advance(7200 + 3599);
  EXPECT_EQ(Ids{}, Handle(TevdClockCorrelator_SetValue, id));
  clock.Advance(1);
  EXPECT_EQ(Ids{EventOf(id)}, Handle(TevdClockCorrelator_SetValue, id));
}

TEST_F(ClockTest, EveryLossOfSyncLetsTheNextSyncThrough) {
  for (const Observation &loss : AllObservations()) {
    if (loss.handler != TevdClockCorrelator_Sync || std::string(loss.id) == kSync) continue;
    SCOPED_TRACE(loss.id);
    TevdClockCorrelator_ResetForTest();
    EXPECT_EQ(Ids{EventOf(kSync)}, Handle(TevdClockCorrelator_Sync, kSync));
    clock.Advance(60);
    EXPECT_EQ(Ids{EventOf(loss.id)}, Handle(TevdClockCorrelator_Sync, loss.id, loss.args));
    clock.Advance(60);
    EXPECT_EQ(Ids{EventOf(kSync)}, Handle(TevdClockCorrelator_Sync, kSync));
    clock.Advance(60);
    EXPECT_EQ(Ids{}, Handle(TevdClockCorrelator_Sync, kSync));  // no loss in between
  }
}

TEST_F(ClockTest, UnreadableObservationsPostNothingAndLeaveTheirEntries) {
  EXPECT_EQ(Ids{EventOf(kSync)}, Handle(TevdClockCorrelator_Sync, kSync));
  clock.Advance(60);
  // An unreadable step does not re-enable sync, but suppresses itself.
  EXPECT_EQ(Ids{},
            Handle(TevdClockCorrelator_Sync, "tev.clock.correction.step.unsync", {S("x"), I(5)}));
  clock.Advance(60);
  EXPECT_EQ(Ids{}, Handle(TevdClockCorrelator_Sync, kSync));
  EXPECT_EQ(Ids{},
            Handle(TevdClockCorrelator_Sync, "tev.clock.correction.step.unsync", {I(1), I(5)}));
  const char *param = "tev.clock.parameter.set.numLargeCorrections";
  EXPECT_EQ(Ids{}, Handle(TevdClockCorrelator_SetValue, param, {}));
  EXPECT_EQ(Ids{}, Handle(TevdClockCorrelator_SetValue, param, {S("three")}));
  EXPECT_EQ(Ids{EventOf(param)}, Handle(TevdClockCorrelator_SetValue, param, {I(3)}));
  const char *delta = "tev.clock.correction.delta.warning";
  EXPECT_EQ(Ids{}, Handle(TevdClockCorrelator_CorrectionDelta, delta, {I(1), I(2), I(3)}));
  EXPECT_EQ(Ids{EventOf(delta)}, Handle(TevdClockCorrelator_CorrectionDelta, delta,
                                        {I(1), I(2), I(3), I(4), I(5), I(6)}));
}

// One row per argument shape: the wire carries the values in message order
// and the log line is the template filled in (nanoseconds padded to nine).
TEST_F(ClockTest, EventsCarryTheirValuesInMessageOrder) {
  struct Case {
    TevHandler handler;
    const char *id;
    std::vector<MsgFmt_Value> args;
    const char *logged;
  } cases[] = {
      {TevdClockCorrelator_CorrectionDelta,
       "tev.clock.correction.delta.warning",
       {I(1700000000), I(5000), I(40), I(30), I(2), I(4)},
       "[kos.problem.clock.correction.delta.warning] system clock stepped to "
       "1700000000.000005000, but delta 40 > 30 seconds, 2/4 large corrections\n"},
      {TevdClockCorrelator_CorrectionDelta,
       "tev.clock.correction.delta.failed",
       {I(1700000001), I(7), I(41), I(31), I(3)},
       "[kos.problem.clock.correction.delta.failed] system clock step to 1700000001.000000007 "
       "failed, delta 41 > 31 seconds, number of large corrections > 3\n"},
      {TevdClockCorrelator_Sync,
       "tev.clock.correction.step.unsync",
       {I(1700000003), I(123456789)},
       "[kos.problem.clock.correction.step.unsync] system clock stepped to 1700000003.123456789, "
       "lost sync to upstream time servers\n"},
      {TevdClockCorrelator_SetValue,
       "tev.clock.parameter.set.maxNegPhaseCorrection",
       {I(-100)},
       "[kos.problem.clock.parameter.set.maxNegPhaseCorrection] setting system clock parameter "
       "maxNegPhaseCorrection to -100\n"},
  };
  for (const Case &c : cases) {
    auto tev = MakeTev(c.id, c.args);
    c.handler(tev.get());
    auto got = events.Take();
    ASSERT_EQ(1u, got.size()) << c.id;
    EXPECT_EQ(ArgsText(c.args), ArgsText(got[0].args)) << c.id;
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
