// Daemon entry and the single poll loop. DESIGN: main is the only reader of
// the observation contexts and the only user of the observation buffer and the
// poll set; it hands whole records to the agents through their pipes
// (tevdAgent) and never interprets an observation itself. The alarm thread,
// the agents and the trace threads are started from here and share nothing
// with the loop but the stream lock and the trace history.
#include <fcntl.h>
#include <getopt.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "KNO.h"
#include "PlatformLog.h"
#include "PlatformRoot.h"
#include "TevClock.h"
#include "TevLib.h"
#include "tevdAgent.h"
#include "tevdAlarm.h"
#include "tevdCorrelator.h"
#include "tevdLog.h"
#include "tevdMainSetup.h"
#include "tevdMetrics.h"
#include "tevdNotify.h"
#include "tevdQprob.h"
#include "tevdTrace.h"

#ifndef TEVD_SELFTEST_AGENTS
#define TEVD_SELFTEST_AGENTS 0
#endif

namespace {

constexpr int kFixedEntries = 24;
constexpr int kMaxEntries = 32;
constexpr int kTraceListener = 23;
constexpr size_t kBufferInitial = 8192;
constexpr size_t kBufferCeiling = 131072;
constexpr short kErrorBits = POLLERR | POLLHUP | POLLNVAL;  // 56

volatile sig_atomic_t exitRequested = 0;
// SIGHUP and SIGUSR1 (a service manager's reload, a signal meant for a
// companion) are logged by the loop and otherwise ignored: tevd has nothing
// to reload, and their default action would end it without a word.
volatile sig_atomic_t hangupSeen = 0;
volatile sig_atomic_t usr1Seen = 0;
// The reader's mask inside its waits: the handled signals are blocked at all
// other times (TevdMain_BlockHandledSignals).
sigset_t waitMask;
bool enableTevs = false;

uint8_t *tevBuffer = nullptr;
size_t tevBufferSize = 0;
// The errno of a failed pipe write. It ends the loop whoever sent the
// records, a user-level connection too: the write fails only when its agent
// is gone, which closing a connection cannot mend.
int distributeError = 0;

void OnSignal(int sig) {
  if (sig == SIGHUP) {
    hangupSeen = 1;
  } else if (sig == SIGUSR1) {
    usr1Seen = 1;
  } else if (sig != SIGPIPE) {
    exitRequested = 1;
  }
}

void LogIgnoredSignals() {
  if (hangupSeen != 0) {
    hangupSeen = 0;
    TevdLog("Ignoring SIGHUP: tevd has nothing to reload (SIGTERM or SIGINT stops it).\n");
  }
  if (usr1Seen != 0) {
    usr1Seen = 0;
    TevdLog("Ignoring SIGUSR1 (SIGTERM or SIGINT stops tevd).\n");
  }
}

// A descriptor held in reserve: when accept fails for want of descriptors,
// it is given up for a moment so that the pending connection can be taken
// and closed. Without that the listener stays readable and poll returns at
// once, for ever.
int reserveFd = -1;
TevdLogLimiter acceptLimiter;

void OpenReserve() {
  if (reserveFd < 0) {
    reserveFd = open("/dev/null", O_RDONLY | O_CLOEXEC);
  }
}

// Wall-clock second until which both listeners are left out of the poll set
// (0: none): when even the reserve cannot take a pending connection, the
// loop backs off instead of finding the listener readable again at once.
time_t listenersPausedUntil = 0;
constexpr time_t kAcceptPauseSeconds = 1;
constexpr int kPausedPollSliceMs = 200;

// After a failed accept on `listenFd` (errno `err`): drops the pending
// connection when descriptors ran out, else pauses the listeners; logs once
// per interval.
void AcceptFailed(const char *what, int listenFd, int err) {
  bool dropped = false;
  if ((err == EMFILE || err == ENFILE) && reserveFd >= 0) {
    close(reserveFd);
    reserveFd = -1;
    int fd = accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0) {
      close(fd);
      dropped = true;
    }
    OpenReserve();
  }
  if (!dropped && err != EINTR && err != EAGAIN && err != ECONNABORTED) {
    listenersPausedUntil = TevClock_Time() + kAcceptPauseSeconds;
  }
  uint64_t skipped = 0;
  if (TevdLog_Allow(&acceptLimiter, &skipped)) {
    TevdLog("%s accept() failed: %s%s (%llu more accept failures since the last report)\n", what,
            strerror(err),
            dropped                     ? "; the pending connection was closed"
            : listenersPausedUntil != 0 ? "; accepting again in a second"
                                        : "",
            static_cast<unsigned long long>(skipped));
  }
}

