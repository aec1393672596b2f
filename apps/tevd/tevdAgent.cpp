// Agent threads, subscriptions, streams, distribution and reassembly.
#include "tevdAgent.h"

#include <cxxabi.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "PlatformRoot.h"
#include "Str.h"
#include "TevClock.h"
#include "tevdLog.h"
#include "tevdTrace.h"

namespace {

pthread_t agentThreads[TEVD_MAX_AGENTS];
int agentCount = 0;

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

// Start-up waits until every agent has subscribed (or given up), so that no
// record read by the loop finds an agent that is not listening yet.
pthread_mutex_t settleMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t settleCond = PTHREAD_COND_INITIALIZER;
int settledCount = 0;
thread_local bool agentSettled = false;

void MarkSettled() {
  if (agentSettled) {
    return;
  }
  agentSettled = true;
  pthread_mutex_lock(&settleMutex);
  ++settledCount;
  pthread_cond_broadcast(&settleCond);
  pthread_mutex_unlock(&settleMutex);
}

const volatile sig_atomic_t *stopFlag = nullptr;

// Waits until `fd` takes more bytes. False, with errno EINTR, once the stop
// flag is set: a stuck agent must not keep the reader from exiting.
bool WaitForRoom(int fd) {
  for (;;) {
    if (stopFlag != nullptr && *stopFlag != 0) {
      errno = EINTR;
      return false;
    }
    struct pollfd pfd = {fd, POLLOUT, 0};
    int n = poll(&pfd, 1, 200);
    if (n > 0) {
      return true;   // room, or an error that the next write reports
    }
    if (n < 0 && errno != EINTR) {
      return false;
    }
  }
}

unsigned AddrLow32(TevdAgentFn fn) {
  return static_cast<unsigned>(reinterpret_cast<uintptr_t>(fn));
}

// Cancellation unwinds with a foreign exception object whose catch binding
// the null-reference check misreads; the rethrow below is the required idiom.
__attribute__((no_sanitize("null"))) void *AgentThreadMain(void *arg) {
  TevdAgentFn fn = reinterpret_cast<TevdAgentFn>(arg);
  // An agent must stop wherever it blocks: in its poll, a pipe read, a
  // connect or send to the management agent, a log write. Every one of those
  // is a cancellation point, so deferred cancellation stops it there. An
  // asynchronous cancel could also land between two instructions of C++
  // code, or inside a C library call declared not to throw (the unwinder
  // then terminates the process), or while the C library holds an internal
  // lock that the exiting main thread needs: a signal during a burst of
  // observations would then abort or hang the daemon instead of exiting 0.
  if (pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, nullptr) != 0) {
    TevdLog("Failed to set thread cancel type for agent function(%#x).\n", AddrLow32(fn));
  }
  // An agent's lines go out together before it waits for the next record.
  PlatformLog_BatchLines();
  try {
    fn();
  } catch (abi::__forced_unwind &) {
    throw;  // cancellation must unwind through here
  } catch (const std::exception &e) {
    TevdLog("Exception (%s) in agent function(%#x).\n", e.what(), AddrLow32(fn));
  } catch (...) {
    TevdLog("Unknown exception in agent function(%#x).\n", AddrLow32(fn));
  }
  PlatformLog_Unbatch();   // the agent ends: nothing may stay queued
  MarkSettled();
  return nullptr;
}

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
    return 1;
  }
  char *p = Str_Asprintf(nullptr, "tev.%s", word);
  if (p == nullptr) {
    return 1;
  }
  sub->prefixes[sub->numPrefixes++] = p;
  return 0;
}

int AddId(TevSubscription *sub, const char *id) {
  if (sub->numIds >= TEVD_SUBSCRIPTION_MAX) {
    return 1;
  }
  char *p = strdup(id);
  if (p == nullptr) {
    return 1;
  }
  sub->ids[sub->numIds++] = p;
  return 0;
}

