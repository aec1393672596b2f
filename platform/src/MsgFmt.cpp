// Message-format library: a printf format plus its arguments become a typed
// argument block (n 16-byte slots, then the strings), and back into text.
// Blocks can sit at any alignment inside a message, so every slot access goes
// through memcpy. The decoder trusts nothing: it reads only inside `size`.
#include "MsgFmt.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "PlatformInternal.h"

using platform_internal::RawArg;
using platform_internal::WriteSlot;

// ---- format parsing ----------------------------------------------------------

namespace {

// One printf conversion: "%", flags, width, precision, length, letter.
struct Conv {
  size_t end = 0;  // index just past the conversion letter
  std::string flagsWidthPrec;
  std::string len;  // "", "hh", "h", "l", "ll", "L", "q", "j", "z", "t"
  char letter = 0;
  uint32_t type = 0;  // 0: takes no argument ("%%")
};

bool IsLong64(const std::string &len) {
  return len == "l" || len == "ll" || len == "q" || len == "j" || len == "z" || len == "t" ||
         len == "L";
}

// The argument type the conversion letter (with its length) takes.
bool TypeOfLetter(Conv *c, std::string *why) {
  switch (c->letter) {
    case '%': c->type = 0; return true;
    case 'd':
    case 'i': c->type = IsLong64(c->len) ? MSGFMT_TYPE_INT64 : MSGFMT_TYPE_INT32; return true;
    case 'c': c->type = MSGFMT_TYPE_INT32; return true;
    case 'u':
    case 'x':
    case 'X':
    case 'o': c->type = IsLong64(c->len) ? MSGFMT_TYPE_UINT64 : MSGFMT_TYPE_UINT32; return true;
    case 'f':
    case 'F':
    case 'e':
    case 'E':
    case 'g':
    case 'G':
    case 'a':
    case 'A': c->type = MSGFMT_TYPE_DOUBLE; return true;
    case 's':
      if (!c->len.empty()) {
        *why = "wide strings are not supported";
        return false;
      }
      c->type = MSGFMT_TYPE_STRING;
      return true;
    case 'p': c->type = MSGFMT_TYPE_UINT64; return true;
    default: *why = std::string("unsupported conversion '%") + c->letter + "'"; return false;
  }
}

// Parses the conversion starting at fmt[i] == '%'.
bool ParseConv(const char *fmt, size_t i, Conv *c, std::string *why) {
  size_t j = i + 1;
  while (fmt[j] != '\0' && strchr("-+ #0'", fmt[j]) != nullptr) {
    c->flagsWidthPrec += fmt[j++];
  }
  if (fmt[j] == '*') {
    *why = "'*' width takes an argument of its own and is not supported";
    return false;
  }
  while (fmt[j] >= '0' && fmt[j] <= '9') {
    c->flagsWidthPrec += fmt[j++];
  }
  if (fmt[j] == '.') {
    c->flagsWidthPrec += fmt[j++];
    if (fmt[j] == '*') {
      *why = "'*' precision takes an argument of its own and is not supported";
      return false;
    }
    while (fmt[j] >= '0' && fmt[j] <= '9') {
      c->flagsWidthPrec += fmt[j++];
    }
  }
  if ((fmt[j] == 'h' && fmt[j + 1] == 'h') || (fmt[j] == 'l' && fmt[j + 1] == 'l')) {
    c->len.assign(fmt + j, 2);
    j += 2;
  } else if (fmt[j] != '\0' && strchr("hlLqjzt", fmt[j]) != nullptr) {
    c->len.assign(fmt + j, 1);
    j += 1;
  }
  c->letter = fmt[j];
  if (c->letter == '\0') {
    *why = "format ends inside a conversion";
    return false;
  }
  c->end = j + 1;
  return TypeOfLetter(c, why);
}

bool ParseFormat(const char *format, std::vector<Conv> *convs, std::string *why) {
  if (format == nullptr) {
    *why = "null format";
    return false;
  }
  for (size_t i = 0; format[i] != '\0';) {
    if (format[i] != '%') {
      i++;
      continue;
    }
    Conv c;
    if (!ParseConv(format, i, &c, why)) {
      return false;
    }
    i = c.end;
    if (c.type != 0) {
      convs->push_back(c);
    }
  }
  return true;
}

// Reads the next variadic argument as the conversion describes it.
RawArg ReadVaArg(const Conv &c, va_list *vap) {
#define va (*vap)
  RawArg a;
  a.type = c.type;
  const std::string &len = c.len;
  switch (c.type) {
    case MSGFMT_TYPE_INT32: {
      int v = va_arg(va, int);
      // "%hhd" promotes a signed char: the sign extension is the point.
      // NOLINTNEXTLINE(bugprone-signed-char-misuse)
      if (len == "hh" && c.letter != 'c') v = static_cast<signed char>(v);
      if (len == "h") v = static_cast<short>(v);
      a.bits = static_cast<uint64_t>(static_cast<int64_t>(v));
      break;
    }
    case MSGFMT_TYPE_INT64: {
      int64_t v;
      if (len == "l") v = va_arg(va, long);
      else if (len == "j") v = va_arg(va, intmax_t);
      else if (len == "z") v = va_arg(va, ssize_t);
      else if (len == "t") v = va_arg(va, ptrdiff_t);
      else v = va_arg(va, long long);
      a.bits = static_cast<uint64_t>(v);
      break;
    }
    case MSGFMT_TYPE_UINT32: {
      unsigned v = va_arg(va, unsigned);
      if (len == "hh") v = static_cast<unsigned char>(v);
      if (len == "h") v = static_cast<unsigned short>(v);
      a.bits = v;
      break;
    }
    case MSGFMT_TYPE_UINT64: {
      uint64_t v;
      if (c.letter == 'p') v = reinterpret_cast<uintptr_t>(va_arg(va, void *));
      else if (len == "l") v = va_arg(va, unsigned long);
      else if (len == "j") v = va_arg(va, uintmax_t);
      else if (len == "z") v = va_arg(va, size_t);
      else if (len == "t") v = static_cast<uint64_t>(va_arg(va, ptrdiff_t));
      else v = va_arg(va, unsigned long long);
      a.bits = v;
      break;
    }
    case MSGFMT_TYPE_DOUBLE: {
      double d = len == "L" ? static_cast<double>(va_arg(va, long double)) : va_arg(va, double);
      memcpy(&a.bits, &d, sizeof d);
      break;
    }
    case MSGFMT_TYPE_STRING: a.str = va_arg(va, const char *); break;
    default: break;
  }
  return a;
#undef va
}

// ---- printing ----------------------------------------------------------------

void AppendV(std::string *out, const char *conv, ...) {
  va_list ap;
  va_start(ap, conv);
  va_list copy;
  va_copy(copy, ap);
  int n = vsnprintf(nullptr, 0, conv, copy);
  va_end(copy);
  if (n > 0) {
    size_t old = out->size();
    out->resize(old + static_cast<size_t>(n) + 1);
    vsnprintf(&(*out)[old], static_cast<size_t>(n) + 1, conv, ap);
    out->resize(old + static_cast<size_t>(n));
  }
  va_end(ap);
}

// Prints one argument for one conversion. The slot's type decides the C type
// handed to snprintf; a conversion that does not suit the type prints the
// value in its natural form instead of reading a wrong type.
void PrintArg(std::string *out, const Conv &c, const RawArg &a) {
  std::string conv = "%" + c.flagsWidthPrec;
  bool integer =
      a.type >= MSGFMT_TYPE_INT32 && a.type <= MSGFMT_TYPE_UINT64 && a.type != MSGFMT_TYPE_DOUBLE;
  bool wide = a.type == MSGFMT_TYPE_INT64 || a.type == MSGFMT_TYPE_UINT64;
  switch (c.letter) {
    case 'd':
    case 'i':
    case 'u':
    case 'x':
    case 'X':
    case 'o':
    case 'c':
      if (!integer) break;
      if (c.letter == 'c') {
        AppendV(out, (conv + "c").c_str(), static_cast<int>(a.bits));
      } else if (wide) {
        AppendV(out, (conv + "ll" + c.letter).c_str(), static_cast<unsigned long long>(a.bits));
      } else {
        std::string len = (c.len == "hh" || c.len == "h") ? c.len : "";
        AppendV(out, (conv + len + c.letter).c_str(), static_cast<unsigned>(a.bits));
      }
      return;
    case 'p':
      if (!integer) break;
      AppendV(out, (conv + "p").c_str(), reinterpret_cast<void *>(static_cast<uintptr_t>(a.bits)));
      return;
    case 's':
      if (a.type != MSGFMT_TYPE_STRING) break;
      AppendV(out, (conv + "s").c_str(), a.str != nullptr ? a.str : "(null)");
      return;
    default:
      if (a.type != MSGFMT_TYPE_DOUBLE) break;
      double d;
      memcpy(&d, &a.bits, sizeof d);
      AppendV(out, (conv + c.letter).c_str(), d);
      return;
  }
  switch (a.type) {
    case MSGFMT_TYPE_INT32:
    case MSGFMT_TYPE_INT64: AppendV(out, "%lld", static_cast<long long>(a.bits)); return;
    case MSGFMT_TYPE_UINT32:
    case MSGFMT_TYPE_UINT64: AppendV(out, "%llu", static_cast<unsigned long long>(a.bits)); return;
    case MSGFMT_TYPE_DOUBLE: {
      double d;
      memcpy(&d, &a.bits, sizeof d);
      AppendV(out, "%g", d);
      return;
    }
    case MSGFMT_TYPE_STRING: out->append(a.str != nullptr ? a.str : "(null)"); return;
    default: out->append("?"); return;
  }
}

// Formats `format`, taking argument k from args[k]; missing ones print nothing.
std::string FormatRaw(const char *format, const std::vector<RawArg> &args) {
  std::string out;
  if (format == nullptr) {
    return out;
  }
  size_t k = 0;
  for (size_t i = 0; format[i] != '\0';) {
    if (format[i] != '%') {
      out += format[i++];
      continue;
    }
    Conv c;
    std::string why;
    if (!ParseConv(format, i, &c, &why)) {
      out += format[i++];  // not a conversion we know: keep the text as it is
      continue;
    }
    i = c.end;
    if (c.type == 0) {
      out += '%';
      continue;
    }
    if (k < args.size()) {
      PrintArg(&out, c, args[k]);
    }
    k++;
  }
  return out;
}

}  // namespace

