// Event posting to the management agent.
//
// DESIGN: TevdQprob_Post runs on every correlator thread at once. Building,
// formatting and the immediate send take no lock: each call owns its working
// buffer. Two pieces of shared state exist:
//  - the rate window (start, count) and the retry-armed flag: plain counters
//    whose races are tolerated by design (a lost count only shifts the limit);
//    they are relaxed atomics so that the race is a defined one;
//  - the retry list and the retry-armed flag, guarded by retryListMutex. The
//    retry pass runs on the alarm thread; it takes the whole list out under
//    the mutex, sends with the mutex released, and puts back what stays in
//    front of anything queued meanwhile. No network call is ever made with
//    the mutex held, so a correlator queueing during a pass never waits for
//    the agent, and the flag is tested and set with the list, so an entry
//    queued while a pass ends is never left without an armed alarm.
// Every connect (1 s) and send (3 s) to the agent is bounded: an
// agent that listens but never accepts, or stopped reading, costs a
// correlator at most that long per event, and the event is queued for retry.
// The retry queue lives in tevdQprobRetry.cpp. Message layout:
// docs/delivery.md.
#include "tevdQprob.h"

#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "KNO.h"
#include "MsgFmt.h"
#include "PlatformLog.h"
#include "PlatformSocket.h"
#include "TevClock.h"
#include "TevMutex.h"
#include "tevdLog.h"
#include "tevdMetrics.h"
#include "tevdPanicTags.h"
#include "tevdQprobInternal.h"
#include "tevdTrace.h"

