// Reassembly: an agent rebuilds whole records from the bytes of its pipe and
// waits for the next one (and for its wake-up descriptors).
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "PlatformLog.h"
#include "tevdAgentInternal.h"
#include "tevdLog.h"

namespace {

// One read takes up to this much of what the pipe holds (a pipe holds 64 KiB).
constexpr uint32_t kChunkSize = 32 * 1024;

// Moves what the stream still wants into its buffer: from the bytes read
// earlier, else with one read of the pipe (straight into the record for a
// body larger than a chunk). TEVD_AGENT_OK when the phase is complete,
// TEVD_AGENT_SHORT when short, TEVD_AGENT_NO_ROOM, else errno. The read may block only inside a record whose first bytes are
// here already, so the reader is still writing the rest of it.
int TakeWanted(TevStream *s) {
  if (s->chunkStart == s->chunkEnd) {
    const bool direct = s->want >= kChunkSize;
    if (!direct && s->chunk == nullptr) {
      s->chunk = static_cast<uint8_t *>(malloc(kChunkSize));
      if (s->chunk == nullptr) {
        return TEVD_AGENT_NO_ROOM;
      }
    }
    ssize_t got =
        direct ? read(s->readFd, s->buf + s->have, s->want) : read(s->readFd, s->chunk, kChunkSize);
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
      return s->want == 0 ? TEVD_AGENT_OK : TEVD_AGENT_SHORT;
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
  return s->want == 0 ? TEVD_AGENT_OK : TEVD_AGENT_SHORT;
}

// How many of the wake-up descriptors are readable now, without waiting.
int ReadyExtras(const int *fds, int n) {
  struct pollfd set[TEVD_AGENT_MAX_EXTRA_FDS];
  for (int i = 0; i < n; ++i) {
    set[i] = {fds[i], POLLIN, 0};
  }
  int woken = 0;
  if (poll(set, static_cast<nfds_t>(n), 0) > 0) {
    for (int i = 0; i < n; ++i) {
      woken += (set[i].revents & POLLIN) != 0 ? 1 : 0;
    }
  }
  return woken;
}

}  // namespace

bool TevdAgent_StreamBuffered(const TevStream *s) { return s->chunkStart < s->chunkEnd; }

int TevdAgent_ReassembleStep(TevStream *s, Tev **tev) {
  *tev = nullptr;
  int rc = 0;
  if (s->buf == nullptr) {
    s->buf = static_cast<uint8_t *>(malloc(TEV_RECORD_HEADER_SIZE));
    if (s->buf == nullptr) {
      return TEVD_AGENT_BROKEN;
    }
    s->have = 0;
    s->want = TEV_RECORD_HEADER_SIZE;
  }
  if (s->have < TEV_RECORD_HEADER_SIZE) {
    rc = TakeWanted(s);
  }
  if (rc == 0 && s->have == TEV_RECORD_HEADER_SIZE && s->want == 0) {
    uint32_t total = TevRecordHeader(s->buf).TotalLength();
    if (total < TEV_RECORD_HEADER_SIZE) {
      return TEVD_AGENT_BROKEN;  // the reader never writes such a record
    }
    if (total > TEV_RECORD_HEADER_SIZE) {
      uint8_t *grown = static_cast<uint8_t *>(realloc(s->buf, total));
      if (grown == nullptr) {
        return TEVD_AGENT_BROKEN;
      }
      s->buf = grown;
      s->want = total - TEV_RECORD_HEADER_SIZE;
      rc = TakeWanted(s);
    }
  } else if (rc == 0 && s->want > 0) {
    rc = TakeWanted(s);
  }
  if (rc == TEVD_AGENT_SHORT) {
    return TEVD_AGENT_OK;  // incomplete: more bytes on the next readable event
  }
  if (rc != TEVD_AGENT_OK) {
    return TEVD_AGENT_BROKEN;
  }
  uint32_t total = s->have;
  uint8_t *record = s->buf;
  s->buf = nullptr;
  s->have = s->want = 0;
  if (Tev_MakeTev(record, total, tev) != 0 || *tev == nullptr) {
    *tev = nullptr;
    return TEVD_AGENT_BROKEN;
  }
  return TEVD_AGENT_OK;
}

namespace {
// True when the wait is over: a record came (it is counted as handled) or a
// wake-up descriptor is readable (their number goes to `readyExtra`).
bool Deliver(TevdAgent *agent, const Tev *tev, int woken, int *readyExtra) {
  if (tev == nullptr && woken <= 0) {
    return false;
  }
  if (tev != nullptr && agent->handled != nullptr) {
    agent->handled->fetch_add(1, std::memory_order_relaxed);
  }
  if (readyExtra != nullptr) {
    *readyExtra = woken;
  }
  return true;
}
}  // namespace

int TevdAgent_WaitTev(TevdAgent *agent, Tev **tev, const int *extraFds, int numExtra,
                      int *readyExtra) {
  *tev = nullptr;
  if (readyExtra != nullptr) {
    *readyExtra = 0;
  }
  if (numExtra < 0 || numExtra > TEVD_AGENT_MAX_EXTRA_FDS) {
    TevdLog("Failed to poll - %d extra descriptors\n", numExtra);
    return TEVD_AGENT_BROKEN;
  }
  struct pollfd set[1 + TEVD_AGENT_MAX_EXTRA_FDS];
  const nfds_t count = 1 + static_cast<nfds_t>(numExtra);
  for (;;) {
    // Records already read from the pipe come first: they do not make it
    // readable.
    if (TevdAgent_StreamBuffered(agent->stream)) {
      // A wake-up that came meanwhile is served after this record, as it
      // would be had each record been read on its own: a settling timer must
      // not wait behind the rest of a 32 KiB read. Only agents with wake-up
      // descriptors pay this poll.
      int woken = numExtra > 0 ? ReadyExtras(extraFds, numExtra) : 0;
      int rc = TevdAgent_ReassembleStep(agent->stream, tev);
      if (rc != TEVD_AGENT_OK) {
        TevdLog("Failed to get Tev\n");
        return rc;
      }
      if (Deliver(agent, *tev, woken, readyExtra)) {
        return TEVD_AGENT_OK;
      }
      continue;
    }
    set[0] = {agent->pollFd, POLLIN, 0};
    for (int i = 0; i < numExtra; ++i) {
      set[i + 1] = {extraFds[i], POLLIN, 0};
    }
    PlatformLog_Flush();
    if (poll(set, count, -1) < 0) {
      if (errno == EINTR) {
        continue;
      }
      TevdLog("Failed to poll - %s\n", strerror(errno));
      return TEVD_AGENT_BROKEN;
    }
    int woken = 0;
    for (nfds_t i = 1; i < count; ++i) {
      woken += (set[i].revents & POLLIN) != 0 ? 1 : 0;
    }
    if ((set[0].revents & POLLIN) != 0) {
      int rc = TevdAgent_ReassembleStep(agent->stream, tev);
      if (rc != TEVD_AGENT_OK) {
        TevdLog("Failed to get Tev\n");
        return rc;
      }
    } else if (numExtra == 0) {
      TevdLog("Failed to poll, invalid revents - %hd\n", set[0].revents);
      return TEVD_AGENT_BROKEN;
    }
    if (Deliver(agent, *tev, woken, readyExtra)) {
      return TEVD_AGENT_OK;
    }
  }
}
