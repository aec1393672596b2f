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
  // Link-downs at the given seconds after the start.
  void DownsAt(const std::vector<int> &seconds) {
    for (int s : seconds) {
      clock_.Advance(s - now_);
      now_ = s;
      TevdNetCorrelatorNoteLinkDown("hwnic0");
    }
  }
  size_t History() { return tevdNet.hwnicFlapHistory["hwnic0"].size(); }
  bool NodeWritten(std::string *value) { return root_.Read(kNode, value); }

  tevdtest::ScratchRoot root_;
  tevdtest::FakeClock clock_;
  tevdtest::EventCapture capture_;
  int now_ = 0;
};

TEST_F(LinkFlapTest, FourthLinkDownWithinWindowTakesNicDownAndEmptiesHistory) {
  DownsAt({0, 10, 20});
  EXPECT_EQ(capture_.Count(), 0u);
  std::string value;
  EXPECT_FALSE(NodeWritten(&value));
  DownsAt({30});
  std::vector<QprobMessage> events = capture_.Take();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].id, "kos.problem.net.hwnic.linkstate.flapping");
  EXPECT_EQ(tevdtest::ArgsText(events[0].args), (std::vector<std::string>{"S:hwnic0"}));
  ASSERT_TRUE(NodeWritten(&value));
  EXPECT_EQ(value.substr(0, 1), "1");
  EXPECT_EQ(History(), 0u);
}

TEST_F(LinkFlapTest, EntryOlderThanSixtySecondsIsPruned) {
  DownsAt({0, 10, 20, 61});
  EXPECT_EQ(capture_.Count(), 0u);
  EXPECT_EQ(History(), 3u);
}

TEST_F(LinkFlapTest, EntryExactlySixtySecondsOldStillCounts) {
  DownsAt({0, 10, 20, 60});
  EXPECT_EQ(capture_.Count(), 1u);
  EXPECT_EQ(History(), 0u);
}

TEST_F(LinkFlapTest, FailedKernelWritePostsNothingButStillEmptiesHistory) {
  root_.Remove("platform/nodes/net/pNics");
  DownsAt({0, 1, 2, 3});
  EXPECT_EQ(capture_.Count(), 0u);
  EXPECT_EQ(History(), 0u);
  DownsAt({4});
  EXPECT_EQ(History(), 1u);
}

TEST_F(LinkFlapTest, ThresholdZeroNeverTakesDownButStillRecordsAndPrunes) {
  root_.Write(kThreshold, "0");
  DownsAt({0, 1, 2, 3, 4, 5, 6, 7, 8, 9});
  EXPECT_EQ(capture_.Count(), 0u);
  std::string value;
  EXPECT_FALSE(NodeWritten(&value));
  EXPECT_EQ(History(), 10u);
  DownsAt({70});
  EXPECT_EQ(History(), 1u);
}

TEST_F(LinkFlapTest, ThresholdIsReadAnewOnEveryLinkDown) {
  root_.Write(kThreshold, "10");
  DownsAt({0, 1, 2, 3});
  EXPECT_EQ(capture_.Count(), 0u);
  root_.Write(kThreshold, "3");
  DownsAt({4});
  EXPECT_EQ(capture_.Count(), 1u);
}

TEST_F(LinkFlapTest, UnreadableThresholdKeepsHistoryAndPostsNothing) {
  root_.Remove(kThreshold);
  DownsAt({0, 1, 2, 3, 4});
  EXPECT_EQ(capture_.Count(), 0u);
  EXPECT_EQ(History(), 5u);
}

TEST_F(LinkFlapTest, KeepsFlappingNicTakenDownAgainAfterAnotherFourLinkDowns) {
  DownsAt({0, 1, 2, 3});
  EXPECT_EQ(capture_.Take().size(), 1u);
  DownsAt({4, 5, 6});
  EXPECT_EQ(capture_.Count(), 0u);
  DownsAt({7});
  EXPECT_EQ(capture_.Count(), 1u);
}

TEST_F(LinkFlapTest, HistoriesAreKeptPerNic) {
  root_.MakeDir("platform/nodes/net/pNics/hwnic1");
  DownsAt({0, 1});
  TevdNetCorrelatorNoteLinkDown("hwnic1");
  TevdNetCorrelatorNoteLinkDown("hwnic1");
  DownsAt({2});
  EXPECT_EQ(capture_.Count(), 0u);
  EXPECT_EQ(tevdNet.hwnicFlapHistory["hwnic1"].size(), 2u);
  EXPECT_EQ(History(), 3u);
}

TEST_F(LinkFlapTest, LinkDownObservationFeedsTheDetector) {
  TevHandlerMap map = TevdNetCorrelator_BuildMap();
  int fd = -1;
  ASSERT_TRUE(TevdNetCorrelator_Prepare(&fd));
  for (int i = 0; i < 4; i++) {
    tevdtest::TevPtr tev = tevdtest::MakeTev("tev.net.hwnic.linkstate.down", {S("hwnic0")});
    TevdCorrelator_Dispatch(TevdNetCorrelatorIgnore, map, tev.get());
  }
  std::vector<QprobMessage> events = capture_.Take();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].id, "kos.problem.net.hwnic.linkstate.flapping");
}

}  // namespace