namespace {

// Header field offsets of the qprob message.
constexpr size_t kOffTimestamp = 0;
constexpr size_t kOffHostIdentity = 16;
constexpr size_t kHostIdentityBytes = 38;  // bytes 16..53 of the UUID record
constexpr size_t kOffTotalLength = 56;
constexpr size_t kOffArgCount = 60;
constexpr size_t kOffIdLength = 64;
constexpr uint32_t kLengthOverhead = 72;  // fixed part counted in the total length
constexpr int kSerialiseAttempts = 5;
constexpr int64_t kRateWindowSeconds = 60;
constexpr int32_t kRateLimit = 1000;
// A full backlog is what a stuck agent looks like (a working one accepts in
// microseconds), so a connect gives up sooner than a send.
constexpr suseconds_t kConnectTimeoutUs = 1000000;
constexpr time_t kSendTimeoutSeconds = 3;

// Identifier prefixes of the event classes. A template's identifier suffix
// starts past the marker and its class's prefix, which the cut assumes and
// does not check: a template of another class is cut at the wrong place.
constexpr char kProblemPrefix[] = "kos.problem.";
constexpr char kAuditPrefix[] = "kos.audit.";
constexpr char kClearPrefix[] = "kos.clear.";
template <size_t N>
constexpr size_t SuffixStart(const char (&prefix)[N]) {
  return sizeof TEVD_TEMPLATE_MARKER - 1 + N - 1;
}
static_assert(SuffixStart(kProblemPrefix) == 20 && SuffixStart(kAuditPrefix) == 18 &&
                  SuffixStart(kClearPrefix) == 18,
              "a problem's suffix starts 20 characters into its template, others 18");

std::atomic<int64_t> rateWindowStart{0};
std::atomic<int32_t> rateCount{0};

// Set when a send to the agent timed out, cleared when a retry pass reaches
// it (or finds it simply absent). While set, new events skip the immediate
// attempt and go to the retry queue, so a stuck agent costs each correlator
// one time-out, not one per event, and a correlator's pipe keeps draining.
std::atomic<bool> agentStuck{false};

uint8_t hostIdentity[KNO_SYSTEM_UUID_SIZE];

// The agent's socket path under TEVD_ROOT, resolved once rather than on every
// post; tests forget it when they switch roots.
TevMutex pathMutex;
// Never destroyed: posts may race exit().
std::string &socketPath GUARDED_BY(pathMutex) = *new std::string;
bool socketPathResolved GUARDED_BY(pathMutex) = false;

TevMutex hookMutex;
TevdQprobSendHook sendHook GUARDED_BY(hookMutex) = nullptr;
void *sendHookCtx GUARDED_BY(hookMutex) = nullptr;

void PutU32(uint8_t *buf, size_t off, uint32_t v) { memcpy(buf + off, &v, sizeof v); }

// Fixed 60-second window opened by the first event after the previous one ran
// out. Returns false when this event is over the limit.
bool RateAllows() {
  int64_t now = TevClock_NowSeconds();
  int64_t start = rateWindowStart.load(std::memory_order_relaxed);
  // A clock that went backwards (negative distance) stays in the window.
  if (start != 0 && now - start <= kRateWindowSeconds - 1) {
    return rateCount.fetch_add(1, std::memory_order_relaxed) + 1 <= kRateLimit;
  }
  rateCount.store(1, std::memory_order_relaxed);
  rateWindowStart.store(now, std::memory_order_relaxed);
  return true;
}

std::string SocketPath() {
  pathMutex.lock();
  if (!socketPathResolved) {
    socketPath = PlatformEndpoint_Path(PlatformEndpoint::QprobAgent);
    socketPathResolved = true;
  }
  std::string path = socketPath;
  pathMutex.unlock();
  return path;
}

int SendOverSocket(const void *message, size_t length) {
  // The lines logged on the way to this event go out before it.
  PlatformLog_Flush();
  // For a UNIX socket the send time-out bounds a blocking connect too (a
  // listener whose backlog is full); it is lengthened for the sends.
  struct timeval timeout = {kConnectTimeoutUs / 1000000, kConnectTimeoutUs % 1000000};
  int fd = PlatformSocket_Connect(SocketPath(), SOCK_STREAM, &timeout);
  if (fd < 0) {
    return -1;
  }
  timeout = {kSendTimeoutSeconds, 0};
  if (setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout) != 0) {
    close(fd);
    return -1;
  }
  const uint8_t *bytes = static_cast<const uint8_t *>(message);
  size_t sent = 0;
  while (sent < length) {
    // Ask only for the remainder: the message buffer ends at `length`.
    ssize_t n = send(fd, bytes + sent, length - sent, MSG_NOSIGNAL);
    if (n < 0) {
      close(fd);
      return -1;
    }
    sent += static_cast<size_t>(n);
  }
  close(fd);
  return 0;
}

}  // namespace

bool TevdQprob_LastSendTimedOut(void) {
  return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINPROGRESS;
}

void TevdQprob_NoteStuck(bool stuck) {
  if (agentStuck.exchange(stuck) != stuck && stuck) {
    TevdLog(
        "marshd did not take an event in time; new events are queued for retry until a "
        "retry pass gets through.\n");
  }
}

void TevdQprob_Init(void) {
  TevdQprobRetry_Init();
  // A failed query leaves the identity zero; the agent then sees no host.
  memset(hostIdentity, 0, sizeof hostIdentity);
  KNO_ParamList *none = KNO_ParamListCreate();
  KNO_Get(KNO_NODE_system_systemUuid, none, hostIdentity, sizeof hostIdentity);
  KNO_ParamListDestroy(none);
  SocketPath();
}

void TevdQprob_Post(int flags, EventClass cls, const char *templ, ...) {
  const char *prefix;
  size_t skip;
  switch (cls) {
    case Audit:
      prefix = kAuditPrefix;
      skip = SuffixStart(kAuditPrefix);
      break;
    case Clear:
      prefix = kClearPrefix;
      skip = SuffixStart(kClearPrefix);
      break;
    case Problem:
      prefix = kProblemPrefix;
      skip = SuffixStart(kProblemPrefix);
      break;
    default: TevdNotReached(tevd_tag::kQprobUnknownClass);
  }
  // Every template carries ")" after the identifier; the scan is unbounded.
  const char *start = templ + skip;
  const char *close = start;
  while (*close != ')') {
    close++;
  }
  size_t len = static_cast<size_t>(close - start);
  char *suffix = static_cast<char *>(malloc(len + 1));
  if (suffix == nullptr) {
    TevdNoMemory(tevd_tag::kQprobSuffixNoMemory);
  }
  memcpy(suffix, start, len);
  suffix[len] = '\0';
  va_list ap;
  va_start(ap, templ);
  TevdQprob_PostV(prefix, suffix, close + 1, ap, flags);
  va_end(ap);
  free(suffix);
}

