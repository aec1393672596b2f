// The daemon's argument-format reader: TevdUtil_CompactFormat on any format
// and output size, and TevdUtil_GetArgs against a well-formed record.
#include <cstring>
#include <string>
#include <vector>

#include "FuzzCommon.h"
#include "TevLib.h"
#include "TevRecord.h"
#include "tevdUtil.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1) return 0;
  size_t outSize = data[0];  // 0..255, including sizes too small for the result
  std::string format(reinterpret_cast<const char *>(data + 1), size - 1);
  format = format.c_str();
  std::vector<char> out(outSize + 1, '\x7f');
  int rc = TevdUtil_CompactFormat(format.c_str(), out.data(), outSize);
  if (rc != 0 && rc != 22) abort();
  if (out[outSize] != '\x7f') abort();  // wrote past the size it was given
  if (rc == 0 && strlen(out.data()) >= outSize) abort();

  if (FuzzCountPercent(format) > kFuzzSlots) return 0;
  using V = MsgFmt_Value;
  static const std::vector<uint8_t> rec = TevRecord_Encode(
      "tev.u", "%s %d %llu", 9, {V::Str("a"), V::I32(3), V::U64(5), V::NullStr(), V::Dbl(2.0)});
  Tev *tev = nullptr;
  if (Tev_MakeTev(FuzzMallocCopy(rec.data(), rec.size()), static_cast<uint32_t>(rec.size()),
                  &tev) != 0) {
    abort();
  }
  FuzzSlots slots;
  memset(&slots, 0, sizeof slots);
  rc = TevdUtil_GetArgs(tev, format.c_str(), FUZZ_SLOT_ARGS(slots));
  if (rc != 0 && rc != 22) abort();
  Tev_Free(tev);
  return 0;
}
