// One observation (`Tev`): a validated record plus a parsed view whose strings
// point into the record's own bytes, so accessors hand out pointers that live
// exactly as long as the Tev. A null string argument is a string: the string
// accessors deliver it as a null pointer, and each handler decides what a
// null means for it.
#include <cstdlib>
#include <cstring>

#include "PlatformInternal.h"
#include "TevLib.h"

struct Tev {
  uint8_t *record = nullptr;
  uint32_t length = 0;
  platform_internal::RawRecord view;
};

namespace {

bool IsInteger(uint32_t type) {
  return type == MSGFMT_TYPE_INT32 || type == MSGFMT_TYPE_INT64 || type == MSGFMT_TYPE_UINT32 ||
         type == MSGFMT_TYPE_UINT64;
}

template <typename T>
void StoreAs(void *dst, uint64_t bits) {
  T v = static_cast<T>(bits);
  memcpy(dst, &v, sizeof v);
}

}  // namespace

int Tev_MakeTev(void *record, uint32_t length, Tev **tev) {
  if (tev == nullptr) {
    free(record);
    return TEVLIB_ERR_INVAL;
  }
  *tev = nullptr;
  Tev *t = new Tev;
  if (!platform_internal::ParseRecord(static_cast<uint8_t *>(record), length, &t->view, nullptr)) {
    delete t;
    free(record);
    return TEVLIB_ERR_INVAL;
  }
  t->record = static_cast<uint8_t *>(record);
  t->length = length;
  *tev = t;
  return TEVLIB_OK;
}

void Tev_Free(Tev *tev) {
  if (tev == nullptr) return;
  free(tev->record);
  delete tev;
}

int Tev_GetID(Tev *tev, const char **id) {
  if (tev == nullptr || id == nullptr) return TEVLIB_ERR_INVAL;
  *id = tev->view.id;
  return TEVLIB_OK;
}

int Tev_GetMsg(Tev *tev, char **msg, size_t *length) {
  if (tev == nullptr || msg == nullptr) return TEVLIB_ERR_INVAL;
  size_t len = strlen(tev->view.message);
  char *copy = static_cast<char *>(malloc(len + 1));
  if (copy == nullptr) return TEVLIB_ERR_NOMEM;
  memcpy(copy, tev->view.message, len + 1);
  *msg = copy;
  if (length != nullptr) *length = len;
  return TEVLIB_OK;
}

int Tev_GetTimestamp(Tev *tev, uint64_t *usec) {
  if (tev == nullptr || usec == nullptr) return TEVLIB_ERR_INVAL;
  *usec = tev->view.timestampUs;
  return TEVLIB_OK;
}

bool Tev_IsID(const char *id, const char *other) {
  return id != nullptr && other != nullptr && strcmp(id, other) == 0;
}

int Tev_GetArgCount(Tev *tev, uint32_t *count) {
  if (tev == nullptr || count == nullptr) return TEVLIB_ERR_INVAL;
  *count = static_cast<uint32_t>(tev->view.args.size());
  return TEVLIB_OK;
}

int Tev_GetStringArg(Tev *tev, int index, const char **str) {
  if (tev == nullptr || str == nullptr || index < 0 ||
      static_cast<size_t>(index) >= tev->view.args.size()) {
    return TEVLIB_ERR_INVAL;
  }
  const platform_internal::RawArg &a = tev->view.args[static_cast<size_t>(index)];
  if (a.type != MSGFMT_TYPE_STRING) return TEVLIB_ERR_INVAL;
  *str = a.str;  // null for a null string
  return TEVLIB_OK;
}

int Tev_GetIntArg(Tev *tev, int index, int32_t *value) {
  if (tev == nullptr || value == nullptr || index < 0 ||
      static_cast<size_t>(index) >= tev->view.args.size()) {
    return TEVLIB_ERR_INVAL;
  }
  const platform_internal::RawArg &a = tev->view.args[static_cast<size_t>(index)];
  if (!IsInteger(a.type)) return TEVLIB_ERR_INVAL;
  *value = static_cast<int32_t>(static_cast<uint32_t>(a.bits));
  return TEVLIB_OK;
}

