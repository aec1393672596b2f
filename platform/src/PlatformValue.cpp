// Reading and strict parsing of host-model values, shared by the platform's
// sources.
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cstdlib>

#include "PlatformInternal.h"

namespace platform_internal {

bool ReadFile(const std::string &path, std::string *content) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return false;
  }
  struct stat st;
  if (fstat(fd, &st) != 0 || S_ISDIR(st.st_mode)) {
    close(fd);
    return false;
  }
  std::string out;
  char chunk[4096];
  for (;;) {
    ssize_t n = read(fd, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n < 0) {
      close(fd);
      return false;
    }
    if (n == 0) {
      break;
    }
    out.append(chunk, static_cast<size_t>(n));
  }
  close(fd);
  *content = out;
  return true;
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
