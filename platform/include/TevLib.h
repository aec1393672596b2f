// Observation library of the emulated platform: contexts, record reading and
// the accessors of one observation (`Tev`). Record bytes are those of
// docs/formats.md; everything here honours TEVD_ROOT (PlatformRoot.h).
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "MsgFmt.h"

// Library status codes. 0 is success; the others are errno-like values.
enum {
  TEVLIB_OK = 0,
  TEVLIB_ERR_IO = 5,  // a read or socket call failed
  TEVLIB_ERR_NOMEM = 12,
  TEVLIB_ERR_INVAL = 22,
  TEVLIB_BUFFER_TOO_SMALL = 27,  // first pending record does not fit; nothing consumed
  TEVLIB_ERR_CLOSED = 104,       // a user connection's peer went away
};

constexpr uint32_t TEVLIB_NUM_ASYNC_DOMAINS = 22;
constexpr uint32_t TEVLIB_USER_DOMAIN = 22;
constexpr size_t TEV_RECORD_HEADER_SIZE = 32;
constexpr size_t TEV_RECORD_MAX_SIZE = 1u << 20;

// The fixed head of one record, read in place: the record's bytes need no
// alignment. Whether the fields make sense is TevRecord_IsWellFormed's
// business; records handed over by TevLib_ReadFromFd are well formed.
class TevRecordHeader {
 public:
  explicit TevRecordHeader(const uint8_t *record) : record_(record) {}
  uint64_t TimestampUs() const { return Field<uint64_t>(8); }
  uint32_t TotalLength() const { return Field<uint32_t>(16); }
  uint32_t MessageOffset() const { return Field<uint32_t>(20); }
  uint32_t ArgCount() const { return Field<uint32_t>(24); }
  uint32_t ArgsOffset() const { return Field<uint32_t>(28); }
  // The identifier right after the header (NUL-terminated in a whole record).
  const char *Id() const {
    return reinterpret_cast<const char *>(record_ + TEV_RECORD_HEADER_SIZE);
  }

 private:
  template <typename T>
  T Field(size_t offset) const {
    T value;
    memcpy(&value, record_ + offset, sizeof value);
    return value;
  }
  const uint8_t *record_;
};

struct TevLibContext;  // opaque
typedef TevLibContext *TevLib_Handle;

int TevLib_AsyncContextOpen(uint32_t domain, TevLib_Handle *handle);
int TevLib_UserContextOpen(uint32_t domain, TevLib_Handle *handle);
int TevLib_HandleToFd(TevLib_Handle handle, int *fd);
// Reads every waiting record of `fd` (a context descriptor or a user
// connection) into `buf`. Returns 27 without consuming anything when the first
// pending record does not fit; when some were copied and the next does not
// fit, returns those and leaves the rest pending. Malformed records are
// consumed, counted and dropped. On a user connection whose peer is neither
// root nor the caller's own user, records outside "tev.user." and
// "tev.tests." are consumed, counted and dropped too (docs/security.md).
// Length 0 with status 0: nothing was waiting.
int TevLib_ReadFromFd(int fd, void *buf, size_t size, size_t *length);
// True when records already taken from `fd`'s socket wait in the library
// (the caller's buffer was full): they do not make the descriptor readable,
// so read again before waiting.
bool TevLib_HasPending(int fd);
int TevLib_Reset(TevLib_Handle handle);
// Records dropped as malformed, and records refused from unprivileged user
// peers, since the process started.
uint64_t TevLib_MalformedCount(void);
uint64_t TevLib_RefusedCount(void);
// `name` must hold at least TEVLIB_NAME_MAX bytes.
constexpr size_t TEVLIB_NAME_MAX = 32;
int TevLib_HandleToName(TevLib_Handle handle, char *name);
int TevLib_UserContextNewCnx(TevLib_Handle handle, int *fd);
int TevLib_UserContextCloseCnx(int fd);  // negative on failure
int TevLib_Close(TevLib_Handle handle);
// Where the library's own diagnostics go (a dropped record, a new user-level
// connection): by default the platform log; a program that formats its log
// lines itself (the daemon's time prefix) installs its routine here.
typedef void (*TevLib_LogFn)(const char *format, va_list ap);
void TevLib_SetLogFunction(TevLib_LogFn fn);
// Malformed records dropped so far by this process (for tests and tools).
uint64_t TevLib_DroppedRecords(void);
// Records refused to an unprivileged user-level peer so far.
uint64_t TevLib_RefusedRecords(void);

// ---- one observation -------------------------------------------------------
struct Tev;  // opaque

// Takes over `record` (malloc'd) in every case: on failure it is freed.
// Returns 0 and the new Tev, or 22 with *tev = nullptr for a malformed record.
int Tev_MakeTev(void *record, uint32_t length, Tev **tev);
void Tev_Free(Tev *tev);
int Tev_GetID(Tev *tev, const char **id);              // points into the Tev
int Tev_GetMsg(Tev *tev, char **msg, size_t *length);  // malloc'd; caller frees
int Tev_GetTimestamp(Tev *tev, uint64_t *usec);
bool Tev_IsID(const char *id, const char *other);
int Tev_GetArgCount(Tev *tev, uint32_t *count);
// A null string argument (type 6, length 0xFFFFFFFF) is a string: both string
// accessors succeed and deliver a null pointer.
int Tev_GetStringArg(Tev *tev, int index, const char **str);  // points into the Tev
int Tev_GetIntArg(Tev *tev, int index, int32_t *value);
// scanf-like: each conversion takes the next argument from `first` on. %p and
// %s store a `const char *` (null for a null string); integer conversions
// accept any integer argument and store it at their own width (hh, h, none,
// l, ll). Fails with 22.
int Tev_GetArgs(Tev *tev, int first, const char *format, ...);
int Tev_GetArgsVA(Tev *tev, int first, const char *format, va_list ap);
// The record's raw bytes (header included) and its argument block.
const uint8_t *Tev_RecordBytes(Tev *tev, uint32_t *length);

// ---- producers ---------------------------------------------------------------
// Builds one record. Arguments are values as MsgFmt_Value (types 1..6).
std::vector<uint8_t> TevRecord_Encode(const std::string &id, const std::string &message,
                                      uint64_t timestampUs, const std::vector<MsgFmt_Value> &args);
// Full validation of one record of exactly `length` bytes; on failure `why`
// (if given) names the first problem found.
bool TevRecord_IsWellFormed(const uint8_t *record, size_t length, std::string *why = nullptr);
// Decodes a well-formed record's fields.
struct TevRecordView {
  uint64_t timestampUs = 0;
  std::string id;
  std::string message;
  std::vector<MsgFmt_Value> args;
};
bool TevRecord_Decode(const uint8_t *record, size_t length, TevRecordView *out);
// Sends one record: to async-NN.sock (domain 0..21) as a datagram, or, for
// domain 22, over a fresh user-level connection. Returns 0 or an errno value.
int TevRecord_Post(uint32_t domain, const std::vector<uint8_t> &record);
