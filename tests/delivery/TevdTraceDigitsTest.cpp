// Trace lines write their numbers without printf: the extremes of every
// integer type and the clock's nanoseconds must still read as printf's would.
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "MsgFmt.h"
#include "TevClock.h"
#include "TevdTestSupport.h"
#include "tevdTrace.h"

namespace {

std::string LineFor(const std::vector<MsgFmt_Value> &args) {
  TevdTrace_ResetForTest();
  std::vector<uint8_t> block = MsgFmt_EncodeBlock(args);
  TevdTrace_Record("IN", 18446744073709551615ull, "tev.a.b", block.data(), block.size(),
                   static_cast<int>(args.size()));
  std::vector<std::string> history = TevdTrace_HistoryForTest();
  TevdTrace_ResetForTest();
  return history.size() == 1 ? history[0] : std::string("lines: ") + std::to_string(history.size());
}

}  // namespace

TEST(TevdTraceDigitsTest, IntegerExtremesPrintAsPrintfWouldPrintThem) {
  tevdtest::ScratchRoot root;
  tevdtest::FakeClock clock(1700000000);
  clock.AdvanceUs(120);
  EXPECT_EQ(
      "1700000000.000120000,IN,18446744073709551615,tev.a.b,"
      ",-2147483648,2147483647,0,-9223372036854775808,9223372036854775807,4294967295,0,"
      "18446744073709551615,10\n",
      LineFor({MsgFmt_Value::I32(std::numeric_limits<int32_t>::min()),
               MsgFmt_Value::I32(std::numeric_limits<int32_t>::max()), MsgFmt_Value::I32(0),
               MsgFmt_Value::I64(std::numeric_limits<int64_t>::min()),
               MsgFmt_Value::I64(std::numeric_limits<int64_t>::max()),
               MsgFmt_Value::U32(std::numeric_limits<uint32_t>::max()), MsgFmt_Value::U64(0),
               MsgFmt_Value::U64(std::numeric_limits<uint64_t>::max()), MsgFmt_Value::U32(10)}));
}

TEST(TevdTraceDigitsTest, WholeSecondKeepsNineZerosOfNanoseconds) {
  tevdtest::ScratchRoot root;
  tevdtest::FakeClock clock(1);
  EXPECT_EQ("1.000000000,IN,18446744073709551615,tev.a.b,\n", LineFor({}));
  clock.AdvanceUs(999999);
  EXPECT_EQ("1.999999000,IN,18446744073709551615,tev.a.b,\n", LineFor({}));
}
