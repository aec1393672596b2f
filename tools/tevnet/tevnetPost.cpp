// Posting without waiting: one unconnected datagram socket, each record sent
// to the context's path with MSG_DONTWAIT. Sending by path finds a restarted
// daemon's new socket by itself; a full queue or a missing daemon is a drop.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "PlatformSocket.h"
#include "TevRecord.h"
#include "tevnet.h"

namespace tevnet {

namespace {

int64_t NowUs() {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  return static_cast<int64_t>(tv.tv_sec) * 1000000 + tv.tv_usec;
}

}  // namespace

void Log(const char *format, ...) {
  va_list ap;
  va_start(ap, format);
  fputs("tevnet: ", stderr);
  vfprintf(stderr, format, ap);
  fputc('\n', stderr);
  va_end(ap);
}

Poster::Poster(uint32_t domain, int dropLogSec) : dropLogSec_(dropLogSec) {
  path_ = PlatformEndpoint_Path(PlatformEndpoint::AsyncContext, domain);
  fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd_ < 0) Log("cannot create a socket: %s", strerror(errno));
  intervalStart_ = NowUs();
}

Poster::~Poster() {
  ReportDrops(true);
  if (fd_ >= 0) close(fd_);
}

bool Poster::Post(const Observation &obs) {
  std::vector<uint8_t> record =
      TevRecord_Encode(obs.id, obs.message, static_cast<uint64_t>(NowUs()), obs.args);
  int err = fd_ < 0 ? EBADF
                    : PlatformSocket_SendTo(fd_, path_, record.data(), record.size(), MSG_DONTWAIT);
  if (err == 0) {
    ++postedTotal_;
    lastPostUs_ = NowUs();
    ReportDrops(false);
    return true;
  }
  ++droppedTotal_;
  ++droppedInterval_;
  lastReason_ = std::string(obs.id) + " to " + path_ + ": " + strerror(err);
  ReportDrops(false);
  return false;
}

void Poster::ReportDrops(bool now) {
  int64_t t = NowUs();
  if (!now && t - intervalStart_ < static_cast<int64_t>(dropLogSec_) * 1000000) return;
  if (droppedInterval_ > 0) {
    Log("%llu observation%s dropped in the last %d s (%llu in all); last: %s",
        static_cast<unsigned long long>(droppedInterval_), droppedInterval_ == 1 ? "" : "s",
        static_cast<int>((t - intervalStart_ + 999999) / 1000000),
        static_cast<unsigned long long>(droppedTotal_), lastReason_.c_str());
  }
  droppedInterval_ = 0;
  intervalStart_ = t;
}

bool Poster::DaemonIsNew() {
  // A restarted daemon binds a new socket file: a new inode, or at least a
  // new change time where the file system reuses the inode at once.
  struct stat st;
  std::string id;
  if (stat(path_.c_str(), &st) == 0) {
    id = std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino) + ":" +
         std::to_string(st.st_ctim.tv_sec) + "." + std::to_string(st.st_ctim.tv_nsec);
  }
  bool fresh = !id.empty() && id != socketId_;
  socketId_ = id;
  return fresh;
}

}  // namespace tevnet
