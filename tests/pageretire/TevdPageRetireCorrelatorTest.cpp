// Page retirement correlator: threshold arithmetic, the once-per-run report,
// firmware forwarding gated per call, and the machine-check kill (count, span,
// pruning, library failures). Expected events are literal texts decoded from
// the wire; time moves only through the fake clock.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Harness.h"
#include "TevdTestSupport.h"
#include "tevdCorrelator.h"
#include "tevdPageRetireCorrelator.h"

using tevdtest::ArgsText;
using tevdtest::I;
using tevdtest::MakeTev;
using tevdtest::S;
using tevdtest::U;
using tevdtest::UL;

namespace {

using Evs = std::vector<std::string>;
const char kThresholdId[] = "tev.pageretire.selectedmpnthreshold.host.exceeded";
const char kNotRetiredId[] = "tev.pageretire.selectedbutnotretired.high";
const char kRequestId[] = "tev.pageretire.platform.retire.request";
const char kMceId[] = "tev.pageretire.mce.injected";
const char kKillEvent[] = "kos.problem.pageretire.mce.injected.2";

class PageRetireTest : public ::testing::Test {
 protected:
  void SetUp() override {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    root.Write("platform/nodes/system/pageRetire/threshold", "1000");
    root.Write("platform/options/PageRetire/ThresholdInterval", "10");
    root.Write("platform/options/PageRetire/ApeiLoggingEnabled", "1");
    root.Write("platform/vms/7/name", "web01");
    TevdPageRetireCorrelator_Init();
  }

  void Selected(uint64_t n) {
    auto tev = MakeTev(kThresholdId, {UL(n)});
    TevdPageRetireCorrelatorSelectedThreshold(tev.get());
  }
  void Inject(uint32_t page, int32_t vm, int times = 1) {
    for (int i = 0; i < times; i++) {
      auto tev = MakeTev(kMceId, {U(page), I(vm)});
      TevdPageRetireCorrelatorMceInjected(tev.get());
    }
  }
  // Fifty injections spanning two seconds: the record qualifies for a kill.
  void Qualify(uint32_t page, int32_t vm) {
    Inject(page, vm);
    clock.Advance(2);
    Inject(page, vm, 49);
  }
  struct ThresholdStep {
    uint64_t n;
    bool posts;
  };
  // Feeds each N in turn and checks whether it posted (N, T).
  void RunThresholdSteps(uint64_t threshold, const std::vector<ThresholdStep> &steps) {
    for (const ThresholdStep &step : steps) {
      Selected(step.n);
      auto got = events.Take();
      if (!step.posts) {
        EXPECT_TRUE(got.empty()) << "N=" << step.n;
        continue;
      }
      ASSERT_EQ(1u, got.size()) << "N=" << step.n;
      EXPECT_EQ("kos.problem.pageretire.selectedmpnthreshold.host.exceeded", got[0].id);
      EXPECT_EQ((std::vector<std::string>{"UL:" + std::to_string(step.n),
                                          "UL:" + std::to_string(threshold)}),
                ArgsText(got[0].args))
          << "N=" << step.n;
    }
  }
  // Posted kill events as their argument texts.
  std::vector<std::string> Kills() {
    std::vector<std::string> out;
    for (const QprobMessage &m : events.Take()) {
      std::string e = m.id == kKillEvent ? "" : m.id + " ";
      for (const std::string &a : ArgsText(m.args)) e += a + " ";
      out.push_back(e);
    }
    return out;
  }
  std::string Killed(int32_t vm) {
    std::string v;
    if (!root.Read("platform/vms/" + std::to_string(vm) + "/killed", &v)) {
      return "<absent>";
    }
    return v.substr(0, v.find('\n'));
  }

  tevdtest::ScratchRoot root;
  tevdtest::FakeClock clock;
  tevdtest::EventCapture events;
};

}  // namespace

// ---- selection threshold ------------------------------------------------------

