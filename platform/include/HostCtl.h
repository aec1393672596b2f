// Host-control library, emulated over the host model files under
// $TEVD_ROOT/platform/ (docs/platform.md). Every call reads the files at the
// moment it is made; an absent entry throws HostCtl::Lib::HostCtlException.
#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace HostCtl {
namespace Lib {
class HostCtlException : public std::runtime_error {
 public:
  explicit HostCtlException(const std::string &what) : std::runtime_error(what) {}
  // A failed write: the file behind the node and the system's error.
  HostCtlException(const std::string &what, std::string path, int err)
      : std::runtime_error(what), path_(std::move(path)), errno_(err) {}
  const std::string &Path() const { return path_; }
  int Errno() const { return errno_; }

 private:
  std::string path_;
  int errno_ = 0;
};
}  // namespace Lib

namespace Storage {
class Path {
 public:
  explicit Path(std::string name) : name_(std::move(name)) {}
  const std::string &GetName() const { return name_; }
  std::string GetDeviceName() const;  // platform/storage/paths/PATH
 private:
  std::string name_;
};

class Lun {
 public:
  explicit Lun(std::string name) : name_(std::move(name)) {}
  virtual ~Lun() = default;
  const std::string &GetName() const { return name_; }
  uint32_t GetPathRedundancyStatus() const;  // devices/DEVICE/status
 private:
  std::string name_;
};

class DiskLunPartition {
 public:
  DiskLunPartition(std::string device, int number) : device_(std::move(device)), number_(number) {}
  int GetPartitionNumber() const { return number_; }
  const std::string &GetDeviceName() const { return device_; }

 private:
  std::string device_;
  int number_;
};

// A device with a partitions/ directory.
class DiskLun : public Lun {
 public:
  using Lun::Lun;
  // In ascending partition number.
  std::vector<std::unique_ptr<DiskLunPartition>> GetPartitions() const;
};

class StorageInfo {
 public:
  std::unique_ptr<Path> GetPath(const std::string &name) const;
  // A DiskLun when the device has partitions/, else a plain Lun.
  std::unique_ptr<Lun> GetLun(const std::string &name) const;
};
}  // namespace Storage

class Host {
 public:
  std::unique_ptr<Storage::StorageInfo> GetStorageInfo() const;
};

class HostFactory {
 public:
  static std::unique_ptr<Host> GetHost();
};

namespace Network {
class PortGroup {
 public:
  PortGroup(std::string name, std::string vswitch)
      : name_(std::move(name)), vswitch_(std::move(vswitch)) {}
  const std::string &GetName() const { return name_; }
  const std::string &GetVirtualSwitchName() const { return vswitch_; }

 private:
  std::string name_;
  std::string vswitch_;
};

class NetworkFactory {
 public:
  // platform/network/portgroups/PORTGROUP holds the switch name.
  static std::unique_ptr<PortGroup> GetPortGroupByName(const std::string &name);
};
}  // namespace Network
}  // namespace HostCtl
