// The observation library as the daemon uses it: contexts, record reading
// and the accessors of one observation (`Tev`). Record bytes are those of
// docs/formats.md (TevRecordFormat.h); building and posting records is the
// producers' business (TevRecord.h). Everything here honours TEVD_ROOT.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>

#include "TevRecordFormat.h"

// Library status codes: 0 is success, every other one an errno value, 27
// included (docs/errors.md).
enum {
  TEVLIB_OK = 0,
  TEVLIB_ERR_IO = 5,  // a read or socket call failed
  TEVLIB_ERR_NOMEM = 12,
  TEVLIB_ERR_INVAL = 22,
  TEVLIB_BUFFER_TOO_SMALL = 27,  // first pending record does not fit; nothing consumed
  TEVLIB_ERR_CLOSED = 104,       // a user connection's peer went away
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
