// TEVD_ROOT: every absolute path of the platform resolves under it.
#pragma once

#include <string>

// "/var/run/x" -> "$TEVD_ROOT/var/run/x" (or unchanged when unset/empty).
std::string PlatformRoot_Path(const std::string &absolute);
// Creates the missing directories of `path` (mode 0755). 0 or errno.
int PlatformRoot_MakeDirs(const std::string &path);
// Replaces the file at `path` (a real path, already under the root) with
// `text` atomically: written to `path`.tmp in the same directory, then renamed
// over it, so a reader sees the old file or the new one. Makes the directory.
// 0 or errno.
int PlatformRoot_ReplaceFile(const std::string &path, const std::string &text);
// Takes this program's lock on the root: an flock on
// var/run/orlan/PROGRAM.lock, held through the returned descriptor (close on
// exec) until the process ends. -1 with *why set ("another tevd (pid 12)
// already runs on this root: ...") when another process holds it, or the
// file cannot be made. A second instance must refuse before it touches any
// socket: binding would take the first one's sockets over.
int PlatformRoot_LockProgram(const char *program, std::string *why);
// Host-model file helpers (names containing '/' use %2F). Throw
// HostCtl::Lib::HostCtlException when the file is absent/unwritable.
std::string PlatformModel_EscapeName(const std::string &name);
std::string PlatformModel_Path(const std::string &relative);  // root + "/platform/" + relative
bool PlatformModel_Read(const std::string &relative, std::string *value);
bool PlatformModel_Write(const std::string &relative, const std::string &value);

// The log sink: with TEVD_ROOT set, one datagram "<14>Mmm dd hh:mm:ss tevd: line"
// to $TEVD_ROOT/dev/log (dropped silently when absent); else vsyslog(LOG_INFO).
#include <cstdarg>
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
