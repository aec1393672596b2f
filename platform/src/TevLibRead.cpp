// Reading observation records off the contexts' sockets: the batched read
// of asynchronous contexts, the peeking read of user connections, and the
// accounting of what was dropped or refused. The rules are in TevLib.cpp's
// head comment.
#include <errno.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

#include "PlatformInternal.h"
#include "TevClock.h"
#include "TevLib.h"
#include "TevMutex.h"

using platform_internal::TevLibLog;

namespace {

std::atomic<uint64_t> gDropped{0};
std::atomic<int64_t> gLastDropLogSec{INT64_MIN};

// Datagrams taken from one socket ahead of the caller. Each slot can hold the
// largest record, so nothing that fits is ever cut: the slots are reserved
// address space, and only the pages the kernel writes become resident.
struct ReadBatch {
  static constexpr unsigned kSlots = 16;
  static constexpr size_t kSlotSize = TEV_RECORD_MAX_SIZE;
  uint8_t *arena = nullptr;      // kSlots * kSlotSize, mapped on first use
  uint32_t length[kSlots] = {};  // real datagram sizes (may exceed kSlotSize)
  unsigned next = 0;             // first slot not yet served
  unsigned count = 0;            // slots filled by the last receive
  bool drained = false;          // the last receive found the queue empty
};

TevMutex gBatchesMutex;
std::map<int, ReadBatch *> gBatches GUARDED_BY(gBatchesMutex);

ReadBatch *FindBatch(int fd) {
  TevLock hold(&gBatchesMutex);
  auto it = gBatches.find(fd);
  return it != gBatches.end() ? it->second : nullptr;
}

void NoteDropped(int fd, const std::string &why) {
  uint64_t total = gDropped.fetch_add(1) + 1;
  int64_t now = TevClock_NowSeconds();
  int64_t last = gLastDropLogSec.load();
  if (now != last && gLastDropLogSec.compare_exchange_strong(last, now)) {
    TevLibLog("TevLib: dropped a malformed record on %s: %s (%llu dropped so far)\n",
              platform_internal::FdName(fd).c_str(), why.c_str(),
              static_cast<unsigned long long>(total));
  }
}

// The identifier domains that user processes own. A peer that is neither
// root nor the daemon's own user may post only these over the user-level
// socket; everything else stands for the kernel or for another part of the
// platform and would let any member of the socket's group act as it.
const char *const kUserOwnedPrefixes[] = {"tev.user.", "tev.tests."};

std::atomic<uint64_t> gRefused{0};
std::atomic<int64_t> gLastRefusedLogSec{INT64_MIN};

bool MayPost(const struct ucred &peer, const char *id) {
  if (peer.uid == 0 || peer.uid == geteuid()) {
    return true;
  }
  for (const char *prefix : kUserOwnedPrefixes) {
    if (strncmp(id, prefix, strlen(prefix)) == 0) {
      return true;
    }
  }
  return false;
}

void NoteRefused(const struct ucred &peer, const char *id) {
  uint64_t total = gRefused.fetch_add(1) + 1;
  int64_t now = TevClock_NowSeconds();
  int64_t last = gLastRefusedLogSec.load();
  if (now != last && gLastRefusedLogSec.compare_exchange_strong(last, now)) {
    TevLibLog(
        "TevLib: refused %.128s from pid %d uid %u on user: unprivileged peers may post only "
        "tev.user. and tev.tests. (%llu refused so far)\n",
        id, static_cast<int>(peer.pid), static_cast<unsigned>(peer.uid),
        static_cast<unsigned long long>(total));
  }
}

// Takes the pending record off the socket without keeping it.
void Discard(int fd) {
  char dummy;
  while (recv(fd, &dummy, sizeof dummy, MSG_DONTWAIT | MSG_TRUNC) < 0 && errno == EINTR) {}
}

}  // namespace

uint64_t TevLib_MalformedCount(void) { return gDropped.load(std::memory_order_relaxed); }
uint64_t TevLib_RefusedCount(void) { return gRefused.load(std::memory_order_relaxed); }

namespace platform_internal {

void AttachReadBatch(int fd) {
  TevLock hold(&gBatchesMutex);
  ReadBatch *&b = gBatches[fd];
  if (b == nullptr) {
    b = new ReadBatch;
  }
}
void DetachReadBatch(int fd) {
  ReadBatch *b = nullptr;
  {
    TevLock hold(&gBatchesMutex);
    auto it = gBatches.find(fd);
    if (it == gBatches.end()) return;
    b = it->second;
    gBatches.erase(it);
  }
  if (b->arena != nullptr) {
    munmap(b->arena, ReadBatch::kSlots * ReadBatch::kSlotSize);
  }
  delete b;
}

}  // namespace platform_internal

