// Kernel-control library, emulated over the host model. Failures throw
// HostCtl::Lib::HostCtlException, like the host-control library.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "HostCtl.h"
#include "KNO.h"

namespace MtlCtl {
namespace Util {
// One kernel information node with its instance path and inputs.
class Sysinfo {
 public:
  explicit Sysinfo(KNO_Node node) : node_(node) {}
  void SetInstance(int64_t id);  // numeric instance (replaces the path)
  void AddInstancePath(const std::string &part);
  void AddInput(int64_t value);
  void Get(void *out, size_t size) const;  // throws on failure
  void Set() const;                        // throws on failure
 private:
  KNO_Node node_;
  std::vector<std::string> instances_;
  std::vector<int64_t> inputs_;
};
}  // namespace Util

namespace Adv {
class AdvancedIntegerOptionImpl {
 public:
  AdvancedIntegerOptionImpl(std::string group, std::string name)
      : group_(std::move(group)), name_(std::move(name)) {}
  int64_t GetValue() const;  // platform/options/GROUP/NAME; throws when absent
 private:
  std::string group_;
  std::string name_;
};
}  // namespace Adv

namespace Resource {
class VirtualMachine {
 public:
  explicit VirtualMachine(int32_t worldId) : worldId_(worldId) {}
  int32_t GetWorldId() const { return worldId_; }
  std::string GetName() const;   // platform/vms/WORLDID/name; throws when absent
  void Kill(int64_t how) const;  // writes `how` to platform/vms/WORLDID/killed
 private:
  int32_t worldId_;
};

class ResourceInfoImpl {
 public:
  // Throws when platform/vms/WORLDID/ does not exist.
  std::unique_ptr<VirtualMachine> GetVirtualMachineByWorldId(int32_t worldId) const;
};
}  // namespace Resource
}  // namespace MtlCtl
