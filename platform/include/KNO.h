// Kernel system information, emulated over the host model (docs/platform.md).
#pragma once

#include <cstddef>
#include <cstdint>

enum KNO_Node {
  KNO_NODE_config_intOpts,               // instances: group, option; values: integer
  KNO_NODE_system_systemUuid,            // 56-byte record
  KNO_NODE_system_pageRetire_threshold,  // 8 bytes, unsigned
  KNO_NODE_vm_vmmGroupInfo,              // instance: group id; 2308-byte record, name at 260
  KNO_NODE_net_pNics_linkFlapping,       // instance: NIC name; input: integer
};

constexpr size_t KNO_SYSTEM_UUID_SIZE = 56;
constexpr size_t KNO_VMM_GROUP_INFO_SIZE = 2308;
constexpr size_t KNO_VMM_GROUP_INFO_NAME_OFFSET = 260;

// Integer-option record (532 bytes) returned for KNO_NODE_config_intOpts.
struct KNO_IntOptRecord {
  char name[512];
  int32_t minValue;
  int32_t maxValue;
  int32_t defaultValue;
  int32_t curValue;
  uint32_t flags;
};
static_assert(sizeof(KNO_IntOptRecord) == 532, "option record is 532 bytes");

// The daemon's own build signature and date (compared with platform/kernel-build).
extern const char *const KNO_BUILD_SIGNATURE;
extern const char *const KNO_BUILD_DATE;

// 0 on a match; 1 on a mismatch, with both build dates filled (bounded).
int KNO_CheckSig(int which, char *kernelDate, size_t kernelDateSize, char *myDate,
                 size_t myDateSize);

struct KNO_ParamList;
KNO_ParamList *KNO_ParamListCreate(void);
int KNO_ParamListAddString(KNO_ParamList *list, const char *s);
int KNO_ParamListAddInt(KNO_ParamList *list, int64_t v);
int KNO_ParamListNumInstances(const KNO_ParamList *list);
int KNO_ParamListRemoveLastParam(KNO_ParamList *list);
void KNO_ParamListDestroy(KNO_ParamList *list);

// Kernel statuses: 0 ok; KNO_STATUS_NOT_FOUND when the node or entry is absent.
enum { KNO_STATUS_OK = 0, KNO_STATUS_NOT_FOUND = 0xbad0003, KNO_STATUS_BAD_PARAM = 0xbad0004 };
int KNO_Set(KNO_Node node, const KNO_ParamList *instances, const KNO_ParamList *values);
int KNO_Get(KNO_Node node, const KNO_ParamList *instances, void *out, size_t outSize);
int MTL_ReturnStatusToErrno(int status);

// Kernel call stand-in. Number 1216 stores the real-time clock in microseconds
// into the first 8 bytes of `arg`; returns 0 or a negated errno.
int MtlSyscall(int number, void *arg);
constexpr int MTL_SYSCALL_EVENT_TIMESTAMP = 1216;

// Cluster file system volume look-up that stands for the ioctl on "/kfs/volumes/".
constexpr unsigned long KFS_IOCTL_PARTITION_VOLUME = 3038;
struct KfsPartitionVolumeQuery {
  char partition[128];  // "device:N"
  char volume[256];     // receives the volume name
};
// Opens "/kfs/volumes/" under the root (a directory descriptor), or -1.
int KfsVolumes_Open(void);
// 0, or -1 with errno (ENOENT: no file system on that partition).
int KfsVolumes_Ioctl(int dirFd, unsigned long request, void *query);
