#include "TevdTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <utility>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "PlatformRoot.h"
#include "TevRecord.h"
#include "tevdQprob.h"
#include "tevdTrace.h"

namespace tevdtest {

namespace {

void RemoveTree(const std::string &path) {
  std::error_code ignored;
  std::filesystem::remove_all(path, ignored);
}

void MakeDirs(const std::string &path) {
  int err = PlatformRoot_MakeDirs(path);
  if (err != 0) ADD_FAILURE() << "cannot create " << path << ": " << strerror(err);
}

// Every skipped test, with its reason, is appended to $TEVD_SKIP_LOG, which
// scripts/test.sh prints after the run: ctest shows a passing executable's
// output to nobody, and a skip nobody reads is a silent one.
class SkipRecorder : public ::testing::EmptyTestEventListener {
  void OnTestEnd(const ::testing::TestInfo &info) override {
    const char *path = getenv("TEVD_SKIP_LOG");
    if (path == nullptr || path[0] == '\0' || !info.result()->Skipped()) return;
    std::string why;
    for (int i = 0; i < info.result()->total_part_count(); ++i) {
      const ::testing::TestPartResult &part = info.result()->GetTestPartResult(i);
      if (part.skipped()) why += part.message();
    }
    for (char &c : why)
      if (c == '\n') c = ' ';
    std::ofstream(path, std::ios::app)
        << info.test_suite_name() << "." << info.name() << ":" << why << "\n";
  }
};

[[maybe_unused]] const bool kSkipRecorderInstalled = [] {
  ::testing::UnitTest::GetInstance()->listeners().Append(new SkipRecorder);
  return true;
}();

}  // namespace

bool RequireAllTests() {
  const char *v = getenv("TEVD_REQUIRE_ALL_TESTS");
  return v != nullptr && strcmp(v, "1") == 0;
}

ScratchRoot::ScratchRoot() {
  if (const char *old = getenv("TEVD_ROOT")) {
    saved_ = old;
    hadSaved_ = true;
  }
  // Socket paths must stay under 108 bytes: prefer a short temporary directory.
  const char *tmp = getenv("TMPDIR");
  std::string templ = (tmp != nullptr && tmp[0] != '\0' && strlen(tmp) < 40) ? tmp : "/tmp";
  templ += "/tevd-test-XXXXXX";
  if (mkdtemp(&templ[0]) == nullptr)
    ADD_FAILURE() << "mkdtemp(" << templ << "): " << strerror(errno);
  root_ = templ;
  setenv("TEVD_ROOT", root_.c_str(), 1);
}

ScratchRoot::~ScratchRoot() {
  hadSaved_ ? setenv("TEVD_ROOT", saved_.c_str(), 1) : unsetenv("TEVD_ROOT");
  if (!root_.empty() && root_ != "/") RemoveTree(root_);
}

void ScratchRoot::Write(const std::string &relative, const std::string &value) const {
  std::string path = Abs(relative);
  MakeDirs(path.substr(0, path.rfind('/')));
  std::ofstream f(path, std::ios::binary | std::ios::trunc);
  if (!(f << value)) ADD_FAILURE() << "cannot write " << path;
}

bool ScratchRoot::Read(const std::string &relative, std::string *value) const {
  std::ifstream f(Abs(relative), std::ios::binary);
  if (f) value->assign(std::istreambuf_iterator<char>(f), {});
  return static_cast<bool>(f);
}

void ScratchRoot::MakeDir(const std::string &relative) const { MakeDirs(Abs(relative)); }
void ScratchRoot::Remove(const std::string &relative) const { RemoveTree(Abs(relative)); }

TevPtr MakeTev(const std::string &id, const std::vector<MsgFmt_Value> &args,
               const std::string &message, uint64_t timestampUs) {
  std::vector<uint8_t> rec = TevRecord_Encode(id, message, timestampUs, args);
  void *copy = malloc(rec.size());  // Tev_MakeTev takes ownership
  memcpy(copy, rec.data(), rec.size());
  Tev *tev = nullptr;
  int rc = Tev_MakeTev(copy, static_cast<uint32_t>(rec.size()), &tev);
  if (rc != 0) ADD_FAILURE() << "Tev_MakeTev(" << id << ") failed: " << rc;
  return TevPtr(tev);
}

std::vector<std::string> TraceHistory() {
  std::vector<std::string> lines;
  char dir[] = "/tmp/tevd-trace-XXXXXX";
  if (mkdtemp(dir) == nullptr) return ADD_FAILURE() << strerror(errno), lines;
  const std::string path = std::string(dir) + "/trace";
  int listenFd = TevdTrace_Open(path.c_str());
  int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  struct sockaddr_un addr = {};
  addr.sun_family = AF_UNIX;
  snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
  if (listenFd < 0 || connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 ||
      TevdTrace_Accept(listenFd) != 0) {
    ADD_FAILURE() << "trace client: " << strerror(errno);
  }
  std::string text;  // up to the blank line that ends the replay
  char buf[65536];
  for (ssize_t n; text.find("\n\n") == std::string::npos && text != "\n" &&
                  ((n = read(fd, buf, sizeof buf)) > 0 || (n < 0 && errno == EINTR));) {
    text.append(buf, static_cast<size_t>(std::max<ssize_t>(n, 0)));
  }
  for (size_t start = 0, nl; (nl = text.find('\n', start)) != std::string::npos && nl > start;
       start = nl + 1) {
    lines.push_back(text.substr(start, nl + 1 - start));
  }
  close(fd);
  close(listenFd);
  unlink(path.c_str());
  rmdir(dir);
  return lines;
}

EventCapture::EventCapture() {
  TevdQprob_ResetForTest();
  TevdQprob_SetSendHookForTest(&EventCapture::Hook, this);
}

EventCapture::~EventCapture() {
  TevdQprob_SetSendHookForTest(nullptr, nullptr);
  TevdQprob_ResetForTest();
}

int EventCapture::Hook(const void *message, size_t length, void *ctx) {
  EventCapture *capture = static_cast<EventCapture *>(ctx);
  QprobMessage msg;
  std::string why;
  EXPECT_TRUE(Qprob_Decode(message, length, &msg, &why)) << "posted event is malformed: " << why;
  std::lock_guard<std::mutex> lock(capture->mutex_);
  capture->events_.push_back(std::move(msg));
  return 0;
}

std::vector<QprobMessage> EventCapture::Take() {
  std::lock_guard<std::mutex> lock(mutex_);
  return std::exchange(events_, {});
}

size_t EventCapture::Count() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return events_.size();
}

std::vector<std::string> ArgsText(const std::vector<MsgFmt_Value> &args) {
  std::vector<std::string> out;
  for (const MsgFmt_Value &v : args) {
    std::ostringstream ss;
    switch (v.type) {
      case MSGFMT_TYPE_INT32: ss << "I:" << static_cast<int32_t>(v.bits); break;
      case MSGFMT_TYPE_UINT32: ss << "U:" << static_cast<uint32_t>(v.bits); break;
      case MSGFMT_TYPE_INT64: ss << "L:" << static_cast<int64_t>(v.bits); break;
      case MSGFMT_TYPE_UINT64: ss << "UL:" << v.bits; break;
      case MSGFMT_TYPE_DOUBLE: {
        double d;
        memcpy(&d, &v.bits, sizeof d);
        ss << "D:" << d;
        break;
      }
      case MSGFMT_TYPE_STRING: ss << "S:" << (v.isNull ? "(null)" : v.str); break;
      default: ss << "?:" << v.type; break;
    }
    out.push_back(ss.str());
  }
  return out;
}

}  // namespace tevdtest
