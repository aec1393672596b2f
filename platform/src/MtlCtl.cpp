// Kernel-control library: the object front of KNO_* (Sysinfo) and the
// host-model files of advanced options and virtual machines. Failures throw
// HostCtl::Lib::HostCtlException so that callers handle both libraries alike.
#include "MtlCtl.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "PlatformInternal.h"
#include "PlatformModel.h"

namespace {

using HostCtl::Lib::HostCtlException;

struct ParamListOwner {
  KNO_ParamList *list = KNO_ParamListCreate();
  ~ParamListOwner() { KNO_ParamListDestroy(list); }
};

std::string VmDir(int32_t worldId) { return "vms/" + std::to_string(worldId); }

}  // namespace

namespace MtlCtl {
namespace Util {

void Sysinfo::SetInstance(int64_t id) {
  instances_.clear();
  instances_.push_back(std::to_string(id));
}

void Sysinfo::AddInstancePath(const std::string &part) { instances_.push_back(part); }

void Sysinfo::AddInput(int64_t value) { inputs_.push_back(value); }

void Sysinfo::Get(void *out, size_t size) const {
  ParamListOwner inst;
  for (const std::string &s : instances_) KNO_ParamListAddString(inst.list, s.c_str());
  int status = KNO_Get(node_, inst.list, out, size);
  if (status != KNO_STATUS_OK) {
    throw HostCtlException("kernel node " + std::to_string(node_) + " read failed, status " +
                           std::to_string(status));
  }
}

void Sysinfo::Set() const {
  ParamListOwner inst;
  ParamListOwner values;
  for (const std::string &s : instances_) KNO_ParamListAddString(inst.list, s.c_str());
  for (int64_t v : inputs_) KNO_ParamListAddInt(values.list, v);
  int status = KNO_Set(node_, inst.list, values.list);
  int err = errno;
  std::string file = platform_internal::KnoNodeFile(node_, inst.list);
  if (status == KNO_STATUS_NOT_FOUND && !file.empty()) {
    std::string path = PlatformModel_Path(file);
    throw HostCtlException("cannot write " + path + ": " + strerror(err), path, err);
  }
  if (status != KNO_STATUS_OK) {
    throw HostCtlException("kernel node " + std::to_string(node_) + " write failed, status " +
                           std::to_string(status));
  }
}

}  // namespace Util

namespace Adv {
int64_t AdvancedIntegerOptionImpl::GetValue() const {
  std::string rel =
      "options/" + PlatformModel_EscapeName(group_) + "/" + PlatformModel_EscapeName(name_);
  std::string text;
  if (!PlatformModel_Read(rel, &text)) {
    throw HostCtlException("advanced option " + group_ + "/" + name_ + " is absent");
  }
  int64_t v;
  if (!platform_internal::ParseInt64(text, &v)) {
    throw HostCtlException("advanced option " + group_ + "/" + name_ + " is not an integer");
  }
  return v;
}
}  // namespace Adv

namespace Resource {
std::string VirtualMachine::GetName() const {
  std::string name;
  if (!PlatformModel_Read(VmDir(worldId_) + "/name", &name)) {
    throw HostCtlException("virtual machine " + std::to_string(worldId_) + " has no name");
  }
  return name;
}

void VirtualMachine::Kill(int64_t how) const {
  if (!PlatformModel_Write(VmDir(worldId_) + "/killed", std::to_string(how))) {
    throw HostCtlException("virtual machine " + std::to_string(worldId_) + " cannot be killed");
  }
}

std::unique_ptr<VirtualMachine> ResourceInfoImpl::GetVirtualMachineByWorldId(
    int32_t worldId) const {
  struct stat st;
  if (stat(PlatformModel_Path(VmDir(worldId)).c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    throw HostCtlException("no virtual machine with world id " + std::to_string(worldId));
  }
  return std::make_unique<VirtualMachine>(worldId);
}
}  // namespace Resource
}  // namespace MtlCtl
