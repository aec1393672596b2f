// Shared helpers of the unit tests.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "MsgFmt.h"
#include "Qprob.h"
#include "TevClock.h"
#include "TevClockFake.h"
#include "TevLib.h"

namespace tevdtest {

// Whether every test must run here (TEVD_REQUIRE_ALL_TESTS=1, as .ci/run sets
// it): a missing binary or privilege then fails a test instead of skipping it.
bool RequireAllTests();

// For a test that cannot run on this machine (no root, a binary or library
// missing): skips with the reason, loudly, or fails where every test must run.
#define TEVD_SKIP_MISSING(reason)                                                \
  do {                                                                           \
    const std::string why_ = (reason);                                           \
    if (::tevdtest::RequireAllTests())                                           \
      FAIL() << why_ << " (TEVD_REQUIRE_ALL_TESTS=1: every test must run here)"; \
    GTEST_SKIP() << "\n*** SKIPPED: " << why_ << " ***\n";                       \
  } while (0)

// Whether `text` holds `part`; either way the message shows the whole text.
inline ::testing::AssertionResult Contains(const std::string &text, const std::string &part) {
  const bool in = text.find(part) != std::string::npos;
  return (in ? ::testing::AssertionSuccess() : ::testing::AssertionFailure())
         << '"' << part << (in ? "\" in:\n" : "\" not in:\n") << text;
}

// A private TEVD_ROOT while alive, removed afterwards; paths are relative to it.
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
  explicit FakeClock(int64_t startSec = 1700000000) { TevClock_SetFake(startSec * 1000000); }
  ~FakeClock() { TevClock_UseReal(); }
  void Advance(int64_t seconds) { TevClock_Advance(seconds * 1000000); }
  void AdvanceUs(int64_t usec) { TevClock_Advance(usec); }
};

// A FakeClock start some eleven days past the previous one of this process:
// what a correlator remembers by time from an earlier test (a suppression
// hour, a counting period) has aged out, as after a long quiet spell.
inline int64_t LaterStart() {
  static int64_t next = 1700000000;
  return next += 1000000;
}

struct TevDeleter {
  void operator()(Tev *t) const { Tev_Free(t); }
};
using TevPtr = std::unique_ptr<Tev, TevDeleter>;  // an observation built from literal values
TevPtr MakeTev(const std::string &id, const std::vector<MsgFmt_Value> &args = {},
               const std::string &message = "", uint64_t timestampUs = 1234);

inline MsgFmt_Value S(const std::string &s) { return MsgFmt_Value::Str(s); }
inline MsgFmt_Value I(int32_t v) { return MsgFmt_Value::I32(v); }
inline MsgFmt_Value U(uint32_t v) { return MsgFmt_Value::U32(v); }
inline MsgFmt_Value L(int64_t v) { return MsgFmt_Value::I64(v); }
inline MsgFmt_Value UL(uint64_t v) { return MsgFmt_Value::U64(v); }

// Captures TevdQprob_Post's events while alive; resets the posting state at both ends.
class EventCapture {
 public:
  EventCapture();
  ~EventCapture();
  std::vector<QprobMessage> Take();  // and forget
  size_t Count() const;

 private:
  static int Hook(const void *message, size_t length, void *ctx);
  mutable std::mutex mutex_;
  std::vector<QprobMessage> events_;  // guarded by mutex_
};

// The trace server's history, as a client connecting now is sent it: each
// line with its "\n", oldest first.
std::vector<std::string> TraceHistory();

// "S:text", "I:-3", "U:7", "L:...", "UL:...", "D:..." per argument.
std::vector<std::string> ArgsText(const std::vector<MsgFmt_Value> &args);

}  // namespace tevdtest