// Reads one buffer of records from `fd` and hands them to the agents.
int ReadTevs(TevLib_Handle handle, int ctx, int fd) {
  char name[TEVLIB_NAME_MAX];
  TevLib_HandleToName(handle, name);
  size_t length = 0;
  int rc = TevLib_ReadFromFd(fd, tevBuffer, tevBufferSize, &length);
  while (rc == TEVLIB_BUFFER_TOO_SMALL) {
    if (tevBufferSize >= kBufferCeiling) {
      return TEVLIB_BUFFER_TOO_SMALL;
    }
    size_t next = tevBufferSize * 3 < 2 * kBufferCeiling ? tevBufferSize * 3 / 2 : kBufferCeiling;
    uint8_t *grown = static_cast<uint8_t *>(realloc(tevBuffer, next));
    if (grown == nullptr) {
      return TEVLIB_BUFFER_TOO_SMALL;
    }
    tevBuffer = grown;
    tevBufferSize = next;
    rc = TevLib_ReadFromFd(fd, tevBuffer, tevBufferSize, &length);
  }
  if (rc != 0) {
    return rc;
  }
  // A read may fill the buffer exactly (records packed up to its size): that
  // is a full buffer, not an overflow.
  if (length == 0 || length > kBufferCeiling) {
    return -1;
  }
  TevdMetrics_Read(ctx, tevBuffer, length);
  rc = TevdAgent_Distribute(tevBuffer, length);
  if (rc != 0) {
    distributeError = rc;
    return rc;
  }
  // Records the library took ahead of a full buffer do not make the
  // descriptor readable again: they are read now, not at the next arrival.
  return TevLib_HasPending(fd) ? ReadTevs(handle, ctx, fd) : 0;
}

// Closes the user connection at *index, keeping the set dense; the walk
// index steps back so that the entry moved into the slot is served now.
void CloseConnection(struct pollfd *set, int *count, int *index) {
  int i = *index;
  if (TevLib_UserContextCloseCnx(set[i].fd) < 0) {
    return;
  }
  int last = *count - 1;
  if (i != last) {
    set[i] = set[last];
    set[last] = {-1, POLLIN, 0};
    --*index;
  } else {
    set[i] = {-1, POLLIN, 0};
  }
  --*count;
}

// What serving one poll entry asks of the walk over the set.
enum class Served {
  Done,     // served: listen again
  Skipped,  // closed, or gave way to the exit request: nothing more to do
  Fatal,    // the loop ends with *fatal
};

// A user-level connection (or the listener itself when only the fixed set
// exists) is readable.
Served ServeConnection(ContextRow *contexts, struct pollfd *set, int *count, int *i) {
  short rev = set[*i].revents;
  int rc = ReadTevs(contexts[kUserListener].handle, kUserListener, set[*i].fd);
  if (rc > 0 && exitRequested) {
    return Served::Skipped;  // the distribution gave way to the exit request
  }
  // A record above the ceiling can never be read, and an end of stream
  // without a hang-up (the peer shut down only its sending side, or sent an
  // empty message) stays readable: either would make every poll return at
  // once, so that connection is closed.
  bool stuck = rc == TEVLIB_BUFFER_TOO_SMALL;
  bool halfClosed = rc == TEVLIB_ERR_CLOSED && (rev & POLLHUP) == 0;
  if (rc == 0 || ((rev & kErrorBits) == 0 && !stuck && !halfClosed) || *i < kFixedEntries) {
    return Served::Done;
  }
  if (stuck) {
    TevdMetrics_Add(gTevdMetrics.recordsOversized);
    TevdLog(
        "Closing a user-level connection: its next record is larger than the "
        "%zu-byte buffer.\n",
        kBufferCeiling);
  } else if (halfClosed) {
    TevdLog(
        "Closing a user-level connection: the peer sent an empty message or shut "
        "down its sending side.\n");
  }
  CloseConnection(set, count, i);
  return Served::Skipped;
}

