// Host-model file access: one value per file under $TEVD_ROOT/platform/.
// Nothing here caches: the host model is read at each call.
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "PlatformFile.h"
#include "PlatformInternal.h"
#include "PlatformModel.h"
#include "PlatformRoot.h"

std::string PlatformModel_EscapeName(const std::string &name) {
  // "." and ".." would leave the model's directory: spell their dots out too.
  if (name == "." || name == "..") {
    std::string out;
    for (size_t i = 0; i < name.size(); i++) {
      out += "%2E";
    }
    return out;
  }
  std::string out;
  for (char c : name) {
    if (c == '/') {
      out += "%2F";
    } else {
      out += c;
    }
  }
  return out;
}

std::string PlatformModel_Path(const std::string &relative) {
  return PlatformRoot_Path("/platform/" + relative);
}

bool PlatformModel_Read(const std::string &relative, std::string *value) {
  std::string content;
  if (!platform_internal::ReadFile(PlatformModel_Path(relative), &content)) {
    return false;
  }
  if (value != nullptr) {
    *value = platform_internal::TrimValue(content);
  }
  return true;
}

bool PlatformModel_Write(const std::string &relative, const std::string &value) {
  // No directory is created: writing into an absent node is the call's failure.
  std::string path = PlatformModel_Path(relative);
  // Only a regular file is written (a FIFO would hold the writer until
  // someone reads it), and it is emptied only once it is known to be one.
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0644);
  struct stat st;
  if (fd >= 0 && (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))) {
    close(fd);
    PlatformFile_RefuseWrite(path);
    errno = EINVAL;
    return false;
  }
  if (fd < 0) {
    if (errno == ENXIO) PlatformFile_RefuseWrite(path);  // a FIFO nobody reads
    return false;
  }
  if (ftruncate(fd, 0) != 0) {
    close(fd);
    return false;
  }
  std::string line = value + "\n";
  size_t done = 0;
  while (done < line.size()) {
    ssize_t n = write(fd, line.data() + done, line.size() - done);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      close(fd);
      return false;
    }
    done += static_cast<size_t>(n);
  }
  return close(fd) == 0;
}
