// The user-level path: fuzzed packets sent over a SOCK_SEQPACKET pair into
// TevLib_ReadFromFd, then every record it returns made into a Tev. Input:
// byte 0 picks the read buffer size; then packets as 2-byte little-endian
// lengths followed by that many bytes.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "TevLib.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1) return 0;
  static const size_t kSizes[] = {0, 31, 32, 64, 200, 1024, 4096, 131072};
  size_t bufSize = kSizes[data[0] % 8];
  int sv[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv) != 0) abort();
  size_t pos = 1;
  int sent = 0;
  while (pos + 2 <= size && sent < 64) {
    size_t len = data[pos] | (static_cast<size_t>(data[pos + 1]) << 8);
    pos += 2;
    if (len > size - pos) len = size - pos;
    if (send(sv[0], data + pos, len, MSG_DONTWAIT | MSG_NOSIGNAL) < 0) break;
    pos += len;
    sent++;
  }
  if (data[0] & 0x80) close(sv[0]), sv[0] = -1;   // peer gone after sending
  std::vector<uint8_t> buf(bufSize > 0 ? bufSize : 1);
  for (int round = 0; round < 2 * sent + 2; ++round) {
    size_t length = 0;
    int rc = TevLib_ReadFromFd(sv[1], bufSize > 0 ? buf.data() : nullptr, bufSize, &length);
    if (rc == TEVLIB_BUFFER_TOO_SMALL || rc == TEVLIB_ERR_CLOSED) break;
    if (rc != 0) abort();
    if (length > bufSize) abort();
    if (length == 0) break;
    size_t off = 0;
    while (off < length) {
      if (length - off < TEV_RECORD_HEADER_SIZE) abort();
      uint32_t recLen;
      memcpy(&recLen, buf.data() + off + 16, 4);
      if (recLen < TEV_RECORD_HEADER_SIZE || recLen > length - off) abort();
      void *rec = malloc(recLen);
      memcpy(rec, buf.data() + off, recLen);
      Tev *tev = nullptr;
      if (Tev_MakeTev(rec, recLen, &tev) != 0) abort();   // only good records come out
      char *msg = nullptr;
      size_t mlen = 0;
      if (Tev_GetMsg(tev, &msg, &mlen) == 0) free(msg);
      Tev_Free(tev);
      off += recLen;
    }
  }
  if (sv[0] >= 0) close(sv[0]);
  close(sv[1]);
  return 0;
}
