// Link flapping: a 60-second window of link-downs per NIC against the
// "Net"/"LinkFlappingThreshold" option, and the kernel write that takes the
// NIC down, all through the scratch host model and the fake clock.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "TevdTestSupport.h"
#include "tevdAlarm.h"
#include "tevdCorrelator.h"
#include "tevdNetCorrelator.h"

using tevdtest::S;

namespace {

const char kThreshold[] = "platform/options/Net/LinkFlappingThreshold";
const char kNode[] = "platform/nodes/net/pNics/hwnic0/linkFlapping";

class LinkFlapTest : public ::testing::Test {
 protected:
  void SetUp() override {
    TevdAlarm_ResetForTest();
    TevdNetCorrelator_ResetForTest();
    root_.Write(kThreshold, "3");
    root_.MakeDir("platform/nodes/net/pNics/hwnic0");
  }
  void TearDown() override {
    TevdNetCorrelator_ResetForTest();
    TevdAlarm_ResetForTest();
  }
  // Link-downs at the given seconds after the start; returns the events posted.
  size_t DownsAt(const std::vector<int> &seconds) {
    for (int s : seconds) {
      clock_.Advance(s - now_);
      now_ = s;
      TevdNetCorrelatorNoteLinkDown("hwnic0");
    }
    return capture_.Take().size();
  }
  size_t History() { return tevdNet.hwnicFlapHistory["hwnic0"].size(); }

  tevdtest::ScratchRoot root_;
  tevdtest::FakeClock clock_;
  tevdtest::EventCapture capture_;
  int now_ = 0;
};

TEST_F(LinkFlapTest, DownsAboveTheThresholdWithinSixtySecondsTakeTheNicDown) {
  struct Row {
    const char *threshold;  // nullptr: the option is absent
    std::vector<int> downs;
    size_t posted;
    size_t history;
  } rows[] = {
      {"3", {0, 10, 20}, 0, 3},
      {"3", {0, 10, 20, 30}, 1, 0},  // the fourth: posted, history emptied
      {"3", {0, 10, 20, 60}, 1, 0},  // exactly 60 s old still counts
      {"3", {0, 10, 20, 61}, 0, 3},  // older is pruned
      {"3", {0, 1, 2, 3, 4, 5, 6, 7}, 2, 0},
      {"0", {0, 1, 2, 3, 4, 5, 6, 7, 8, 9}, 0, 10},  // 0: never, but still recorded
      {"0", {0, 1, 2, 70}, 0, 1},
      {nullptr, {0, 1, 2, 3, 4}, 0, 5},
  };
  for (const Row &r : rows) {
    SCOPED_TRACE(::testing::Message()
                 << (r.threshold ? r.threshold : "absent") << " x" << r.downs.size());
    TevdNetCorrelator_ResetForTest();
    if (r.threshold) root_.Write(kThreshold, r.threshold);
    else root_.Remove(kThreshold);
    root_.Remove(kNode);
    EXPECT_EQ(r.posted, DownsAt(r.downs));
    EXPECT_EQ(r.history, History());
    std::string value;
    EXPECT_EQ(r.posted > 0, root_.Read(kNode, &value));
    EXPECT_EQ(r.posted > 0 ? "1" : "", value.substr(0, 1));
  }
}

TEST_F(LinkFlapTest, PostsTheNicName) {
  DownsAt({0, 1, 2});
  TevdNetCorrelatorNoteLinkDown("hwnic0");
  std::vector<QprobMessage> events = capture_.Take();
  ASSERT_EQ(1u, events.size());
  EXPECT_EQ("kos.problem.net.hwnic.linkstate.flapping", events[0].id);
  EXPECT_EQ(std::vector<std::string>{"S:hwnic0"}, tevdtest::ArgsText(events[0].args));
}

TEST_F(LinkFlapTest, FailedKernelWritePostsNothingButStillEmptiesHistory) {
  root_.Remove("platform/nodes/net/pNics");
  EXPECT_EQ(0u, DownsAt({0, 1, 2, 3}));
  EXPECT_EQ(0u, History());
}

TEST_F(LinkFlapTest, ThresholdIsReadAnewOnEveryLinkDown) {
  root_.Write(kThreshold, "10");
  EXPECT_EQ(0u, DownsAt({0, 1, 2, 3}));
  root_.Write(kThreshold, "3");
  EXPECT_EQ(1u, DownsAt({4}));
}

TEST_F(LinkFlapTest, HistoriesAreKeptPerNic) {
  DownsAt({0, 1});
  TevdNetCorrelatorNoteLinkDown("hwnic1");
  TevdNetCorrelatorNoteLinkDown("hwnic1");
  EXPECT_EQ(0u, DownsAt({2}));
  EXPECT_EQ(2u, tevdNet.hwnicFlapHistory["hwnic1"].size());
  EXPECT_EQ(3u, History());
}

TEST_F(LinkFlapTest, LinkDownObservationFeedsTheDetector) {
  TevHandlerMap map = TevdNetCorrelator_BuildMap();
  int fd = -1;
  ASSERT_TRUE(TevdNetCorrelator_Prepare(&fd));
  for (int i = 0; i < 4; i++) {
    tevdtest::TevPtr tev = tevdtest::MakeTev("tev.net.hwnic.linkstate.down", {S("hwnic0")});
    TevdCorrelator_Dispatch(TevdNetCorrelatorIgnore, map, tev.get());
  }
  EXPECT_EQ(1u, capture_.Count());
}

}  // namespace
