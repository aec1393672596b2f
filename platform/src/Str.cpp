// String formatting and thread names. The kernel keeps 15 characters of a
// thread's name; the full name lives in thread-local storage for the log lines.
#include "Str.h"

#include <pthread.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {
thread_local bool tNamed = false;
thread_local char tName[256];
}  // namespace

char *Str_Vasprintf(size_t *length, const char *format, va_list ap) {
  char *out = nullptr;
  int n = vasprintf(&out, format, ap);
  if (n < 0) {
    return nullptr;
  }
  if (length != nullptr) {
    *length = static_cast<size_t>(n);
  }
  return out;
}

char *Str_Asprintf(size_t *length, const char *format, ...) {
  va_list ap;
  va_start(ap, format);
  char *out = Str_Vasprintf(length, format, ap);
  va_end(ap);
  return out;
}

int Str_Sprintf(char *buf, size_t size, const char *format, ...) {
  va_list ap;
  va_start(ap, format);
  int n = vsnprintf(buf, size, format, ap);
  va_end(ap);
  return n;
}

char *Str_Strcpy(char *dst, const char *src, size_t size) {
  size_t len = strlen(src);
  if (len >= size) {
    fprintf(stderr, "Str_Strcpy: %zu bytes do not fit in %zu\n", len + 1, size);
    abort();
  }
  memcpy(dst, src, len + 1);
  return dst;
}

void VThreadBase_SetName(const char *name) {
  if (name == nullptr) {
    name = "";
  }
  snprintf(tName, sizeof tName, "%s", name);
  tNamed = true;
  char shortName[16];
  snprintf(shortName, sizeof shortName, "%s", name);
  pthread_setname_np(pthread_self(), shortName);
}

const char *VThreadBase_CurName(void) {
  if (!tNamed) {
    // Never named by us: the kernel's name (the program's, on the main thread).
    if (pthread_getname_np(pthread_self(), tName, sizeof tName) != 0) {
      tName[0] = '\0';
    }
    tNamed = true;
  }
  return tName;
}
