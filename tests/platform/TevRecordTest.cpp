// Observation records: the bytes the encoder lays out, and a record read back
// through every Tev accessor (identifier, message, time stamp, typed
// arguments, the scanf-like reader), including null strings and 64-bit values.
#include <gtest/gtest.h>

#include <cstring>

#include "TevLib.h"
#include "TevdTestSupport.h"

namespace {

using tevdtest::I;
using tevdtest::L;
using tevdtest::MakeTev;
using tevdtest::S;
using tevdtest::U;
using tevdtest::UL;

uint32_t Field32(const std::vector<uint8_t> &r, size_t off) {
  uint32_t v;
  memcpy(&v, r.data() + off, 4);
  return v;
}

TEST(TevRecordEncode, HeaderFieldsAndLayoutAreExact) {
  std::vector<uint8_t> r = TevRecord_Encode("tev.net.up", "hi", 0x0102030405060708ull, {I(7)});
  // 32 header + "tev.net.up\0" (11) + "hi\0" (3) = 46, padded to 48, + 16-byte slot.
  ASSERT_EQ(64u, r.size());
  EXPECT_EQ(0, memcmp(r.data(), "TEV1\0\0\0\0", 8));
  const uint8_t ts[8] = {8, 7, 6, 5, 4, 3, 2, 1};
  EXPECT_EQ(0, memcmp(r.data() + 8, ts, 8));
  EXPECT_EQ(64u, Field32(r, 16));
  EXPECT_EQ(43u, Field32(r, 20));
  EXPECT_EQ(1u, Field32(r, 24));
  EXPECT_EQ(48u, Field32(r, 28));
  EXPECT_STREQ("tev.net.up", reinterpret_cast<const char *>(r.data() + 32));
  EXPECT_STREQ("hi", reinterpret_cast<const char *>(r.data() + 43));
  EXPECT_EQ(0, r[46]);
  EXPECT_EQ(0, r[47]);
  EXPECT_EQ(1u, Field32(r, 48));
  std::string why;
  EXPECT_TRUE(TevRecord_IsWellFormed(r.data(), r.size(), &why)) << why;
}

TEST(TevRecordDecode, RoundTripKeepsEveryField) {
  std::vector<MsgFmt_Value> args = {
      S("hwnic1"),    MsgFmt_Value::NullStr(), I(-1), L(INT64_MIN), U(4000000000u),
      UL(UINT64_MAX), MsgFmt_Value::Dbl(-0.25)};
  std::vector<uint8_t> r = TevRecord_Encode("tev.scsi.path.dead", "Path is dead", 99, args);
  EXPECT_EQ(64u, Field32(r, 28));  // the message's NUL ends at 64: no padding added
  TevRecordView view;
  ASSERT_TRUE(TevRecord_Decode(r.data(), r.size(), &view));
  EXPECT_EQ(99u, view.timestampUs);
  EXPECT_EQ("tev.scsi.path.dead", view.id);
  EXPECT_EQ("Path is dead", view.message);
  EXPECT_EQ((std::vector<std::string>{"S:hwnic1", "S:(null)", "I:-1", "L:-9223372036854775808",
                                      "U:4000000000", "UL:18446744073709551615", "D:-0.25"}),
            tevdtest::ArgsText(view.args));
}

TEST(TevAccessors, IdentifierMessageAndTimestamp) {
  tevdtest::TevPtr tev = MakeTev("tev.net.hwnic.linkstate.down", {S("hwnic1")},
                                 "Physical NIC hwnic1 linkstate is down", 1700000000000001ull);
  ASSERT_TRUE(tev);
  const char *id = nullptr;
  ASSERT_EQ(0, Tev_GetID(tev.get(), &id));
  EXPECT_STREQ("tev.net.hwnic.linkstate.down", id);
  char *msg = nullptr;
  size_t len = 0;
  ASSERT_EQ(0, Tev_GetMsg(tev.get(), &msg, &len));
  EXPECT_STREQ("Physical NIC hwnic1 linkstate is down", msg);
  EXPECT_EQ(37u, len);
  free(msg);
  uint64_t ts = 0;
  ASSERT_EQ(0, Tev_GetTimestamp(tev.get(), &ts));
  EXPECT_EQ(1700000000000001ull, ts);
  uint32_t count = 0;
  ASSERT_EQ(0, Tev_GetArgCount(tev.get(), &count));
  EXPECT_EQ(1u, count);
  EXPECT_TRUE(Tev_IsID(id, "tev.net.hwnic.linkstate.down"));
  EXPECT_FALSE(Tev_IsID(id, "tev.net.hwnic.linkstate.DOWN"));
  EXPECT_FALSE(Tev_IsID(id, nullptr));
}

TEST(TevAccessors, IntArgAcceptsEveryIntegerTypeAndRefusesOthers) {
  tevdtest::TevPtr tev =
      MakeTev("tev.t.x", {I(-7), L(0x100000005ll), U(0xFFFFFFFFu), UL(0xFFFFFFFF00000002ull),
                          S("9"), MsgFmt_Value::Dbl(1.0)});
  ASSERT_TRUE(tev);
  const int32_t expected[] = {-7, 5, -1, 2};
  for (int i = 0; i < 4; i++) {
    int32_t v = 0;
    ASSERT_EQ(0, Tev_GetIntArg(tev.get(), i, &v)) << i;
    EXPECT_EQ(expected[i], v) << i;
  }
  int32_t v = 0;
  EXPECT_EQ(22, Tev_GetIntArg(tev.get(), 4, &v));  // a string
  EXPECT_EQ(22, Tev_GetIntArg(tev.get(), 5, &v));  // a double
  EXPECT_EQ(22, Tev_GetIntArg(tev.get(), 6, &v));  // past the end
  EXPECT_EQ(22, Tev_GetIntArg(tev.get(), -1, &v));
}

TEST(TevAccessors, NullStringIsDeliveredAsANullPointer) {
  tevdtest::TevPtr tev = MakeTev("tev.t.x", {MsgFmt_Value::NullStr(), S("")});
  ASSERT_TRUE(tev);
  const char *str = reinterpret_cast<const char *>(1);
  EXPECT_EQ(0, Tev_GetStringArg(tev.get(), 0, &str));
  EXPECT_EQ(nullptr, str);
  for (const char *format : {"%p %s", "%s %p"}) {
    const char *a = reinterpret_cast<const char *>(1);
    const char *b = nullptr;
    EXPECT_EQ(0, Tev_GetArgs(tev.get(), 0, format, &a, &b)) << format;
    EXPECT_EQ(nullptr, a) << format;
    EXPECT_STREQ("", b) << format;
  }
  // A length modifier still makes a string conversion a mismatch.
  EXPECT_EQ(22, Tev_GetArgs(tev.get(), 0, "%ls", &str));
  ASSERT_EQ(0, Tev_GetStringArg(tev.get(), 1, &str));
  EXPECT_STREQ("", str);
  int32_t v;
  EXPECT_EQ(22, Tev_GetIntArg(tev.get(), 1, &v));
}

TEST(TevGetArgs, PointerAndIntegerConversions) {
  tevdtest::TevPtr tev = MakeTev("tev.scsi.x", {S("naa.1"), S("hba1:C0:T0:L0"), I(3), U(0xabc)});
  ASSERT_TRUE(tev);
  const char *dev = nullptr;
  const char *path = nullptr;
  int a = 0;
  unsigned b = 0;
  ASSERT_EQ(0, Tev_GetArgs(tev.get(), 0, "%p %p %d %x", &dev, &path, &a, &b));
  EXPECT_STREQ("naa.1", dev);
  EXPECT_STREQ("hba1:C0:T0:L0", path);
  EXPECT_EQ(3, a);
  EXPECT_EQ(0xabcu, b);
  // The first index skips leading arguments; text between conversions is ignored.
  ASSERT_EQ(0, Tev_GetArgs(tev.get(), 1, "path=%s n=%10d", &path, &a));
  EXPECT_STREQ("hba1:C0:T0:L0", path);
  EXPECT_EQ(3, a);
}

TEST(TevGetArgs, SixtyFourBitValuesAndNarrowWidths) {
  tevdtest::TevPtr tev =
      MakeTev("tev.t.x", {L(-5000000000ll), UL(0x8000000000000001ull), I(0x1234), I(0x1ff)});
  ASSERT_TRUE(tev);
  long l = 0;
  unsigned long long ull = 0;
  unsigned short h = 0;
  unsigned char hh = 0;
  ASSERT_EQ(0, Tev_GetArgs(tev.get(), 0, "%ld %llx %hx %hhx", &l, &ull, &h, &hh));
  EXPECT_EQ(-5000000000l, l);
  EXPECT_EQ(0x8000000000000001ull, ull);
  EXPECT_EQ(0x1234, h);
  EXPECT_EQ(0xff, hh);
  int narrowed = 0;
  ASSERT_EQ(0, Tev_GetArgs(tev.get(), 0, "%d", &narrowed));  // 64-bit converted to 32
  EXPECT_EQ(static_cast<int>(static_cast<uint32_t>(-5000000000ll)), narrowed);
}

TEST(TevGetArgs, MismatchesAndMissingArgumentsFailWith22) {
  tevdtest::TevPtr tev = MakeTev("tev.t.x", {S("a"), I(1), MsgFmt_Value::Dbl(2.0)});
  ASSERT_TRUE(tev);
  const char *s = nullptr;
  int i = 0;
  double d = 0;
  EXPECT_EQ(22, Tev_GetArgs(tev.get(), 0, "%d", &i));  // string for an integer
  EXPECT_EQ(22, Tev_GetArgs(tev.get(), 1, "%p", &s));  // integer for a string
  EXPECT_EQ(22, Tev_GetArgs(tev.get(), 2, "%d", &i));  // double for an integer
  EXPECT_EQ(22, Tev_GetArgs(tev.get(), 0, "%p %d %lf %d", &s, &i, &d, &i));  // too few
  EXPECT_EQ(22, Tev_GetArgs(tev.get(), 3, "%d", &i));                        // first past the end
  EXPECT_EQ(22, Tev_GetArgs(tev.get(), 0, "%p %", &s));  // ends inside a conversion
  ASSERT_EQ(0, Tev_GetArgs(tev.get(), 0, "%p %d %lf", &s, &i, &d));
  EXPECT_EQ(2.0, d);
  EXPECT_EQ(0, Tev_GetArgs(tev.get(), 0, "no conversions"));
}

TEST(TevMakeTev, MalformedRecordIsRefusedAndFreed) {
  std::vector<uint8_t> r = TevRecord_Encode("net.no.prefix", "", 1, {});
  void *copy = malloc(r.size());
  memcpy(copy, r.data(), r.size());
  Tev *tev = reinterpret_cast<Tev *>(1);
  EXPECT_EQ(22, Tev_MakeTev(copy, static_cast<uint32_t>(r.size()), &tev));  // frees `copy`
  EXPECT_EQ(nullptr, tev);
  uint32_t len = 0;
  tevdtest::TevPtr good = MakeTev("tev.a.b");
  ASSERT_TRUE(good);
  ASSERT_NE(nullptr, Tev_RecordBytes(good.get(), &len));
  EXPECT_EQ(TevRecord_Encode("tev.a.b", "", 1234, {}).size(), len);
}

void Set32(std::vector<uint8_t> *r, size_t off, uint32_t v) { memcpy(r->data() + off, &v, 4); }

// Every header field is checked before anything reads through it.
TEST(TevRecordValidate, MalformedRecordsAreRefused) {
  struct Row {
    const char *fault;
    void (*corrupt)(std::vector<uint8_t> *r);
  } rows[] = {
      {"ShorterThanHeader", [](std::vector<uint8_t> *r) { r->resize(31); }},
      {"BadMagic", [](std::vector<uint8_t> *r) { (*r)[3] = '2'; }},
      {"ReservedNotZero", [](std::vector<uint8_t> *r) { (*r)[7] = 1; }},
      {"LengthFieldMismatch", [](std::vector<uint8_t> *r) { Set32(r, 16, 72); }},
      {"MessageOffsetInHeader", [](std::vector<uint8_t> *r) { Set32(r, 20, 32); }},
      {"MessageOffsetAtEnd", [](std::vector<uint8_t> *r) { Set32(r, 20, 64); }},
      {"ArgumentOffsetUnaligned", [](std::vector<uint8_t> *r) { Set32(r, 28, 44); }},
      {"ArgumentOffsetBeforeMessage", [](std::vector<uint8_t> *r) { Set32(r, 28, 40); }},
      {"ArgumentOffsetAtMessage",
       [](std::vector<uint8_t> *r) {
         Set32(r, 20, 40);
         Set32(r, 28, 40);
       }},
      {"ArgumentOffsetPastEnd", [](std::vector<uint8_t> *r) { Set32(r, 28, 72); }},
      {"IdentifierUnterminated", [](std::vector<uint8_t> *r) { (*r)[42] = 'x'; }},
      {"IdentifierWithoutPrefix", [](std::vector<uint8_t> *r) { (*r)[32] = 'T'; }},
      {"MessageUnterminated", [](std::vector<uint8_t> *r) { memset(r->data() + 43, 'm', 5); }},
      {"ArgumentCountTooLarge", [](std::vector<uint8_t> *r) { Set32(r, 24, 2); }},
  };
  for (const Row &row : rows) {
    std::vector<uint8_t> r = TevRecord_Encode("tev.net.up", "hi", 5, {I(7)});
    ASSERT_TRUE(TevRecord_IsWellFormed(r.data(), r.size()));
    row.corrupt(&r);
    std::string why;
    EXPECT_FALSE(TevRecord_IsWellFormed(r.data(), r.size(), &why)) << row.fault;
    EXPECT_FALSE(why.empty()) << row.fault;
    TevRecordView view;
    EXPECT_FALSE(TevRecord_Decode(r.data(), r.size(), &view)) << row.fault;
  }
  std::vector<uint8_t> huge = TevRecord_Encode("tev.a.b", std::string(1 << 20, 'm'), 1, {});
  EXPECT_FALSE(TevRecord_IsWellFormed(huge.data(), huge.size()));
}

}  // namespace
