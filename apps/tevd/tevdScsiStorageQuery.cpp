// Host-model look-ups of the SCSI correlator: the device behind a path, a
// device's path-redundancy status and the datastores on its partitions. The
// host model is asked afresh on every call; an absent entry throws
// HostCtl::Lib::HostCtlException, which is swallowed and means "not found".
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "HostCtl.h"
#include "KNO.h"
#include "tevdScsiCorrelator.h"

namespace {

// The host's storage information; each query takes its own and releases it.
std::unique_ptr<HostCtl::Storage::StorageInfo> HostStorage() {
  return HostCtl::HostFactory::GetHost()->GetStorageInfo();
}

}  // namespace

bool TevdScsiCorrelator_GetPathDevice(const std::string &path, std::string *device) {
  try {
    std::unique_ptr<HostCtl::Storage::StorageInfo> storage = HostStorage();
    std::unique_ptr<HostCtl::Storage::Path> p = storage->GetPath(path);
    if (!p) {
      return false;
    }
    *device = p->GetDeviceName();
    return true;
  } catch (const HostCtl::Lib::HostCtlException &) {
    return false;
  } catch (...) {
    return false;
  }
}

bool TevdScsiCorrelator_GetDeviceStatus(const std::string &device, uint32_t *status) {
  try {
    std::unique_ptr<HostCtl::Storage::StorageInfo> storage = HostStorage();
    std::unique_ptr<HostCtl::Storage::Lun> lun = storage->GetLun(device);
    if (!lun) {
      return false;
    }
    *status = lun->GetPathRedundancyStatus();
    return true;
  } catch (const HostCtl::Lib::HostCtlException &) {
    return false;
  } catch (...) {
    return false;
  }
}

bool TevdScsiCorrelator_GetDatastores(const std::string &device, std::string *text) {
  text->clear();
  const int dirFd = KfsVolumes_Open();
  if (dirFd < 0) {
    return false;
  }
  std::vector<std::unique_ptr<HostCtl::Storage::DiskLunPartition>> partitions;
  try {
    std::unique_ptr<HostCtl::Storage::StorageInfo> storage = HostStorage();
    std::unique_ptr<HostCtl::Storage::Lun> lun = storage->GetLun(device);
    const auto *disk = dynamic_cast<const HostCtl::Storage::DiskLun *>(lun.get());
    if (disk != nullptr) {
      partitions = disk->GetPartitions();
    }
  } catch (...) {
    partitions.clear();
  }
  std::vector<std::string> seen;
  try {
    for (const auto &partition : partitions) {
      int number = 0;
      try {
        number = partition->GetPartitionNumber();
      } catch (const HostCtl::Lib::HostCtlException &) {
        continue;
      }
      if (number == 0) {
        continue;  // the whole disk, never a file system of its own
      }
      KfsPartitionVolumeQuery query;
      memset(&query, 0, sizeof(query));
      snprintf(query.partition, sizeof(query.partition), "%s:%d", device.c_str(), number);
      if (KfsVolumes_Ioctl(dirFd, KFS_IOCTL_PARTITION_VOLUME, &query) != 0) {
        if (errno == ENOENT) {
          continue;  // no file system on this partition
        }
        break;  // keep what was gathered
      }
      const std::string volume(query.volume, strnlen(query.volume, sizeof(query.volume)));
      bool duplicate = false;
      for (const std::string &name : seen) {
        duplicate = duplicate || name == volume;
      }
      if (duplicate) {
        continue;
      }
      seen.push_back(volume);
      *text += (text->empty() ? "" : ", ");
      *text += "\"" + volume + "\"";
    }
  } catch (const std::bad_alloc &) {
    text->clear();
    close(dirFd);
    return false;
  }
  close(dirFd);
  return !text->empty();
}
