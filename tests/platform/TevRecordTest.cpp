// Observation records: the bytes the encoder lays out, the validator's
// refusals, and a record read back through every Tev accessor.
#include <gtest/gtest.h>

#include <cstring>

#include "TevLib.h"
#include "TevRecord.h"
#include "TevdTestSupport.h"

namespace {

using namespace tevdtest;

uint32_t Field32(const std::vector<uint8_t> &r, size_t off) {
  uint32_t v;
  memcpy(&v, r.data() + off, 4);
  return v;
}
void Set32(std::vector<uint8_t> *r, size_t off, uint32_t v) { memcpy(r->data() + off, &v, 4); }

TEST(TevRecord, EncodedBytesAreExactAndDecodeBack) {
  std::vector<uint8_t> r = TevRecord_Encode("tev.net.up", "hi", 0x0102030405060708ull, {I(7)});
  // 32 header + "tev.net.up\0" (11) + "hi\0" (3) = 46, padded to 48, + 16-byte slot.
  ASSERT_EQ(64u, r.size());
  EXPECT_EQ(0, memcmp(r.data(), "TEV1\0\0\0\0\x08\x07\x06\x05\x04\x03\x02\x01", 16));
  for (auto f : {std::make_pair(16, 64u), {20, 43u}, {24, 1u}, {28, 48u}, {48, 1u}, {56, 7u}})
    EXPECT_EQ(f.second, Field32(r, static_cast<size_t>(f.first))) << "at " << f.first;
  EXPECT_EQ(0, memcmp(r.data() + 32, "tev.net.up\0hi\0\0\0", 16));
  r = TevRecord_Encode("tev.scsi.path.dead", "Path is dead", 99, {S("hwnic1")});
  EXPECT_EQ(64u, Field32(r, 28));  // the message's NUL ends at 64: no padding added
  TevRecordView view;              // every argument type is read back in the accessor test
  ASSERT_TRUE(TevRecord_Decode(r.data(), r.size(), &view));
  EXPECT_TRUE(view.timestampUs == 99u && view.id == "tev.scsi.path.dead" &&
              view.message == "Path is dead" && view.args.size() == 1u);
}

// Every header field is checked before anything reads through it. The base
// record: "tev.net.up" at 32, "hi" at 43, one int slot at 48, 64 bytes.
TEST(TevRecord, MalformedRecordsAreRefused) {
  struct Row {
    const char *fault;
    void (*corrupt)(std::vector<uint8_t> *r);
  } rows[] = {
      {"Empty", [](std::vector<uint8_t> *r) { r->clear(); }},
      {"ShorterThanHeader", [](std::vector<uint8_t> *r) { r->resize(31); }},
      {"BadMagic", [](std::vector<uint8_t> *r) { (*r)[3] = '2'; }},
      {"ReservedNotZero", [](std::vector<uint8_t> *r) { (*r)[7] = 1; }},
      {"LengthFieldLonger", [](std::vector<uint8_t> *r) { Set32(r, 16, 72); }},
      {"LengthFieldShorter", [](std::vector<uint8_t> *r) { Set32(r, 16, 56); }},
      {"MessageOffsetInHeader", [](std::vector<uint8_t> *r) { Set32(r, 20, 32); }},
      {"MessageOffsetAtEnd", [](std::vector<uint8_t> *r) { Set32(r, 20, 64); }},
      {"ArgumentOffsetUnaligned", [](std::vector<uint8_t> *r) { Set32(r, 28, 44); }},
      {"ArgumentOffsetBeforeMessage", [](std::vector<uint8_t> *r) { Set32(r, 28, 40); }},
      {"ArgumentOffsetAtMessage",
       [](std::vector<uint8_t> *r) { Set32(r, 20, 40), Set32(r, 28, 40); }},
      {"ArgumentOffsetPastEnd", [](std::vector<uint8_t> *r) { Set32(r, 28, 72); }},
      {"IdentifierUnterminated", [](std::vector<uint8_t> *r) { (*r)[42] = 'x'; }},
      {"IdentifierWithoutPrefix", [](std::vector<uint8_t> *r) { (*r)[32] = 'T'; }},
      {"MessageUnterminated", [](std::vector<uint8_t> *r) { memset(r->data() + 43, 'm', 5); }},
      {"ArgumentCountTooLarge", [](std::vector<uint8_t> *r) { Set32(r, 24, 2); }},
      {"ArgumentCountHuge", [](std::vector<uint8_t> *r) { Set32(r, 24, 0x40000000); }},
      {"UnknownArgumentType", [](std::vector<uint8_t> *r) { Set32(r, 48, 9); }},
      {"Larger than 1 MiB",
       [](std::vector<uint8_t> *r) {
         *r = TevRecord_Encode("tev.a.b", std::string(1 << 20, 'm'), 1, {});
       }},
  };
  for (const Row &row : rows) {
    std::vector<uint8_t> r = TevRecord_Encode("tev.net.up", "hi", 5, {I(7)});
    ASSERT_TRUE(TevRecord_IsWellFormed(r.data(), r.size()));
    row.corrupt(&r);
    std::string why;
    EXPECT_TRUE(!TevRecord_IsWellFormed(r.data(), r.size(), &why) && !why.empty()) << row.fault;
    TevRecordView view;
    EXPECT_FALSE(TevRecord_Decode(r.data(), r.size(), &view)) << row.fault;
  }
}

// Identifier, message and time stamp reach users through every log line and event.
TEST(TevAccessors, ArgumentsByIndexByTypeAndByConversion) {
  TevPtr tev = MakeTev("tev.scsi.x",
                       {S("naa.1"), MsgFmt_Value::NullStr(), I(3), U(0xFFFFFFFFu), L(-5000000000ll),
                        UL(0x8000000000000001ull), I(0x1234), I(0x1ff), MsgFmt_Value::Dbl(2.0)},
                       "Path naa.1 is down");
  ASSERT_TRUE(tev);
  char *msg = nullptr;
  size_t msgLen = 0;
  ASSERT_EQ(0, Tev_GetMsg(tev.get(), &msg, &msgLen));
  EXPECT_STREQ("Path naa.1 is down", msg);
  EXPECT_EQ(18u, msgLen);
  free(msg);
  uint32_t count = 0;
  ASSERT_EQ(0, Tev_GetArgCount(tev.get(), &count));
  EXPECT_EQ(9u, count);
  const int32_t expected[] = {3, -1, static_cast<int32_t>(static_cast<uint32_t>(-5000000000ll)), 1};
  int32_t v = 0;
  for (int i = 0; i < 4; i++) {
    ASSERT_EQ(0, Tev_GetIntArg(tev.get(), i + 2, &v)) << i;
    EXPECT_EQ(expected[i], v) << i;
  }
  for (int notInt : {0, 1, 8, 9, -1}) EXPECT_EQ(22, Tev_GetIntArg(tev.get(), notInt, &v));
  const char *str = reinterpret_cast<const char *>(1);
  EXPECT_EQ(0, Tev_GetStringArg(tev.get(), 1, &str));
  EXPECT_EQ(nullptr, str);
  EXPECT_EQ(22, Tev_GetStringArg(tev.get(), 2, &str));
  EXPECT_FALSE(Tev_IsID("tev.t.x", "tev.t.X"));
  EXPECT_FALSE(Tev_IsID("tev.t.x", nullptr));
  std::vector<uint8_t> r = TevRecord_Encode("net.no.prefix", "", 1, {});
  void *copy = malloc(r.size());
  memcpy(copy, r.data(), r.size());
  Tev *bad = reinterpret_cast<Tev *>(1);
  EXPECT_EQ(22, Tev_MakeTev(copy, static_cast<uint32_t>(r.size()), &bad));  // and freed
  EXPECT_EQ(nullptr, bad);
  const char *dev = nullptr;
  const char *none = reinterpret_cast<const char *>(1);
  int a = 0;
  unsigned b = 0;
  ASSERT_EQ(0, Tev_GetArgs(tev.get(), 0, "%p %s %d %x", &dev, &none, &a, &b));
  EXPECT_STREQ("naa.1", dev);
  EXPECT_EQ(nullptr, none);
  EXPECT_EQ(3, a);
  EXPECT_EQ(0xFFFFFFFFu, b);
  // The first index skips leading arguments; text between conversions is ignored.
  long l = 0;
  unsigned long ul = 0;
  unsigned short h = 0;
  double d = 0;
  ASSERT_EQ(0, Tev_GetArgs(tev.get(), 4, "l=%ld %lx n=%10hx", &l, &ul, &h));
  EXPECT_TRUE(l == -5000000000l && ul == 0x8000000000000001ul && h == 0x1234) << l << " " << h;
  EXPECT_EQ(0, Tev_GetArgs(tev.get(), 0, "no conversions"));
  // Mismatches and missing arguments fail with 22.
  EXPECT_EQ(22, Tev_GetArgs(tev.get(), 0, "%d", &a));          // string for an integer
  EXPECT_EQ(22, Tev_GetArgs(tev.get(), 0, "%ls", &dev));       // a length modifier on a string
  EXPECT_EQ(22, Tev_GetArgs(tev.get(), 2, "%p", &dev));        // integer for a string
  EXPECT_EQ(22, Tev_GetArgs(tev.get(), 8, "%d", &a));          // double for an integer
  EXPECT_EQ(22, Tev_GetArgs(tev.get(), 8, "%lf %d", &d, &a));  // too few
  EXPECT_EQ(22, Tev_GetArgs(tev.get(), 9, "%d", &a));          // first past the end
  EXPECT_EQ(22, Tev_GetArgs(tev.get(), 0, "%p %", &dev));      // ends inside a conversion
}

}  // namespace
