// Reading files that anyone may have replaced (PlatformFile.h), and strict
// parsing of host-model values, shared by the platform's sources.
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "PlatformFile.h"
#include "PlatformInternal.h"
#include "TevClock.h"

namespace {

std::atomic<unsigned long long> gRefused{0};
std::atomic<int64_t> gLastRefusedLogSec{INT64_MIN};

PlatformFileStatus Refuse(const std::string &path, const char *why) {
  unsigned long long total = gRefused.fetch_add(1) + 1;
  int64_t now = TevClock_NowSeconds();
  int64_t last = gLastRefusedLogSec.load();
  if (now != last && gLastRefusedLogSec.compare_exchange_strong(last, now)) {
    platform_internal::TevLibLog("Skipped the file %s: %s (%llu skipped so far)\n", path.c_str(),
                                 why, total);
  }
  return PlatformFileStatus::Refused;
}

}  // namespace

PlatformFileStatus PlatformFile_Read(const std::string &path, size_t cap, std::string *content) {
  // The type is looked at before the open, so that a FIFO is never opened
  // (opening one, even without blocking, is a sign of life to its writer),
  // and again on the descriptor, for a file swapped in between.
  struct stat st;
  if (stat(path.c_str(), &st) != 0) {
    if (errno == ENOENT || errno == ENOTDIR) return PlatformFileStatus::Absent;
    return Refuse(path, strerror(errno));
  }
  if (!S_ISREG(st.st_mode)) return Refuse(path, "not a regular file");
  int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) {
    if (errno == ENOENT || errno == ENOTDIR) return PlatformFileStatus::Absent;
    return Refuse(path, strerror(errno));
  }
  const char *why = nullptr;
  std::string out;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    why = "not a regular file";
  } else if (static_cast<uint64_t>(st.st_size) > cap) {
    why = "larger than the size limit";
  }
  char chunk[4096];
  while (why == nullptr) {
    ssize_t n = read(fd, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      why = strerror(errno);
    } else if (n == 0) {
      break;
    } else if (out.size() + static_cast<size_t>(n) > cap) {
      why = "larger than the size limit";  // it grew while being read
    } else {
      out.append(chunk, static_cast<size_t>(n));
    }
  }
  close(fd);
  if (why != nullptr) return Refuse(path, why);
  *content = std::move(out);
  return PlatformFileStatus::Ok;
}

unsigned long long PlatformFile_Refused(void) { return gRefused.load(); }

void PlatformFile_RefuseWrite(const std::string &path) {
  (void)Refuse(path, "not a regular file; not written");
}

namespace platform_internal {

bool ReadFile(const std::string &path, std::string *content) {
  return PlatformFile_Read(path, PLATFORM_FILE_VALUE_CAP, content) == PlatformFileStatus::Ok;
}

std::string TrimValue(const std::string &value) {
  size_t end = value.size();
  while (end > 0 && (value[end - 1] == '\n' || value[end - 1] == '\r')) {
    end--;
  }
  return value.substr(0, end);
}

namespace {
std::string StripBlanks(const std::string &text) {
  size_t b = 0;
  size_t e = text.size();
  while (b < e && isspace(static_cast<unsigned char>(text[b]))) b++;
  while (e > b && isspace(static_cast<unsigned char>(text[e - 1]))) e--;
  return text.substr(b, e - b);
}
}  // namespace

bool ParseInt64(const std::string &text, int64_t *value) {
  std::string t = StripBlanks(text);
  if (t.empty()) {
    return false;
  }
  errno = 0;
  char *end = nullptr;
  long long v = strtoll(t.c_str(), &end, 10);
  if (errno != 0 || end == nullptr || *end != '\0') {
    return false;
  }
  *value = v;
  return true;
}

bool ParseUint64(const std::string &text, uint64_t *value) {
  std::string t = StripBlanks(text);
  if (t.empty() || t[0] == '-') {
    return false;
  }
  errno = 0;
  char *end = nullptr;
  unsigned long long v = strtoull(t.c_str(), &end, 10);
  if (errno != 0 || end == nullptr || *end != '\0') {
    return false;
  }
  *value = v;
  return true;
}

}  // namespace platform_internal
