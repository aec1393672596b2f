// Message-format library: the argument block itself. Values and their
// encoding, the slot accessors, and the decoder that trusts nothing: it reads
// only inside `size`.
#include <cstring>

#include "MsgFmt.h"
#include "PlatformInternal.h"

using platform_internal::RawArg;
using platform_internal::WriteSlot;

namespace platform_internal {

void WriteSlot(void *block, size_t index, uint32_t type, uint32_t length, uint64_t value) {
  MsgFmt_Arg slot{type, length, value};
  memcpy(static_cast<uint8_t *>(block) + index * MSGFMT_SLOT_SIZE, &slot, sizeof slot);
}

}  // namespace platform_internal

// ---- values ----------------------------------------------------------------

MsgFmt_Value MsgFmt_Value::I32(int32_t v) {
  MsgFmt_Value r;
  r.type = MSGFMT_TYPE_INT32;
  r.bits = static_cast<uint64_t>(static_cast<int64_t>(v));
  return r;
}
MsgFmt_Value MsgFmt_Value::I64(int64_t v) {
  MsgFmt_Value r;
  r.type = MSGFMT_TYPE_INT64;
  r.bits = static_cast<uint64_t>(v);
  return r;
}
MsgFmt_Value MsgFmt_Value::U32(uint32_t v) {
  MsgFmt_Value r;
  r.type = MSGFMT_TYPE_UINT32;
  r.bits = v;
  return r;
}
MsgFmt_Value MsgFmt_Value::U64(uint64_t v) {
  MsgFmt_Value r;
  r.type = MSGFMT_TYPE_UINT64;
  r.bits = v;
  return r;
}
MsgFmt_Value MsgFmt_Value::Dbl(double v) {
  MsgFmt_Value r;
  r.type = MSGFMT_TYPE_DOUBLE;
  memcpy(&r.bits, &v, sizeof v);
  return r;
}
MsgFmt_Value MsgFmt_Value::Str(const std::string &s) {
  MsgFmt_Value r;
  r.type = MSGFMT_TYPE_STRING;
  r.str = s;
  return r;
}
MsgFmt_Value MsgFmt_Value::NullStr() {
  MsgFmt_Value r;
  r.type = MSGFMT_TYPE_STRING;
  r.isNull = true;
  return r;
}
bool MsgFmt_Value::operator==(const MsgFmt_Value &o) const {
  return type == o.type && bits == o.bits && isNull == o.isNull && str == o.str;
}

MsgFmt_Arg MsgFmt_ReadSlot(const void *block, int index) {
  MsgFmt_Arg slot;
  memcpy(&slot, static_cast<const uint8_t *>(block) + static_cast<size_t>(index) * MSGFMT_SLOT_SIZE,
         sizeof slot);
  return slot;
}

void MsgFmt_SwizzleArgs(MsgFmt_Arg *args, int numArgs) {
  uintptr_t base = reinterpret_cast<uintptr_t>(args);
  for (int i = 0; i < numArgs; i++) {
    MsgFmt_Arg s = MsgFmt_ReadSlot(args, i);
    if (s.type != MSGFMT_TYPE_STRING) continue;
    s.value = s.length == MSGFMT_NULL_STRING ? 0 : static_cast<uint64_t>(s.value - base);
    WriteSlot(args, static_cast<size_t>(i), s.type, s.length, s.value);
  }
}

int MsgFmt_GetSwizzledString(const void *block, size_t blockSize, int numArgs, int index,
                             const char **str) {
  if (block == nullptr || str == nullptr || numArgs < 0 || index < 0 || index >= numArgs) {
    return 22;
  }
  uint64_t slots = static_cast<uint64_t>(numArgs) * MSGFMT_SLOT_SIZE;
  if (slots > blockSize) return 22;
  MsgFmt_Arg s = MsgFmt_ReadSlot(block, index);
  if (s.type != MSGFMT_TYPE_STRING) return 22;
  if (s.length == MSGFMT_NULL_STRING) {
    *str = nullptr;
    return 0;
  }
  if (s.value < slots || s.value >= blockSize || blockSize - s.value <= s.length) return 22;
  const char *p = static_cast<const char *>(block) + s.value;
  if (p[s.length] != '\0' || memchr(p, '\0', s.length) != nullptr) return 22;
  *str = p;
  return 0;
}

