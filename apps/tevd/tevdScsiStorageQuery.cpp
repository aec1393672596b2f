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

// Runs one look-up on the host's storage information, taken afresh and
// released after it. Any failure of the platform (an absent entry throws)
// reads as "not found".
template <typename Lookup>
bool AskStorage(Lookup lookup) {
  try {
    return lookup(*HostCtl::HostFactory::GetHost()->GetStorageInfo());
  } catch (...) {
    return false;
  }
}

}  // namespace

bool TevdScsiCorrelator_GetPathDevice(const std::string &path, std::string *device) {
  return AskStorage([&](const HostCtl::Storage::StorageInfo &storage) {
    std::unique_ptr<HostCtl::Storage::Path> p = storage.GetPath(path);
    if (!p) {
      return false;
    }
    *device = p->GetDeviceName();
    return true;
  });
}

bool TevdScsiCorrelator_GetDeviceStatus(const std::string &device, uint32_t *status) {
  return AskStorage([&](const HostCtl::Storage::StorageInfo &storage) {
    std::unique_ptr<HostCtl::Storage::Lun> lun = storage.GetLun(device);
    if (!lun) {
      return false;
    }
    *status = lun->GetPathRedundancyStatus();
    return true;
  });
}

bool TevdScsiCorrelator_GetDatastores(const std::string &device, std::string *text) {
  text->clear();
  const int dirFd = KfsVolumes_Open();
  if (dirFd < 0) {
    return false;
  }
  std::vector<std::unique_ptr<HostCtl::Storage::DiskLunPartition>> partitions;
  AskStorage([&](const HostCtl::Storage::StorageInfo &storage) {
    std::unique_ptr<HostCtl::Storage::Lun> lun = storage.GetLun(device);
    const auto *disk = dynamic_cast<const HostCtl::Storage::DiskLun *>(lun.get());
    if (disk != nullptr) {
      partitions = disk->GetPartitions();
    }
    return true;
  });
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
