// Tev_GetArgs with fuzzed formats against a fixed set of well-formed records
// (first byte: record and first argument; the rest: the format).
#include <cstring>
#include <string>
#include <vector>

#include "FuzzCommon.h"
#include "TevLib.h"
#include "TevRecord.h"

namespace {
std::vector<std::vector<uint8_t>> Records() {
  using V = MsgFmt_Value;
  return {
      TevRecord_Encode("tev.a", "none", 1, {}),
      TevRecord_Encode("tev.b", "%s %d", 2, {V::Str("eth0"), V::I32(-7)}),
      TevRecord_Encode("tev.c", "%u %lld %llu %f", 3,
                       {V::U32(4000000000u), V::I64(-5), V::U64(~0ull), V::Dbl(1.5)}),
      TevRecord_Encode("tev.d", "%s %s %s", 4, {V::NullStr(), V::Str(""), V::Str("x")}),
  };
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const std::vector<std::vector<uint8_t>> records = Records();
  if (size < 1) return 0;
  const std::vector<uint8_t> &rec = records[data[0] % records.size()];
  int first = (data[0] >> 2) % 5;
  std::string format(reinterpret_cast<const char *>(data + 1), size - 1);
  format = format.c_str();  // up to the first NUL
  if (FuzzCountPercent(format) > kFuzzSlots) return 0;
  Tev *tev = nullptr;
  if (Tev_MakeTev(FuzzMallocCopy(rec.data(), rec.size()), static_cast<uint32_t>(rec.size()),
                  &tev) != 0) {
    abort();
  }
  FuzzSlots slots;
  memset(&slots, 0, sizeof slots);
  int rc = Tev_GetArgs(tev, first, format.c_str(), FUZZ_SLOT_ARGS(slots));
  if (rc != 0 && rc != 22) abort();
  Tev_Free(tev);
  return 0;
}
