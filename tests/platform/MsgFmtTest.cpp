// Argument blocks: printf conversions to type codes, the bytes of a block, the
// round trip, text formatting, the decoder's refusals; the qprob message decoder.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdarg>
#include <cstring>

#include "MsgFmt.h"
#include "Qprob.h"
#include "TevdTestSupport.h"

namespace {

using namespace tevdtest;

// Serialises like the poster does, into a buffer of `capacity` bytes that
// starts one byte off alignment (blocks sit right after the identifier).
struct Serialized {
  bool ok = false;
  std::vector<uint8_t> storage;
  MsgFmt_Arg *args = nullptr;
  int count = 0;
  size_t used = 0;
  std::string error;  // what the serialiser reported, "" for none
  uint8_t *block() { return storage.data() + 1; }
};

Serialized Serialize(size_t capacity, const char *format, ...) {
  Serialized s;
  s.storage.assign(capacity + 1, 0xAA);
  s.used = capacity;
  char *error = reinterpret_cast<char *>(1);  // must be set either way
  va_list ap;
  va_start(ap, format);
  s.ok = MsgFmt_GetArgsWithBuf(format, ap, &s.args, &s.count, &error, s.block(), &s.used);
  va_end(ap);
  s.error = error == reinterpret_cast<char *>(1) ? "<untouched>" : error == nullptr ? "" : error;
  return s;
}

TEST(MsgFmtTypes, ConversionsMapToTheirTypeCodesAndUnsupportedOnesAreRefused) {
  const std::pair<const char *, std::vector<uint32_t>> rows[] = {
      {"%d %i %c %hd %hhd %hi", {1, 1, 1, 1, 1, 1}},
      {"%ld %lld %li %zd", {2, 2, 2, 2}},
      {"%u %x %X %o %hu %hhx", {3, 3, 3, 3, 3, 3}},
      {"%lu %lx %llu %llx %zu %zx %p", {4, 4, 4, 4, 4, 4, 4}},
      {"%f %e %g %Lf %lg", {5, 5, 5, 5, 5}},
      {"100%% done %-8s|%08.3f", {6, 5}},
  };
  for (const auto &row : rows) {
    std::vector<uint32_t> types;
    std::string why;
    ASSERT_TRUE(MsgFmt_TypesOfFormat(row.first, &types, &why)) << row.first << ": " << why;
    EXPECT_EQ(row.second, types) << row.first;
  }
  for (const char *bad : {"%n", "%q", "%*d", "%.*s", "%ls", "trailing %", "%l"}) {
    std::string why;
    EXPECT_TRUE(!MsgFmt_TypesOfFormat(bad, nullptr, &why) && !why.empty()) << bad;
  }
}

TEST(MsgFmtBlock, BytesAreExactAndTheRoundTripKeepsEveryTypeAndValue) {
  const char *none = nullptr;
  Serialized s = Serialize(256, "%d %s %s", -3, "ab", none);
  ASSERT_TRUE(s.ok);
  ASSERT_EQ(3, s.count);
  ASSERT_EQ(51u, s.used);  // 3 slots + "ab\0"; the null string takes no bytes
  MsgFmt_SwizzleArgs(s.args, s.count);
  const uint8_t expected[51] = {1,    0,    0,    0,    0,    0,    0,    0,
                                0xFD, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,  // int32 -3
                                6,    0,    0,    0,    2,    0,    0,    0,
                                48,   0,    0,    0,    0,    0,    0,    0,  // "ab" at 48
                                6,    0,    0,    0,    0xFF, 0xFF, 0xFF, 0xFF,
                                0,    0,    0,    0,    0,    0,    0,    0,  // null
                                'a',  'b',  0};
  EXPECT_EQ(0, memcmp(expected, s.block(), sizeof expected));
  s = Serialize(512, "%d %ld %u %lu %f %s %s %p %hhd %hx", -2147483647 - 1,
                static_cast<long>(INT64_MIN), 4294967295u, static_cast<unsigned long>(UINT64_MAX),
                2.5, "hwnic1", none, reinterpret_cast<void *>(0x1234), 300, 0x12345);
  ASSERT_TRUE(s.ok);
  MsgFmt_SwizzleArgs(s.args, s.count);
  std::vector<MsgFmt_Value> values;
  std::string why;
  ASSERT_TRUE(MsgFmt_DecodeBlock(s.block(), s.used, static_cast<uint32_t>(s.count), &values, &why))
      << why;
  EXPECT_EQ((std::vector<std::string>{"I:-2147483648", "L:-9223372036854775808", "U:4294967295",
                                      "UL:18446744073709551615", "D:2.5", "S:hwnic1", "S:(null)",
                                      "UL:4660", "I:44", "U:9029"}),
            ArgsText(values));
  EXPECT_TRUE(values[6].isNull && !values[5].isNull);
}

TEST(MsgFmtBlock, BlockThatDoesNotFitFailsQuietlyAndBadFormatNamesTheProblem) {
  Serialized tooBig = Serialize(20, "%s", "four");  // 16 + 5 > 20
  EXPECT_TRUE(!tooBig.ok && tooBig.error.empty());
  Serialized exact = Serialize(20, "%s", "thr");  // 16 + 4 fits exactly
  EXPECT_TRUE(exact.ok && exact.used == 20u);
  Serialized bad = Serialize(64, "%n", nullptr);
  EXPECT_TRUE(!bad.ok && bad.error.find("%n") != std::string::npos) << bad.error;
}

// Text from decoded values (the forwarder's) must equal the daemon's log text: TevfwdE2E.
TEST(MsgFmtText, TextFromSlots) {
  const char *none = nullptr;
  const char *format = "NIC %s [%s] down (%d/%lu) %5.1f%% %p %x";
  Serialized s = Serialize(256, format, "hwnic1", none, -4, 18446744073709551615ul, 99.25,
                           reinterpret_cast<void *>(0xbeef), 255u);
  ASSERT_TRUE(s.ok);
  size_t len = 0;
  char *text = MsgFmt_Asprintf(&len, format, s.args, s.count);
  ASSERT_NE(nullptr, text);
  EXPECT_STREQ("NIC hwnic1 [(null)] down (-4/18446744073709551615)  99.2% 0xbeef ff", text);
  EXPECT_EQ(strlen(text), len);
  free(text);
}

void Put(std::vector<uint8_t> *b, size_t off, uint64_t v, size_t width) {
  memcpy(b->data() + off, &v, width);
}

// A damaged copy of a block or message: the `width` bytes at `at` set to `value`;
// width 0 cuts or pads it to `value` bytes.
struct Patch {
  const char *fault;
  size_t at, width;
  uint64_t value;
  std::vector<uint8_t> On(std::vector<uint8_t> b) const {
    b.resize(width == 0 ? value : std::max(b.size(), at + width));
    std::copy_n(reinterpret_cast<const uint8_t *>(&value), width, b.begin() + at);
    return b;
  }
};

TEST(MsgFmtDecode, MalformedBlocksAreRefused) {
  // The block: int32 -1, "hba1" at 48, a null string; slot k's field at 16k + off.
  // Type 3 makes the int32's -1 a uint32 that is not zero-extended.
  const Patch rows[] = {
      {"UnknownTypeCode", 0, 4, 7},          {"TypeCodeZero", 0, 4, 0},
      {"StringOffsetOutside", 24, 8, 4096},  {"StringOffsetIntoSlots", 24, 8, 8},
      {"StringLengthPastEnd", 20, 4, 200},   {"StringWithoutNul", 52, 1, 'x'},
      {"StringShorterThanLength", 49, 1, 0}, {"Int32NotSignExtended", 8, 8, 0xFFFFFFFFull},
      {"LengthOnInteger", 4, 4, 1},          {"NullStringWithOffset", 40, 8, 48},
      {"Uint32NotZeroExtended", 0, 4, 3},    {"TrailingBytes", 0, 0, 54},
  };
  const std::vector<uint8_t> block = MsgFmt_EncodeBlock(
      {MsgFmt_Value::I32(-1), MsgFmt_Value::Str("hba1"), MsgFmt_Value::NullStr()});
  std::vector<MsgFmt_Value> values;
  std::string why;
  auto decodes = [&](const std::vector<uint8_t> &b, uint32_t count) {
    why.clear();
    return MsgFmt_DecodeBlock(b.data(), b.size(), count, &values, &why);
  };
  ASSERT_TRUE(decodes(block, 3)) << why;
  for (const Patch &row : rows)
    EXPECT_TRUE(!decodes(row.On(block), 3) && !why.empty()) << row.fault;
  for (uint32_t count : {1u, 0x10000000u}) EXPECT_FALSE(decodes(block, count)) << count;
}

std::vector<uint8_t> BuildQprob(const std::string &id, const std::vector<MsgFmt_Value> &args,
                                const char *uuid) {
  std::vector<uint8_t> block = MsgFmt_EncodeBlock(args);
  uint32_t idLen = static_cast<uint32_t>(id.size() + 1);
  uint32_t total = 72 + idLen + static_cast<uint32_t>(block.size());
  std::vector<uint8_t> m(total, 0);
  Put(&m, 0, 1700000000123456ull, 8);
  if (uuid != nullptr) memcpy(m.data() + 16, uuid, strlen(uuid));
  Put(&m, 56, total, 4);
  Put(&m, 60, args.size(), 4);
  Put(&m, 64, idLen, 4);
  memcpy(m.data() + 68, id.c_str(), idLen);
  if (!block.empty()) memcpy(m.data() + 68 + idLen, block.data(), block.size());
  return m;
}

TEST(QprobDecode, DecodesHeaderIdentifierClassAndArguments) {
  std::vector<uint8_t> m =
      BuildQprob("kos.problem.net.hwnic.linkstate.down",
                 {MsgFmt_Value::Str("hwnic\"1\\\n\x01"), MsgFmt_Value::NullStr(),
                  MsgFmt_Value::I32(-5), MsgFmt_Value::U64(7), MsgFmt_Value::Dbl(0.5)},
                 "4c4c4544-0031-3510-8052-b4c04f4e3232");
  QprobMessage q;
  std::string why;
  ASSERT_TRUE(Qprob_Decode(m.data(), m.size(), &q, &why)) << why;
  EXPECT_EQ(37u, q.idLength);
  EXPECT_EQ(
      "{\"ts\":1700000000123456,\"class\":\"problem\",\"id\":\"kos.problem.net.hwnic.linkstate.down\","
      "\"host\":\"4c4c4544-0031-3510-8052-b4c04f4e3232\",\"args\":[{\"type\":\"string\",\"value\":"
      "\"hwnic\\\"1\\\\\\n\\u0001\"},{\"type\":\"string\",\"value\":null},{\"type\":\"int32\",\"value\":-5},"
      "{\"type\":\"uint64\",\"value\":7},{\"type\":\"double\",\"value\":0.5}]}",
      Qprob_ToJson(q));
  for (const auto &row :
       {std::make_pair("kos.audit.x", "audit"), {"kos.clear.x", "clear"}, {"kos.other.x", ""}}) {
    m = BuildQprob(row.first, {}, nullptr);
    ASSERT_TRUE(Qprob_Decode(m.data(), m.size(), &q, nullptr)) << row.first;
    EXPECT_EQ(row.second, q.className);
    EXPECT_EQ("", q.hostUuid);
  }
}

TEST(QprobDecode, MalformedMessagesAreRefused) {
  const Patch rows[] = {
      {"LengthMismatch", 0, 0, 103},        {"Truncated", 0, 0, 60},
      {"IdentifierLengthZero", 64, 4, 0},   {"IdentifierLengthAbove129", 64, 4, 130},
      {"IdentifierWithoutNul", 79, 1, 'x'}, {"ArgumentCountTooLarge", 60, 4, 9},
  };
  const std::vector<uint8_t> m = BuildQprob("kos.clear.x", {MsgFmt_Value::Str("s")}, nullptr);
  ASSERT_EQ(102u, m.size());
  ASSERT_TRUE(Qprob_Decode(m.data(), m.size(), nullptr, nullptr));
  for (const Patch &row : rows) {
    std::vector<uint8_t> bad = row.On(m);
    std::string why;
    EXPECT_TRUE(!Qprob_Decode(bad.data(), bad.size(), nullptr, &why) && !why.empty()) << row.fault;
  }
  // No NUL in the 38-byte host field, nor in the padding after it.
  std::vector<uint8_t> bad = BuildQprob("kos.clear.x", {}, std::string(40, 'a').c_str());
  EXPECT_FALSE(Qprob_Decode(bad.data(), bad.size(), nullptr, nullptr));
}

}  // namespace
