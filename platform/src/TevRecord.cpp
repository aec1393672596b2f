// The observation record (docs/formats.md): building one, validating one
// completely before anything reads it, and posting one the way the kernel or a
// user process would. Validation reads only inside the given length.
#include <errno.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "PlatformInternal.h"
#include "PlatformSocket.h"
#include "TevRecord.h"

namespace {

const uint8_t kMagic[4] = {'T', 'E', 'V', '1'};

uint32_t Le32(const uint8_t *p) {
  uint32_t v;
  memcpy(&v, p, sizeof v);
  return v;
}
uint64_t Le64(const uint8_t *p) {
  uint64_t v;
  memcpy(&v, p, sizeof v);
  return v;
}
void Put32(std::vector<uint8_t> *b, size_t off, uint32_t v) { memcpy(b->data() + off, &v, 4); }
void Put64(std::vector<uint8_t> *b, size_t off, uint64_t v) { memcpy(b->data() + off, &v, 8); }

size_t Pad8(size_t n) { return (n + 7) & ~static_cast<size_t>(7); }

}  // namespace

std::vector<uint8_t> TevRecord_Encode(const std::string &id, const std::string &message,
                                      uint64_t timestampUs, const std::vector<MsgFmt_Value> &args) {
  std::vector<uint8_t> block = MsgFmt_EncodeBlock(args);
  size_t msgOff = TEV_RECORD_HEADER_SIZE + id.size() + 1;
  size_t argOff = Pad8(msgOff + message.size() + 1);
  std::vector<uint8_t> rec(argOff + block.size(), 0);
  memcpy(rec.data(), kMagic, 4);
  Put64(&rec, 8, timestampUs);
  Put32(&rec, 16, static_cast<uint32_t>(rec.size()));
  Put32(&rec, 20, static_cast<uint32_t>(msgOff));
  Put32(&rec, 24, static_cast<uint32_t>(args.size()));
  Put32(&rec, 28, static_cast<uint32_t>(argOff));
  memcpy(rec.data() + TEV_RECORD_HEADER_SIZE, id.data(), id.size());
  memcpy(rec.data() + msgOff, message.data(), message.size());
  if (!block.empty()) memcpy(rec.data() + argOff, block.data(), block.size());
  return rec;
}

namespace platform_internal {

bool ParseRecord(const uint8_t *rec, size_t length, RawRecord *out, std::string *why) {
  auto fail = [why](const std::string &w) {
    if (why != nullptr) *why = w;
    return false;
  };
  if (rec == nullptr || length < TEV_RECORD_HEADER_SIZE) {
    return fail("record of " + std::to_string(length) + " bytes is shorter than its header");
  }
  if (length > TEV_RECORD_MAX_SIZE) {
    return fail("record of " + std::to_string(length) + " bytes is larger than 1 MiB");
  }
  if (memcmp(rec, kMagic, 4) != 0) return fail("bad magic");
  if (Le32(rec + 4) != 0) return fail("reserved field is not 0");
  uint32_t total = Le32(rec + 16);
  if (total != length) {
    return fail("length field " + std::to_string(total) + " does not match the " +
                std::to_string(length) + " bytes received");
  }
  uint32_t msgOff = Le32(rec + 20);
  uint32_t count = Le32(rec + 24);
  uint32_t argOff = Le32(rec + 28);
  if (msgOff <= TEV_RECORD_HEADER_SIZE || msgOff >= length) {
    return fail("message offset " + std::to_string(msgOff) + " outside the record");
  }
  if (argOff % 8 != 0)
    return fail("argument offset " + std::to_string(argOff) + " not a multiple of 8");
  if (argOff <= msgOff || argOff > length) {
    return fail("argument offset " + std::to_string(argOff) + " outside the record");
  }
  const char *id = reinterpret_cast<const char *>(rec + TEV_RECORD_HEADER_SIZE);
  if (memchr(id, '\0', msgOff - TEV_RECORD_HEADER_SIZE) == nullptr) {
    return fail("identifier not terminated before the message");
  }
  if (strncmp(id, "tev.", 4) != 0) return fail("identifier without the tev. prefix");
  const char *msg = reinterpret_cast<const char *>(rec + msgOff);
  if (memchr(msg, '\0', argOff - msgOff) == nullptr) {
    return fail("message not terminated before the argument block");
  }
  RawRecord r;
  if (!ParseBlock(rec + argOff, length - argOff, count, &r.args, why)) {
    return false;
  }
  r.timestampUs = Le64(rec + 8);
  r.id = id;
  r.message = msg;
  if (out != nullptr) *out = std::move(r);
  return true;
}

}  // namespace platform_internal

bool TevRecord_IsWellFormed(const uint8_t *record, size_t length, std::string *why) {
  return platform_internal::ParseRecord(record, length, nullptr, why);
}

bool TevRecord_Decode(const uint8_t *record, size_t length, TevRecordView *out) {
  platform_internal::RawRecord raw;
  if (!platform_internal::ParseRecord(record, length, &raw, nullptr)) {
    return false;
  }
  if (out == nullptr) return true;
  out->timestampUs = raw.timestampUs;
  out->id = raw.id;
  out->message = raw.message;
  out->args.clear();
  for (const platform_internal::RawArg &a : raw.args)
    out->args.push_back(platform_internal::ToValue(a));
  return true;
}

int TevRecord_Post(uint32_t domain, const std::vector<uint8_t> &record) {
  if (domain > TEVLIB_USER_DOMAIN) return EINVAL;
  bool user = domain == TEVLIB_USER_DOMAIN;
  std::string path = user ? PlatformEndpoint_Path(PlatformEndpoint::UserContext)
                          : PlatformEndpoint_Path(PlatformEndpoint::AsyncContext, domain);
  struct sockaddr_un addr;
  if (!PlatformSocket_Address(path, &addr)) return ENAMETOOLONG;

  int fd = socket(AF_UNIX, (user ? SOCK_SEQPACKET : SOCK_DGRAM) | SOCK_CLOEXEC, 0);
  if (fd < 0) return errno;
  // A full receive queue blocks the sender, as the kernel's queue would; the
  // time-out keeps a producer from hanging on a daemon that stopped reading.
  struct timeval tv = {2, 0};
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
  ssize_t n;
  if (user) {
    if (connect(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr) != 0) {
      int err = errno;
      close(fd);
      return err;
    }
    n = send(fd, record.data(), record.size(), MSG_NOSIGNAL);
  } else {
    n = sendto(fd, record.data(), record.size(), MSG_NOSIGNAL,
               reinterpret_cast<struct sockaddr *>(&addr), sizeof addr);
  }
  int err = n < 0 ? errno : (static_cast<size_t>(n) == record.size() ? 0 : EMSGSIZE);
  close(fd);
  return err;
}
