// Trace server: the line format, the history bound, and a client on the trace
// socket of a scratch root: history, a blank line, then live lines.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <limits>
#include <string>
#include <vector>

#include "Harness.h"
#include "TevdTestSupport.h"
#include "tevdTrace.h"

namespace {

using Lines = std::vector<std::string>;
using V = MsgFmt_Value;

V Raw(uint32_t type, uint64_t bits) {  // a type the block format does not know
  V v = V::U64(bits);
  v.type = type;
  return v;
}

void Record(const char *dir, uint64_t stamp, const std::string &id,
            const std::vector<V> &args = {}) {
  std::vector<uint8_t> block = MsgFmt_EncodeBlock(args);
  TevdTrace_Record(dir, stamp, id.c_str(), block.data(), block.size(),
                   static_cast<int>(args.size()));
}

class TevdTraceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    TevdTrace_ResetForTest();
    clock_.AdvanceUs(5);  // 1700000000.000005000
  }
  void TearDown() override { TevdTrace_ResetForTest(); }
  tevdtest::ScratchRoot root_;
  tevdtest::FakeClock clock_;
};

TEST_F(TevdTraceTest, LineCarriesTimeDirectionStampIdentifierAndTypedArguments) {
  const uint64_t u64max = std::numeric_limits<uint64_t>::max();
  const struct {
    const char *dir;
    std::vector<V> args;
    const char *tail;  // after "<time>,<dir>,<stamp>,tev.a.b,"
  } rows[] = {
      {"OUT", {}, ""},
      {"IN",
       {V::I32(INT32_MIN), V::I32(INT32_MAX), V::I32(0), V::I64(INT64_MIN), V::I64(INT64_MAX)},
       ",-2147483648,2147483647,0,-9223372036854775808,9223372036854775807"},
      {"IN",
       {V::U32(UINT32_MAX), V::U64(0), V::U64(u64max), V::U32(10)},
       ",4294967295,0,18446744073709551615,10"},
      {"IN",
       {V::Str("say \"hi\""), V::NullStr(), V::Str(""), V::Str("hwnic0")},
       ",\"say \"\"hi\"\"\",\"(null)\",\"\",\"hwnic0\""},
      {"IN", {Raw(0, 1), V::Dbl(1.0), Raw(7, 2), V::I32(8)}, ",???,???,???,8"},
  };
  for (const auto &r : rows) {
    TevdTrace_ResetForTest();
    Record(r.dir, u64max, "tev.a.b", r.args);
    EXPECT_EQ(Lines{std::string("1700000000.000005000,") + r.dir +
                    ",18446744073709551615,tev.a.b," + r.tail + "\n"},
              TevdTrace_HistoryForTest());
  }
  tevdtest::FakeClock whole(1);  // nine digits of nanoseconds
  TevdTrace_ResetForTest();
  Record("IN", 0, "tev.a.b");
  whole.AdvanceUs(999999);
  Record("IN", 0, "tev.a.b");
  EXPECT_EQ((Lines{"1.000000000,IN,0,tev.a.b,\n", "1.999999000,IN,0,tev.a.b,\n"}),
            TevdTrace_HistoryForTest());
}

// Lines of exactly 1 KiB: 26 bytes of "1700000000.000005000,IN,0,", the
// identifier and ",\n".
TEST_F(TevdTraceTest, HistoryKeepsNewest128KiBDroppingOldestLines) {
  for (int i = 0; i < 128; i++) Record("IN", 0, std::string(1024 - 28, 'A' + i % 26));
  Lines history = TevdTrace_HistoryForTest();
  ASSERT_EQ(128u, history.size());  // exactly 131072 bytes: nothing dropped
  EXPECT_EQ(1024u, history[0].size());
  Record("IN", 0, std::string(1024 - 28, 'z'));
  history = TevdTrace_HistoryForTest();
  ASSERT_EQ(128u, history.size());
  EXPECT_EQ('B', history.front()[26]);  // the line of 'A' went first
  EXPECT_EQ('z', history.back()[26]);
  Record("IN", 0, std::string(200000, 'g'));  // alone larger than the bound: stays alone
  history = TevdTrace_HistoryForTest();
  ASSERT_EQ(1u, history.size());
  EXPECT_EQ(26u + 200000u + 2u, history[0].size());
  Record("IN", 0, "tev.small.three");
  EXPECT_EQ(Lines{"1700000000.000005000,IN,0,tev.small.three,\n"}, TevdTrace_HistoryForTest());
}

TEST_F(TevdTraceTest, OpenRejectsPathOf108Bytes) {
  errno = 0;
  EXPECT_EQ(-1, TevdTrace_Open(("/tmp/" + std::string(103, 'p')).c_str()));  // no room for NUL
  EXPECT_EQ(ENAMETOOLONG, errno);
}

TEST_F(TevdTraceTest, ClientGetsHistoryThenBlankLineThenLiveLines) {
  int listenFd = TevdTrace_Open(nullptr);
  ASSERT_GE(listenFd, 0) << strerror(errno);
  Record("IN", 1, "tev.one.a");
  Record("OUT", 2, "kos.problem.two", {V::I32(2)});
  tevdtest::TraceReader client(root_);
  TevdTrace_Accept(listenFd);
  EXPECT_EQ("1700000000.000005000,IN,1,tev.one.a,", client.Next());
  EXPECT_EQ("1700000000.000005000,OUT,2,kos.problem.two,,2", client.Next());
  EXPECT_EQ("\x01", client.Next());  // the blank line
  Record("OUT", 4, "kos.clear.four");
  EXPECT_EQ("1700000000.000005000,OUT,4,kos.clear.four,", client.Next());
  client.Close();
  close(listenFd);
  EXPECT_TRUE(tevdtest::Eventually([] { return TevdTrace_ListenerCountForTest() == 0; }, 5000));
}

}  // namespace