void Tevd_PostProblem(const char *idSuffix, const char *format, ...) {
  TevdLog("Using discouraged \"Tevd_PostProblem\" interface for qprob: %s", idSuffix);
  va_list ap;
  va_start(ap, format);
  TevdQprob_PostV(kProblemPrefix, idSuffix, format, ap, 0);
  va_end(ap);
}

namespace {

// Allocates the zeroed message and writes the identifier, the host identity
// and the agent's time stamp. Returns nullptr (logged where the old code
// logged) when the event is not to be sent.
uint8_t *StartMessage(const char *prefix, const char *idSuffix, size_t size, uint32_t *idLenOut) {
  uint8_t *buf = static_cast<uint8_t *>(calloc(1, size));
  if (buf == nullptr) {
    TevdLog("Failed to allocate %zu bytes for prob buffer.\n", size);
    return nullptr;
  }
  if (!RateAllows()) {
    TevdMetrics_Add(gTevdMetrics.eventsRateLimited);
    TevdLog("Event rate limit reached. Dropping qprob: %s%s\n", prefix, idSuffix);
    free(buf);
    return nullptr;
  }
  size_t idLen64 = strlen(prefix) + strlen(idSuffix) + 1;
  if (idLen64 > TEVD_QPROB_MAX_ID_LENGTH) {
    free(buf);  // identifiers over 128 characters are never sent, silently
    return nullptr;
  }
  uint32_t idLen = static_cast<uint32_t>(idLen64);
  PutU32(buf, kOffIdLength, idLen);
  char *id = reinterpret_cast<char *>(buf + TEVD_QPROB_HEADER_SIZE);
  // "%s%s" within the identifier length; both lengths are known here.
  size_t prefixLen = strlen(prefix);
  memcpy(id, prefix, prefixLen);
  memcpy(id + prefixLen, idSuffix, idLen - 1 - prefixLen);
  id[idLen - 1] = '\0';
  PutU32(buf, kOffArgCount, 0);
  memcpy(buf + kOffHostIdentity, hostIdentity + kOffHostIdentity, kHostIdentityBytes);
  PutU32(buf, kOffTotalLength, idLen + kLengthOverhead);

  int rc = MtlSyscall(MTL_SYSCALL_EVENT_TIMESTAMP, buf);
  if (rc < 0) {
    errno = -rc;  // the stamp is best effort; building goes on
  }
  *idLenOut = idLen;
  return buf;
}

// Serialises the arguments after the identifier, doubling the (zero-filled)
// buffer until they fit. Returns false, with *buf freed, when they never do.
bool SerialiseArgs(uint8_t **buf, size_t *size, uint32_t total, const char *format, va_list args,
                   MsgFmt_Arg **arguments, int *count, size_t *capacity) {
  uint32_t idLen = total - kLengthOverhead;
  for (int attempt = 0; attempt < kSerialiseAttempts; attempt++) {
    char *error = nullptr;
    *capacity = *size - total;
    va_list copy;
    va_copy(copy, args);
    bool fitted = MsgFmt_GetArgsWithBuf(format, copy, arguments, count, &error,
                                        *buf + TEVD_QPROB_HEADER_SIZE + idLen, capacity);
    va_end(copy);
    if (fitted) {
      return true;
    }
    size_t bigger = *size * 2;
    uint8_t *grown = static_cast<uint8_t *>(realloc(*buf, bigger));
    if (grown == nullptr) {
      TevdLog("Failed to allocate %zu bytes for prob buffer.", bigger);
      free(*buf);
      return false;
    }
    // Keep the buffer zero-filled: bytes past the block travel as zeros.
    memset(grown + *size, 0, bigger - *size);
    *buf = grown;
    *size = bigger;
  }
  free(*buf);  // too large after five attempts: dropped without a line
  return false;
}

// Sends at once unless told not to or the agent is taken as stuck; what does
// not go out is queued for retry. Frees the message.
void Deliver(uint8_t *buf, uint32_t total, const char *id, int flags) {
  if ((flags & 0xff) == 0 && !agentStuck.load()) {
    errno = 0;
    if (TevdQprob_Send(buf, total) == 0) {
      free(buf);
      return;
    }
    if (TevdQprob_LastSendTimedOut()) {
      TevdQprob_NoteStuck(true);
    }
  }
  TevdLog("An event (%s) could not be sent immediately to marshd; queueing for retry.", id);
  TevdQprob_Queue(buf, total);
  free(buf);
}

}  // namespace

