// Fuzzed packets sent into TevLib_ReadFromFd, then every record it returns
// made into a Tev. Input: byte 0 picks the read buffer size (bits 0-2), the
// batched datagram path of the asynchronous contexts (bit 6) or the
// user-level SOCK_SEQPACKET path, and for the latter a peer that closes after
// sending (bit 7); then packets as 2-byte little-endian lengths followed by
// that many bytes. On the datagram path the records that come out must be
// exactly the well-formed packets, in order: none lost, none added.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "PlatformInternal.h"
#include "TevLib.h"
#include "TevRecord.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1) return 0;
  static const size_t kSizes[] = {0, 31, 32, 64, 200, 1024, 4096, 131072};
  size_t bufSize = kSizes[data[0] % 8];
  const bool dgram = (data[0] & 0x40) != 0;
  int sv[2];
  if (socketpair(AF_UNIX, (dgram ? SOCK_DGRAM : SOCK_SEQPACKET) | SOCK_CLOEXEC, 0, sv) != 0)
    abort();
  if (dgram) platform_internal::AttachReadBatch(sv[1]);
  std::vector<std::vector<uint8_t>> expected;  // datagram path: the good packets, in order
  size_t seen = 0;
  bool tooSmall = false;
  size_t pos = 1;
  int sent = 0;
  while (pos + 2 <= size && sent < 64) {
    size_t len = data[pos] | (static_cast<size_t>(data[pos + 1]) << 8);
    pos += 2;
    if (len > size - pos) len = size - pos;
    if (send(sv[0], data + pos, len, MSG_DONTWAIT | MSG_NOSIGNAL) < 0) break;
    if (dgram && TevRecord_IsWellFormed(data + pos, len))
      expected.emplace_back(data + pos, data + pos + len);
    pos += len;
    sent++;
  }
  if (!dgram && (data[0] & 0x80)) close(sv[0]), sv[0] = -1;  // peer gone after sending
  std::vector<uint8_t> buf(bufSize > 0 ? bufSize : 1);
  for (int round = 0; round < 2 * sent + 2; ++round) {
    size_t length = 0;
    int rc = TevLib_ReadFromFd(sv[1], bufSize > 0 ? buf.data() : nullptr, bufSize, &length);
    if (rc == TEVLIB_BUFFER_TOO_SMALL) {
      // Nothing consumed: the record that did not fit is still the next one.
      if (dgram && (seen >= expected.size() || expected[seen].size() <= bufSize)) abort();
      tooSmall = true;
      break;
    }
    if (rc == TEVLIB_ERR_CLOSED) break;
    if (rc != 0) abort();
    if (length > bufSize) abort();
    if (length == 0) break;
    size_t off = 0;
    while (off < length) {
      if (length - off < TEV_RECORD_HEADER_SIZE) abort();
      uint32_t recLen;
      memcpy(&recLen, buf.data() + off + 16, 4);
      if (recLen < TEV_RECORD_HEADER_SIZE || recLen > length - off) abort();
      if (dgram) {
        if (seen >= expected.size() || expected[seen].size() != recLen ||
            memcmp(expected[seen].data(), buf.data() + off, recLen) != 0) {
          abort();
        }
        ++seen;
      }
      void *rec = malloc(recLen);
      memcpy(rec, buf.data() + off, recLen);
      Tev *tev = nullptr;
      if (Tev_MakeTev(rec, recLen, &tev) != 0) abort();  // only good records come out
      char *msg = nullptr;
      size_t mlen = 0;
      if (Tev_GetMsg(tev, &msg, &mlen) == 0) free(msg);
      Tev_Free(tev);
      off += recLen;
    }
  }
  if (dgram && !tooSmall && seen != expected.size()) abort();  // a good record was lost
  if (dgram) platform_internal::DetachReadBatch(sv[1]);
  if (sv[0] >= 0) close(sv[0]);
  close(sv[1]);
  return 0;
}
