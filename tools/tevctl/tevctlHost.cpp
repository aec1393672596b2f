// tevctl host: creates and edits the host model, the plain files under
// $ROOT/platform/ that stand for the kernel's and the host's state. `init`
// lays down every node and option the daemon reads, with kernel-like
// defaults; the other sub-commands write single entries. Names that contain
// '/' are stored with %2F, as the platform library reads them.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "PlatformModel.h"
#include "PlatformRoot.h"
#include "tevctl.h"

namespace tevctl {

namespace {

const char kUsage[] =
    "Usage: tevctl host init [--uuid UUID] [--force]\n"
    "       tevctl host set REL VALUE          write platform/REL (dirs created)\n"
    "       tevctl host get REL                print platform/REL\n"
    "       tevctl host nic NAME               platform/nodes/net/pNics/NAME/\n"
    "       tevctl host portgroup PG SWITCH    platform/network/portgroups/PG\n"
    "       tevctl host path PATH DEVICE       platform/storage/paths/PATH\n"
    "       tevctl host device DEV STATUS [N=VOLUME...]\n"
    "                                          platform/storage/devices/DEV/...\n"
    "       tevctl host vm [--group GID] WORLDID NAME\n"
    "                                          platform/vms/WORLDID/name\n"
    "init creates the whole model with defaults and keeps entries that exist\n"
    "(--force rewrites them); without --uuid the host UUID is etc/machine-id\n"
    "under the root written as a UUID, or a random one where that file is absent.\n";

// Every file `init` writes, with its default (the UUID is added separately).
struct DefaultEntry {
  const char *rel;
  const char *value;
};
const DefaultEntry kDefaults[] = {
    {"options/Net/LinkFlappingThreshold", "10"},    {"options/PageRetire/ThresholdInterval", "10"},
    {"options/PageRetire/ApeiLoggingEnabled", "1"}, {"options/Misc/TevAsyncEnable", "0"},
    {"nodes/system/pageRetire/threshold", "512"},
};
// Directories `init` creates, relative to the root.
const char *const kDirs[] = {
    "kfs/volumes",
    "platform/vms",
    "platform/network/portgroups",
    "platform/storage/paths",
    "platform/storage/devices",
    "platform/nodes/net/pNics",
    "platform/nodes/vm/vmmGroupInfo",
};

std::string ModelRoot() { return RootPath("/platform"); }

// Relative model path: "platform/" prefix optional, no ".." and not absolute.
bool CleanRel(std::string rel, std::string *out, std::string *why) {
  if (rel.compare(0, 9, "platform/") == 0) rel = rel.substr(9);
  if (rel.empty() || rel[0] == '/') {
    *why = "model path must be relative to platform/";
    return false;
  }
  std::stringstream parts(rel);
  std::string part;
  while (std::getline(parts, part, '/')) {
    if (part == "..") {
      *why = "model path may not contain \"..\"";
      return false;
    }
  }
  *out = rel;
  return true;
}

int WriteFile(const std::string &path, const std::string &value) {
  int rc = PlatformRoot_MakeDirs(DirName(path));
  if (rc != 0) return rc;
  std::string tmp = path + ".tmp";
  std::ofstream f(tmp, std::ios::trunc);
  f << value << "\n";
  f.close();
  if (!f) return EIO;
  // Readers see either the old value or the new one, never half a file.
  if (rename(tmp.c_str(), path.c_str()) != 0) return errno;
  return 0;
}

bool Exists(const std::string &path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

bool ValidUuid(std::string *uuid) {
  if (uuid->size() != 36) return false;
  for (size_t i = 0; i < 36; ++i) {
    char &c = (*uuid)[i];
    bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash != (c == '-')) return false;
    if (!dash) {
      if (!isxdigit(static_cast<unsigned char>(c))) return false;
      c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    }
  }
  return true;
}

bool RandomUuid(std::string *out) {
  unsigned char b[16];
  int fd = open("/dev/urandom", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  ssize_t n = read(fd, b, sizeof b);
  close(fd);
  if (n != static_cast<ssize_t>(sizeof b)) return false;
  b[6] = static_cast<unsigned char>((b[6] & 0x0f) | 0x40);  // version 4
  b[8] = static_cast<unsigned char>((b[8] & 0x3f) | 0x80);  // RFC 4122 variant
  char text[37];
  snprintf(text, sizeof text,
           "%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x", b[0], b[1], b[2],
           b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13], b[14], b[15]);
  *out = text;
  return true;
}

// The machine's identity (etc/machine-id under the root: 32 hexadecimal
// digits) written as a UUID; false when the file is absent or not one.
bool MachineIdUuid(std::string *out) {
  std::ifstream in(RootPath("/etc/machine-id"));
  std::string id;
  if (!std::getline(in, id) || id.size() != 32) return false;
  std::string uuid = id.substr(0, 8) + "-" + id.substr(8, 4) + "-" + id.substr(12, 4) + "-" +
                     id.substr(16, 4) + "-" + id.substr(20);
  if (!ValidUuid(&uuid)) return false;
  *out = uuid;
  return true;
}

int HostInit(const char *cmd, const ParsedArgs &pa) {
  if (!pa.positional.empty()) return Fail(cmd, "init takes no arguments");
  bool force = pa.Has("force");
  std::string uuid;
  if (pa.Has("uuid")) {
    uuid = pa.Get("uuid");
    if (!ValidUuid(&uuid)) {
      return Fail(cmd, "\"%s\" is not a UUID (8-4-4-4-12 hexadecimal digits)",
                  pa.Get("uuid").c_str());
    }
  }
  std::string uuidPath = ModelRoot() + "/nodes/system/systemUuid";
  if (uuid.empty() && !force) {
    PlatformModel_Read("nodes/system/systemUuid", &uuid);  // keep the host's identity
  }
  if (uuid.empty() && !MachineIdUuid(&uuid) && !RandomUuid(&uuid)) {
    return Fail(cmd, "cannot read /dev/urandom");
  }
  int rc = WriteFile(uuidPath, uuid);
  if (rc != 0) return Fail(cmd, "cannot write %s: %s", uuidPath.c_str(), strerror(rc));

  for (const DefaultEntry &e : kDefaults) {
    std::string path = ModelRoot() + "/" + e.rel;
    if (!force && Exists(path)) continue;
    rc = WriteFile(path, e.value);
    if (rc != 0) return Fail(cmd, "cannot write %s: %s", path.c_str(), strerror(rc));
  }
  for (const char *dir : kDirs) {
    std::string path = RootPath(std::string("/") + dir);
    rc = PlatformRoot_MakeDirs(path);
    if (rc != 0) return Fail(cmd, "cannot create %s: %s", path.c_str(), strerror(rc));
  }
  PrintLine("host model ready under " + RootPath("/") + " (uuid " + uuid + ")");
  return 0;
}

int HostSet(const char *cmd, const std::vector<std::string> &pos) {
  if (pos.size() != 2) return Fail(cmd, "set needs REL and VALUE");
  std::string rel, why;
  if (!CleanRel(pos[0], &rel, &why)) return Fail(cmd, "%s", why.c_str());
  std::string path = ModelRoot() + "/" + rel;
  int rc = WriteFile(path, pos[1]);
  return rc == 0 ? 0 : Fail(cmd, "cannot write %s: %s", path.c_str(), strerror(rc));
}

int HostGet(const char *cmd, const std::vector<std::string> &pos) {
  if (pos.size() != 1) return Fail(cmd, "get needs REL");
  std::string rel, why;
  if (!CleanRel(pos[0], &rel, &why)) return Fail(cmd, "%s", why.c_str());
  std::string path = ModelRoot() + "/" + rel;
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return Fail(cmd, "no entry %s", path.c_str());
  if (S_ISDIR(st.st_mode)) return Fail(cmd, "%s is a directory", path.c_str());
  std::string value;
  if (!PlatformModel_Read(rel, &value)) return Fail(cmd, "cannot read %s", path.c_str());
  PrintLine(value);
  return 0;
}

int WriteModel(const char *cmd, const std::string &rel, const std::string &value) {
  std::string path = ModelRoot() + "/" + rel;
  int rc = WriteFile(path, value);
  return rc == 0 ? 0 : Fail(cmd, "cannot write %s: %s", path.c_str(), strerror(rc));
}

int HostNic(const char *cmd, const std::vector<std::string> &pos) {
  if (pos.size() != 1) return Fail(cmd, "nic needs NAME");
  std::string path = ModelRoot() + "/nodes/net/pNics/" + PlatformModel_EscapeName(pos[0]);
  int rc = PlatformRoot_MakeDirs(path);
  return rc == 0 ? 0 : Fail(cmd, "cannot create %s: %s", path.c_str(), strerror(rc));
}

int HostPortgroup(const char *cmd, const std::vector<std::string> &pos) {
  if (pos.size() != 2) return Fail(cmd, "portgroup needs PG and SWITCH");
  return WriteModel(cmd, "network/portgroups/" + PlatformModel_EscapeName(pos[0]), pos[1]);
}

int HostPath(const char *cmd, const std::vector<std::string> &pos) {
  if (pos.size() != 2) return Fail(cmd, "path needs PATH and DEVICE");
  return WriteModel(cmd, "storage/paths/" + PlatformModel_EscapeName(pos[0]), pos[1]);
}

int HostDevice(const char *cmd, const std::vector<std::string> &pos) {
  if (pos.size() < 2) return Fail(cmd, "device needs DEV and STATUS");
  uint64_t status;
  if (!ParseU64(pos[1], 32, &status) || status > 3) {
    return Fail(cmd, "device status must be 0..3, not \"%s\"", pos[1].c_str());
  }
  std::string dev = "storage/devices/" + PlatformModel_EscapeName(pos[0]);
  // Check every partition before writing anything.
  for (size_t i = 2; i < pos.size(); ++i) {
    size_t eq = pos[i].find('=');
    uint64_t n;
    if (eq == std::string::npos || !ParseU64(pos[i].substr(0, eq), 32, &n)) {
      return Fail(cmd, "partition \"%s\" is not PARTNUM=VOLUME", pos[i].c_str());
    }
  }
  int rc = WriteModel(cmd, dev + "/status", pos[1]);
  for (size_t i = 2; rc == 0 && i < pos.size(); ++i) {
    size_t eq = pos[i].find('=');
    rc = WriteModel(cmd, dev + "/partitions/" + pos[i].substr(0, eq), pos[i].substr(eq + 1));
  }
  return rc;
}

int HostVm(const char *cmd, const ParsedArgs &pa) {
  const std::vector<std::string> &pos = pa.positional;
  if (pos.size() != 2) return Fail(cmd, "vm needs WORLDID and NAME");
  int64_t id;
  if (!ParseI64(pos[0], 32, &id))
    return Fail(cmd, "world id \"%s\" is not a number", pos[0].c_str());
  int rc = WriteModel(cmd, "vms/" + pos[0] + "/name", pos[1]);
  if (rc == 0 && pa.Has("group")) {
    int64_t gid;
    if (!ParseI64(pa.Get("group"), 64, &gid)) {
      return Fail(cmd, "group id \"%s\" is not a number", pa.Get("group").c_str());
    }
    rc = WriteModel(cmd, "nodes/vm/vmmGroupInfo/" + pa.Get("group"), pos[1]);
  }
  return rc;
}

}  // namespace

int CmdHost(const std::vector<std::string> &args) {
  const char *cmd = "host";
  ParsedArgs pa;
  // Global options may also precede the sub-command ("host --root R init").
  ParsedArgs lead;
  if (int rc = OpenCommand(cmd, args, {}, kUsage, &lead); rc != kGoOn) return rc;
  if (lead.positional.empty()) return Fail(cmd, "needs a sub-command (try --help)");
  std::string sub = lead.positional[0];
  std::vector<std::string> rest(lead.positional.begin() + 1, lead.positional.end());
  if (int rc =
          OpenCommand(cmd, rest, {{"uuid", true}, {"force", false}, {"group", true}}, kUsage, &pa);
      rc != kGoOn) {
    return rc;
  }
  if ((pa.Has("uuid") || pa.Has("force")) && sub != "init") {
    return Fail(cmd, "--uuid and --force belong to init");
  }
  if (pa.Has("group") && sub != "vm") return Fail(cmd, "--group belongs to vm");
  const std::vector<std::string> &pos = pa.positional;
  if (sub == "init") return HostInit(cmd, pa);
  if (sub == "set") return HostSet(cmd, pos);
  if (sub == "get") return HostGet(cmd, pos);
  if (sub == "nic") return HostNic(cmd, pos);
  if (sub == "portgroup") return HostPortgroup(cmd, pos);
  if (sub == "path") return HostPath(cmd, pos);
  if (sub == "device") return HostDevice(cmd, pos);
  if (sub == "vm") return HostVm(cmd, pa);
  return Fail(cmd, "unknown sub-command \"%s\" (try --help)", sub.c_str());
}

}  // namespace tevctl
