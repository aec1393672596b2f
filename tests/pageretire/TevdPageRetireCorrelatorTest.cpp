// Page retirement correlator: threshold arithmetic, the once-per-run report,
// firmware forwarding gated per call, and the machine-check kill.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "Harness.h"
#include "tevdCorrelator.h"
#include "tevdPageRetireCorrelator.h"

using namespace tevdtest;

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
  // Posted events as "id-suffix arg arg", kills as "name/count/page" (typed S, I, U).
  Evs Posted() {
    Evs out;
    for (const QprobMessage &m : events.Take()) {
      const bool kill = m.id == "kos.problem.pageretire.mce.injected.2";
      std::string e = kill ? "" : m.id.substr(23), types;
      for (const std::string &a : ArgsText(m.args)) {
        e += kill ? (e.empty() ? "" : "/") + a.substr(2) : " " + a;
        types += a.substr(0, 2);
      }
      EXPECT_TRUE(!kill || types == "S:I:U:") << types;
      out.push_back(e);
    }
    return out;
  }
  std::string Killed(int32_t vm) {
    std::string v;
    if (!root.Read("platform/vms/" + std::to_string(vm) + "/killed", &v)) return "<absent>";
    return v.substr(0, v.find('\n'));
  }

  ScratchRoot root;
  FakeClock clock;
  EventCapture events;
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
  // Nothing was recorded: the first crossing, through the map, still reports.
  TevHandlerMap map = TevdPageRetireCorrelator_BuildMap();
  for (const char *id : {kThresholdId, "tev.pageretire.other"}) {
    auto tev = MakeTev(id, {UL(1001)});
    TevdCorrelator_Dispatch(TevdPageRetireCorrelatorDefault, map, tev.get());
  }
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
  const std::string panic = "Panic: NOT_REACHED apps/tevd/tevdPageRetireCorrelator:";
  root.Remove("platform/nodes/system/pageRetire/threshold");
  EXPECT_DEATH(TevdPageRetireCorrelator_Init(), panic + "178");
  SetUp();
  root.Remove("platform/options/PageRetire/ThresholdInterval");
  EXPECT_DEATH(TevdPageRetireCorrelator_Init(), panic + "189");
  SetUp();
  root.Remove(kApei);  // read on each firmware request rather than at start
  auto tev = MakeTev(kRequestId, {S("F"), S("L")});
  EXPECT_DEATH(TevdPageRetireCorrelatorPlatformRequest(tev.get()), panic + "126");
}

// ---- injected machine checks ----

// Steps: "+N" moves the clock; "iVM:PAGE*N" N injections; "uVM" one unreadable
// injection; "nVM=NAME" names the machine, "dVM" makes its kill fail, "rVM"
// lets it succeed again; "kVM"/"-VM" its kill file holds 0 or is absent;
// "#NAME/COUNT/PAGE,..." the kills posted since the last "#" ("#": none).
TEST_F(PageRetireTest, KillsAtTheFiftiethInjectionOfAPageSpanningTwoSeconds) {
  const struct {
    const char *name, *steps;
  } stories[] = {
      {"the fiftieth, never twice",
       "i7:4660 +2 i7:4660*48 # -7 i7:4660 #web01/50/4660 k7 r7 +5 i7:4660*10 # -7"},
      {"fifty within 2 s wait for a later one", "i7:16*50 +1 i7:16 # +1 i7:16 #web01/52/16"},
      {"counted per page, not per machine", "i7:1 i7:2 +3 i7:1*30 i7:2*30 # i7:1*19 #web01/50/1"},
      // Machine 6 and 5 are absent at their fiftieth: kept, not killed, retried.
      {"entries 60 s old kept, older ones pruned by any machine's injection",
       "i6:32*49 +2 i6:32 +58 n6=six i8:40 #six/50/32"
       " i5:48*49 +2 i5:48 +59 i8:40 n5=five i8:41 #"},
      {"absent machines retried on any injection, in id order",
       "i9:96 i5:96 +2 i5:96*49 i9:96*49 # n9=nine n5=five i3:97 #five/50/96,nine/50/96 k5 k9"},
      {"a failed kill still marks killed until the record ages out",
       "d7 i7:64 +2 i7:64*49 #web01/50/64 i7:64*5 # +61 i7:64 +2 i7:64*49 #web01/50/64"},
      // Its page would be 0x70 = 112: counted, the kill would say 51.
      {"an unreadable injection neither counts nor evaluates",
       "i9:112 +2 i9:112*49 n9=late u9 # i9:114 #late/50/112"},
  };
  for (const auto &story : stories) {
    SCOPED_TRACE(story.name);
    root.Remove("platform/vms");
    root.Write("platform/vms/7/name", "web01");
    TevdPageRetireCorrelator_Init();
    std::istringstream in(story.steps);
    for (std::string step; in >> step;) {
      const std::string arg = step.substr(1);
      const int vm = arg.empty() || step[0] == '#' || step[0] == '+' ? 0 : std::stoi(arg);
      const std::string rest = arg.substr(std::min(arg.size(), arg.find_first_of(":=") + 1));
      const std::string vmDir = "platform/vms/" + std::to_string(vm);
      switch (step[0]) {
        case '+': clock.Advance(std::stoi(arg)); break;
        case 'i': {
          size_t star = rest.find('*');
          Inject(std::stoul(rest), vm,
                 star == std::string::npos ? 1 : std::stoi(rest.substr(star + 1)));
          break;
        }
        case 'u':
          Run(TevdPageRetireCorrelatorMceInjected, "tev.pageretire.mce.injected",
              {S("0x70"), I(vm)});
          break;
        case 'n': root.Write(vmDir + "/name", rest); break;
        case 'd': root.MakeDir(vmDir + "/killed"); break;
        case 'r': root.Remove(vmDir + "/killed"); break;
        case 'k': EXPECT_EQ("0", Killed(vm)) << step; break;
        case '-': EXPECT_EQ("<absent>", Killed(vm)) << step; break;
        case '#': {
          std::string want;
          for (const std::string &e : Posted()) want += (want.empty() ? "" : ",") + e;
          EXPECT_EQ(arg, want) << step;
          break;
        }
        default: FAIL() << step;
      }
    }
  }
}

}  // namespace
