#include <gtest/gtest.h>

#include "TevdTestSupport.h"
#include "tevdUtil.h"

using namespace tevdtest;

TEST(TevdUtilTest, FormatsReduceToBareConversionListsOrAreRefused) {
  struct Row {
    const char *format;
    const char *compact;  // null: refused with 22
  } rows[] = {
      {"no conversions at all", ""},
      {"100%% sure", ""},
      {"Link %s is down on %d ports", "%p%d"},
      {"%-08lX", "%lx"},
      {"%+ #10.3hhx and %X", "%hhx%x"},
      {"%lld %llu %hd %c %i %o", "%lld%llu%hd%c%i%o"},
      {"%Lu", "%Lu"},
      {"%f", nullptr},
      {"value %g", nullptr},
      {"%p", nullptr},
      {"%n", nullptr},
      {"ends inside %", nullptr},
      {"ends inside %-08l", nullptr},
      {"%10.2e", nullptr},
  };
  for (const Row &r : rows) {
    char out[64];
    EXPECT_EQ(r.compact ? 0 : 22, TevdUtil_CompactFormat(r.format, out, sizeof out)) << r.format;
    if (r.compact != nullptr) {
      EXPECT_STREQ(r.compact, out) << r.format;
    }
  }
}

// Found by fuzzing: an empty format with no room wrote one byte past the buffer.
TEST(TevdUtilTest, NoRoomForTheTerminatorIsRefusedWithoutWriting) {
  char out[4] = {'x', 'x', 'x', 'x'};
  EXPECT_EQ(22, TevdUtil_CompactFormat("", out, 0));
  EXPECT_EQ(22, TevdUtil_CompactFormat("text only", out, 0));
  EXPECT_EQ('x', out[0]);
  EXPECT_EQ(22, TevdUtil_CompactFormat("%d", out, 2));  // "%d" needs 3 bytes
  EXPECT_EQ(0, TevdUtil_CompactFormat("%d", out, 3));
  EXPECT_STREQ("%d", out);
  EXPECT_EQ(22, TevdUtil_CompactFormat(nullptr, out, sizeof out));
}

TEST(TevdUtilTest, ReadsArgumentsByTheMessageFormat) {
  TevPtr tev = MakeTev("tev.x.y", {U(0x1234), I(77), S("fru-7")});
  unsigned page = 0;
  int vm = 0;
  const char *fru = nullptr;
  ASSERT_EQ(0, TevdUtil_GetArgs(tev.get(), "PPN %x into VM %d, FRU %s.", &page, &vm, &fru));
  EXPECT_EQ(0x1234u, page);
  EXPECT_EQ(77, vm);
  EXPECT_STREQ("fru-7", fru);
  double d = 0;
  EXPECT_EQ(22, TevdUtil_GetArgs(tev.get(), "%f", &d));  // refused before the library sees it
  int more = 0;  // one conversion too many fails in the library
  EXPECT_NE(0, TevdUtil_GetArgs(tev.get(), "%x %d %s %d", &page, &vm, &fru, &more));
}