int Tev_GetArgs(Tev *tev, int first, const char *format, ...) {
  va_list ap;
  va_start(ap, format);
  int rc = Tev_GetArgsVA(tev, first, format, ap);
  va_end(ap);
  return rc;
}

namespace {

// Stores an integer argument in the C type its conversion names.
void StoreInteger(void *dst, char letter, const std::string &len, uint64_t bits) {
  if (letter == 'c' || len == "hh") StoreAs<unsigned char>(dst, bits);
  else if (len == "h") StoreAs<unsigned short>(dst, bits);
  else if (len.empty()) StoreAs<unsigned int>(dst, bits);
  else if (len == "l" || len == "z" || len == "t") StoreAs<unsigned long>(dst, bits);
  else if (len == "j") StoreAs<uintmax_t>(dst, bits);
  else StoreAs<unsigned long long>(dst, bits);
}

// "%lf" stores a double, "%f" a float; other lengths are refused.
int StoreDouble(void *dst, const std::string &len, uint64_t bits) {
  double d;
  memcpy(&d, &bits, sizeof d);
  if (len == "l") {
    memcpy(dst, &d, sizeof d);
  } else if (len.empty()) {
    float f = static_cast<float>(d);
    memcpy(dst, &f, sizeof f);
  } else {
    return TEVLIB_ERR_INVAL;
  }
  return TEVLIB_OK;
}

}  // namespace

// scanf-like: "%" [*] [width] [length] letter. '*' reads an argument without
// storing it, as scanf's assignment suppression does.
int Tev_GetArgsVA(Tev *tev, int first, const char *format, va_list ap) {
  if (tev == nullptr || format == nullptr || first < 0) return TEVLIB_ERR_INVAL;
  const std::vector<platform_internal::RawArg> &args = tev->view.args;
  size_t next = static_cast<size_t>(first);
  va_list va;
  va_copy(va, ap);
  int rc = TEVLIB_OK;
  for (size_t i = 0; format[i] != '\0' && rc == TEVLIB_OK;) {
    if (format[i] != '%') {
      i++;
      continue;
    }
    size_t j = i + 1;
    if (format[j] == '%') {
      i = j + 1;
      continue;
    }
    bool suppress = format[j] == '*';
    if (suppress) j++;
    while (format[j] >= '0' && format[j] <= '9') j++;
    std::string len;
    if ((format[j] == 'h' && format[j + 1] == 'h') || (format[j] == 'l' && format[j + 1] == 'l')) {
      len.assign(format + j, 2);
      j += 2;
    } else if (format[j] != '\0' && strchr("hlLqjzt", format[j]) != nullptr) {
      len.assign(format + j, 1);
      j++;
    }
    char letter = format[j];
    if (letter == '\0') {
      rc = TEVLIB_ERR_INVAL;
      break;
    }
    i = j + 1;
    if (next >= args.size()) {
      rc = TEVLIB_ERR_INVAL;
      break;
    }
    const platform_internal::RawArg &a = args[next++];
    if (letter == 'p' || letter == 's') {
      if (a.type != MSGFMT_TYPE_STRING || !len.empty()) {
        rc = TEVLIB_ERR_INVAL;
      } else if (!suppress) {
        *va_arg(va, const char **) = a.str;
      }
    } else if (strchr("diouxXc", letter) != nullptr) {
      if (!IsInteger(a.type)) {
        rc = TEVLIB_ERR_INVAL;
      } else if (!suppress) {
        StoreInteger(va_arg(va, void *), letter, len, a.bits);
      }
    } else if (strchr("feEgGaA", letter) != nullptr) {
      if (a.type != MSGFMT_TYPE_DOUBLE) {
        rc = TEVLIB_ERR_INVAL;
      } else if (!suppress) {
        rc = StoreDouble(va_arg(va, void *), len, a.bits);
      }
    } else {
      rc = TEVLIB_ERR_INVAL;
    }
  }
  va_end(va);
  return rc;
}

const uint8_t *Tev_RecordBytes(Tev *tev, uint32_t *length) {
  if (tev == nullptr) return nullptr;
  if (length != nullptr) *length = tev->length;
  return tev->record;
}