std::vector<uint8_t> MsgFmt_EncodeBlock(const std::vector<MsgFmt_Value> &args) {
  size_t size = args.size() * MSGFMT_SLOT_SIZE;
  for (const MsgFmt_Value &v : args) {
    if (v.type == MSGFMT_TYPE_STRING && !v.isNull) size += v.str.size() + 1;
  }
  std::vector<uint8_t> block(size, 0);
  size_t strOff = args.size() * MSGFMT_SLOT_SIZE;
  for (size_t i = 0; i < args.size(); i++) {
    const MsgFmt_Value &v = args[i];
    if (v.type != MSGFMT_TYPE_STRING) {
      WriteSlot(block.data(), i, v.type, 0, v.bits);
    } else if (v.isNull) {
      WriteSlot(block.data(), i, v.type, MSGFMT_NULL_STRING, 0);
    } else {
      memcpy(block.data() + strOff, v.str.data(), v.str.size());
      WriteSlot(block.data(), i, v.type, static_cast<uint32_t>(v.str.size()), strOff);
      strOff += v.str.size() + 1;
    }
  }
  return block;
}

namespace platform_internal {

bool ParseBlock(const uint8_t *block, size_t size, uint32_t numArgs, std::vector<RawArg> *out,
                std::string *why) {
  auto fail = [why](const std::string &w) {
    if (why != nullptr) *why = w;
    return false;
  };
  uint64_t slots = static_cast<uint64_t>(numArgs) * MSGFMT_SLOT_SIZE;
  if (slots > size) {
    return fail("argument count " + std::to_string(numArgs) + " needs more than the block's " +
                std::to_string(size) + " bytes");
  }
  out->clear();
  out->reserve(numArgs);
  uint64_t next = slots;  // strings are stored once, in argument order
  for (uint32_t i = 0; i < numArgs; i++) {
    MsgFmt_Arg s = MsgFmt_ReadSlot(block, static_cast<int>(i));
    RawArg a;
    a.type = s.type;
    a.bits = s.value;
    std::string where = "argument " + std::to_string(i) + ": ";
    switch (s.type) {
      case MSGFMT_TYPE_INT32:
        if (s.value != static_cast<uint64_t>(static_cast<int64_t>(static_cast<int32_t>(s.value))))
          return fail(where + "int32 value not sign-extended");
        break;
      case MSGFMT_TYPE_UINT32:
        if (s.value > 0xFFFFFFFFu) return fail(where + "uint32 value not zero-extended");
        break;
      case MSGFMT_TYPE_INT64:
      case MSGFMT_TYPE_UINT64:
      case MSGFMT_TYPE_DOUBLE: break;
      case MSGFMT_TYPE_STRING:
        a.bits = 0;
        if (s.length == MSGFMT_NULL_STRING) {
          if (s.value != 0) return fail(where + "null string with a non-zero offset");
          break;
        }
        if (s.value != next)
          return fail(where + "string offset " + std::to_string(s.value) +
                      " outside its place (expected " + std::to_string(next) + ")");
        if (next + s.length >= size) return fail(where + "string runs past the block");
        if (block[next + s.length] != '\0') return fail(where + "string not NUL-terminated");
        if (memchr(block + next, '\0', s.length) != nullptr)
          return fail(where + "string shorter than its length");
        a.str = reinterpret_cast<const char *>(block + next);
        next += static_cast<uint64_t>(s.length) + 1;
        break;
      default: return fail(where + "unknown type " + std::to_string(s.type));
    }
    if (s.type != MSGFMT_TYPE_STRING && s.length != 0) {
      return fail(where + "length field of a non-string is not 0");
    }
    out->push_back(a);
  }
  if (next != size) {
    return fail("block is " + std::to_string(size) + " bytes, its arguments use " +
                std::to_string(next));
  }
  return true;
}

}  // namespace platform_internal

bool MsgFmt_DecodeBlock(const void *block, size_t size, uint32_t numArgs,
                        std::vector<MsgFmt_Value> *out, std::string *why) {
  std::vector<RawArg> raw;
  if ((block == nullptr && size > 0) ||
      !platform_internal::ParseBlock(static_cast<const uint8_t *>(block), size, numArgs, &raw,
                                     why)) {
    return false;
  }
  if (out != nullptr) {
    out->clear();
    for (const RawArg &a : raw) out->push_back(ToValue(a));
  }
  return true;
}
