// Kernel system information over the host model (docs/platform.md): build
// signature check, kernel nodes read and written as files under platform/,
// the event time-stamp kernel call and the KFS partition-to-volume look-up.
#include "KNO.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "PlatformInternal.h"
#include "PlatformModel.h"
#include "PlatformRoot.h"
#include "TevClock.h"

const char *const KNO_BUILD_SIGNATURE = "tevd-emu-1";
const char *const KNO_BUILD_DATE = __DATE__ " " __TIME__;

struct KNO_ParamList {
  // Every parameter kept as text; integers are written in decimal.
  std::vector<std::string> params;
};

namespace {

void Bounded(char *dst, size_t size, const std::string &src) {
  if (dst == nullptr || size == 0) return;
  snprintf(dst, size, "%s", src.c_str());
}

bool Param(const KNO_ParamList *list, size_t i, std::string *out) {
  if (list == nullptr || i >= list->params.size()) return false;
  *out = list->params[i];
  return true;
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx" into the 56-byte identity record.
bool FillUuidRecord(const std::string &text, uint8_t *rec) {
  if (text.size() != 36) return false;
  size_t byte = 0;
  for (size_t i = 0; i < 36;) {
    if (i == 8 || i == 13 || i == 18 || i == 23) {
      if (text[i] != '-') return false;
      i++;
      continue;
    }
    int hi = HexDigit(text[i]);
    int lo = HexDigit(text[i + 1]);
    if (hi < 0 || lo < 0) return false;
    rec[byte++] = static_cast<uint8_t>(hi * 16 + lo);
    i += 2;
  }
  for (size_t i = 0; i < 36; i++) {
    char c = text[i];
    rec[16 + i] = static_cast<uint8_t>(c >= 'A' && c <= 'F' ? c - 'A' + 'a' : c);
  }
  return true;
}

}  // namespace

int KNO_CheckSig(int which, char *kernelDate, size_t kernelDateSize, char *myDate,
                 size_t myDateSize) {
  std::string content;
  if (!platform_internal::ReadFile(PlatformModel_Path("kernel-build"), &content)) {
    return 0;
  }
  std::string line = content.substr(0, content.find('\n'));
  size_t b = line.find_first_not_of(" \t");
  size_t e = b == std::string::npos ? std::string::npos : line.find_first_of(" \t", b);
  std::string word =
      b == std::string::npos ? "" : line.substr(b, e == std::string::npos ? e : e - b);
  if (word == KNO_BUILD_SIGNATURE) {
    return 0;
  }
  std::string rest;
  if (e != std::string::npos) {
    size_t r = line.find_first_not_of(" \t", e);
    if (r != std::string::npos) rest = line.substr(r);
  }
  while (!rest.empty() && (rest.back() == '\r' || rest.back() == ' ')) rest.pop_back();
  Bounded(kernelDate, kernelDateSize, rest);
  Bounded(myDate, myDateSize, KNO_BUILD_DATE);
  return 1;
}

KNO_ParamList *KNO_ParamListCreate(void) { return new KNO_ParamList; }

int KNO_ParamListAddString(KNO_ParamList *list, const char *s) {
  if (list == nullptr || s == nullptr) return KNO_STATUS_BAD_PARAM;
  list->params.emplace_back(s);
  return KNO_STATUS_OK;
}

int KNO_ParamListAddInt(KNO_ParamList *list, int64_t v) {
  if (list == nullptr) return KNO_STATUS_BAD_PARAM;
  list->params.push_back(std::to_string(v));
  return KNO_STATUS_OK;
}

int KNO_ParamListNumInstances(const KNO_ParamList *list) {
  return list == nullptr ? 0 : static_cast<int>(list->params.size());
}

int KNO_ParamListRemoveLastParam(KNO_ParamList *list) {
  if (list == nullptr || list->params.empty()) return KNO_STATUS_BAD_PARAM;
  list->params.pop_back();
  return KNO_STATUS_OK;
}

void KNO_ParamListDestroy(KNO_ParamList *list) { delete list; }

std::string platform_internal::KnoNodeFile(KNO_Node node, const KNO_ParamList *instances) {
  std::string a;
  if (node != KNO_NODE_net_pNics_linkFlapping || !Param(instances, 0, &a)) return "";
  return "nodes/net/pNics/" + PlatformModel_EscapeName(a) + "/linkFlapping";
}

int KNO_Set(KNO_Node node, const KNO_ParamList *instances, const KNO_ParamList *values) {
  std::string value;
  if (!Param(values, 0, &value)) return KNO_STATUS_BAD_PARAM;
  std::string a, b;
  switch (node) {
    case KNO_NODE_config_intOpts: {
      int64_t v;
      if (!Param(instances, 0, &a) || !Param(instances, 1, &b) ||
          !platform_internal::ParseInt64(value, &v)) {
        return KNO_STATUS_BAD_PARAM;
      }
      std::string rel =
          "options/" + PlatformModel_EscapeName(a) + "/" + PlatformModel_EscapeName(b);
      return PlatformModel_Write(rel, value) ? KNO_STATUS_OK : KNO_STATUS_NOT_FOUND;
    }
    case KNO_NODE_net_pNics_linkFlapping: {
      std::string rel = platform_internal::KnoNodeFile(node, instances);
      if (rel.empty()) return KNO_STATUS_BAD_PARAM;
      return PlatformModel_Write(rel, value) ? KNO_STATUS_OK : KNO_STATUS_NOT_FOUND;
    }
    default: return KNO_STATUS_BAD_PARAM;  // read-only nodes
  }
}

int KNO_Get(KNO_Node node, const KNO_ParamList *instances, void *out, size_t outSize) {
  if (out == nullptr) return KNO_STATUS_BAD_PARAM;
  std::string text, a, b;
  switch (node) {
    case KNO_NODE_system_systemUuid: {
      if (outSize < KNO_SYSTEM_UUID_SIZE) return KNO_STATUS_BAD_PARAM;
      uint8_t rec[KNO_SYSTEM_UUID_SIZE] = {};
      int status = KNO_STATUS_NOT_FOUND;
      if (PlatformModel_Read("nodes/system/systemUuid", &text)) {
        status = FillUuidRecord(text, rec) ? KNO_STATUS_OK : KNO_STATUS_BAD_PARAM;
        if (status != KNO_STATUS_OK) memset(rec, 0, sizeof rec);
      }
      memcpy(out, rec, sizeof rec);
      return status;
    }
    case KNO_NODE_system_pageRetire_threshold: {
      uint64_t v;
      if (outSize < sizeof v) return KNO_STATUS_BAD_PARAM;
      if (!PlatformModel_Read("nodes/system/pageRetire/threshold", &text))
        return KNO_STATUS_NOT_FOUND;
      if (!platform_internal::ParseUint64(text, &v)) return KNO_STATUS_BAD_PARAM;
      memcpy(out, &v, sizeof v);
      return KNO_STATUS_OK;
    }
    case KNO_NODE_vm_vmmGroupInfo: {
      if (outSize < KNO_VMM_GROUP_INFO_SIZE || !Param(instances, 0, &a))
        return KNO_STATUS_BAD_PARAM;
      if (!PlatformModel_Read("nodes/vm/vmmGroupInfo/" + PlatformModel_EscapeName(a), &text)) {
        return KNO_STATUS_NOT_FOUND;
      }
      uint8_t *rec = static_cast<uint8_t *>(out);
      memset(rec, 0, KNO_VMM_GROUP_INFO_SIZE);
      size_t room = KNO_VMM_GROUP_INFO_SIZE - KNO_VMM_GROUP_INFO_NAME_OFFSET - 1;
      // The record was zero-filled and `room` keeps its last byte: the name ends in a NUL.
      // NOLINTNEXTLINE(bugprone-not-null-terminated-result)
      memcpy(rec + KNO_VMM_GROUP_INFO_NAME_OFFSET, text.data(), std::min(room, text.size()));
      return KNO_STATUS_OK;
    }
    case KNO_NODE_config_intOpts: {
      if (outSize < sizeof(KNO_IntOptRecord) || !Param(instances, 0, &a) ||
          !Param(instances, 1, &b)) {
        return KNO_STATUS_BAD_PARAM;
      }
      std::string rel =
          "options/" + PlatformModel_EscapeName(a) + "/" + PlatformModel_EscapeName(b);
      if (!PlatformModel_Read(rel, &text)) return KNO_STATUS_NOT_FOUND;
      int64_t v;
      if (!platform_internal::ParseInt64(text, &v) || v < INT32_MIN || v > INT32_MAX) {
        return KNO_STATUS_BAD_PARAM;
      }
      // The host model keeps only the current value; the limits are the
      // widest the record can express and the default is the current value.
      KNO_IntOptRecord rec;
      memset(&rec, 0, sizeof rec);
      snprintf(rec.name, sizeof rec.name, "%s", b.c_str());
      rec.minValue = INT32_MIN;
      rec.maxValue = INT32_MAX;
      rec.defaultValue = static_cast<int32_t>(v);
      rec.curValue = static_cast<int32_t>(v);
      memcpy(out, &rec, sizeof rec);
      return KNO_STATUS_OK;
    }
    default: return KNO_STATUS_BAD_PARAM;
  }
}

int MTL_ReturnStatusToErrno(int status) {
  switch (status) {
    case KNO_STATUS_OK: return 0;
    case KNO_STATUS_NOT_FOUND: return ENOENT;
    case KNO_STATUS_BAD_PARAM: return EINVAL;
    default: return EIO;
  }
}

int MtlSyscall(int number, void *arg) {
  if (number != MTL_SYSCALL_EVENT_TIMESTAMP) return -ENOSYS;
  if (arg == nullptr) return -EFAULT;
  struct timespec ts;
  TevClock_GetRealtime(&ts);
  uint64_t us =
      static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
  memcpy(arg, &us, sizeof us);
  return 0;
}

int KfsVolumes_Open(void) {
  return open(PlatformRoot_Path("/kfs/volumes/").c_str(),
              O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC);
}

int KfsVolumes_Ioctl(int dirFd, unsigned long request, void *query) {
  if (fcntl(dirFd, F_GETFD) < 0) {
    errno = EBADF;
    return -1;
  }
  if (request != KFS_IOCTL_PARTITION_VOLUME || query == nullptr) {
    errno = query == nullptr ? EFAULT : EINVAL;
    return -1;
  }
  KfsPartitionVolumeQuery *q = static_cast<KfsPartitionVolumeQuery *>(query);
  const char *end = static_cast<const char *>(memchr(q->partition, '\0', sizeof q->partition));
  if (end == nullptr) {
    errno = EINVAL;
    return -1;
  }
  std::string part(q->partition, static_cast<size_t>(end - q->partition));
  size_t colon = part.rfind(':');
  int64_t number;
  if (colon == std::string::npos || colon == 0 ||
      !platform_internal::ParseInt64(part.substr(colon + 1), &number) || number < 0) {
    errno = EINVAL;
    return -1;
  }
  std::string volume;
  std::string rel = "storage/devices/" + PlatformModel_EscapeName(part.substr(0, colon)) +
                    "/partitions/" + std::to_string(number);
  if (!PlatformModel_Read(rel, &volume) || volume.empty()) {
    errno = ENOENT;
    return -1;
  }
  if (volume.size() >= sizeof q->volume) {
    errno = ENAMETOOLONG;
    return -1;
  }
  memcpy(q->volume, volume.c_str(), volume.size() + 1);
  return 0;
}
