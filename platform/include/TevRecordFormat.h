// The bytes of one observation record (docs/formats.md) and the domains it
// travels on: what the daemon's reading side (TevLib.h) and the producers'
// side (TevRecord.h) both know, and nothing else.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

constexpr uint32_t TEVLIB_NUM_ASYNC_DOMAINS = 22;
constexpr uint32_t TEVLIB_USER_DOMAIN = 22;
constexpr size_t TEV_RECORD_HEADER_SIZE = 32;
constexpr size_t TEV_RECORD_MAX_SIZE = 1u << 20;

// The fixed head of one record, read in place: the record's bytes need no
// alignment. Whether the fields make sense is TevRecord_IsWellFormed's
// business; records handed over by TevLib_ReadFromFd are well formed.
class TevRecordHeader {
 public:
  explicit TevRecordHeader(const uint8_t *record) : record_(record) {}
  uint64_t TimestampUs() const { return Field<uint64_t>(8); }
  uint32_t TotalLength() const { return Field<uint32_t>(16); }
  uint32_t MessageOffset() const { return Field<uint32_t>(20); }
  uint32_t ArgCount() const { return Field<uint32_t>(24); }
  uint32_t ArgsOffset() const { return Field<uint32_t>(28); }
  // The identifier right after the header (NUL-terminated in a whole record).
  const char *Id() const {
    return reinterpret_cast<const char *>(record_ + TEV_RECORD_HEADER_SIZE);
  }

 private:
  template <typename T>
  T Field(size_t offset) const {
    T value;
    memcpy(&value, record_ + offset, sizeof value);
    return value;
  }
  const uint8_t *record_;
};