void TevdQprob_PostV(const char *prefix, const char *idSuffix, const char *format, va_list args,
                     int flags) {
  size_t size = TEVD_QPROB_INITIAL_BUFFER;
  uint32_t idLen = 0;
  uint8_t *buf = StartMessage(prefix, idSuffix, size, &idLen);
  if (buf == nullptr) {
    return;
  }
  uint32_t total = idLen + kLengthOverhead;
  MsgFmt_Arg *arguments = nullptr;
  int count = 0;
  size_t capacity = 0;
  if (!SerialiseArgs(&buf, &size, total, format, args, &arguments, &count, &capacity)) {
    return;
  }
  const char *id = reinterpret_cast<const char *>(buf + TEVD_QPROB_HEADER_SIZE);

  uint64_t stamp;
  memcpy(&stamp, buf + kOffTimestamp, sizeof stamp);
  char *text = MsgFmt_Asprintf(nullptr, format, arguments, count);
  TevdLog("[%s] %luus: [%s] %s\n", VThreadBase_CurName(), static_cast<unsigned long>(stamp), id,
          text != nullptr ? text : "");
  free(text);

  MsgFmt_SwizzleArgs(arguments, count);
  PutU32(buf, kOffArgCount, static_cast<uint32_t>(count));
  total += static_cast<uint32_t>(capacity);
  PutU32(buf, kOffTotalLength, total);

  TevdTrace_Record("OUT", stamp, id, buf + TEVD_QPROB_HEADER_SIZE + idLen, capacity, count);
  TevdMetrics_Add(gTevdMetrics.eventsPosted[prefix[4] == 'p' ? 0 : prefix[4] == 'a' ? 1 : 2]);
  gTevdMetrics.lastEvent.store(TevClock_NowSeconds(), std::memory_order_relaxed);
  Deliver(buf, total, id, flags);
}
int TevdQprob_Send(const void *message, size_t length) {
  hookMutex.lock();
  TevdQprobSendHook hook = sendHook;
  void *ctx = sendHookCtx;
  hookMutex.unlock();
  if (hook != nullptr) {
    return hook(message, length, ctx);
  }
  return SendOverSocket(message, length);
}

void TevdQprob_SetSendHookForTest(TevdQprobSendHook hook, void *ctx) {
  hookMutex.lock();
  sendHook = hook;
  sendHookCtx = ctx;
  hookMutex.unlock();
}

void TevdQprob_ResetForTest(void) {
  rateWindowStart.store(0, std::memory_order_relaxed);
  rateCount.store(0, std::memory_order_relaxed);
  TevdQprobRetry_Clear();
  agentStuck.store(false);
  pathMutex.lock();
  socketPathResolved = false;
  socketPath.clear();
  pathMutex.unlock();
}