TEST_F(PageRetireTest, ReportsFirstCrossingThenEachIntervalStep) {
  struct Case {
    const char *threshold;
    const char *interval;
    std::vector<ThresholdStep> steps;
  } cases[] = {
      // A further event needs N - T*I/100 >= the last reported N; N = T is not above T.
      {"1000",
       "10",
       {{999, false},
        {1000, false},
        {1001, true},
        {1100, false},
        {1101, true},
        {1101, false},
        {1200, false},
        {1201, true}}},
      // T*I/100 = 2000 > N: N - 2000 wraps, so every N above T reports.
      {"1000", "200", {{1001, true}, {1002, true}, {1001, true}, {1000, false}}},
      // T = 2^62: T*I wraps to 2^63 before the division.
      {"4611686018427387904",
       "10",
       {{4611686018427387905ull, true},
        {4703919738795935662ull, false},
        {4703919738795935663ull, true}}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.interval);
    root.Write("platform/nodes/system/pageRetire/threshold", c.threshold);
    root.Write("platform/options/PageRetire/ThresholdInterval", c.interval);
    TevdPageRetireCorrelator_Init();
    RunThresholdSteps(std::stoull(c.threshold), c.steps);
  }
}

TEST_F(PageRetireTest, OtherIdentifierOrMissingArgumentIsIgnored) {
  auto other = MakeTev("tev.pageretire.selectedmpnthreshold.host.other", {UL(5000)});
  TevdPageRetireCorrelatorSelectedThreshold(other.get());
  auto noArg = MakeTev(kThresholdId, {});
  TevdPageRetireCorrelatorSelectedThreshold(noArg.get());
  auto stringArg = MakeTev(kThresholdId, {S("5000")});
  TevdPageRetireCorrelatorSelectedThreshold(stringArg.get());
  EXPECT_EQ(0u, events.Count());
  // Nothing was recorded: the first crossing still reports.
  RunThresholdSteps(1000, {{1001, true}});
}

// ---- selected but not retired ------------------------------------------------

TEST_F(PageRetireTest, NotRetiredReportedOncePerRunOnceItsCountIsRead) {
  for (const MsgFmt_Value &count : {S("many"), UL(77), UL(77), UL(5000)}) {
    auto tev = MakeTev(kNotRetiredId, {count});
    TevdPageRetireCorrelatorSelectedNotRetired(tev.get());
  }
  auto got = events.Take();
  ASSERT_EQ(1u, got.size());
  EXPECT_EQ("kos.problem.pageretire.selectedbutnotretired.high", got[0].id);
  EXPECT_EQ((std::vector<std::string>{"UL:77"}), ArgsText(got[0].args));
}

// ---- firmware request -------------------------------------------------------

TEST_F(PageRetireTest, FirmwareRequestGatedByApeiLoggingReadOnEveryCall) {
  struct Step {
    const char *apei;
    bool posts;
  } steps[] = {{"1", true}, {"0", false}, {"1", true}, {"0", false}};
  for (const Step &step : steps) {
    root.Write("platform/options/PageRetire/ApeiLoggingEnabled", step.apei);
    auto tev = MakeTev(kRequestId, {S("DIMM_A1"), S("SEL 0x1f")});
    TevdPageRetireCorrelatorPlatformRequest(tev.get());
    auto got = events.Take();
    if (!step.posts) {
      EXPECT_TRUE(got.empty()) << "ApeiLoggingEnabled=" << step.apei;
      continue;
    }
    ASSERT_EQ(1u, got.size());
    EXPECT_EQ("kos.problem.pageretire.platform.retire.request", got[0].id);
    EXPECT_EQ((std::vector<std::string>{"S:DIMM_A1", "S:SEL 0x1f"}), ArgsText(got[0].args));
  }
  auto other = MakeTev("tev.pageretire.platform.retire.requested", {S("F"), S("L")});
  TevdPageRetireCorrelatorPlatformRequest(other.get());
  auto noStrings = MakeTev(kRequestId, {I(1), I(2)});
  TevdPageRetireCorrelatorPlatformRequest(noStrings.get());
  EXPECT_EQ(0u, events.Count());
}

// ---- fatal reads --------------------------------------------------------------