namespace {

// Receives up to kSlots datagrams at once: the count, 0 when none was
// waiting, or -1 with errno.
int Refill(int fd, ReadBatch *b) {
  if (b->arena == nullptr) {
    void *m = mmap(nullptr, ReadBatch::kSlots * ReadBatch::kSlotSize, PROT_READ | PROT_WRITE,
                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (m == MAP_FAILED) {
      errno = ENOMEM;
      return -1;
    }
    b->arena = static_cast<uint8_t *>(m);
  }
  struct mmsghdr msgs[ReadBatch::kSlots];
  struct iovec iovs[ReadBatch::kSlots];
  memset(msgs, 0, sizeof msgs);
  for (unsigned i = 0; i < ReadBatch::kSlots; ++i) {
    iovs[i].iov_base = b->arena + i * ReadBatch::kSlotSize;
    iovs[i].iov_len = ReadBatch::kSlotSize;
    msgs[i].msg_hdr.msg_iov = &iovs[i];
    msgs[i].msg_hdr.msg_iovlen = 1;
  }
  // MSG_TRUNC: a datagram larger than a slot reports its real size, so that
  // it is dropped as too large rather than served cut.
  int n = recvmmsg(fd, msgs, ReadBatch::kSlots, MSG_DONTWAIT | MSG_TRUNC, nullptr);
  if (n < 0) {
    if (errno == EAGAIN || errno == EWOULDBLOCK) {
      b->drained = true;
      return 0;
    }
    return -1;
  }
  for (int i = 0; i < n; ++i) {
    b->length[i] = msgs[i].msg_len;
  }
  b->next = 0;
  b->count = static_cast<unsigned>(n);
  // Fewer than asked: the queue was empty when the kernel looked. The caller
  // stops after these instead of asking again only to hear EAGAIN; anything
  // that arrived since makes the descriptor readable again.
  b->drained = n < static_cast<int>(ReadBatch::kSlots);
  return n;
}

// Gives a slot that held a large record back to the system.
void ReleaseSlot(ReadBatch *b, unsigned slot) {
  const size_t keep = 64 * 1024;
  if (b->length[slot] > keep) {
    size_t len = std::min<size_t>(b->length[slot], ReadBatch::kSlotSize) - keep;
    madvise(b->arena + slot * ReadBatch::kSlotSize + keep, len, MADV_DONTNEED);
  }
}

int ReadBatched(int fd, ReadBatch *b, uint8_t *out, size_t size, size_t *length) {
  size_t used = 0;
  for (;;) {
    if (b->next == b->count) {
      if (b->drained) {
        b->drained = false;  // the next call asks the socket again
        break;
      }
      int n = Refill(fd, b);
      if (n < 0) {
        if (errno == EINTR) continue;
        if (used > 0) break;  // report the error on the next call
        return errno == ENOMEM ? TEVLIB_ERR_NOMEM : TEVLIB_ERR_IO;
      }
      if (n == 0) {
        b->drained = false;
        break;
      }
    }
    unsigned slot = b->next;
    size_t len = b->length[slot];
    const uint8_t *rec = b->arena + slot * ReadBatch::kSlotSize;
    std::string why;
    if (len > TEV_RECORD_MAX_SIZE) {
      ReleaseSlot(b, slot);
      ++b->next;
      NoteDropped(fd, "record of " + std::to_string(len) + " bytes is larger than 1 MiB");
      continue;
    }
    if (!platform_internal::ParseRecord(rec, len, nullptr, &why)) {
      ReleaseSlot(b, slot);
      ++b->next;
      NoteDropped(fd, why);
      continue;
    }
    if (len > size - used) {
      if (used == 0) return TEVLIB_BUFFER_TOO_SMALL;
      break;
    }
    memcpy(out + used, rec, len);
    used += len;
    ReleaseSlot(b, slot);
    ++b->next;
  }
  *length = used;
  return TEVLIB_OK;
}

}  // namespace

bool TevLib_HasPending(int fd) {
  ReadBatch *b = FindBatch(fd);
  return b != nullptr && b->next < b->count;
}

namespace {

// The peer of a user connection; an unknown one counts as unprivileged.
struct ucred PeerOf(int fd) {
  struct ucred peer = {0, 0, 0};
  socklen_t credLen = sizeof peer;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &credLen) != 0 || credLen != sizeof peer) {
    peer.uid = static_cast<uid_t>(-1);  // unknown: no more than an unprivileged peer
    peer.pid = 0;
  }
  return peer;
}

