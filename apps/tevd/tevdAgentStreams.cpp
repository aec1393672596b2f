// Agent streams and distribution: the shared stream list, the subscriptions
// that pick each stream's records, and the reader's tracing and writing of
// each record into the agents' pipes.
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include "PlatformLog.h"
#include "Str.h"
#include "TevMutex.h"
#include "tevdAgent.h"
#include "tevdAgentInternal.h"
#include "tevdLog.h"
#include "tevdMetrics.h"
#include "tevdTrace.h"

namespace {

// Held for the whole of a distribution, so taken before the trace's lock
// (TevdTrace_Record) and never while an agent waits for its own records.
TevMutex streamLock;
TevStream *streamHead GUARDED_BY(streamLock) = nullptr;
TevStream *streamTail GUARDED_BY(streamLock) = nullptr;

const volatile sig_atomic_t *stopFlag = nullptr;
sigset_t stopWaitMask;
const sigset_t *stopWaitMaskSet = nullptr;

// Waits until `fd` takes more bytes. False, with errno EINTR, once the stop
// flag is set: a stuck agent must not keep the reader from exiting.
bool WaitForRoom(int fd) {
  TevdMetrics_Add(gTevdMetrics.pipeWaits);
  PlatformLog_Flush();  // the reader's queued lines do not wait with it
  for (;;) {
    if (stopFlag != nullptr && *stopFlag != 0) {
      errno = EINTR;
      return false;
    }
    struct pollfd pfd = {fd, POLLOUT, 0};
    const struct timespec slice = {0, 200 * 1000000L};
    int n = ppoll(&pfd, 1, &slice, stopWaitMaskSet);
    if (n > 0) {
      return true;  // room, or an error that the next write reports
    }
    if (n < 0 && errno != EINTR) {
      return false;
    }
  }
}

}  // namespace

namespace tevd_agent {

void FreeSubscription(TevSubscription *sub) {
  for (int i = 0; i < sub->numPrefixes; ++i) {
    free(sub->prefixes[i]);
    sub->prefixes[i] = nullptr;
  }
  for (int i = 0; i < sub->numIds; ++i) {
    free(sub->ids[i]);
    sub->ids[i] = nullptr;
  }
  sub->numPrefixes = 0;
  sub->numIds = 0;
}

int AddPrefix(TevSubscription *sub, const char *word) {
  if (sub->numPrefixes >= TEVD_SUBSCRIPTION_MAX) {
    return TEVD_AGENT_NO_MEMORY;
  }
  char *p = Str_Asprintf(nullptr, "tev.%s", word);
  if (p == nullptr) {
    return TEVD_AGENT_NO_MEMORY;
  }
  sub->prefixes[sub->numPrefixes++] = p;
  return TEVD_AGENT_OK;
}

int AddId(TevSubscription *sub, const char *id) {
  if (sub->numIds >= TEVD_SUBSCRIPTION_MAX) {
    return TEVD_AGENT_NO_MEMORY;
  }
  char *p = strdup(id);
  if (p == nullptr) {
    return TEVD_AGENT_NO_MEMORY;
  }
  sub->ids[sub->numIds++] = p;
  return TEVD_AGENT_OK;
}

int CopySubscription(const TevSubscription *from, TevSubscription *to) {
  for (int i = 0; i < from->numPrefixes; ++i) {
    char *p = strdup(from->prefixes[i]);
    if (p == nullptr) {
      FreeSubscription(to);
      return TEVD_AGENT_NO_MEMORY;
    }
    to->prefixes[to->numPrefixes++] = p;
  }
  for (int i = 0; i < from->numIds; ++i) {
    if (AddId(to, from->ids[i]) != 0) {
      FreeSubscription(to);
      return TEVD_AGENT_NO_MEMORY;
    }
  }
  return TEVD_AGENT_OK;
}

int CreateStream(const TevSubscription *sub, char **nameHolder, TevStream **out) {
  TevStream *s = new (std::nothrow) TevStream;
  if (s == nullptr) {
    return TEVD_AGENT_NO_MEMORY;
  }
  int fds[2];
  if (pipe(fds) != 0) {
    delete s;
    return TEVD_AGENT_BROKEN;
  }
  // The non-blocking flag's value passed as descriptor flags, deliberately:
  // the read end stays blocking and reassembly copes with short reads.
  // Written as a number, not as O_NONBLOCK: as descriptor flags it means
  // nothing (the kernel keeps only FD_CLOEXEC), so close-on-exec stays off.
  constexpr int kReadEndDescriptorFlags = 0x800;  // O_NONBLOCK's value on Linux
  if (fcntl(fds[0], F_SETFD, kReadEndDescriptorFlags) != 0) {
    close(fds[0]);
    close(fds[1]);
    delete s;
    return TEVD_AGENT_BROKEN;
  }
  // The write end is non-blocking so that the reader, waiting for room in
  // the pipe of an agent that stopped reading, can still see a request to
  // exit (Distribute waits for room in short slices).
  if (fcntl(fds[1], F_SETFL, O_NONBLOCK) != 0) {
    close(fds[0]);
    close(fds[1]);
    delete s;
    return TEVD_AGENT_BROKEN;
  }
  s->readFd = fds[0];
  s->writeFd = fds[1];
  if (CopySubscription(sub, &s->sub) != 0) {
    close(fds[0]);
    close(fds[1]);
    delete s;
    return TEVD_AGENT_NO_MEMORY;
  }
  s->nameHolder = nameHolder;
  streamLock.lock();
  s->prev = streamTail;
  if (streamTail != nullptr) {
    streamTail->next = s;
  } else {
    streamHead = s;
  }
  streamTail = s;
  streamLock.unlock();
  *out = s;
  return TEVD_AGENT_OK;
}

int CloseStream(TevStream *s) {
  int rc = 0;
  // The reader may be waiting, with the lock held, for room in this very
  // pipe, which nobody reads any more: what it writes meanwhile is read and
  // dropped (closing the pipe would drop it too) until it moves on, instead
  // of both waiting for each other and every other agent going without.
  while (!streamLock.try_lock()) {
    struct pollfd pfd = {s->readFd, POLLIN, 0};
    char sink[4096];
    if (poll(&pfd, 1, 10) > 0 && read(s->readFd, sink, sizeof sink) < 0 && errno != EINTR) {
      streamLock.lock();
      break;
    }
  }
  if (close(s->readFd) == 0) {
    if (close(s->writeFd) != 0) {
      rc = TEVD_AGENT_BROKEN;
    }
  } else {
    rc = TEVD_AGENT_BROKEN;
  }
  FreeSubscription(&s->sub);
  if (s->prev != nullptr) {
    s->prev->next = s->next;
  } else {
    streamHead = s->next;
  }
  if (s->next != nullptr) {
    s->next->prev = s->prev;
  } else {
    streamTail = s->prev;
  }
  streamLock.unlock();
  free(s->buf);
  free(s->chunk);
  delete s;
  return rc;
}

}  // namespace tevd_agent

