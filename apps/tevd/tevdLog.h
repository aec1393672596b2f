// Log output and panic. TevdLog is called from every thread at once and keeps
// no state; Panic writes standard error, logs twice and aborts.
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstdint>

#include "Str.h"
#include "TevLib.h"

void TevdLog(const char *format, ...) TEV_PRINTF(1, 2);
void TevdLogV(const char *format, va_list ap) TEV_PRINTF(1, 0);
[[noreturn]] void Panic(const char *format, ...) TEV_PRINTF(1, 2);
// An internal inconsistency: Panic("NOT_REACHED %s:%d\n") with the source
// tag ("apps/tevd/tevdKfsCorrelator") and the line number it is known by.
[[noreturn]] void TevdNotReached(const char *source, int line);
// Fills `buf` (32 bytes) with "YYYY-MM-DDThh:mm:ss.mmmZ: "; returns its length.
int TevdLog_TimePrefix(char *buf, size_t size, bool withMillis);
// "[%s] %luus: [%s] %s\n" with the thread name, time stamp, identifier, message.
void TevdLog_Tev(Tev *tev);
void TevdLog_TevParts(const char *id, const char *msg, uint64_t timestampUs);
void TevdLogger_Start(void);

// A diagnostic that can repeat without end (a failing accept, a client reset,
// a refused identifier) is logged at most once per TEVD_LOG_INTERVAL seconds
// of wall-clock time; the occurrences in between are counted and the count
// goes out with the next line that is logged.
constexpr int64_t TEVD_LOG_INTERVAL = 5;
struct TevdLogLimiter {
  std::atomic<int64_t> lastSecond{INT64_MIN};
  std::atomic<uint64_t> suppressed{0};
};
// True when this occurrence is to be logged; *skipped is then the number of
// occurrences suppressed since the last one logged.
bool TevdLog_Allow(TevdLogLimiter *limiter, uint64_t *skipped);
