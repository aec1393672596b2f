// Trace server: a bounded history (131072 bytes) of "IN" and "OUT" lines,
// replayed to each client of the trace socket, then live lines. Each client
// has a serving thread (watches for hang-up) and a writer thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "MsgFmt.h"

constexpr size_t TEVD_TRACE_HISTORY_MAX = 131072;

// Listens on `path`, or on the trace endpoint under the root when null. The
// descriptor, or -1 with errno (ENAMETOOLONG for a path that does not fit).
int TevdTrace_Open(const char *path);
// Accepts one client and starts its threads; 0, or accept's errno (the
// caller reports it). A client beyond the limit is closed at once.
int TevdTrace_Accept(int listenFd);
// `args` is a swizzled argument block of `argsSize` bytes with `numArgs` slots.
void TevdTrace_Record(const char *direction, uint64_t timeStamp, const char *id, const void *args,
                      size_t argsSize, int numArgs);
void *TevdTraceServeMain(void *fd);
// Trace clients connected now.
int TevdTrace_ClientCount(void);
void *TevdTraceWriter(void *fd);
