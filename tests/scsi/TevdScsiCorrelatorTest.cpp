// SCSI, all-paths-down and iSCSI translations: one row per argument shape
// and the odd rows, the handlers' failure lines, silent drops and fallbacks.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Harness.h"
#include "TevdTestSupport.h"
#include "tevdApdCorrelator.h"
#include "tevdIscsiCorrelator.h"
#include "tevdScsiCorrelator.h"

using tevdtest::I;
using tevdtest::S;
using tevdtest::U;
using tevdtest::UL;

namespace {

using Args = std::vector<MsgFmt_Value>;

class StorageTranslationTest : public ::testing::Test {
 protected:
  void SetUp() override { TevdScsiCorrelator_ResetForTest(); }
  // Dispatches through the map of the identifier's area.
  void Feed(const std::string &id, const Args &args) {
    tevdtest::TevPtr tev = tevdtest::MakeTev(id, args);
    if (id.compare(0, 9, "tev.scsi.") == 0) {
      TevdCorrelator_Dispatch(TevdScsiCorrelatorDoDefault, scsi_, tev.get());
    } else if (id.compare(0, 12, "tev.storage.") == 0) {
      TevdCorrelator_Dispatch(TevdApdCorrelatorDoDefault, apd_, tev.get());
    } else {
      TevdCorrelator_Dispatch(TevdIscsiCorrelatorDoDefault, iscsi_, tev.get());
    }
  }
  // Posted events as "id arg arg ...", and forgotten.
  std::vector<std::string> Events() {
    std::vector<std::string> out;
    for (const QprobMessage &m : capture_.Take()) {
      std::string e = m.id.substr(4);
      for (const std::string &a : tevdtest::ArgsText(m.args)) e += " " + a;
      out.push_back(e);
    }
    return out;
  }

