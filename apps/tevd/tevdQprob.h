// Event posting to the management agent: one binary qprob message per event
// over a fresh UNIX stream connection, under a 1000-per-60-s rate limit, with
// a retry list drained every 180 s on the alarm thread (docs/formats.md).
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>

#include "Str.h"
// Every template posted is a row of the event catalogue: tevd_ev::Name.
#include "tevdEvents.h"

typedef int32_t EventClass;
enum : int32_t { Problem = 0, Audit = 1, Clear = 2 };

constexpr size_t TEVD_QPROB_HEADER_SIZE = 68;
constexpr size_t TEVD_QPROB_INITIAL_BUFFER = 1171;
constexpr uint32_t TEVD_QPROB_MAX_ID_LENGTH = 129;  // with the NUL

void TevdQprob_Init(void);
void TevdQprob_Post(int flags, EventClass cls, const char *templ, ...) TEV_PRINTF(3, 4);
void Tevd_PostProblem(const char *idSuffix, const char *format, ...) TEV_PRINTF(2, 3);
void TevdQprob_PostV(const char *prefix, const char *idSuffix, const char *format, va_list args,
                     int flags) TEV_PRINTF(3, 0);
int TevdQprob_Send(const void *message, size_t length);
void TevdQprob_Queue(const void *message, size_t length);
void TevdQprobAlarmHandler(void);

// ---- test support ------------------------------------------------------------
// Replaces TevdQprob_Send's socket delivery: the hook gets each message and
// returns 0 (delivered) or -1 (failed). nullptr restores the socket.
typedef int (*TevdQprobSendHook)(const void *message, size_t length, void *ctx);
void TevdQprob_SetSendHookForTest(TevdQprobSendHook hook, void *ctx);
// Forgets the rate window and empties the retry list.
void TevdQprob_ResetForTest(void);
