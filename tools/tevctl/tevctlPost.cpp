// tevctl post: builds one observation record from the command line and sends
// it to a context of the daemon, as the kernel or a user-level service would.
// The argument types come from the printf conversions of FORMAT, so the record
// carries exactly what a producer using that format would have sent.
#include <cerrno>
#include <cstring>

#include <sys/stat.h>

#include "TevRecord.h"
#include "tevctl.h"

namespace tevctl {

namespace {

const char kUsage[] =
    "Usage: tevctl post [--user | --domain N] [--ts USEC] [--msg TEXT] [--null-strings]\n"
    "                   ID FORMAT [ARG...]\n"
    "Posts one observation. Each ARG is read by FORMAT's conversion:\n"
    "  %d %i %c -> int32, %ld %lld -> int64, %u %x %o -> uint32,\n"
    "  %lu %lx %p -> uint64, %f %e %g -> double, %s -> string.\n"
    "Integers are decimal or 0x-hex (hex gives the bit pattern of the width).\n"
    "The message is FORMAT applied to the arguments unless --msg gives it.\n"
    "  --domain N      asynchronous context N (0..21, default 0: async-00.sock)\n"
    "  --user          the user-level context (tevd-user.sock)\n"
    "  --ts USEC       time stamp in microseconds since the epoch (default now)\n"
    "  --null-strings  a %s argument spelled NULL is sent as a null string\n";

std::string ContextSocket(bool user, uint32_t domain) {
  return user ? PlatformEndpoint_Path(PlatformEndpoint::UserContext)
              : PlatformEndpoint_Path(PlatformEndpoint::AsyncContext, domain);
}

}  // namespace

int CmdPost(const std::vector<std::string> &args) {
  const char *cmd = "post";
  ParsedArgs pa;
  std::string why;
  if (int rc = OpenCommand(
          cmd, args,
          {{"user", false}, {"domain", true}, {"ts", true}, {"msg", true}, {"null-strings", false}},
          kUsage, &pa);
      rc != kGoOn) {
    return rc;
  }
  if (pa.positional.size() < 2) return Fail(cmd, "needs ID and FORMAT (try --help)");
  if (pa.Has("user") && pa.Has("domain"))
    return Fail(cmd, "--user and --domain exclude each other");

  bool user = pa.Has("user");
  uint64_t domain = 0;
  if (pa.Has("domain") &&
      (!ParseU64(pa.Get("domain"), 32, &domain) || domain >= TEVLIB_NUM_ASYNC_DOMAINS)) {
    return Fail(cmd, "--domain must be 0..%u, not \"%s\"", TEVLIB_NUM_ASYNC_DOMAINS - 1,
                pa.Get("domain").c_str());
  }
  uint64_t ts = NowUs();
  if (pa.Has("ts") && !ParseU64(pa.Get("ts"), 64, &ts)) {
    return Fail(cmd, "--ts needs microseconds, not \"%s\"", pa.Get("ts").c_str());
  }

  const std::string &id = pa.positional[0];
  const std::string &format = pa.positional[1];
  std::vector<std::string> words(pa.positional.begin() + 2, pa.positional.end());
  if (id.compare(0, 4, "tev.") != 0 || id.size() == 4) {
    return Fail(cmd, "identifier \"%s\" must begin with \"tev.\"", id.c_str());
  }

  std::vector<uint32_t> types;
  if (!MsgFmt_TypesOfFormat(format.c_str(), &types, &why)) {
    return Fail(cmd, "bad format \"%s\": %s", format.c_str(), why.c_str());
  }
  if (types.size() != words.size()) {
    return Fail(cmd, "format \"%s\" takes %zu argument%s, %zu given", format.c_str(), types.size(),
                types.size() == 1 ? "" : "s", words.size());
  }
  std::vector<MsgFmt_Value> values(types.size());
  for (size_t i = 0; i < types.size(); ++i) {
    if (!ParseValue(types[i], words[i], pa.Has("null-strings"), &values[i], &why)) {
      return Fail(cmd, "argument %zu: %s", i + 1, why.c_str());
    }
  }
  std::string message = pa.Has("msg") ? pa.Get("msg") : MsgFmt_FormatValues(format.c_str(), values);

  std::vector<uint8_t> record = TevRecord_Encode(id, message, ts, values);
  if (record.size() > TEV_RECORD_MAX_SIZE) {
    return Fail(cmd, "record of %zu bytes exceeds the %zu-byte limit", record.size(),
                TEV_RECORD_MAX_SIZE);
  }
  std::string sock = ContextSocket(user, static_cast<uint32_t>(domain));
  struct stat st;
  if (stat(sock.c_str(), &st) != 0) {
    return Fail(cmd, "no context socket at %s (is tevd running under this root?)", sock.c_str());
  }
  int rc = TevRecord_Post(user ? TEVLIB_USER_DOMAIN : static_cast<uint32_t>(domain), record);
  if (rc != 0) return Fail(cmd, "cannot deliver to %s: %s", sock.c_str(), strerror(rc));
  return 0;
}

}  // namespace tevctl
