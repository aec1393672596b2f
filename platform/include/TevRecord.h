// The producers' side of the observation library: what the kernel and user
// processes do (build a record, post it on a context's socket) and what tools
// and tests do with record bytes (validate, decode). The daemon never posts:
// it reads through TevLib.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "MsgFmt.h"
#include "TevRecordFormat.h"

// Builds one record. Arguments are values as MsgFmt_Value (types 1..6).
std::vector<uint8_t> TevRecord_Encode(const std::string &id, const std::string &message,
                                      uint64_t timestampUs, const std::vector<MsgFmt_Value> &args);
// Full validation of one record of exactly `length` bytes; on failure `why`
// (if given) names the first problem found.
bool TevRecord_IsWellFormed(const uint8_t *record, size_t length, std::string *why = nullptr);
// Decodes a well-formed record's fields.
struct TevRecordView {
  uint64_t timestampUs = 0;
  std::string id;
  std::string message;
  std::vector<MsgFmt_Value> args;
};
bool TevRecord_Decode(const uint8_t *record, size_t length, TevRecordView *out);
// Sends one record: to async-NN.sock (domain 0..21) as a datagram, or, for
// domain 22, over a fresh user-level connection. Returns 0 or an errno value.
int TevRecord_Post(uint32_t domain, const std::vector<uint8_t> &record);
