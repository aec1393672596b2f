// TEVD_ROOT: every absolute path of the platform resolves under it. The host
// model's files are PlatformModel.h, the log sink PlatformLog.h.
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
