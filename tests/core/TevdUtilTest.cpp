#include <gtest/gtest.h>

#include "TevdTestSupport.h"
#include "tevdUtil.h"

using namespace tevdtest;

TEST(TevdUtilTest, FormatsReduceToBareConversionLists) {
  struct Row {
    const char *format;
    const char *compact;
  } rows[] = {
      {"no conversions at all", ""},
      {"100%% sure", ""},
      {"Link %s is down on %d ports", "%p%d"},
      {"%-08lX", "%lx"},
      {"%+ #10.3hhx and %X", "%hhx%x"},
      {"%lld %llu %hd %c %i %o", "%lld%llu%hd%c%i%o"},
      {"PPN %x into virtual machine %d.", "%x%d"},
      {"%Lu", "%Lu"},
  };
  for (const Row &r : rows) {
    char out[64];
    ASSERT_EQ(0, TevdUtil_CompactFormat(r.format, out, sizeof out)) << r.format;
    EXPECT_STREQ(r.compact, out) << r.format;
  }
}

TEST(TevdUtilTest, UnacceptedFormatsAreRefusedWith22) {
  const char *bad[] = {"%f",    "value %g", "%p", "%n", "ends inside %", "ends inside %-08l",
                       "%10.2e"};
  for (const char *f : bad) {
    char out[64];
    EXPECT_EQ(22, TevdUtil_CompactFormat(f, out, sizeof out)) << f;
  }
}

// Found by fuzz_tevdutil: an empty format with no room wrote its terminator
// one byte past the buffer.
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
  TevPtr tev = MakeTev("tev.pageretire.mce.injected", {U(0x1234), I(77)});
  unsigned page = 0;
  int vm = 0;
  ASSERT_EQ(0, TevdUtil_GetArgs(tev.get(), "Injected MCE for PPN %x into virtual machine %d.",
                                &page, &vm));
  EXPECT_EQ(0x1234u, page);
  EXPECT_EQ(77, vm);

  TevPtr strs = MakeTev("tev.x.y", {S("fru-7"), S("log 3")});
  const char *a = nullptr;
  const char *b = nullptr;
  ASSERT_EQ(0, TevdUtil_GetArgs(strs.get(), "FRU ID: %s. Refer to %s", &a, &b));
  EXPECT_STREQ("fru-7", a);
  EXPECT_STREQ("log 3", b);

  // A floating-point conversion is refused before the library sees it.
  double d = 0;
  EXPECT_EQ(22, TevdUtil_GetArgs(tev.get(), "%f", &d));
  // Too few arguments fail in the library.
  int x = 0, y = 0, z = 0;
  EXPECT_NE(0, TevdUtil_GetArgs(tev.get(), "%d %d %d", &x, &y, &z));
}