// ---- public API --------------------------------------------------------------

bool MsgFmt_TypesOfFormat(const char *format, std::vector<uint32_t> *types, std::string *why) {
  std::vector<Conv> convs;
  std::string err;
  if (!ParseFormat(format, &convs, &err)) {
    if (why != nullptr) *why = err;
    return false;
  }
  if (types != nullptr) {
    types->clear();
    for (const Conv &c : convs) types->push_back(c.type);
  }
  return true;
}

bool MsgFmt_GetArgsWithBuf(const char *format, va_list va, MsgFmt_Arg **args, int *numArgs,
                           char **error, void *buf, size_t *bufSize) {
  static thread_local std::string tError;
  if (error != nullptr) *error = nullptr;
  std::vector<Conv> convs;
  if (!ParseFormat(format, &convs, &tError)) {
    if (error != nullptr) *error = &tError[0];
    return false;
  }
  std::vector<RawArg> raw;
  raw.reserve(convs.size());
  uint64_t need = convs.size() * MSGFMT_SLOT_SIZE;
  va_list local;
  va_copy(local, va);
  for (const Conv &c : convs) {
    raw.push_back(ReadVaArg(c, &local));
    const RawArg &a = raw.back();
    if (a.type == MSGFMT_TYPE_STRING && a.str != nullptr) {
      need += strlen(a.str) + 1;
    }
  }
  va_end(local);
  if (bufSize == nullptr || need > *bufSize || (need > 0 && buf == nullptr)) {
    return false;
  }
  uint8_t *block = static_cast<uint8_t *>(buf);
  size_t strOff = convs.size() * MSGFMT_SLOT_SIZE;
  for (size_t i = 0; i < raw.size(); i++) {
    const RawArg &a = raw[i];
    if (a.type != MSGFMT_TYPE_STRING) {
      WriteSlot(block, i, a.type, 0, a.bits);
    } else if (a.str == nullptr) {
      WriteSlot(block, i, a.type, MSGFMT_NULL_STRING, 0);
    } else {
      size_t len = strlen(a.str);
      memcpy(block + strOff, a.str, len + 1);
      WriteSlot(block, i, a.type, static_cast<uint32_t>(len),
                reinterpret_cast<uintptr_t>(block + strOff));
      strOff += len + 1;
    }
  }
  if (args != nullptr) *args = reinterpret_cast<MsgFmt_Arg *>(buf);
  if (numArgs != nullptr) *numArgs = static_cast<int>(convs.size());
  *bufSize = static_cast<size_t>(need);
  return true;
}

