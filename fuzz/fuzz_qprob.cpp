// The qprob decoder of `tevctl sink`: any bytes either fail to decode or give
// a message that renders as JSON.
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Qprob.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::vector<uint8_t> copy(data, data + size);  // exact-size heap copy for ASan
  QprobMessage msg;
  std::string why;
  if (!Qprob_Decode(copy.data(), copy.size(), &msg, &why)) {
    if (why.empty()) abort();
    return 0;
  }
  std::string json = Qprob_ToJson(msg);
  if (json.empty() || json.front() != '{' || json.back() != '}') abort();
  return 0;
}
