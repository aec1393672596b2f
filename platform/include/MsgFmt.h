// Message-format library: printf arguments to the typed argument block of
// docs/formats.md and back. A block is n 16-byte slots then the string bytes.
// Blocks may sit at any alignment: every access goes through memcpy.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

enum MsgFmt_Type : uint32_t {
  MSGFMT_TYPE_INT32 = 1,
  MSGFMT_TYPE_INT64 = 2,
  MSGFMT_TYPE_UINT32 = 3,
  MSGFMT_TYPE_UINT64 = 4,
  MSGFMT_TYPE_DOUBLE = 5,
  MSGFMT_TYPE_STRING = 6,
};
constexpr size_t MSGFMT_SLOT_SIZE = 16;
constexpr uint32_t MSGFMT_NULL_STRING = 0xFFFFFFFFu;

// One slot as laid out in a block. In a block that is not yet swizzled, a
// string slot's value holds a pointer; after MsgFmt_SwizzleArgs, an offset
// from the block's start.
struct MsgFmt_Arg {
  uint32_t type;
  uint32_t length;
  uint64_t value;
};
static_assert(sizeof(MsgFmt_Arg) == MSGFMT_SLOT_SIZE, "slot is 16 bytes");

// A decoded argument.
struct MsgFmt_Value {
  uint32_t type = 0;
  uint64_t bits = 0;    // integers sign/zero-extended; double: IEEE bits
  bool isNull = false;  // strings only
  std::string str;

  static MsgFmt_Value I32(int32_t v);
  static MsgFmt_Value I64(int64_t v);
  static MsgFmt_Value U32(uint32_t v);
  static MsgFmt_Value U64(uint64_t v);
  static MsgFmt_Value Dbl(double v);
  static MsgFmt_Value Str(const std::string &s);
  static MsgFmt_Value NullStr();
  bool operator==(const MsgFmt_Value &o) const;
};

// Serialises the arguments that `format` describes into buf (capacity
// *bufSize). On success returns true, *args = buf, *numArgs, and *bufSize = the
// bytes used. Returns false when the block does not fit (or the format is
// bad; *error then names the problem, else nullptr).
bool MsgFmt_GetArgsWithBuf(const char *format, va_list va, MsgFmt_Arg **args, int *numArgs,
                           char **error, void *buf, size_t *bufSize);
// Formats `format` with the (unswizzled) arguments into a new malloc'd string.
char *MsgFmt_Asprintf(size_t *length, const char *format, const MsgFmt_Arg *args, int numArgs);
// Turns string pointers into offsets from `args` (the block's start).
void MsgFmt_SwizzleArgs(MsgFmt_Arg *args, int numArgs);
// String of argument `index` of a swizzled block of `blockSize` bytes.
// Returns 0 (and nullptr for a null string) or 22.
int MsgFmt_GetSwizzledString(const void *block, size_t blockSize, int numArgs, int index,
                             const char **str);
// Reads slot `index` of a block (any alignment).
MsgFmt_Arg MsgFmt_ReadSlot(const void *block, int index);

// Encodes values as a swizzled block.
std::vector<uint8_t> MsgFmt_EncodeBlock(const std::vector<MsgFmt_Value> &args);
// Decodes and validates a swizzled block of exactly `size` bytes.
bool MsgFmt_DecodeBlock(const void *block, size_t size, uint32_t numArgs,
                        std::vector<MsgFmt_Value> *out, std::string *why = nullptr);
// printf text from a format and decoded values (used by tools).
std::string MsgFmt_FormatValues(const char *format, const std::vector<MsgFmt_Value> &args);
// Types that `format`'s conversions describe, in order; false on a bad format.
bool MsgFmt_TypesOfFormat(const char *format, std::vector<uint32_t> *types, std::string *why);
