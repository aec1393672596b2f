// Host-control library over the host-model files: storage paths, devices,
// their partitions and port groups. Every call reads the files anew; an absent
// entry is a HostCtl::Lib::HostCtlException, as the real library throws.
#include "HostCtl.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>

#include "PlatformInternal.h"
#include "PlatformModel.h"

namespace {

using HostCtl::Lib::HostCtlException;

std::string ReadOrThrow(const std::string &rel) {
  std::string value;
  if (!PlatformModel_Read(rel, &value)) {
    throw HostCtlException("host model entry platform/" + rel + " is absent");
  }
  return value;
}

bool IsDir(const std::string &rel) {
  struct stat st;
  return stat(PlatformModel_Path(rel).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::string DeviceDir(const std::string &device) {
  return "storage/devices/" + PlatformModel_EscapeName(device);
}

}  // namespace

namespace HostCtl {
namespace Storage {

std::string Path::GetDeviceName() const {
  return ReadOrThrow("storage/paths/" + PlatformModel_EscapeName(name_));
}

uint32_t Lun::GetPathRedundancyStatus() const {
  std::string rel = DeviceDir(name_) + "/status";
  uint64_t v;
  if (!platform_internal::ParseUint64(ReadOrThrow(rel), &v) || v > 0xFFFFFFFFu) {
    throw HostCtlException("host model entry platform/" + rel + " is not a number");
  }
  return static_cast<uint32_t>(v);
}

std::vector<std::unique_ptr<DiskLunPartition>> DiskLun::GetPartitions() const {
  std::string rel = DeviceDir(GetName()) + "/partitions";
  DIR *dir = opendir(PlatformModel_Path(rel).c_str());
  if (dir == nullptr) {
    throw HostCtlException("host model entry platform/" + rel + " is absent");
  }
  std::vector<int> numbers;
  while (struct dirent *e = readdir(dir)) {
    int64_t n;
    std::string name = e->d_name;
    if (name.find_first_not_of("0123456789") == std::string::npos &&
        platform_internal::ParseInt64(name, &n) && n <= INT32_MAX) {
      numbers.push_back(static_cast<int>(n));
    }
  }
  closedir(dir);
  std::sort(numbers.begin(), numbers.end());
  std::vector<std::unique_ptr<DiskLunPartition>> out;
  out.reserve(numbers.size());
  for (int n : numbers) {
    out.push_back(std::make_unique<DiskLunPartition>(GetName(), n));
  }
  return out;
}

std::unique_ptr<Path> StorageInfo::GetPath(const std::string &name) const {
  ReadOrThrow("storage/paths/" + PlatformModel_EscapeName(name));
  return std::make_unique<Path>(name);
}

std::unique_ptr<Lun> StorageInfo::GetLun(const std::string &name) const {
  std::string dir = DeviceDir(name);
  if (!IsDir(dir)) {
    throw HostCtlException("host model entry platform/" + dir + " is absent");
  }
  if (IsDir(dir + "/partitions")) {
    return std::make_unique<DiskLun>(name);
  }
  return std::make_unique<Lun>(name);
}

}  // namespace Storage

std::unique_ptr<Storage::StorageInfo> Host::GetStorageInfo() const {
  return std::make_unique<Storage::StorageInfo>();
}

std::unique_ptr<Host> HostFactory::GetHost() { return std::make_unique<Host>(); }

namespace Network {
std::unique_ptr<PortGroup> NetworkFactory::GetPortGroupByName(const std::string &name) {
  std::string vswitch = ReadOrThrow("network/portgroups/" + PlatformModel_EscapeName(name));
  return std::make_unique<PortGroup>(name, vswitch);
}
}  // namespace Network
}  // namespace HostCtl
