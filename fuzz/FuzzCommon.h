// Helpers shared by the fuzz targets: turning the fuzzer's bytes into a
// malloc'd record and calling variadic readers with enough writable slots.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

// Every conversion of a fuzzed format may store up to 8 bytes; 16 slots cover
// any format with at most 16 '%' characters (inputs with more are skipped,
// since a format that asks for more arguments than were passed is the
// caller's bug, not the reader's).
constexpr int kFuzzSlots = 16;

inline int FuzzCountPercent(const std::string &s) {
  int n = 0;
  for (char c : s) n += c == '%';
  return n;
}

struct FuzzSlots {
  uint64_t v[kFuzzSlots];
};

#define FUZZ_SLOT_ARGS(s)                                                                 \
  &(s).v[0], &(s).v[1], &(s).v[2], &(s).v[3], &(s).v[4], &(s).v[5], &(s).v[6], &(s).v[7], \
      &(s).v[8], &(s).v[9], &(s).v[10], &(s).v[11], &(s).v[12], &(s).v[13], &(s).v[14], &(s).v[15]

inline void *FuzzMallocCopy(const uint8_t *data, size_t size) {
  void *p = malloc(size > 0 ? size : 1);
  if (p != nullptr && size > 0) memcpy(p, data, size);
  return p;
}
