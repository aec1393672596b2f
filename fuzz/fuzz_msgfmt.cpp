// The argument block decoder: first byte the slot count, the rest the block.
// MsgFmt_DecodeBlock and MsgFmt_GetSwizzledString must agree on every index.
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "MsgFmt.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1) return 0;
  uint32_t numArgs = data[0] < 0xF0 ? data[0] % 24 : 0xFFFFFFF0u + (data[0] & 0xF);
  const uint8_t *block = data + 1;
  size_t blockSize = size - 1;
  // A private unaligned copy so that ASan sees reads past the block's end.
  std::vector<uint8_t> copy(blockSize + 1);
  uint8_t *b = copy.data() + 1;
  if (blockSize > 0) memcpy(b, block, blockSize);
  std::vector<MsgFmt_Value> values;
  std::string why;
  bool good = MsgFmt_DecodeBlock(b, blockSize, numArgs, &values, &why);
  if (good && values.size() != numArgs) abort();
  int n = numArgs < 64 ? static_cast<int>(numArgs) : 64;
  for (int i = -1; i <= n; ++i) {
    const char *s = nullptr;
    int rc = MsgFmt_GetSwizzledString(b, blockSize, static_cast<int>(numArgs), i, &s);
    if (rc == 0 && s != nullptr) (void)strlen(s);
    if (good && i >= 0 && i < n && values[i].type == MSGFMT_TYPE_STRING) {
      if (rc != 0) abort();
      if ((s == nullptr) != values[i].isNull) abort();
      if (s != nullptr && values[i].str != s) abort();
    }
  }
  if (good) {
    std::vector<uint8_t> again = MsgFmt_EncodeBlock(values);
    std::vector<MsgFmt_Value> round;
    if (!MsgFmt_DecodeBlock(again.data(), again.size(), numArgs, &round, nullptr)) abort();
    if (!(round == values)) abort();
  }
  return 0;
}
