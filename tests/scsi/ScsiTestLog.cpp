// Log sink for the storage correlator tests (see ScsiTestLog.h).
#include "PlatformSocket.h"
#include "ScsiTestLog.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

namespace scsitest {

namespace {
std::string StripNewline(std::string s) {
  while (!s.empty() && s.back() == '\n') s.pop_back();
  return s;
}

// "<14>Mmm dd hh:mm:ss tevd: 2024-05-06T07:08:09.123Z: message" -> "message"
std::string MessageOf(const std::string &datagram) {
  std::string line = datagram;
  const size_t tag = line.find("tevd: ");
  if (tag != std::string::npos) line = line.substr(tag + 6);
  const size_t zone = line.find("Z: ");
  if (zone != std::string::npos && zone < 32) line = line.substr(zone + 3);
  return StripNewline(line);
}
}  // namespace

LogSink::LogSink(const std::string &root) {
  path_ = PlatformEndpoint_PathUnder(root, PlatformEndpoint::LogCollector);
  PlatformListen how;
  how.type = SOCK_DGRAM;
  how.flags = SOCK_NONBLOCK;
  fd_ = PlatformSocket_Listen(path_, how);
}

LogSink::~LogSink() {
  if (fd_ >= 0) {
    close(fd_);
    unlink(path_.c_str());
  }
}

std::vector<std::string> LogSink::Take() {
  std::vector<std::string> lines;
  lines.swap(seen_);
  char buf[65536];
  while (fd_ >= 0) {
    ssize_t n = recv(fd_, buf, sizeof(buf), 0);
    if (n < 0) break;
    lines.push_back(MessageOf(std::string(buf, static_cast<size_t>(n))));
  }
  return lines;
}

void LogSink::Pump() { seen_ = Take(); }

namespace {
bool EndsWith(const std::string &line, const std::string &suffix) {
  return line.size() >= suffix.size() &&
         line.compare(line.size() - suffix.size(), suffix.size(), suffix) == 0;
}
}  // namespace

bool LogSink::Saw(const std::string &message) {
  const std::string want = StripNewline(message);
  seen_ = Take();
  for (const std::string &line : seen_) {
    if (line == want) return true;
  }
  return false;
}

bool LogSink::SawEnding(const std::string &suffix) {
  seen_ = Take();
  for (const std::string &line : seen_) {
    if (EndsWith(line, suffix)) return true;
  }
  return false;
}

std::vector<std::string> LogSink::TakeDiagnostics() {
  std::vector<std::string> out;
  for (const std::string &line : Take()) {
    // Observation lines and posted-event lines both look like "[x] Nus: [id] ...".
    const bool recordLine = !line.empty() && line[0] == '[' && line.find("us: [") != std::string::npos;
    if (!recordLine) out.push_back(line);
  }
  return out;
}

}  // namespace scsitest
