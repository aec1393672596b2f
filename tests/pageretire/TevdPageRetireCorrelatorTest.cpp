// Page retirement correlator: threshold arithmetic, the once-per-run report,
// firmware forwarding gated per call, and the machine-check kill (count, span,
// pruning, retries). Time moves only through the fake clock.
#include <gtest/gtest.h>

#include <sstream>
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
const char kRequestId[] = "tev.pageretire.platform.retire.request";
const char kApei[] = "platform/options/PageRetire/ApeiLoggingEnabled";

class PageRetireTest : public ::testing::Test {
 protected:
  void SetUp() override {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Options("1000", "10");
    root.Write(kApei, "1");
    root.Write("platform/vms/7/name", "web01");
  }
  void Options(const char *threshold, const char *interval) {
    root.Write("platform/nodes/system/pageRetire/threshold", threshold);
    root.Write("platform/options/PageRetire/ThresholdInterval", interval);
    TevdPageRetireCorrelator_Init();
  }
  void Run(TevHandler handler, const char *id, const std::vector<MsgFmt_Value> &args) {
    auto tev = MakeTev(id, args);
    handler(tev.get());
  }
  void Inject(uint32_t page, int32_t vm, int times = 1) {
    for (int i = 0; i < times; i++) {
      Run(TevdPageRetireCorrelatorMceInjected, "tev.pageretire.mce.injected", {U(page), I(vm)});
    }
  }
  // Fifty injections spanning two seconds: the record qualifies for a kill.
  void Qualify(uint32_t page, int32_t vm) {
    Inject(page, vm);
    clock.Advance(2);
    Inject(page, vm, 49);
  }
  // Posted events as "id-suffix arg arg" (kill events by their arguments only).
  Evs Posted() {
    Evs out;
    for (const QprobMessage &m : events.Take()) {
      std::string e = m.id == "kos.problem.pageretire.mce.injected.2" ? "kill" : m.id.substr(23);
      for (const std::string &a : ArgsText(m.args)) e += " " + a;
      out.push_back(e);
    }
    return out;
  }
  std::string Killed(int32_t vm) {
    std::string v;
    if (!root.Read("platform/vms/" + std::to_string(vm) + "/killed", &v)) return "<absent>";
    return v.substr(0, v.find('\n'));
  }

  tevdtest::ScratchRoot root;
  tevdtest::FakeClock clock;
  tevdtest::EventCapture events;
};

TEST_F(PageRetireTest, ThresholdReportsFirstCrossingThenEachIntervalStep) {
  const struct {
    const char *threshold, *interval;
    const char *steps;  // selected counts, '+' when it posts (N, T)
  } cases[] = {
      // A further event needs N - T*I/100 >= the last reported N; N = T is not above T.
      {"1000", "10", "999 1000 1001+ 1100 1101+ 1101 1200 1201+"},
      // T*I/100 = 2000 > N: N - 2000 wraps, so every N above T reports.
      {"1000", "200", "1001+ 1002+ 1001+ 1000"},
      // T = 2^62: T*I wraps to 2^63 before the division.
      {"4611686018427387904", "10",
       "4611686018427387905+ 4703919738795935662 4703919738795935663+"},
  };
  for (const auto &c : cases) {
    Options(c.threshold, c.interval);
    std::istringstream steps(c.steps);
    for (std::string step; steps >> step;) {
      bool posts = step.back() == '+';
      uint64_t n = std::stoull(step);
      Run(TevdPageRetireCorrelatorSelectedThreshold, kThresholdId, {UL(n)});
      EXPECT_EQ(posts ? Evs{"selectedmpnthreshold.host.exceeded UL:" + std::to_string(n) +
                            " UL:" + c.threshold}
                      : Evs{},
                Posted())
          << c.interval << " " << step;
    }
  }
}

TEST_F(PageRetireTest, OtherIdentifiersAndUnreadableArgumentsAreIgnored) {
  const auto threshold = TevdPageRetireCorrelatorSelectedThreshold;
  const auto request = TevdPageRetireCorrelatorPlatformRequest;
  Run(threshold, "tev.pageretire.selectedmpnthreshold.host.other", {UL(5000)});
  Run(threshold, kThresholdId, {});
  Run(threshold, kThresholdId, {S("5000")});
  Run(request, "tev.pageretire.platform.retire.requested", {S("F"), S("L")});
  Run(request, kRequestId, {I(1), I(2)});
  EXPECT_EQ(Evs{}, Posted());
  Run(threshold, kThresholdId, {UL(1001)});  // nothing was recorded: the first still reports
  EXPECT_EQ(1u, Posted().size());
}

