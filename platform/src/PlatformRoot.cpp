// The root prefix (TEVD_ROOT): every path of the emulated platform is built
// from it, so that daemons with different roots never meet. The host-model
// files are in PlatformModel.cpp, the log sink in PlatformLog.cpp, reading and
// parsing of values in PlatformValue.cpp.
#include "PlatformRoot.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

std::string RootDir() {
  const char *root = getenv("TEVD_ROOT");
  if (root == nullptr || root[0] == '\0') {
    return "";
  }
  std::string r(root);
  while (r.size() > 1 && r.back() == '/') {
    r.pop_back();
  }
  return r == "/" ? "" : r;
}

}  // namespace

std::string PlatformRoot_Path(const std::string &absolute) {
  std::string root = RootDir();
  if (root.empty()) {
    return absolute;
  }
  if (absolute.empty() || absolute[0] != '/') {
    return root + "/" + absolute;
  }
  return root + absolute;
}

int PlatformRoot_MakeDirs(const std::string &path) {
  if (path.empty()) {
    return EINVAL;
  }
  std::string partial;
  size_t pos = 0;
  while (pos <= path.size()) {
    size_t slash = path.find('/', pos);
    if (slash == std::string::npos) {
      slash = path.size();
    }
    partial = path.substr(0, slash);
    pos = slash + 1;
    if (partial.empty()) {
      continue;
    }
    if (mkdir(partial.c_str(), 0755) != 0 && errno != EEXIST) {
      return errno;
    }
  }
  struct stat st;
  if (stat(path.c_str(), &st) != 0) {
    return errno;
  }
  return S_ISDIR(st.st_mode) ? 0 : ENOTDIR;
}

int PlatformRoot_ReplaceFile(const std::string &path, const std::string &text) {
  if (int err = PlatformRoot_MakeDirs(path.substr(0, path.rfind('/')))) {
    return err;
  }
  // A collector that reads NAME.prom files never reads NAME.prom.tmp.
  const std::string tmp = path + ".tmp";
  int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) {
    return errno;
  }
  size_t done = 0;
  while (done < text.size()) {
    ssize_t w = write(fd, text.data() + done, text.size() - done);
    if (w < 0 && errno == EINTR) {
      continue;
    }
    if (w <= 0) {
      int err = w < 0 ? errno : EIO;
      close(fd);
      unlink(tmp.c_str());
      return err;
    }
    done += static_cast<size_t>(w);
  }
  if (close(fd) != 0 || rename(tmp.c_str(), path.c_str()) != 0) {
    int err = errno;
    unlink(tmp.c_str());
    return err;
  }
  return 0;
}

int PlatformRoot_LockProgram(const char *program, std::string *why) {
  std::string dir = PlatformRoot_Path("/var/run/orlan");
  std::string path = dir + "/" + program + ".lock";
  int rc = PlatformRoot_MakeDirs(dir);
  int fd = rc != 0
               ? -1
               : open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644);
  if (fd < 0) {
    *why = "cannot open the lock file " + path + ": " + strerror(rc != 0 ? rc : errno);
    return -1;
  }
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    close(fd);
    *why = "the lock file " + path + " is not a regular file";
    return -1;
  }
  while (flock(fd, LOCK_EX | LOCK_NB) != 0) {
    if (errno == EINTR) continue;
    int err = errno;
    char pid[32] = "";
    ssize_t n = pread(fd, pid, sizeof pid - 1, 0);
    pid[n > 0 ? n : 0] = '\0';
    pid[strcspn(pid, "\n")] = '\0';
    close(fd);
    if (err == EWOULDBLOCK) {
      *why = std::string("another ") + program +
             (pid[0] != '\0' ? std::string(" (pid ") + pid + ")" : "") +
             " already runs on this root: it holds " + path;
    } else {
      *why = "cannot lock " + path + ": " + strerror(err);
    }
    return -1;
  }
  // The holder's pid, for the refusal above; the lock itself is the flock.
  std::string text = std::to_string(getpid()) + "\n";
  if (ftruncate(fd, 0) != 0 || pwrite(fd, text.data(), text.size(), 0) < 0) {
    // Only the message of a later refusal loses the pid.
  }
  return fd;
}