  tevdtest::ScratchRoot root_;
  tevdtest::FakeClock clock_;
  tevdtest::EventCapture capture_;
  tevdtest::LogLines log_{root_};
  TevHandlerMap scsi_ = TevdScsiCorrelator_BuildMap();
  TevHandlerMap apd_ = TevdApdCorrelator_BuildMap();
  TevHandlerMap iscsi_ = TevdIscsiCorrelator_BuildMap();
};

TEST_F(StorageTranslationTest, EachArgumentShapePostsItsEventWithArgumentsInOrder) {
  const struct {
    const char *tevId;  // after "tev."
    Args in;
    const char *event;  // id after "kos.", then the typed arguments
  } cases[] = {
      {"scsi.scsipath.limitreached",
       {I(1024), S("p5")},
       "problem.scsi.scsipath.limitreached I:1024 S:p5"},
      {"scsi.scsipath.badpath.unreachpe",
       {S("p1"), S("hba2")},
       "problem.scsi.scsipath.badpath.unreachpe S:p1 S:hba2"},
      {"scsi.device.io.qerr.change.config",
       {I(1), S("naa.1"), I(0)},
       "problem.scsi.device.io.qerr.change.config U:1 S:naa.1 U:0"},
      {"scsi.apd.event.descriptor.alloc.failed",
       {},
       "problem.scsi.apd.event.descriptor.alloc.failed"},
      {"scsi.device.io.latency.high",
       {S("naa.9"), UL(900), UL(10)},  // lower second value too
       "problem.scsi.device.io.latency.high S:naa.9 L:900 L:10"},
      {"storage.apd.start", {S("naa.600a")}, "problem.storage.apd.start S:naa.600a"},
      {"storage.apd.timeout",
       {S("naa.600a"), I(140)},
       "problem.storage.apd.timeout S:naa.600a I:140"},
      {"iscsi.target.connect.error",
       {S("hba64"), S("iqn.t1")},
       "problem.storage.iscsi.target.connect.error S:iqn.t1 S:hba64"},
      {"iscsi.target.login.error",
       {S("hba64"), S("iqn.t1"), U(0x201)},
       "problem.storage.iscsi.target.login.error S:iqn.t1 S:hba64 S:0201"},
      {"iscsi.target.login.error",
       {S("a"), S("t"), U(0x12345)},  // cut to its first four
       "problem.storage.iscsi.target.login.error S:t S:a S:1234"},
      {"iscsi.isns.discovery.error",
       {S("hba64"), S("isns1"), S("c"), S("d")},
       "problem.storage.iscsi.isns.discovery.error S:isns1 S:hba64 S:c S:d"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.tevId);
    Feed(std::string("tev.") + c.tevId, c.in);
    EXPECT_EQ(Events(), std::vector<std::string>{c.event});
  }
  Feed("tev.scsi.unsupported.plugin.type", {I(31)});
  EXPECT_TRUE(
      log_.SawEnding("[kos.problem.scsi.unsupported.plugin.type] Scsi Device Allocation "
                     "not supported for plugin type 1f"));
}

TEST_F(StorageTranslationTest, UnreadableArgumentsLogTheHandlersLineAndPostNothing) {
  // The library reports a missing or mistyped argument as 22 (EINVAL).
  const struct {
    const char *tevId;  // after "tev.scsi."
    Args in;
    const char *line;  // "" when the handler fails silently
  } cases[] = {
      {"device.io.qerr.changed",
       {S("naa.1"), S("x"), I(0)},
       "Failed to correlate tev.scsi.device.io.qerr.changed: 22"},
      {"device.detach.failed",
       {I(4)},
       "Failed to get params for correlation tev.scsi.device.detach.failed: 22"},
      {"device.state.on", {}, "Failed to get device name: 22"},
      {"scsipath.badpath.unsafepe", {}, "Failed to get path name: 22"},
      {"scsipath.badpath.unreachpe",
       {S("p7")},
       "Failed to get PE-incapable adapter name for path p7 : 22"},
      {"scsipath.limitreached", {S("p")}, "Failed to get path limit reached path count: 22"},
      {"scsipath.limitreached", {I(8)}, "Failed to get path limit reached path name: 22"},
      {"device.limitreached", {I(8), I(9)}, "Failed to get device limit reached plugin name: 22"},
      {"device.thinprov.atquota", {I(3)}, "Failed to get thin provisioned device name: 22"},
      {"scsipath.remove", {}, "Failed to get path add remove path name: 22"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.tevId);
    Feed(std::string("tev.scsi.") + c.tevId, c.in);
    EXPECT_EQ(capture_.Count(), 0u);
    EXPECT_EQ(log_.TakeDiagnostics(), std::vector<std::string>{c.line});
  }
  const std::vector<std::pair<const char *, Args>> silent = {
      {"tev.storage.apd.timeout", {S("naa.600a")}},
      {"tev.storage.apd.start", {I(5)}},
      {"tev.iscsi.target.login.error", {S("hba64"), S("iqn.t1")}},
      {"tev.iscsi.isns.discovery.error", {S("a"), S("b"), S("c")}},
      {"tev.iscsi.target.connect.error", {S("a"), I(2)}},
      {"tev.iscsi.connection.started", {S("hba64"), S("iqn.t1")}},  // ignored on purpose
      {"tev.iscsi.session.recovery.timeout", {S("hba64"), S("iqn.t1")}},
      {"tev.iscsi.target.async.event", {S("hba64"), S("iqn.t1")}},
  };
  for (const auto &s : silent) Feed(s.first, s.second);
  EXPECT_EQ(capture_.Count(), 0u);
  EXPECT_EQ(log_.TakeDiagnostics(), std::vector<std::string>{});
  Feed("tev.iscsi.brand.new", {S("a")});  // not even an observation line
  EXPECT_EQ(log_.Take(), std::vector<std::string>{});
}

TEST_F(StorageTranslationTest, UnmappedIdentifiersAreLoggedByTheFallbacks) {
  Feed("tev.scsi.device.brandnew", {S("naa.1")});
  Feed("tev.scsi.device.state.ON", {S("naa.1")});
  Feed("tev.storage.apd.bogus", {S("x")});
  tevdtest::TevPtr tev = tevdtest::MakeTev("tev.scsi.scsipath.badpath.other", {S("p1")});
  TevdScsiCorrelatorDoBadPePath(tev.get());
  EXPECT_EQ(capture_.Count(), 0u);
  EXPECT_EQ(log_.TakeDiagnostics(), (std::vector<std::string>{
                                        "No correlator for tev.scsi.device.brandnew ",
                                        "No correlator for tev.scsi.device.state.ON ",
                                        "No correlator for tev.storage.apd.bogus ",
                                        "Unknown TEV ID: tev.scsi.scsipath.badpath.other",
                                    }));
}

// The device-state and limit handlers serve one observation each and never
// look at the identifier: a record under another one still gets their event.
TEST_F(StorageTranslationTest, SingleObservationHandlersReadNoIdentifier) {
  tevdtest::TevPtr off = tevdtest::MakeTev("tev.scsi.unrelated", {S("naa.1")});
  TevdScsiCorrelatorDoDeviceOff(off.get());
  tevdtest::TevPtr limit = tevdtest::MakeTev("tev.scsi.unrelated", {I(4), S("p1")});
  TevdScsiCorrelatorDoPathLimit(limit.get());
  EXPECT_EQ(Events(), (std::vector<std::string>{"problem.scsi.device.state.off S:naa.1",
                                                "problem.scsi.scsipath.limitreached I:4 S:p1"}));
}

}  // namespace