TEST_F(PageRetireTest, NotRetiredReportedOncePerRunOnceItsCountIsRead) {
  for (const MsgFmt_Value &count : {S("many"), UL(77), UL(77), UL(5000)}) {
    Run(TevdPageRetireCorrelatorSelectedNotRetired, "tev.pageretire.selectedbutnotretired.high",
        {count});
  }
  EXPECT_EQ(Evs{"selectedbutnotretired.high UL:77"}, Posted());
}

TEST_F(PageRetireTest, FirmwareRequestGatedByApeiLoggingReadOnEveryCall) {
  for (const char *apei : {"1", "0", "1", "0"}) {
    root.Write(kApei, apei);
    Run(TevdPageRetireCorrelatorPlatformRequest, kRequestId, {S("DIMM_A1"), S("SEL 0x1f")});
    EXPECT_EQ(*apei == '1' ? Evs{"platform.retire.request S:DIMM_A1 S:SEL 0x1f"} : Evs{}, Posted());
  }
}

TEST_F(PageRetireTest, MissingOptionsAreFatal) {
  const struct {
    const char *file;
    int line;
  } rows[] = {{"platform/nodes/system/pageRetire/threshold", 178},
              {"platform/options/PageRetire/ThresholdInterval", 189},
              {kApei, 126}};  // read on each firmware request rather than at start
  for (const auto &r : rows) {
    root.Remove(r.file);
    std::string panic =
        "Panic: NOT_REACHED apps/tevd/tevdPageRetireCorrelator:" + std::to_string(r.line);
    auto tev = MakeTev(kRequestId, {S("F"), S("L")});
    if (r.line == 126) {
      EXPECT_DEATH(TevdPageRetireCorrelatorPlatformRequest(tev.get()), panic);
    } else {
      EXPECT_DEATH(TevdPageRetireCorrelator_Init(), panic);
    }
    SetUp();
  }
}

// ---- injected machine checks ----

TEST_F(PageRetireTest, KillsAtTheFiftiethInjectionSpanningTwoSecondsAndNeverTwice) {
  tevdtest::LogLines log(root);
  Inject(0x1234, 7);
  clock.Advance(2);
  Inject(0x1234, 7, 48);
  EXPECT_EQ(Evs{}, Posted());
  EXPECT_EQ("<absent>", Killed(7));
  Inject(0x1234, 7);
  EXPECT_EQ(Evs{"kill S:web01 I:50 U:4660"}, Posted());
  EXPECT_EQ("0", Killed(7));
  EXPECT_NE("", log.WaitFor("[kos.problem.pageretire.mce.injected.2] Killing web01 because at "
                            "least 50 uncorrectable memory error machine check exceptions were "
                            "injected for guest physical page 0x1234 but the virtual machine's "
                            "operating system kept using the page.\n"));
  root.Remove("platform/vms/7/killed");
  clock.Advance(5);
  Inject(0x1234, 7, 10);
  EXPECT_EQ(Evs{}, Posted());
  EXPECT_EQ("<absent>", Killed(7));
}

TEST_F(PageRetireTest, FiftyWithinTwoSecondsWaitForALaterInjection) {
  Inject(0x10, 7, 50);
  clock.Advance(1);
  Inject(0x10, 7);
  EXPECT_EQ(Evs{}, Posted());  // a span of 1 second must not kill
  clock.Advance(1);
  Inject(0x10, 7);
  EXPECT_EQ(Evs{"kill S:web01 I:52 U:16"}, Posted());
}

TEST_F(PageRetireTest, InjectionsCountPerPageNotPerVirtualMachine) {
  Inject(0x1, 7);
  Inject(0x2, 7);
  clock.Advance(3);
  Inject(0x1, 7, 30);
  Inject(0x2, 7, 30);
  EXPECT_EQ(62, TevdPageRetireCorrelator_EntriesForTest(7));
  EXPECT_EQ(Evs{}, Posted());
}

