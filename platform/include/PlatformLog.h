// The log sink: with TEVD_ROOT set, one datagram "<14>Mmm dd hh:mm:ss tevd: line"
// to $TEVD_ROOT/dev/log (dropped silently when absent); else vsyslog(LOG_INFO).
#pragma once

#include <cstdarg>
#include <cstddef>

void PlatformLog_Vsyslog(const char *format, va_list ap) __attribute__((format(printf, 1, 0)));
// The same, with `prefix` writing the start of the line's text (the daemon's
// time prefix; it returns the length written) at the moment the line joins
// the process's one queue: lines reach the collector in that order, so their
// prefixes never go backwards, whichever threads logged them.
void PlatformLog_VsyslogWithPrefix(int (*prefix)(char *buf, size_t size), const char *format,
                                   va_list ap) __attribute__((format(printf, 2, 0)));
// A thread that calls BatchLines leaves its lines in the queue (each with
// its time taken when it was logged); they are sent together with sendmmsg
// when the queue is full, at the next Flush (of any thread), at the next
// line of a thread that does not batch, or when the oldest has waited 5 ms
// of TevClock time, whichever comes first. Unbatch flushes and sends this
// thread's lines at once again. Flush sends every thread's queued lines (a
// Panic calls it before it aborts).
void PlatformLog_BatchLines(void);
void PlatformLog_Flush(void);
void PlatformLog_Unbatch(void);
// Lines dropped for a full collector queue since the process started.
unsigned long long PlatformLog_DroppedLines(void);

// Where the platform libraries' own diagnostics go (a dropped record, a new
// user-level connection, a refused host-model file): by default the sink
// above; a program that formats its log lines itself (the daemon's time
// prefix, a companion's name) installs its routine here.
typedef void (*PlatformLog_Fn)(const char *format, va_list ap);
void PlatformLog_SetDiagnosticSink(PlatformLog_Fn fn);