// An observation context is readable.
Served ServeContext(ContextRow *contexts, struct pollfd *set, int i, int *fatal) {
  int rc = ReadTevs(contexts[i].handle, i, set[i].fd);
  if (rc == TEVLIB_BUFFER_TOO_SMALL) {
    TevdMetrics_Add(gTevdMetrics.recordsOversized);
    char name[TEVLIB_NAME_MAX];
    TevLib_HandleToName(contexts[i].handle, name);
    int reset = TevLib_Reset(contexts[i].handle);
    TevdLog("A record on %s is larger than the %zu-byte buffer; %s what was pending.\n", name,
            kBufferCeiling, reset == 0 ? "dropped it and" : "failed to drop");
  } else if (rc > 0) {
    if (exitRequested) {
      return Served::Skipped;  // the distribution gave way to the exit request
    }
    *fatal = rc;
    return Served::Fatal;
  }
  return Served::Done;
}

Served ServeEntry(ContextRow *contexts, struct pollfd *set, int *count, int *i, int capacity,
                  int *fatal) {
  short rev = set[*i].revents;
  if ((rev & POLLIN) == 0) {
    if (*i >= kFixedEntries && (rev & kErrorBits) != 0) {
      CloseConnection(set, count, i);
      return Served::Skipped;
    }
    return Served::Done;
  }
  if (*i < kUserListener) {
    return ServeContext(contexts, set, *i, fatal);
  }
  if (*i == kUserListener && capacity > kFixedEntries) {
    int fd = -1;
    int rc = TevLib_UserContextNewCnx(contexts[kUserListener].handle, &fd);
    if (rc != 0) {
      AcceptFailed("User-level", set[*i].fd, rc);
    } else if (*count >= kMaxEntries) {
      close(fd);  // eight connections at most; extra clients are dropped
    } else {
      set[*count] = {fd, POLLIN, 0};
      ++*count;
    }
    return Served::Done;
  }
  if (*i == kTraceListener) {
    int err = TevdTrace_Accept(set[*i].fd);
    if (err != 0) {
      AcceptFailed("Trace", set[*i].fd, err);
    }
    return Served::Done;
  }
  return ServeConnection(contexts, set, count, i);
}

// Waits for the next activity. 0, or -1 when poll failed (EINTR included).
int WaitForActivity(struct pollfd *set, int count) {
  // The watchdog's keep-alive and paused listeners both bound the wait; the
  // sooner of the two wins (-1 is no bound).
  bool paused = listenersPausedUntil != 0;
  int timeoutMs = TevdNotify_PollTimeoutMs();
  if (paused && (timeoutMs < 0 || timeoutMs > kPausedPollSliceMs)) {
    timeoutMs = kPausedPollSliceMs;
  }
  struct timespec slice = {timeoutMs / 1000, (timeoutMs % 1000) * 1000000L};
  if (ppoll(set, static_cast<nfds_t>(count), timeoutMs < 0 ? nullptr : &slice, &waitMask) < 0) {
    return -1;
  }
  if (paused && TevClock_Time() >= listenersPausedUntil) {
    listenersPausedUntil = 0;
    set[kUserListener].events = POLLIN;
    set[kTraceListener].events = POLLIN;
  }
  return 0;
}

int RunLoop(ContextRow *contexts, struct pollfd *set, int capacity) {
  int count = kFixedEntries;
  // The reader's lines go out together before it waits (main unbatches).
  PlatformLog_BatchLines();
  for (;;) {
    TevdNotify_LoopPass();
    LogIgnoredSignals();
    if (exitRequested) {
      TevdLog("Exiting due to signal.\n");
      return 0;
    }
    PlatformLog_Flush();
    if (WaitForActivity(set, count) < 0) {
      if (errno == EINTR) {
        continue;
      }
      return -1;
    }
    for (int i = 0; i < count; ++i) {
      if (set[i].revents == 0) {
        continue;
      }
      int fatal = 0;
      Served served = ServeEntry(contexts, set, &count, &i, capacity, &fatal);
      if (served == Served::Fatal) {
        return fatal;
      }
      // A distribution that gave way to the exit request is not a failure.
      if (distributeError != 0 && !exitRequested) {
        return distributeError;
      }
      if (served == Served::Skipped) {
        continue;
      }
      set[i].events = POLLIN;
      set[i].revents = 0;
      if (listenersPausedUntil != 0 && (i == kUserListener || i == kTraceListener)) {
        set[kUserListener].events = 0;
        set[kTraceListener].events = 0;
      }
    }
  }
}

