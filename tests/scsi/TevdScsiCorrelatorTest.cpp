// SCSI correlator: every direct translation (observation -> event id, typed
// arguments and logged text), the failure lines of unreadable arguments, the
// fallback and the map's contents. Expected texts are typed out here, never
// taken from the correlator's own table.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Harness.h"
#include "TevdTestSupport.h"
#include "tevdScsiCorrelator.h"

using tevdtest::I;
using tevdtest::S;
using tevdtest::UL;

namespace {

struct TranslationCase {
  const char *tevId;
  std::vector<MsgFmt_Value> args;
  const char *eventId;
  std::vector<std::string> eventArgs;
  const char *text;  // the event's text as the local log line shows it
};

class ScsiTranslationTest : public ::testing::Test {
 protected:
  void SetUp() override { TevdScsiCorrelator_ResetForTest(); }
  void Dispatch(const std::string &id, const std::vector<MsgFmt_Value> &args) {
    tevdtest::TevPtr tev = tevdtest::MakeTev(id, args);
    TevdCorrelator_Dispatch(TevdScsiCorrelatorDoDefault, map_, tev.get());
  }
  tevdtest::ScratchRoot root_;
  tevdtest::FakeClock clock_;
  tevdtest::EventCapture capture_;
  tevdtest::LogLines log_{root_};
  TevHandlerMap map_ = TevdScsiCorrelator_BuildMap();
};

TEST_F(ScsiTranslationTest, EachArgumentShapePostsItsEventWithArgumentsInOrder) {
  const std::vector<TranslationCase> cases = {
      {"tev.scsi.scsipath.limitreached",
       {I(1024), S("hba1:C0:T0:L5")},
       "kos.problem.scsi.scsipath.limitreached",
       {"I:1024", "S:hba1:C0:T0:L5"},
       "The maximum number of supported paths of 1024 has been reached. Path hba1:C0:T0:L5 "
       "could not be added."},
      {"tev.scsi.scsipath.badpath.unreachpe",
       {S("p1"), S("hba2")},
       "kos.problem.scsi.scsipath.badpath.unreachpe",
       {"S:p1", "S:hba2"},
       "Sanity check failed for path p1. The path is to a QVol PE, but it goes out of adapter "
       "hba2 which is not PE capable. Path dropped."},
      {"tev.scsi.device.state.off",
       {S("naa.1")},
       "kos.problem.scsi.device.state.off",
       {"S:naa.1"},
       "Device: naa.1  has been turned off administratively"},
      {"tev.scsi.device.io.qerr.change.config",
       {I(1), S("naa.1"), I(0)},
       "kos.problem.scsi.device.io.qerr.change.config",
       {"U:1", "S:naa.1", "U:0"},
       "QErr set to 0x1 for device naa.1. This may cause unexpected behavior. The system is not "
       "configured to change the Qerr setting of device. The Qerr value supported by system is "
       "0x0. Please check the SCSI ChangeQErrSetting configuration value for KOS."},
      {"tev.scsi.unsupported.plugin.type",
       {I(31)},
       "kos.problem.scsi.unsupported.plugin.type",
       {"U:31"},
       "Scsi Device Allocation not supported for plugin type 1f"},
      {"tev.scsi.apd.event.descriptor.alloc.failed",
       {},
       "kos.problem.scsi.apd.event.descriptor.alloc.failed",
       {},
       "No memory to allocate APD (All Paths Down) event subsystem"},
      {"tev.scsi.device.io.latency.high",
       {S("naa.1"), UL(100), UL(5000)},
       "kos.problem.scsi.device.io.latency.high",
       {"S:naa.1", "L:100", "L:5000"},
       "Device naa.1 performance has deteriorated. I/O latency increased from average value of "
       "100 microseconds to 5000 microseconds."},
  };
  for (const TranslationCase &c : cases) {
    SCOPED_TRACE(c.tevId);
    Dispatch(c.tevId, c.args);
    std::vector<QprobMessage> events = capture_.Take();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].id, c.eventId);
    EXPECT_EQ(tevdtest::ArgsText(events[0].args), c.eventArgs);
    EXPECT_TRUE(log_.SawEnding(std::string("[") + c.eventId + "] " + c.text));
    log_.Take();
  }
}

TEST_F(ScsiTranslationTest, LatencyHighIsPostedEvenWhenTheSecondValueIsLower) {
  Dispatch("tev.scsi.device.io.latency.high", {S("naa.9"), UL(900), UL(10)});
  std::vector<QprobMessage> events = capture_.Take();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].id, "kos.problem.scsi.device.io.latency.high");
  EXPECT_EQ(tevdtest::ArgsText(events[0].args),
            (std::vector<std::string>{"S:naa.9", "L:900", "L:10"}));
}

struct FailureCase {
  const char *tevId;
  std::vector<MsgFmt_Value> args;
  const char *logLine;
};