// A pending record of `len` bytes that does not fit the caller's buffer. A
// malformed record must not block the context, so it is inspected in a
// scratch buffer first: true when it was dropped, false when it is good and
// waits for a larger buffer (or memory ran out: *noMem).
bool DropUnfit(int fd, size_t len, bool *noMem) {
  std::string why;
  uint8_t *scratch = static_cast<uint8_t *>(malloc(len > 0 ? len : 1));
  if (scratch == nullptr) {
    *noMem = true;
    return false;
  }
  ssize_t got = recv(fd, scratch, len, MSG_PEEK | MSG_DONTWAIT);
  bool good = got >= 0 && static_cast<size_t>(got) == len &&
              platform_internal::ParseRecord(scratch, len, nullptr, &why);
  free(scratch);
  if (got >= 0 && !good) {
    Discard(fd);
    NoteDropped(fd, why.empty() ? "short read" : why);
    return true;
  }
  return false;
}

}  // namespace

int TevLib_ReadFromFd(int fd, void *buf, size_t size, size_t *length) {
  if (length == nullptr || (buf == nullptr && size > 0)) return TEVLIB_ERR_INVAL;
  *length = 0;
  if (ReadBatch *b = FindBatch(fd)) {
    return ReadBatched(fd, b, static_cast<uint8_t *>(buf), size, length);
  }
  int type = 0;
  socklen_t typeLen = sizeof type;
  if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &typeLen) != 0) return TEVLIB_ERR_IO;
  const bool seq = type == SOCK_SEQPACKET;
  struct ucred peer = {0, 0, 0};
  if (seq) peer = PeerOf(fd);
  uint8_t *out = static_cast<uint8_t *>(buf);
  size_t used = 0;
  for (;;) {
    char probe;
    ssize_t n = recv(fd, &probe, sizeof probe, MSG_PEEK | MSG_TRUNC | MSG_DONTWAIT);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK) break;
      if (used > 0) break;  // report the error on the next call
      return seq && (errno == ECONNRESET || errno == EPIPE) ? TEVLIB_ERR_CLOSED : TEVLIB_ERR_IO;
    }
    if (n == 0 && seq) {
      // End of stream (a user connection's peer closed). What was copied goes
      // out first; the next call reports the close.
      if (used > 0) break;
      return TEVLIB_ERR_CLOSED;
    }
    size_t len = static_cast<size_t>(n);
    std::string why;
    if (len > TEV_RECORD_MAX_SIZE) {
      Discard(fd);
      NoteDropped(fd, "record of " + std::to_string(len) + " bytes is larger than 1 MiB");
      continue;
    }
    if (len > size - used) {
      bool noMem = false;
      if (DropUnfit(fd, len, &noMem)) continue;
      if (noMem) return used > 0 ? TEVLIB_OK : TEVLIB_ERR_NOMEM;
      if (used == 0) return TEVLIB_BUFFER_TOO_SMALL;
      break;
    }
    ssize_t got = recv(fd, out + used, len, MSG_DONTWAIT);
    if (got < 0) {
      if (errno == EINTR) continue;
      break;
    }
    if (static_cast<size_t>(got) != len) {
      NoteDropped(fd, "record changed size while being read");
      continue;
    }
    if (!platform_internal::ParseRecord(out + used, len, nullptr, &why)) {
      NoteDropped(fd, why);
      continue;
    }
    const char *id = reinterpret_cast<const char *>(out + used + TEV_RECORD_HEADER_SIZE);
    if (seq && !MayPost(peer, id)) {
      NoteRefused(peer, id);
      continue;
    }
    used += len;
  }
  *length = used;
  return TEVLIB_OK;
}

int TevLib_Reset(TevLib_Handle handle) {
  if (handle == nullptr) return TEVLIB_ERR_INVAL;
  if (handle->user) return TEVLIB_OK;
  if (ReadBatch *b = FindBatch(handle->fd)) {
    b->next = b->count = 0;
    b->drained = false;
  }
  char dummy;
  for (;;) {
    ssize_t n = recv(handle->fd, &dummy, sizeof dummy, MSG_DONTWAIT | MSG_TRUNC);
    if (n >= 0 || errno == EINTR) continue;
    return errno == EAGAIN || errno == EWOULDBLOCK ? TEVLIB_OK : TEVLIB_ERR_IO;
  }
}
