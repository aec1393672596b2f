// The qprob message as a receiver (the management agent, tevctl sink, tests)
// sees it: 68-byte header, the NUL-terminated identifier, the argument block.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "MsgFmt.h"

struct QprobMessage {
  uint64_t timestampUs = 0;
  std::string hostUuid;  // text at offset 16 (36 characters, or empty)
  uint32_t totalLength = 0;
  uint32_t idLength = 0;  // with the NUL
  std::string id;         // e.g. "kos.problem.net.hwnic.linkstate.down"
  std::string className;  // "problem", "audit", "clear" or "" when unknown
  std::vector<MsgFmt_Value> args;
};

// Decodes exactly `length` bytes. False, with `why`, for a malformed message.
bool Qprob_Decode(const void *message, size_t length, QprobMessage *out, std::string *why);
// One JSON object (no newline): {"ts":..,"class":..,"id":..,"host":..,"args":[{"type":"int32","value":..},..]}
std::string Qprob_ToJson(const QprobMessage &msg);
// The inside of a JSON string for `s` (no quotes), as Qprob_ToJson writes it.
std::string Qprob_JsonEscape(const std::string &s);
