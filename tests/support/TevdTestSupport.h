// Shared helpers for the daemon's unit tests: a scratch host-model root, a fake
// clock, observations built from literal values, and a capture of posted
// events decoded from their wire bytes.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "MsgFmt.h"
#include "Qprob.h"
#include "TevLib.h"

namespace tevdtest {

// A private TEVD_ROOT for the life of the object (the previous value comes
// back on destruction). Paths are relative to the root, e.g.
// "platform/options/Net/LinkFlappingThreshold".
class ScratchRoot {
 public:
  ScratchRoot();
  ~ScratchRoot();
  const std::string &path() const { return root_; }
  std::string Abs(const std::string &relative) const { return root_ + "/" + relative; }
  void Write(const std::string &relative, const std::string &value) const;  // makes dirs
  bool Read(const std::string &relative, std::string *value) const;
  void MakeDir(const std::string &relative) const;
  void Remove(const std::string &relative) const;  // file or tree
 private:
  std::string root_;
  std::string saved_;
  bool hadSaved_ = false;
};

// The wall clock stands still at `startSec` until advanced.
class FakeClock {
 public:
  explicit FakeClock(int64_t startSec = 1700000000);
  ~FakeClock();
  void Advance(int64_t seconds);
  void AdvanceUs(int64_t usec);
};

struct TevDeleter {
  void operator()(Tev *t) const;
};
using TevPtr = std::unique_ptr<Tev, TevDeleter>;
TevPtr MakeTev(const std::string &id, const std::vector<MsgFmt_Value> &args = {},
               const std::string &message = "", uint64_t timestampUs = 1234);

// Shorthands for argument values.
MsgFmt_Value S(const std::string &s);
MsgFmt_Value I(int32_t v);
MsgFmt_Value U(uint32_t v);
MsgFmt_Value L(int64_t v);
MsgFmt_Value UL(uint64_t v);

// While alive, every event TevdQprob_Post sends is captured (decoded from its
// wire bytes) instead of going to a socket; the rate window and retry list are
// reset at both ends.
class EventCapture {
 public:
  EventCapture();
  ~EventCapture();
  std::vector<QprobMessage> Take();  // and forget
  size_t Count() const;
  void FailSends(bool fail);  // make deliveries fail (queue for retry)
 private:
  static int Hook(const void *message, size_t length, void *ctx);
  struct State;
  std::unique_ptr<State> state_;
};

// Literal expectations: "S:text", "I:-3", "U:7", "L:...", "UL:..." per argument.
std::vector<std::string> ArgsText(const std::vector<MsgFmt_Value> &args);

}  // namespace tevdtest
