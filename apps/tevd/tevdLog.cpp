// Log output and panic. TevdLog keeps no shared state of its own: the line
// is formatted on the caller's stack and the sink (PlatformLog.cpp) queues
// it under its one lock, where it also writes the time prefix, so lines
// reach the collector in call order with prefixes that never go backwards.
// The only memory here is a per-thread copy of the last second's formatted
// local time, which spares localtime_r (and glibc's time-zone lock) on all
// but the first line of each second.
//
// Agents may be cancelled at exit; the sink holds off cancellation while it
// holds its lock, and the formatting path holds no object with a
// destructor: plain buffers only.
#include "tevdLog.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "MsgFmt.h"
#include "PlatformLog.h"
#include "TevClock.h"

namespace {

// "YYYY-MM-DDThh:mm:ssZ: " of one second of local time. The time-zone
// globals are part of the key so that a tzset() to another zone is seen at
// once rather than a second later.
struct SecondText {
  bool valid;
  time_t secs;
  long zone;
  int daylight;
  const char *names[2];
  size_t len;
  char text[32];
};

thread_local SecondText lastSecond;

bool SameZone(const SecondText &c) {
  return c.zone == timezone && c.daylight == daylight && c.names[0] == tzname[0] &&
         c.names[1] == tzname[1];
}

// The uncached form: any buffer size, any clock value.
int FormatPrefix(char *buf, size_t size, const struct timeval &tv, bool withMillis) {
  struct tm tmv;
  time_t secs = tv.tv_sec;
  buf[0] = '\0';
  if (localtime_r(&secs, &tmv) == nullptr) {
    return 0;
  }
  size_t len = strftime(buf, size, "%Y-%m-%dT%H:%M:%SZ: ", &tmv);
  // The zone letter labels local time on purpose; only the fraction is added.
  if (withMillis && len >= 3) {
    int n =
        snprintf(buf + len - 3, size - (len - 3), ".%03dZ: ", static_cast<int>(tv.tv_usec / 1000));
    if (n > 0) {
      len = len - 3 + static_cast<size_t>(n);
      if (len >= size) {
        len = size - 1;
      }
    }
  }
  return static_cast<int>(len);
}

// The sink writes the prefix when the line joins its queue: the time of a
// line is then the time of its place in the log.
int MillisPrefix(char *buf, size_t size) { return TevdLog_TimePrefix(buf, size, true); }

}  // namespace

int TevdLog_TimePrefix(char *buf, size_t size, bool withMillis) {
  struct timeval tv;
  TevClock_GetTimeOfDay(&tv);
  if (size == 0) {
    return 0;
  }
  long millis = static_cast<long>(tv.tv_usec / 1000);
  if (size < sizeof lastSecond.text || millis < 0 || millis > 999) {
    return FormatPrefix(buf, size, tv, withMillis);
  }
  SecondText &c = lastSecond;
  if (!c.valid || c.secs != tv.tv_sec || !SameZone(c)) {
    c.valid = false;
    int n = FormatPrefix(c.text, sizeof c.text, tv, false);
    if (n < 3) {
      return FormatPrefix(buf, size, tv, withMillis);
    }
    c.len = static_cast<size_t>(n);
    c.secs = tv.tv_sec;
    c.zone = timezone;
    c.daylight = daylight;
    c.names[0] = tzname[0];
    c.names[1] = tzname[1];
    c.valid = true;
  }
  size_t len = c.len;
  if (withMillis && len + 4 >= size) {
    return FormatPrefix(buf, size, tv, withMillis);
  }
  memcpy(buf, c.text, len + 1);
  if (withMillis) {
    // ".mmmZ: " over the trailing "Z: ", as snprintf(".%03dZ: ") would write.
    char *p = buf + len - 3;
    p[0] = '.';
    p[1] = static_cast<char>('0' + millis / 100);
    p[2] = static_cast<char>('0' + millis / 10 % 10);
    p[3] = static_cast<char>('0' + millis % 10);
    memcpy(p + 4, "Z: ", 4);
    len += 4;
  }
  return static_cast<int>(len);
}

void TevdLogV(const char *format, va_list ap) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  PlatformLog_VsyslogWithPrefix(MillisPrefix, format, ap);
#pragma GCC diagnostic pop
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
  vfprintf(stderr, format, ap);
  fflush(stderr);
  va_end(ap);
  TevdLog("%s", "Tevd - Panic: ");
  // The log copy does not carry the caller's values: standard error is the
  // faithful copy. The format is printed with every conversion left empty
  // ("x %d" logs "x "), which is what a format without its values can say
  // without reading arguments that were never passed.
  char *bare = MsgFmt_Asprintf(nullptr, format, nullptr, 0);
  TevdLog("%s", bare != nullptr ? bare : "");
  free(bare);
  PlatformLog_Flush();  // every thread's queued lines, the panic's among them
  abort();
}

void TevdNotReached(const char *source, int line) { Panic("NOT_REACHED %s:%d\n", source, line); }

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

bool TevdLog_Allow(TevdLogLimiter *limiter, uint64_t *skipped) {
  int64_t now = TevClock_NowSeconds();
  int64_t last = limiter->lastSecond.load(std::memory_order_relaxed);
  // A clock that went back opens a new interval too.
  bool due = last == INT64_MIN || now - last >= TEVD_LOG_INTERVAL || now < last;
  if (!due || !limiter->lastSecond.compare_exchange_strong(last, now)) {
    limiter->suppressed.fetch_add(1, std::memory_order_relaxed);
    return false;
  }
  *skipped = limiter->suppressed.exchange(0, std::memory_order_relaxed);
  return true;
}