// The poll set with room for every trace client and user connection, the
// fixed entries first; null when there is no memory for it (the fixed set
// alone is polled then, and `*capacity` stays).
struct pollfd *FullSet(const struct pollfd *fixedSet, int *capacity) {
  struct pollfd *set = static_cast<struct pollfd *>(malloc(kMaxEntries * sizeof(struct pollfd)));
  if (set == nullptr) {
    return nullptr;
  }
  memcpy(set, fixedSet, kFixedEntries * sizeof(struct pollfd));
  for (int i = kFixedEntries; i < kMaxEntries; ++i) {
    set[i] = {-1, POLLIN, 0};
  }
  *capacity = kMaxEntries;
  return set;
}

}  // namespace

static_assert(TEVD_METRICS_CONTEXTS == kNumContexts, "one read counter per context");

int main(int argc, char **argv) {
  ContextRow contexts[kNumContexts];
  memcpy(contexts, kContextTable, sizeof contexts);
  enableTevs = TevdMain_ParseOptions(argc, argv);
  // A second daemon on the same root would bind every socket afresh and
  // leave the first one deaf: it refuses before it touches anything.
  std::string lockWhy;
  if (PlatformRoot_LockProgram("tevd", &lockWhy) < 0) {
    fprintf(stderr, "tevd: %s; not starting.\n", lockWhy.c_str());
    TevdLog("Not starting: %s.\n", lockWhy.c_str());
    return 1;
  }

  // The library's own diagnostics carry the daemon's time prefix too.
  PlatformLog_SetDiagnosticSink(TevdLogV);
  int rc = TevdMain_InstallSignals(OnSignal);
  // Threads inherit the mask: everything started from here on blocks the
  // handled signals; the reader takes them only inside its waits.
  TevdMain_BlockHandledSignals(&waitMask);
  TevdAgent_SetStopFlag(&exitRequested, &waitMask);
  struct pollfd *fixedSet = nullptr;
  struct pollfd *set = nullptr;
  int capacity = kFixedEntries;
  if (rc == 0) {
    rc = TevdMain_StartServices(enableTevs);
  }
  if (rc == 0) {
    fixedSet = static_cast<struct pollfd *>(calloc(kFixedEntries, sizeof(struct pollfd)));
    rc = fixedSet == nullptr ? 1 : TevdMain_OpenContexts(contexts, fixedSet);
  }
  if (rc != 0) {
    free(fixedSet);
    fixedSet = nullptr;
  }
  if (rc == 0) {
    fixedSet[kTraceListener] = {TevdTrace_Open(nullptr), POLLIN, 0};
  }
  if (rc == 0) {
    // Only the self-test build (tevd-selftest) runs the logger and the
    // self-test agents; nothing in a production daemon's surroundings can.
    TevdCorrelator_StartAll(TEVD_SELFTEST_AGENTS != 0);
    TevdAgent_WaitSettled(5);
    TevdNotify_Ready();
    tevBuffer = static_cast<uint8_t *>(malloc(kBufferInitial));
    if (tevBuffer == nullptr) {
      TevdLog("Error allocating space for tev buffer. Out of memory\n");
      rc = ENOMEM;
    } else {
      tevBufferSize = kBufferInitial;
    }
  }
  if (rc == 0) {
    set = FullSet(fixedSet, &capacity);
    OpenReserve();
    TevdMetrics_Start();
    rc = RunLoop(contexts, set != nullptr ? set : fixedSet, capacity);
    PlatformLog_Unbatch();
  }

  TevdNotify_Stopping();
  TevdMetrics_Stop();
  TevdAgent_StopAll();
  free(set);
  free(fixedSet);
  TevdMain_CloseContexts(contexts);
  TevdLog("Exiting. rc:%d\n", rc);
  return rc;
}