int CopySubscription(const TevSubscription *from, TevSubscription *to) {
  for (int i = 0; i < from->numPrefixes; ++i) {
    char *p = strdup(from->prefixes[i]);
    if (p == nullptr) {
      FreeSubscription(to);
      return 1;
    }
    to->prefixes[to->numPrefixes++] = p;
  }
  for (int i = 0; i < from->numIds; ++i) {
    if (AddId(to, from->ids[i]) != 0) {
      FreeSubscription(to);
      return 1;
    }
  }
  return 0;
}

int CreateStream(const TevSubscription *sub, char **nameHolder, TevStream **out) {
  TevStream *s = new (std::nothrow) TevStream;
  if (s == nullptr) {
    return 1;
  }
  int fds[2];
  if (pipe(fds) != 0) {
    delete s;
    return 2;
  }
  // The non-blocking flag's value passed as descriptor flags, deliberately:
  // the read end stays blocking and reassembly copes with short reads.
  if (fcntl(fds[0], F_SETFD, 0x800) != 0) {
    close(fds[0]);
    close(fds[1]);
    delete s;
    return 2;
  }
  // The write end is non-blocking so that the reader, waiting for room in
  // the pipe of an agent that stopped reading, can still see a request to
  // exit (Distribute waits for room in short slices).
  if (fcntl(fds[1], F_SETFL, O_NONBLOCK) != 0) {
    close(fds[0]);
    close(fds[1]);
    delete s;
    return 2;
  }
  s->readFd = fds[0];
  s->writeFd = fds[1];
  if (CopySubscription(sub, &s->sub) != 0) {
    close(fds[0]);
    close(fds[1]);
    delete s;
    return 1;
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
  return 0;
}

int CloseStream(TevStream *s) {
  int rc = 0;
  LockStreams();
  if (close(s->readFd) == 0) {
    if (close(s->writeFd) != 0) {
      rc = 2;
    }
  } else {
    rc = 2;
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

// One read takes up to this much of what the pipe holds (a pipe holds 64 KiB).
constexpr uint32_t kChunkSize = 32 * 1024;

// Moves what the stream still wants into its buffer: from the bytes read
// earlier, else with one read of the pipe (straight into the record for a
// body larger than a chunk). 0 when the phase is complete, 11 when short,
// else errno. The read may block only inside a record whose first bytes are
// here already, so the reader is still writing the rest of it.
int TakeWanted(TevStream *s) {
  if (s->chunkStart == s->chunkEnd) {
    const bool direct = s->want >= kChunkSize;
    if (!direct && s->chunk == nullptr) {
      s->chunk = static_cast<uint8_t *>(malloc(kChunkSize));
      if (s->chunk == nullptr) {
        return ENOMEM;
      }
    }
    ssize_t got = direct ? read(s->readFd, s->buf + s->have, s->want)
                         : read(s->readFd, s->chunk, kChunkSize);
    if (got == 0) {
      Panic("EOF trying to read %d bytes from stream %p\n", static_cast<int>(s->want),
            static_cast<void *>(s));
    }
    if (got < 0) {
      return errno;
    }
    if (direct) {
      s->have += static_cast<uint32_t>(got);
      s->want -= static_cast<uint32_t>(got);
      return s->want == 0 ? 0 : 11;
    }
    s->chunkStart = 0;
    s->chunkEnd = static_cast<uint32_t>(got);
  }
  uint32_t n = s->chunkEnd - s->chunkStart;
  if (n > s->want) {
    n = s->want;
  }
  memcpy(s->buf + s->have, s->chunk + s->chunkStart, n);
  s->chunkStart += n;
  s->have += n;
  s->want -= n;
  return s->want == 0 ? 0 : 11;
}

}  // namespace

void TevdAgent_Start(TevdAgentFn fn) {
  if (agentCount >= TEVD_MAX_AGENTS) {
    TevdLog("Failed to start agent. Already reached max limit of %u agents.\n",
            static_cast<unsigned>(TEVD_MAX_AGENTS));
    return;
  }
  int rc = pthread_create(&agentThreads[agentCount], nullptr, AgentThreadMain,
                          reinterpret_cast<void *>(fn));
  if (rc != 0) {
    TevdLog("Failed to create thread %p (id:%d err:%d %s)\n", reinterpret_cast<void *>(fn),
            agentCount, rc, strerror(rc));
    return;
  }
  ++agentCount;
}

void TevdAgent_StopAll(void) {
#ifdef __SANITIZE_ADDRESS__
  // This toolchain's AddressSanitizer aborts while a cancelled thread unwinds
  // out of its instrumented frames. Its builds leave the agents, all blocked
  // waiting, to end with the process.
  if (getenv("TEVD_FORCE_CANCEL") == nullptr) {
    agentCount = 0;
    return;
  }
#endif
  while (agentCount > 0) {
    --agentCount;
    int rc = pthread_cancel(agentThreads[agentCount]);
    if (rc != 0) {
      TevdLog("Failed to cancel thread id:%d, err:%d %s\n", agentCount, rc, strerror(rc));
      continue;
    }
    rc = pthread_join(agentThreads[agentCount], nullptr);
    if (rc != 0) {
      TevdLog("Failed to join thread id:%d, err:%d %s\n", agentCount, rc, strerror(rc));
    }
  }
}

void TevdAgent_SetStopFlag(const volatile sig_atomic_t *flag) { stopFlag = flag; }

int TevdAgent_NumStarted(void) { return agentCount; }

bool TevdAgent_WaitSettled(unsigned seconds) {
  struct timespec deadline;
  TevClock_GetRealtime(&deadline);
  deadline.tv_sec += seconds;
  pthread_mutex_lock(&settleMutex);
  int rc = 0;
  while (settledCount < agentCount && rc != ETIMEDOUT) {
    rc = pthread_cond_timedwait(&settleCond, &settleMutex, &deadline);
  }
  bool all = settledCount >= agentCount;
  pthread_mutex_unlock(&settleMutex);
  return all;
}

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
    free(s->out);   // a very large record passed; do not keep its room
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
  PlatformLog_Flush();   // the write may wait for the agent
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
    uint32_t recLen, argsCount, argsOff;
    uint64_t ts;
    memcpy(&ts, rec + 8, 8);
    memcpy(&recLen, rec + 16, 4);
    memcpy(&argsCount, rec + 24, 4);
    memcpy(&argsOff, rec + 28, 4);
    if (recLen < TEV_RECORD_HEADER_SIZE || recLen > length - off) {
      break;  // the library hands over whole records only; never walk past them
    }
    const char *id = reinterpret_cast<const char *>(rec + TEV_RECORD_HEADER_SIZE);
    size_t blockSize = argsOff <= recLen ? recLen - argsOff : 0;
    TevdTrace_Record("IN", ts, id, rec + argsOff, blockSize, static_cast<int>(argsCount));
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
  PlatformLog_Flush();   // the reader's lines first: the writes may wait
  LockStreams();
  int err = FlushLocked();
  UnlockStreams();
  return err;
}

int TevdAgent_Distribute(const uint8_t *buf, size_t length) {
  int err = TevdAgent_Queue(buf, length);
  return err != 0 ? err : TevdAgent_Flush();
}

int TevdAgent_Init(const char *name, const std::vector<std::string> &words,
                   const std::vector<std::string> &ids, TevdAgent **out) {
  VThreadBase_SetName(name);
  int rc = 0;
  TevdAgent *agent = new (std::nothrow) TevdAgent;
  if (agent == nullptr) {
    rc = 1;
  }
  if (rc == 0) {
    agent->nameHolder = static_cast<char **>(calloc(1, sizeof(char *)));
    if (agent->nameHolder == nullptr || (*agent->nameHolder = strdup(name)) == nullptr) {
      rc = 1;
    }
  }
  if (rc == 0) {
    agent->sub = new (std::nothrow) TevSubscription;
    if (agent->sub == nullptr) {
      rc = 1;
    }
  }
  for (size_t i = 0; rc == 0 && i < words.size(); ++i) {
    rc = AddPrefix(agent->sub, words[i].c_str());
  }
  for (size_t i = 0; rc == 0 && i < ids.size(); ++i) {
    rc = AddId(agent->sub, ids[i].c_str());
  }
  if (rc == 0) {
    rc = CreateStream(agent->sub, agent->nameHolder, &agent->stream);
  }
  if (rc != 0) {
    if (agent != nullptr) {
      if (agent->sub != nullptr) {
        FreeSubscription(agent->sub);
        delete agent->sub;
      }
      if (agent->nameHolder != nullptr) {
        free(*agent->nameHolder);
        free(agent->nameHolder);
      }
      delete agent;
    }
    TevdLog("Failed to initialize agent %s (error code: %d) \n", name, rc);
    MarkSettled();
    return rc;
  }
  agent->pollFd = agent->stream->readFd;
  agent->numFds = 1;
  *out = agent;
  MarkSettled();
  return 0;
}

int TevdAgent_InitOne(const char *name, const char *word, TevdAgent **agent) {
  return TevdAgent_Init(name, {word}, {}, agent);
}

bool TevdAgent_StreamBuffered(const TevStream *s) { return s->chunkStart < s->chunkEnd; }

int TevdAgent_ReassembleStep(TevStream *s, Tev **tev) {
  *tev = nullptr;
  int rc = 0;
  if (s->buf == nullptr) {
    s->buf = static_cast<uint8_t *>(malloc(TEV_RECORD_HEADER_SIZE));
    if (s->buf == nullptr) {
      return 2;
    }
    s->have = 0;
    s->want = TEV_RECORD_HEADER_SIZE;
  }
  if (s->have < TEV_RECORD_HEADER_SIZE) {
    rc = TakeWanted(s);
  }
  if (rc == 0 && s->have == TEV_RECORD_HEADER_SIZE && s->want == 0) {
    uint32_t total;
    memcpy(&total, s->buf + 16, 4);
    if (total < TEV_RECORD_HEADER_SIZE) {
      return 2;  // the reader never writes such a record
    }
    if (total > TEV_RECORD_HEADER_SIZE) {
      uint8_t *grown = static_cast<uint8_t *>(realloc(s->buf, total));
      if (grown == nullptr) {
        return 2;
      }
      s->buf = grown;
      s->want = total - TEV_RECORD_HEADER_SIZE;
      rc = TakeWanted(s);
    }
  } else if (rc == 0 && s->want > 0) {
    rc = TakeWanted(s);
  }
  if (rc == 11) {
    return 0;  // incomplete: more bytes on the next readable event
  }
  if (rc != 0) {
    return 2;
  }
  uint32_t total = s->have;
  uint8_t *record = s->buf;
  s->buf = nullptr;
  s->have = s->want = 0;
  if (Tev_MakeTev(record, total, tev) != 0 || *tev == nullptr) {
    *tev = nullptr;
    return 2;
  }
  return 0;
}

int TevdAgent_WaitTev(TevdAgent *agent, Tev **tev) {
  *tev = nullptr;
  for (;;) {
    if (TevdAgent_StreamBuffered(agent->stream)) {
      int rc = TevdAgent_ReassembleStep(agent->stream, tev);
      if (rc != 0) {
        TevdLog("Failed to get Tev\n");
        return rc;
      }
      if (*tev != nullptr) {
        return 0;
      }
      continue;
    }
    PlatformLog_Flush();
    struct pollfd pfd = {agent->pollFd, POLLIN, 0};
    int n = poll(&pfd, 1, -1);
    if (n < 0) {
      if (errno == EINTR) {
        continue;
      }
      TevdLog("Failed to poll - %s\n", strerror(errno));
      return 2;
    }
    if ((pfd.revents & POLLIN) == 0) {
      TevdLog("Failed to poll, invalid revents - %hd\n", pfd.revents);
      return 2;
    }
    int rc = TevdAgent_ReassembleStep(agent->stream, tev);
    if (rc != 0) {
      TevdLog("Failed to get Tev\n");
      return rc;
    }
    if (*tev != nullptr) {
      return 0;
    }
  }
}

void TevdAgent_Cleanup(TevdAgent *agent) {
  if (agent->sub != nullptr) {
    FreeSubscription(agent->sub);
    delete agent->sub;
  }
  if (agent->stream != nullptr) {
    CloseStream(agent->stream);
  }
  if (agent->nameHolder != nullptr) {
    free(*agent->nameHolder);
    free(agent->nameHolder);
  }
  delete agent;
  TevdLog("Done cleaning up agent.\n");
}