TEST_F(PageRetireTest, MissingOptionsAreFatal) {
  struct Row {
    const char *file;
    int line;
    bool onRequest;  // read on each firmware request rather than at start
  } rows[] = {{"platform/nodes/system/pageRetire/threshold", 178, false},
              {"platform/options/PageRetire/ThresholdInterval", 189, false},
              {"platform/options/PageRetire/ApeiLoggingEnabled", 126, true}};
  for (const Row &r : rows) {
    root.Remove(r.file);
    auto tev = MakeTev(kRequestId, {S("F"), S("L")});
    std::string panic =
        "Tevd - Panic: NOT_REACHED apps/tevd/tevdPageRetireCorrelator:" + std::to_string(r.line);
    if (r.onRequest) {
      EXPECT_DEATH(TevdPageRetireCorrelatorPlatformRequest(tev.get()), panic);
    } else {
      EXPECT_DEATH(TevdPageRetireCorrelator_Init(), panic);
    }
    SetUp();
  }
}

// ---- injected machine checks -------------------------------------------------

TEST_F(PageRetireTest, KillsAtFiftiethInjectionSpanningTwoSecondsAndNeverTwice) {
  tevdtest::LogLines log(root);
  Inject(0x1234, 7);
  clock.Advance(2);
  Inject(0x1234, 7, 48);
  EXPECT_EQ(0u, events.Count()) << "49 injections must not kill";
  EXPECT_FALSE(TevdPageRetireCorrelator_KilledForTest(7));
  EXPECT_EQ("<absent>", Killed(7));

  Inject(0x1234, 7);
  EXPECT_EQ(Evs{"S:web01 I:50 U:4660 "}, Kills());
  EXPECT_EQ("0", Killed(7));
  EXPECT_TRUE(TevdPageRetireCorrelator_KilledForTest(7));
  EXPECT_NE("", log.WaitFor("[kos.problem.pageretire.mce.injected.2] Killing web01 because at "
                            "least 50 uncorrectable memory error machine check exceptions were "
                            "injected for guest physical page 0x1234 but the virtual machine's "
                            "operating system kept using the page.\n"));

  root.Remove("platform/vms/7/killed");
  clock.Advance(5);
  Inject(0x1234, 7, 10);
  EXPECT_EQ(0u, events.Count());
  EXPECT_EQ("<absent>", Killed(7));
}

TEST_F(PageRetireTest, FiftyWithinTwoSecondsWaitForALaterInjection) {
  Inject(0x10, 7, 50);
  clock.Advance(1);
  Inject(0x10, 7);
  EXPECT_EQ(0u, events.Count()) << "a span of 1 second must not kill";
  clock.Advance(1);
  Inject(0x10, 7);
  EXPECT_EQ(Evs{"S:web01 I:52 U:16 "}, Kills());
}

TEST_F(PageRetireTest, InjectionsCountPerPageNotPerVirtualMachine) {
  Inject(0x1, 7);
  Inject(0x2, 7);
  clock.Advance(3);
  Inject(0x1, 7, 30);
  Inject(0x2, 7, 30);
  EXPECT_EQ(62, TevdPageRetireCorrelator_EntriesForTest(7));
  EXPECT_EQ(0u, events.Count());
  EXPECT_EQ("<absent>", Killed(7));
}

TEST_F(PageRetireTest, EntriesOlderThanSixtySecondsArePruned) {
  Inject(0x20, 7, 49);
  clock.Advance(60);
  Inject(0x20, 8);  // exactly 60 s old: kept
  EXPECT_EQ(49, TevdPageRetireCorrelator_EntriesForTest(7));
  clock.Advance(1);
  Inject(0x20, 7);
  EXPECT_EQ(1, TevdPageRetireCorrelator_EntriesForTest(7));
  EXPECT_EQ(0u, events.Count());
  // Any injection prunes every record; an emptied record goes away.
  clock.Advance(61);
  Inject(0x20, 8);
  EXPECT_EQ(-1, TevdPageRetireCorrelator_EntriesForTest(7));
  EXPECT_EQ(1, TevdPageRetireCorrelator_EntriesForTest(8));
}

TEST_F(PageRetireTest, AbsentVirtualMachineIsNotKilledAndIsTriedAgain) {
  Qualify(0x30, 9);
  EXPECT_EQ(0u, events.Count());
  EXPECT_FALSE(TevdPageRetireCorrelator_KilledForTest(9));

  root.Write("platform/vms/9/name", "db02");
  Inject(0x30, 9);
  // The walk acts at the first entry that qualifies: the 50th again.
  EXPECT_EQ(Evs{"S:db02 I:50 U:48 "}, Kills());
  EXPECT_EQ("0", Killed(9));
  EXPECT_TRUE(TevdPageRetireCorrelator_KilledForTest(9));
}

