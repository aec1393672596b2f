// Agent streams and distribution: the shared stream list, the subscriptions
// that pick each stream's records, and the reader's queue-and-flush of
// records into the agents' pipes.
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include "PlatformRoot.h"
#include "Str.h"
#include "tevdAgent.h"
#include "tevdAgentInternal.h"
#include "tevdLog.h"
#include "tevdMetrics.h"
#include "tevdTrace.h"

namespace {

pthread_mutex_t streamLock;
TevStream *streamHead = nullptr;
TevStream *streamTail = nullptr;

void LockStreams() {
  int rc = pthread_mutex_lock(&streamLock);
  if (rc != 0) {
    Panic("Failed to acquire stream lock: %s\n", strerror(rc));
  }
}

void UnlockStreams() {
  int rc = pthread_mutex_unlock(&streamLock);
  if (rc != 0) {
    Panic("Failed to release stream lock: %s\n", strerror(rc));
  }
}

const volatile sig_atomic_t *stopFlag = nullptr;

// Waits until `fd` takes more bytes. False, with errno EINTR, once the stop
// flag is set: a stuck agent must not keep the reader from exiting.
bool WaitForRoom(int fd) {
  TevdMetrics_Add(gTevdMetrics.pipeWaits);
  for (;;) {
    if (stopFlag != nullptr && *stopFlag != 0) {
      errno = EINTR;
      return false;
    }
    struct pollfd pfd = {fd, POLLOUT, 0};
    int n = poll(&pfd, 1, 200);
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
  if (fcntl(fds[0], F_SETFD, 0x800) != 0) {
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
  LockStreams();
  s->prev = streamTail;
  if (streamTail != nullptr) {
    streamTail->next = s;
  } else {
    streamHead = s;
  }
  streamTail = s;
  UnlockStreams();
  *out = s;
  return TEVD_AGENT_OK;
}

int CloseStream(TevStream *s) {
  int rc = 0;
  LockStreams();
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
  UnlockStreams();
  free(s->buf);
  free(s->chunk);
  free(s->out);
  delete s;
  return rc;
}

}  // namespace tevd_agent

void TevdAgent_SetStopFlag(const volatile sig_atomic_t *flag) { stopFlag = flag; }

int TevdAgent_InitStreamList(void) {
  static bool initialised = false;
  if (initialised) {
    return 0;
  }
  int rc = pthread_mutex_init(&streamLock, nullptr);
  initialised = (rc == 0);
  return rc;
}

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

// A queue is written out as soon as it holds what a pipe holds: writing more
// at once would only wait for the agent.
constexpr size_t kQueueFlushBytes = 64 * 1024;

// Writes a stream's queue whole; a rare partial write (a signal in between)
// is finished so that the agent never sees a torn record. 0 or errno.
int WriteQueue(TevStream *s) {
  size_t done = 0;
  while (done < s->outLength) {
    ssize_t w = write(s->writeFd, s->out + done, s->outLength - done);
    // The pipe is non-blocking: wait for room, but give way to the exit
    // request (EINTR) so a stuck agent never keeps the reader from exiting.
    if (w < 0 && (errno == EINTR || errno == EAGAIN) && WaitForRoom(s->writeFd)) {
      continue;
    }
    if (w < 0) {
      s->outLength = 0;
      return errno;
    }
    done += static_cast<size_t>(w);
  }
  s->outLength = 0;
  if (s->outCapacity > 2 * kQueueFlushBytes) {
    free(s->out);  // a very large record passed; do not keep its room
    s->out = nullptr;
    s->outCapacity = 0;
  }
  return 0;
}

int Enqueue(TevStream *s, const uint8_t *rec, size_t len) {
  if (s->outLength + len > s->outCapacity) {
    size_t cap = s->outCapacity > 0 ? s->outCapacity : 4096;
    while (cap < s->outLength + len) {
      cap *= 2;
    }
    uint8_t *grown = static_cast<uint8_t *>(realloc(s->out, cap));
    if (grown == nullptr) {
      return ENOMEM;
    }
    s->out = grown;
    s->outCapacity = cap;
  }
  memcpy(s->out + s->outLength, rec, len);
  s->outLength += len;
  if (s->outLength < kQueueFlushBytes) {
    return 0;
  }
  PlatformLog_Flush();  // the write may wait for the agent
  return WriteQueue(s);
}

// Under the stream lock.
int FlushLocked() {
  for (TevStream *s = streamHead; s != nullptr; s = s->next) {
    if (s->outLength > 0) {
      int err = WriteQueue(s);
      if (err != 0) {
        return err;
      }
    }
  }
  return 0;
}

}  // namespace

int TevdAgent_Queue(const uint8_t *buf, size_t length) {
  LockStreams();
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
    TevdTrace_Record("IN", head.TimestampUs(), id, rec + argsOff, blockSize,
                     static_cast<int>(head.ArgCount()));
    for (TevStream *s = streamHead; s != nullptr; s = s->next) {
      if (!TevdAgent_SubscriptionMatches(&s->sub, id)) {
        continue;
      }
      int err = Enqueue(s, rec, recLen);
      if (err != 0) {
        UnlockStreams();
        return err;
      }
    }
    off += recLen;
  }
  UnlockStreams();
  return 0;
}

int TevdAgent_Flush(void) {
  PlatformLog_Flush();  // the reader's lines first: the writes may wait
  LockStreams();
  int err = FlushLocked();
  UnlockStreams();
  return err;
}

int TevdAgent_Distribute(const uint8_t *buf, size_t length) {
  int err = TevdAgent_Queue(buf, length);
  return err != 0 ? err : TevdAgent_Flush();
}