TEST_F(PageRetireTest, EntriesOlderThanSixtySecondsArePrunedOnAnyInjection) {
  Inject(0x20, 7, 49);
  clock.Advance(60);
  Inject(0x20, 8);  // exactly 60 s old: kept
  EXPECT_EQ(49, TevdPageRetireCorrelator_EntriesForTest(7));
  clock.Advance(1);
  Inject(0x20, 7);
  EXPECT_EQ(1, TevdPageRetireCorrelator_EntriesForTest(7));
  clock.Advance(61);
  Inject(0x20, 8);  // an emptied record goes away
  EXPECT_EQ(-1, TevdPageRetireCorrelator_EntriesForTest(7));
  EXPECT_EQ(1, TevdPageRetireCorrelator_EntriesForTest(8));
  EXPECT_EQ(Evs{}, Posted());
}

TEST_F(PageRetireTest, PendingKillsAreRetriedOnAnyInjectionInVirtualMachineIdOrder) {
  Inject(0x60, 9);
  Qualify(0x60, 5);  // both qualify while their machines cannot be looked up
  Inject(0x60, 9, 49);
  EXPECT_EQ(Evs{}, Posted());
  root.Write("platform/vms/9/name", "nine");
  root.Write("platform/vms/5/name", "five");
  Inject(0x61, 3);  // the walk acts at the first entry that qualifies: the 50th
  EXPECT_EQ((Evs{"kill S:five I:50 U:96", "kill S:nine I:50 U:96"}), Posted());
  EXPECT_EQ("0", Killed(5));
  EXPECT_EQ("0", Killed(9));
}

TEST_F(PageRetireTest, FailedKillStillMarksKilledUntilTheRecordAgesOut) {
  root.MakeDir("platform/vms/7/killed");  // the kill's write fails
  Qualify(0x40, 7);
  EXPECT_EQ(1u, Posted().size());
  EXPECT_TRUE(TevdPageRetireCorrelator_KilledForTest(7));
  Inject(0x40, 7, 5);
  EXPECT_EQ(Evs{}, Posted());
  clock.Advance(61);
  Inject(0x40, 7);
  EXPECT_FALSE(TevdPageRetireCorrelator_KilledForTest(7));
  clock.Advance(2);
  Inject(0x40, 7, 49);
  EXPECT_EQ(1u, Posted().size());
}

TEST_F(PageRetireTest, UnreadableInjectionPrunesButEndsBeforeEvaluating) {
  auto unreadable = MakeTev("tev.pageretire.mce.injected", {S("0x70"), I(9)});
  Qualify(0x70, 9);  // qualifies, but the machine is not there yet
  Inject(0x71, 4);
  clock.Advance(61);
  root.Write("platform/vms/9/name", "late");
  TevdPageRetireCorrelatorMceInjected(unreadable.get());
  EXPECT_EQ(-1, TevdPageRetireCorrelator_EntriesForTest(9));  // every record emptied
  EXPECT_EQ(-1, TevdPageRetireCorrelator_EntriesForTest(4));
  root.Remove("platform/vms/9");
  Qualify(0x70, 9);
  root.Write("platform/vms/9/name", "late");
  TevdPageRetireCorrelatorMceInjected(unreadable.get());  // within the window: adds nothing
  EXPECT_EQ(50, TevdPageRetireCorrelator_EntriesForTest(9));
  EXPECT_EQ(Evs{}, Posted());
  Inject(0x72, 9);  // the next readable one acts
  EXPECT_EQ(Evs{"kill S:late I:50 U:112"}, Posted());
}

TEST_F(PageRetireTest, MapRoutesKnownIdentifiersAndIgnoresOthers) {
  TevHandlerMap map = TevdPageRetireCorrelator_BuildMap();
  for (const char *id : {kThresholdId, "tev.pageretire.other"}) {
    auto tev = MakeTev(id, {UL(2000)});
    TevdCorrelator_Dispatch(TevdPageRetireCorrelatorDefault, map, tev.get());
  }
  Inject(0x80, 7);
  EXPECT_EQ(1u, Posted().size());
}

}  // namespace