TEST_F(ScsiTranslationTest, UnreadableArgumentsLogTheHandlersLineAndPostNothing) {
  // The library reports a missing or mistyped argument as 22 (EINVAL).
  const std::vector<FailureCase> cases = {
      {"tev.scsi.device.io.qerr.changed",
       {S("naa.1"), S("x"), I(0)},
       "Failed to correlate tev.scsi.device.io.qerr.changed: 22\n"},
      {"tev.scsi.device.io.inquiry.failed",
       {S("naa.1")},
       "Failed to correlate tev.scsi.device.io.inquiry.failed: 22\n"},
      {"tev.scsi.device.detach.failed",
       {I(4)},
       "Failed to get params for correlation tev.scsi.device.detach.failed: 22\n"},
      {"tev.scsi.unsupported.plugin.type",
       {S("x")},
       "Failed to correlate tev.scsi.unsupported.plugin.type: 22\n"},
      {"tev.scsi.device.state.on", {}, "Failed to get device name: 22\n"},
      {"tev.scsi.device.state.permanentloss.pluggedback",
       {I(1)},
       "Failed to get device name: 22\n"},
      {"tev.scsi.scsipath.badpath.unsafepe", {}, "Failed to get path name: 22\n"},
      {"tev.scsi.scsipath.badpath.unreachpe",
       {S("p7")},
       "Failed to get PE-incapable adapter name for path p7 : 22\n"},
      {"tev.scsi.scsipath.limitreached",
       {S("p")},
       "Failed to get path limit reached path count: 22\n"},
      {"tev.scsi.scsipath.limitreached",
       {I(8)},
       "Failed to get path limit reached path name: 22\n"},
      {"tev.scsi.device.limitreached", {}, "Failed to get device limit reached device count: 22\n"},
      {"tev.scsi.device.limitreached",
       {I(8), I(9)},
       "Failed to get device limit reached plugin name: 22\n"},
      {"tev.scsi.device.io.latency.improved",
       {S("naa.1"), UL(1)},
       "Failed to correlate tev.scsi.device.io.latency.improved: 22\n"},
      {"tev.scsi.device.state.permanentloss", {}, "Failed to get device name: 22\n"},
      {"tev.scsi.device.thinprov.atquota",
       {I(3)},
       "Failed to get thin provisioned device name: 22\n"},
      {"tev.scsi.scsipath.remove", {}, "Failed to get path add remove path name: 22\n"},
  };
  for (const FailureCase &c : cases) {
    SCOPED_TRACE(c.tevId);
    Dispatch(c.tevId, c.args);
    EXPECT_EQ(capture_.Count(), 0u);
    std::string line(c.logLine);
    ASSERT_EQ(line.back(), '\n');
    line.pop_back();  // the sink hands lines over without their newline
    EXPECT_EQ(log_.TakeDiagnostics(), std::vector<std::string>{line});
  }
}

TEST_F(ScsiTranslationTest, UnmappedIdentifierIsLoggedByTheFallback) {
  Dispatch("tev.scsi.device.brandnew", {S("naa.1")});
  EXPECT_EQ(capture_.Count(), 0u);
  EXPECT_TRUE(log_.Saw("No correlator for tev.scsi.device.brandnew \n"));
}

TEST_F(ScsiTranslationTest, IdentifierDifferingOnlyInCaseGoesToTheFallback) {
  Dispatch("tev.scsi.device.state.ON", {S("naa.1")});
  EXPECT_EQ(capture_.Count(), 0u);
  EXPECT_TRUE(log_.Saw("No correlator for tev.scsi.device.state.ON \n"));
}

TEST_F(ScsiTranslationTest, BadPathHandlerLogsAnIdentifierItDoesNotKnow) {
  tevdtest::TevPtr tev = tevdtest::MakeTev("tev.scsi.scsipath.badpath.other", {S("p1")});
  TevdScsiCorrelatorDoBadPePath(tev.get());
  EXPECT_EQ(capture_.Count(), 0u);
  EXPECT_TRUE(log_.Saw("Unknown TEV ID: tev.scsi.scsipath.badpath.other\n"));
}

// The device-state and limit handlers serve one observation each and never
// look at the identifier: a record under another one still gets their event.
TEST_F(ScsiTranslationTest, SingleObservationHandlersReadNoIdentifier) {
  const struct {
    TevHandler handler;
    std::vector<MsgFmt_Value> args;
    const char *eventId;
  } cases[] = {
      {TevdScsiCorrelatorDoDeviceOff, {S("naa.1")}, "kos.problem.scsi.device.state.off"},
      {TevdScsiCorrelatorDoPathLimit, {I(4), S("p1")}, "kos.problem.scsi.scsipath.limitreached"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.eventId);
    tevdtest::TevPtr tev = tevdtest::MakeTev("tev.scsi.unrelated", c.args);
    c.handler(tev.get());
    std::vector<QprobMessage> got = capture_.Take();
    ASSERT_EQ(1u, got.size());
    EXPECT_EQ(c.eventId, got[0].id);
  }
}

}  // namespace
