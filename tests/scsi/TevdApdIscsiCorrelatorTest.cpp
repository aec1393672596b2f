// All-paths-down and iSCSI correlators: every translation with its argument
// order, the login code's four hex digits, silent drops and the fallbacks.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Harness.h"
#include "TevdTestSupport.h"
#include "tevdApdCorrelator.h"
#include "tevdIscsiCorrelator.h"

using tevdtest::I;
using tevdtest::S;
using tevdtest::U;

namespace {

using Args = std::vector<std::string>;

struct Case {
  const char *tevId;
  std::vector<MsgFmt_Value> args;
  const char *eventId;
  Args eventArgs;
  const char *text;
};

class StorageTranslationTest : public ::testing::Test {
 protected:
  void Apd(const std::string &id, const std::vector<MsgFmt_Value> &args) {
    tevdtest::TevPtr tev = tevdtest::MakeTev(id, args);
    TevdCorrelator_Dispatch(TevdApdCorrelatorDoDefault, apdMap_, tev.get());
  }
  void Iscsi(const std::string &id, const std::vector<MsgFmt_Value> &args) {
    tevdtest::TevPtr tev = tevdtest::MakeTev(id, args);
    TevdCorrelator_Dispatch(TevdIscsiCorrelatorDoDefault, iscsiMap_, tev.get());
  }
  void Check(const Case &c, const std::vector<QprobMessage> &events) {
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].id, c.eventId);
    EXPECT_EQ(tevdtest::ArgsText(events[0].args), c.eventArgs);
    EXPECT_TRUE(log_.SawEnding(std::string("[") + c.eventId + "] " + c.text));
    log_.Take();
  }

  tevdtest::ScratchRoot root_;
  tevdtest::EventCapture capture_;
  tevdtest::LogLines log_{root_};
  TevHandlerMap apdMap_ = TevdApdCorrelator_BuildMap();
  TevHandlerMap iscsiMap_ = TevdIscsiCorrelator_BuildMap();
};

TEST_F(StorageTranslationTest, AllPathsDownTranslationsPassTheIdentifierThrough) {
  const std::vector<Case> cases = {
      {"tev.storage.apd.start",
       {S("naa.600a")},
       "kos.problem.storage.apd.start",
       {"S:naa.600a"},
       "Device or filesystem with identifier [naa.600a] has entered the All Paths Down state."},
      {"tev.storage.apd.timeout",
       {S("naa.600a"), I(140)},
       "kos.problem.storage.apd.timeout",
       {"S:naa.600a", "I:140"},
       "Device or filesystem with identifier [naa.600a] has entered the All Paths Down Timeout "
       "state after being in the All Paths Down state for 140 seconds. I/Os will now be fast "
       "failed."},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.tevId);
    Apd(c.tevId, c.args);
    Check(c, capture_.Take());
  }
  EXPECT_EQ(apdMap_.size(), 3u);
}

TEST_F(StorageTranslationTest, ApdTimeoutWithoutSecondsPostsNothingAndLogsNothing) {
  Apd("tev.storage.apd.timeout", {S("naa.600a")});
  Apd("tev.storage.apd.start", {I(5)});
  EXPECT_EQ(capture_.Count(), 0u);
  EXPECT_TRUE(log_.TakeDiagnostics().empty());
}

TEST_F(StorageTranslationTest, UnknownApdIdentifierIsLoggedByTheFallback) {
  Apd("tev.storage.apd.bogus", {S("x")});
  EXPECT_EQ(capture_.Count(), 0u);
  EXPECT_TRUE(log_.Saw("No correlator for tev.storage.apd.bogus \n"));
}

TEST_F(StorageTranslationTest, IscsiTranslationsKeepTheirArgumentOrder) {
  const std::vector<Case> cases = {
      {"tev.iscsi.target.connect.error",
       {S("hba64"), S("iqn.t1")},
       "kos.problem.storage.iscsi.target.connect.error",
       {"S:iqn.t1", "S:hba64"},
       "Login to iSCSI target iqn.t1 on hba64 failed. The iSCSI initiator could not establish "
       "a network connection to the target."},
      {"tev.iscsi.target.login.error",
       {S("hba64"), S("iqn.t1"), U(0x201)},
       "kos.problem.storage.iscsi.target.login.error",
       {"S:iqn.t1", "S:hba64", "S:0201"},
       "Login to iSCSI target iqn.t1 on hba64 failed. Target returned login error of: 0201."},
      {"tev.iscsi.isns.discovery.error",
       {S("hba64"), S("isns1"), S("c"), S("d")},
       "kos.problem.storage.iscsi.isns.discovery.error",
       {"S:isns1", "S:hba64", "S:c", "S:d"},
       "iSns discovery to isns1 on hba64 failed. (c : d)."},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.tevId);
    Iscsi(c.tevId, c.args);
    Check(c, capture_.Take());
  }
}

TEST_F(StorageTranslationTest, LoginCodeAboveFourDigitsIsCutToItsFirstFour) {
  Iscsi("tev.iscsi.target.login.error", {S("a"), S("t"), U(0x12345)});
  std::vector<QprobMessage> events = capture_.Take();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(tevdtest::ArgsText(events[0].args), (Args{"S:t", "S:a", "S:1234"}));
}

TEST_F(StorageTranslationTest, IgnoredIscsiObservationsProduceNoEventAndNoLogLine) {
  for (const char *id : {"tev.iscsi.connection.started", "tev.iscsi.connection.stopped",
                         "tev.iscsi.connection.error", "tev.iscsi.session.recovery.timeout",
                         "tev.iscsi.target.async.event"}) {
    SCOPED_TRACE(id);
    ASSERT_NE(iscsiMap_.find(id), iscsiMap_.end());
    Iscsi(id, {S("hba64"), S("iqn.t1")});
  }
  EXPECT_EQ(capture_.Count(), 0u);
  EXPECT_TRUE(log_.TakeDiagnostics().empty());
  EXPECT_EQ(iscsiMap_.size(), 11u);
}

TEST_F(StorageTranslationTest, UnreadableIscsiArgumentsAndUnknownIdsAreDroppedSilently) {
  Iscsi("tev.iscsi.target.login.error", {S("hba64"), S("iqn.t1")});
  Iscsi("tev.iscsi.isns.discovery.error", {S("a"), S("b"), S("c")});
  Iscsi("tev.iscsi.target.connect.error", {S("a"), I(2)});
  EXPECT_EQ(capture_.Count(), 0u);
  EXPECT_TRUE(log_.TakeDiagnostics().empty());
  Iscsi("tev.iscsi.brand.new", {S("a")});  // not even an observation line
  EXPECT_EQ(capture_.Count(), 0u);
  EXPECT_TRUE(log_.Take().empty());
}

}  // namespace
