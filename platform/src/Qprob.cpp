// Receiver side of the qprob message: decodes and validates every field of
// one message (header, identifier, argument block) and renders it as JSON for
// tools and tests. Nothing is read outside the given length.
#include "Qprob.h"

#include <cmath>
#include <cstdio>
#include <cstring>

namespace {

uint32_t Le32(const uint8_t *p) {
  uint32_t v;
  memcpy(&v, p, sizeof v);
  return v;
}

// Bytes after the argument block: the length field counts 72 + identifier +
// block, four more than the 68-byte header.
constexpr size_t kHeader = 68;
constexpr size_t kTrailer = 4;
constexpr uint32_t kMaxIdLength = 129;

void JsonString(std::string *out, const std::string &s) {
  out->push_back('"');
  out->append(Qprob_JsonEscape(s));
  out->push_back('"');
}

}  // namespace

std::string Qprob_JsonEscape(const std::string &s) {
  std::string out;
  for (unsigned char c : s) {
    switch (c) {
      case '"': out.append("\\\""); break;
      case '\\': out.append("\\\\"); break;
      case '\n': out.append("\\n"); break;
      case '\r': out.append("\\r"); break;
      case '\t': out.append("\\t"); break;
      case '\b': out.append("\\b"); break;
      case '\f': out.append("\\f"); break;
      default:
        if (c < 0x20) {
          char esc[8];
          snprintf(esc, sizeof esc, "\\u%04x", c);
          out.append(esc);
        } else {
          out.push_back(static_cast<char>(c));
        }
    }
  }
  return out;
}

bool Qprob_Decode(const void *message, size_t length, QprobMessage *out, std::string *why) {
  auto fail = [why](const std::string &w) {
    if (why != nullptr) *why = w;
    return false;
  };
  const uint8_t *m = static_cast<const uint8_t *>(message);
  if (m == nullptr || length < kHeader + kTrailer + 1) {
    return fail("message of " + std::to_string(length) + " bytes is shorter than its header");
  }
  QprobMessage q;
  memcpy(&q.timestampUs, m, 8);
  const char *host = reinterpret_cast<const char *>(m + 16);
  size_t hostLen = strnlen(host, 38);
  if (hostLen == 38) return fail("host identity is not terminated");
  q.hostUuid.assign(host, hostLen);
  q.totalLength = Le32(m + 56);
  uint32_t count = Le32(m + 60);
  q.idLength = Le32(m + 64);
  if (q.totalLength != length) {
    return fail("length field " + std::to_string(q.totalLength) + " does not match the " +
                std::to_string(length) + " bytes received");
  }
  if (q.idLength == 0 || q.idLength > kMaxIdLength) {
    return fail("identifier length " + std::to_string(q.idLength) + " outside 1.." +
                std::to_string(kMaxIdLength));
  }
  if (static_cast<uint64_t>(kHeader) + q.idLength + kTrailer > length) {
    return fail("identifier runs past the message");
  }
  const char *id = reinterpret_cast<const char *>(m + kHeader);
  if (id[q.idLength - 1] != '\0' || strnlen(id, q.idLength) != q.idLength - 1) {
    return fail("identifier length does not match its NUL");
  }
  q.id = id;
  if (q.id.compare(0, 12, "kos.problem.") == 0) {
    q.className = "problem";
  } else if (q.id.compare(0, 10, "kos.audit.") == 0) {
    q.className = "audit";
  } else if (q.id.compare(0, 10, "kos.clear.") == 0) {
    q.className = "clear";
  }
  size_t blockOff = kHeader + q.idLength;
  size_t blockSize = length - blockOff - kTrailer;
  std::string blockWhy;
  if (!MsgFmt_DecodeBlock(m + blockOff, blockSize, count, &q.args, &blockWhy)) {
    return fail("argument block: " + blockWhy);
  }
  if (out != nullptr) *out = std::move(q);
  return true;
}

std::string Qprob_ToJson(const QprobMessage &msg) {
  std::string out = "{\"ts\":" + std::to_string(msg.timestampUs) + ",\"class\":";
  JsonString(&out, msg.className);
  out += ",\"id\":";
  JsonString(&out, msg.id);
  out += ",\"host\":";
  JsonString(&out, msg.hostUuid);
  out += ",\"args\":[";
  for (size_t i = 0; i < msg.args.size(); i++) {
    const MsgFmt_Value &v = msg.args[i];
    if (i > 0) out += ",";
    out += "{\"type\":";
    switch (v.type) {
      case MSGFMT_TYPE_INT32:
        out += "\"int32\",\"value\":" + std::to_string(static_cast<int32_t>(v.bits));
        break;
      case MSGFMT_TYPE_INT64:
        out += "\"int64\",\"value\":" + std::to_string(static_cast<int64_t>(v.bits));
        break;
      case MSGFMT_TYPE_UINT32:
        out += "\"uint32\",\"value\":" + std::to_string(static_cast<uint32_t>(v.bits));
        break;
      case MSGFMT_TYPE_UINT64: out += "\"uint64\",\"value\":" + std::to_string(v.bits); break;
      case MSGFMT_TYPE_DOUBLE: {
        double d;
        memcpy(&d, &v.bits, sizeof d);
        out += "\"double\",\"value\":";
        if (std::isfinite(d)) {
          char num[32];
          snprintf(num, sizeof num, "%.17g", d);
          out += num;
        } else {
          out += "null";
        }
        break;
      }
      case MSGFMT_TYPE_STRING:
        out += "\"string\",\"value\":";
        if (v.isNull) {
          out += "null";
        } else {
          JsonString(&out, v.str);
        }
        break;
      default: out += "\"unknown\",\"value\":null"; break;
    }
    out += "}";
  }
  out += "]}";
  return out;
}