void TevdAgent_SetStopFlag(const volatile sig_atomic_t *flag, const sigset_t *waitMask) {
  stopFlag = flag;
  if (waitMask != nullptr) {
    stopWaitMask = *waitMask;
  }
  stopWaitMaskSet = waitMask != nullptr ? &stopWaitMask : nullptr;
}

int TevdAgent_InitStreamList(void) { return 0; }  // the lock is statically initialised

bool TevdAgent_SubscriptionMatches(const TevSubscription *sub, const char *id) {
  for (int i = 0; i < sub->numPrefixes; ++i) {
    size_t n = strlen(sub->prefixes[i]);
    if (strncmp(id, sub->prefixes[i], n) == 0 && id[n] == '.') {
      return true;
    }
  }
  for (int i = 0; i < sub->numIds; ++i) {
    if (Tev_IsID(id, sub->ids[i])) {
      return true;
    }
  }
  return false;
}

namespace {

// Writes one record whole to a stream's pipe; a partial write (a record above
// the pipe's atomic size, or a signal in between) is finished so that the
// agent never sees a torn record. 0 or errno.
int WriteRecord(TevStream *s, const uint8_t *rec, size_t len) {
  size_t done = 0;
  while (done < len) {
    ssize_t w = write(s->writeFd, rec + done, len - done);
    // The pipe is non-blocking: wait for room, but give way to the exit
    // request (EINTR) so a stuck agent never keeps the reader from exiting.
    if (w < 0 && (errno == EINTR || errno == EAGAIN) && WaitForRoom(s->writeFd)) {
      continue;
    }
    if (w < 0) {
      return errno;
    }
    done += static_cast<size_t>(w);
  }
  return 0;
}

}  // namespace

int TevdAgent_Distribute(const uint8_t *buf, size_t length) {
  TevLock hold(&streamLock);
  size_t off = 0;
  while (length - off >= TEV_RECORD_HEADER_SIZE) {
    const uint8_t *rec = buf + off;
    const TevRecordHeader head(rec);
    const uint32_t recLen = head.TotalLength();
    const uint32_t argsOff = head.ArgsOffset();
    if (recLen < TEV_RECORD_HEADER_SIZE || recLen > length - off) {
      break;  // the library hands over whole records only; never walk past them
    }
    const char *id = head.Id();
    size_t blockSize = argsOff <= recLen ? recLen - argsOff : 0;
    // Traced right before its own hand-over and after the previous record's:
    // an "IN" line never runs ahead of what the agents were given, so an
    // agent's "OUT" for one record may come before the next record's "IN".
    // One write per agent for a whole pass cannot keep that order; each
    // record has its own.
    TevdTrace_Record("IN", head.TimestampUs(), id, rec + argsOff, blockSize,
                     static_cast<int>(head.ArgCount()));
    for (TevStream *s = streamHead; s != nullptr; s = s->next) {
      if (!TevdAgent_SubscriptionMatches(&s->sub, id)) {
        continue;
      }
      int err = WriteRecord(s, rec, recLen);
      if (err != 0) {
        return err;
      }
    }
    off += recLen;
  }
  return 0;
}
