// Reading a file that someone else may have replaced by anything: a FIFO, a
// link to a device, a file that never ends. Every file a program of this
// project reads (the host model, the forwarder's spool) goes through here.
#pragma once

#include <cstddef>
#include <string>

enum class PlatformFileStatus {
  Ok,       // *content holds the whole file
  Absent,   // no such file (ENOENT, ENOTDIR): the caller's own "absent" rule
  Refused,  // not a regular file, larger than the cap, or unreadable: logged
};

// Largest host-model value read: one value per file, so far more than enough.
constexpr size_t PLATFORM_FILE_VALUE_CAP = 64 * 1024;

// Reads the regular file `path` (after following links) whole, opened without
// blocking, when it holds at most `cap` bytes. Anything else is refused
// without waiting on it and logged at most once a second through TevLib's
// log function ("Skipped the file P: why (N skipped so far)"); a refused
// file is, to the caller, a file that could not be read.
PlatformFileStatus PlatformFile_Read(const std::string &path, size_t cap, std::string *content);
// Files refused so far by this process.
unsigned long long PlatformFile_Refused(void);
// Logs (at most once a second, with the same count) that `path` was not
// written because it is not a regular file.
void PlatformFile_RefuseWrite(const std::string &path);
