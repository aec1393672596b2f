#include "TevdTestSupport.h"

#include <errno.h>
#include <ftw.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>
#include <utility>

#include "PlatformRoot.h"
#include "tevdQprob.h"

namespace tevdtest {

namespace {

void RemoveTree(const std::string &path) {
  nftw(
      path.c_str(), [](const char *p, const struct stat *, int, struct FTW *) { return remove(p); },
      16, FTW_DEPTH | FTW_PHYS);
}

void MakeDirs(const std::string &path) {
  int err = PlatformRoot_MakeDirs(path);
  if (err != 0) ADD_FAILURE() << "cannot create " << path << ": " << strerror(err);
}

}  // namespace

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
  if (!f) return false;
  std::ostringstream ss;
  ss << f.rdbuf();
  *value = ss.str();
  return true;
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

MsgFmt_Value S(const std::string &s) { return MsgFmt_Value::Str(s); }
MsgFmt_Value I(int32_t v) { return MsgFmt_Value::I32(v); }
MsgFmt_Value U(uint32_t v) { return MsgFmt_Value::U32(v); }
MsgFmt_Value L(int64_t v) { return MsgFmt_Value::I64(v); }
MsgFmt_Value UL(uint64_t v) { return MsgFmt_Value::U64(v); }

struct EventCapture::State {
  mutable std::mutex mutex;
  std::vector<QprobMessage> events;  // guarded by mutex
};

EventCapture::EventCapture() : state_(new State) {
  TevdQprob_ResetForTest();
  TevdQprob_SetSendHookForTest(&EventCapture::Hook, state_.get());
}

EventCapture::~EventCapture() {
  TevdQprob_SetSendHookForTest(nullptr, nullptr);
  TevdQprob_ResetForTest();
}

int EventCapture::Hook(const void *message, size_t length, void *ctx) {
  State *st = static_cast<State *>(ctx);
  QprobMessage msg;
  std::string why;
  EXPECT_TRUE(Qprob_Decode(message, length, &msg, &why)) << "posted event is malformed: " << why;
  std::lock_guard<std::mutex> lock(st->mutex);
  st->events.push_back(std::move(msg));
  return 0;
}

std::vector<QprobMessage> EventCapture::Take() {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return std::exchange(state_->events, {});
}

size_t EventCapture::Count() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->events.size();
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