TEST_F(PageRetireTest, FailedKillAfterThePostStillMarksKilled) {
  root.MakeDir("platform/vms/7/killed");  // the kill's write fails
  Qualify(0x40, 7);
  EXPECT_EQ(1u, events.Take().size());
  EXPECT_TRUE(TevdPageRetireCorrelator_KilledForTest(7));
  Inject(0x40, 7, 5);
  EXPECT_EQ(0u, events.Count());
}

TEST_F(PageRetireTest, KilledRecordAgesOutAndALaterRunKillsAgain) {
  Qualify(0x50, 7);
  ASSERT_EQ(1u, events.Take().size());
  clock.Advance(61);
  Inject(0x50, 7);
  EXPECT_FALSE(TevdPageRetireCorrelator_KilledForTest(7));
  clock.Advance(2);
  Inject(0x50, 7, 49);
  EXPECT_EQ(1u, events.Take().size());
}

TEST_F(PageRetireTest, PendingKillsAreRetriedOnAnyInjectionInVirtualMachineIdOrder) {
  // Two records qualify while their machines cannot be looked up.
  Inject(0x60, 9);
  Qualify(0x60, 5);
  Inject(0x60, 9, 49);
  EXPECT_EQ(0u, events.Count());
  root.Write("platform/vms/9/name", "nine");
  root.Write("platform/vms/5/name", "five");
  // An injection into a third machine evaluates every record, lowest id first.
  Inject(0x61, 3);
  EXPECT_EQ((Evs{"S:five I:50 U:96 ", "S:nine I:50 U:96 "}), Kills());
  EXPECT_EQ("0", Killed(5));
  EXPECT_EQ("0", Killed(9));
}

TEST_F(PageRetireTest, UnreadableInjectionPrunesButEndsBeforeEvaluating) {
  Qualify(0x70, 9);  // qualifies, but the machine is not there yet
  EXPECT_EQ(0u, events.Count());
  Inject(0x71, 4);
  clock.Advance(61);
  root.Write("platform/vms/9/name", "late");
  auto unreadable = MakeTev(kMceId, {S("0x70"), I(9)});
  TevdPageRetireCorrelatorMceInjected(unreadable.get());
  // Pruning ran (every record emptied), so nothing is left to act on.
  EXPECT_EQ(-1, TevdPageRetireCorrelator_EntriesForTest(9));
  EXPECT_EQ(-1, TevdPageRetireCorrelator_EntriesForTest(4));
  EXPECT_EQ(0u, events.Count());

  // Within the window, an unreadable injection neither adds nor evaluates.
  Inject(0x70, 9);
  clock.Advance(2);
  root.Remove("platform/vms/9");
  Inject(0x70, 9, 49);
  root.Write("platform/vms/9/name", "late");
  TevdPageRetireCorrelatorMceInjected(unreadable.get());
  EXPECT_EQ(50, TevdPageRetireCorrelator_EntriesForTest(9));
  EXPECT_EQ(0u, events.Count());
  EXPECT_FALSE(TevdPageRetireCorrelator_KilledForTest(9));
  // The next readable one acts.
  Inject(0x72, 9);
  EXPECT_EQ(1u, events.Take().size());
  EXPECT_EQ("0", Killed(9));
}

// ---- dispatch -------------------------------------------------------------------

TEST_F(PageRetireTest, MapRoutesKnownIdentifiersAndIgnoresOthers) {
  TevHandlerMap map = TevdPageRetireCorrelator_BuildMap();
  EXPECT_EQ(4u, map.size());
  EXPECT_EQ(TevdPageRetireCorrelatorMceInjected, map[kMceId]);
  for (const char *id : {kThresholdId, "tev.pageretire.other"}) {
    auto tev = MakeTev(id, {UL(2000)});
    TevdCorrelator_Dispatch(TevdPageRetireCorrelatorDefault, map, tev.get());
  }
  EXPECT_EQ(1u, events.Count());
}
