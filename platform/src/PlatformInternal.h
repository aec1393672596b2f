// Helpers shared by the platform sources (and the platform's test seam) only,
// never included by the daemon: the fake clock's state, the raw view of an
// argument block and of a record, the descriptor-to-name registry of open
// contexts, and a printf-style wrapper of the log sink.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "KNO.h"
#include "MsgFmt.h"

// An open context (TevLib_Handle points to one).
struct TevLibContext {
  uint32_t domain = 0;
  bool user = false;
  int fd = -1;
  std::string name;
};

namespace platform_internal {

// The fake wall clock: TevClock.cpp reads it, only the test seam
// (platform/testing/TevClockFake.cpp) sets it.
struct FakeClockState {
  std::atomic<bool> on{false};
  std::atomic<int64_t> usec{0};
};
extern FakeClockState gFakeClock;

// The host-model file a write of `node` goes to (relative to the model), or
// "" for a node that is not written or instances that do not name one.
std::string KnoNodeFile(KNO_Node node, const KNO_ParamList *instances);

// One argument of a validated, swizzled block; strings point into the block.
struct RawArg {
  uint32_t type = 0;
  uint64_t bits = 0;
  const char *str = nullptr;  // nullptr for a null string (and non-strings)
};

// The decoded value of an argument, its string copied.
inline MsgFmt_Value ToValue(const RawArg &a) {
  MsgFmt_Value v;
  v.type = a.type;
  v.bits = a.bits;
  if (a.type == MSGFMT_TYPE_STRING) {
    v.isNull = a.str == nullptr;
    if (a.str != nullptr) v.str = a.str;
  }
  return v;
}

// Writes slot `index` of a block (blocks sit at any alignment: memcpy).
void WriteSlot(void *block, size_t index, uint32_t type, uint32_t length, uint64_t value);

// Validates a swizzled block of exactly `size` bytes holding `numArgs` slots.
bool ParseBlock(const uint8_t *block, size_t size, uint32_t numArgs, std::vector<RawArg> *out,
                std::string *why);

// A validated record: every pointer points into the record's own bytes.
struct RawRecord {
  uint64_t timestampUs = 0;
  const char *id = nullptr;
  const char *message = nullptr;
  std::vector<RawArg> args;
};
bool ParseRecord(const uint8_t *record, size_t length, RawRecord *out, std::string *why);

// Names of the descriptors TevLib opened, for diagnostics ("async-03", "user").
void RegisterFdName(int fd, const std::string &name);
void ForgetFd(int fd);
std::string FdName(int fd);
// Reads `fd` (a datagram socket) through a batch of its own from now on
// (TevLib_ReadFromFd); contexts opened by TevLib get one. Detach frees it.
void AttachReadBatch(int fd);
void DetachReadBatch(int fd);

// The platform's diagnostics: to PlatformLog_SetDiagnosticSink's routine, else
// the log sink.
void TevLibLog(const char *format, ...) __attribute__((format(printf, 1, 2)));

void Syslog(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Reads a whole host-model file (PlatformFile_Read with the value cap);
// false when it is absent or refused.
bool ReadFile(const std::string &path, std::string *content);
// Drops trailing newlines (and carriage returns) of a host-model value.
std::string TrimValue(const std::string &value);
// Strict decimal parsing of a host-model value (surrounding blanks allowed).
bool ParseInt64(const std::string &text, int64_t *value);
bool ParseUint64(const std::string &text, uint64_t *value);

}  // namespace platform_internal
