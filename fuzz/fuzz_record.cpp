// Record validation and reading: any bytes either fail validation or give a
// Tev whose accessors stay inside the record.
#include <cstdlib>
#include <string>

#include "FuzzCommon.h"
#include "TevLib.h"
#include "TevRecord.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::string why;
  bool good = TevRecord_IsWellFormed(data, size, &why);
  TevRecordView view;
  bool decoded = TevRecord_Decode(data, size, &view);
  if (good != decoded) abort();  // validation and decoding must agree

  Tev *tev = nullptr;
  int rc = Tev_MakeTev(FuzzMallocCopy(data, size), static_cast<uint32_t>(size), &tev);
  if ((rc == 0) != good) abort();
  if (tev == nullptr) return 0;
  const char *id = nullptr;
  Tev_GetID(tev, &id);
  uint64_t ts = 0;
  Tev_GetTimestamp(tev, &ts);
  char *msg = nullptr;
  size_t len = 0;
  if (Tev_GetMsg(tev, &msg, &len) == 0) free(msg);
  uint32_t count = 0;
  Tev_GetArgCount(tev, &count);
  if (count != view.args.size()) abort();
  for (int i = -1; i <= static_cast<int>(count); ++i) {
    const char *s = nullptr;
    int32_t v = 0;
    if (Tev_GetStringArg(tev, i, &s) == 0 && s != nullptr) (void)strlen(s);
    (void)Tev_GetIntArg(tev, i, &v);
  }
  uint32_t rlen = 0;
  (void)Tev_RecordBytes(tev, &rlen);
  Tev_IsID(id, "tev.test");
  Tev_Free(tev);
  return 0;
}