char *MsgFmt_Asprintf(size_t *length, const char *format, const MsgFmt_Arg *args, int numArgs) {
  std::vector<RawArg> raw;
  for (int i = 0; i < numArgs; i++) {
    MsgFmt_Arg s = MsgFmt_ReadSlot(args, i);
    RawArg a;
    a.type = s.type;
    a.bits = s.value;
    if (s.type == MSGFMT_TYPE_STRING) {
      a.bits = 0;
      a.str = s.length == MSGFMT_NULL_STRING
                  ? nullptr
                  : reinterpret_cast<const char *>(static_cast<uintptr_t>(s.value));
    }
    raw.push_back(a);
  }
  std::string text = FormatRaw(format, raw);
  char *out = static_cast<char *>(malloc(text.size() + 1));
  if (out == nullptr) {
    return nullptr;
  }
  memcpy(out, text.c_str(), text.size() + 1);
  if (length != nullptr) *length = text.size();
  return out;
}

std::string MsgFmt_FormatValues(const char *format, const std::vector<MsgFmt_Value> &args) {
  std::vector<RawArg> raw;
  for (const MsgFmt_Value &v : args) {
    RawArg a;
    a.type = v.type;
    a.bits = v.bits;
    if (v.type == MSGFMT_TYPE_STRING) a.str = v.isNull ? nullptr : v.str.c_str();
    raw.push_back(a);
  }
  return FormatRaw(format, raw);
}
