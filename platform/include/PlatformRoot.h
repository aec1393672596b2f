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
// A thread that calls BatchLines has its lines queued (each with its time
// taken when it was logged) and sent together with sendmmsg when the queue is
// full or at Flush, which the thread calls before every wait; Unbatch flushes
// and sends each line at once again. Threads that never call BatchLines are
// not affected; Flush on them does nothing.
void PlatformLog_BatchLines(void);
void PlatformLog_Flush(void);
void PlatformLog_Unbatch(void);
// Lines dropped for a full collector queue since the process started.
unsigned long long PlatformLog_DroppedLines(void);
