// Label names, label values and descriptions of tevd's events.
#include "tevfwdEvents.h"

#include <algorithm>
#include <cstring>
#include <map>

namespace tevfwd {

std::vector<std::string> ArgLabelNames(const TevdEventInfo *ev, size_t numArgs) {
  std::vector<std::string> names;
  if (ev != nullptr) names = TevdEvents_Words(ev->labels);
  names.resize(std::min(names.size(), numArgs));
  while (names.size() < numArgs) names.push_back("arg" + std::to_string(names.size()));
  return names;
}

std::string ArgText(const MsgFmt_Value &v) {
  switch (v.type) {
    case MSGFMT_TYPE_INT32: return std::to_string(static_cast<int32_t>(v.bits));
    case MSGFMT_TYPE_INT64: return std::to_string(static_cast<int64_t>(v.bits));
    case MSGFMT_TYPE_UINT32: return std::to_string(static_cast<uint32_t>(v.bits));
    case MSGFMT_TYPE_UINT64: return std::to_string(v.bits);
    case MSGFMT_TYPE_DOUBLE: {
      double d;
      memcpy(&d, &v.bits, sizeof d);
      return std::to_string(d);
    }
    case MSGFMT_TYPE_STRING: return v.isNull ? "(null)" : v.str;
    default: return "?";
  }
}

namespace {

std::vector<std::string> Items(const std::string &value) {
  std::vector<std::string> out;
  size_t start = 0;
  for (size_t comma; (comma = value.find(',', start)) != std::string::npos; start = comma + 1)
    out.push_back(value.substr(start, comma - start));
  out.push_back(value.substr(start));
  return out;
}

}  // namespace

std::string LabelValue(const std::string &argText) {
  // "\"a\"" or "\"a\", \"b\"": quote, item without quotes, quote, then ", ".
  std::string joined;
  size_t p = 0;
  while (p < argText.size()) {
    if (argText[p] != '"') return argText;
    size_t close = argText.find('"', p + 1);
    if (close == std::string::npos) return argText;
    if (!joined.empty() || p != 0) joined += ",";
    joined += argText.substr(p + 1, close - p - 1);
    p = close + 1;
    if (p == argText.size()) break;
    if (argText.compare(p, 2, ", ") != 0) return argText;
    p += 2;
    if (p == argText.size()) return argText;
  }
  return argText.empty() ? argText : joined;
}

bool ItemsCovered(const std::string &alertValue, const std::string &recoveryValue) {
  const std::vector<std::string> have = Items(recoveryValue);
  for (const std::string &item : Items(alertValue)) {
    if (std::find(have.begin(), have.end(), item) == have.end()) return false;
  }
  return true;
}

std::string Describe(const std::string &id, const std::vector<MsgFmt_Value> &args) {
  if (const TevdEventInfo *ev = TevdEvents_Find(id.c_str())) {
    return MsgFmt_FormatValues(ev->text, args);
  }
  std::string out = id;
  for (const MsgFmt_Value &v : args) out += " " + ArgText(v);
  return out;
}

std::vector<const TevdEventInfo *> Resolves(const std::string &id) {
  // Built once: the catalogue does not change while the program runs.
  static const std::map<std::string, std::vector<const TevdEventInfo *>> byResolver = [] {
    std::map<std::string, std::vector<const TevdEventInfo *>> m;
    for (const TevdEventInfo &ev : kTevdEvents) {
      for (const std::string &r : TevdEvents_Words(ev.clearedBy)) m[r].push_back(&ev);
    }
    return m;
  }();
  auto it = byResolver.find(id);
  return it == byResolver.end() ? std::vector<const TevdEventInfo *>{} : it->second;
}

}  // namespace tevfwd
