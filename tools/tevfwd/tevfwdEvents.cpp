// Templates, label names and descriptions of tevd's events.
#include "tevfwdEvents.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <set>

namespace tevfwd {

const std::vector<EventTemplate> &Templates() {
  static const std::vector<EventTemplate> rows = {
#include "tevfwdTemplates.inc"
  };
  return rows;
}

const EventTemplate *FindTemplate(const std::string &id) {
  const auto &rows = Templates();
  auto it = std::lower_bound(
      rows.begin(), rows.end(), id,
      [](const EventTemplate &t, const std::string &k) { return k.compare(t.id) > 0; });
  return it != rows.end() && id == it->id ? &*it : nullptr;
}

namespace {

// Words that never name an argument ("... on %s", "... being %s").
bool IsFiller(const std::string &w) {
  static const std::set<std::string> filler = {
      "a",    "an",   "the",   "to",     "of",  "on",  "for",   "in",   "at",
      "by",   "from", "with",  "and",    "or",  "is",  "are",   "be",   "being",
      "been", "was",  "has",   "have",   "as",  "if",  "that",  "this", "than",
      "into", "via",  "after", "before", "per", "set", "value", "not",  "no"};
  return filler.count(w) != 0;
}

// Labels the forwarder sets itself; an argument never takes one of them.
bool IsReserved(const std::string &w) {
  return w == "alertname" || w == "host" || w == "instance" || w == "class" || w == "severity";
}

// Skips the conversion at text[i] == '%'; false for "%%".
bool SkipConversion(const char *text, size_t *i) {
  size_t p = *i + 1;
  if (text[p] == '%') {
    *i = p + 1;
    return false;
  }
  while (text[p] != '\0' && strchr("0123456789.-+ #lhzjt", text[p]) != nullptr) ++p;
  if (text[p] != '\0') ++p;
  *i = p;
  return true;
}

}  // namespace

std::vector<std::string> ArgLabelNames(const char *text, size_t numArgs) {
  std::vector<std::string> names;
  std::set<std::string> used;
  std::vector<std::string> words;  // words since the previous conversion
  std::string word;
  auto endWord = [&] {
    if (!word.empty() && isalpha(static_cast<unsigned char>(word[0]))) words.push_back(word);
    word.clear();
  };
  for (size_t i = 0; text != nullptr && text[i] != '\0' && names.size() < numArgs;) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    if (c != '%') {
      if (isalnum(c)) {
        word.push_back(static_cast<char>(tolower(c)));
      } else {
        endWord();
      }
      ++i;
      continue;
    }
    endWord();
    if (!SkipConversion(text, &i)) continue;
    std::string name;
    for (auto w = words.rbegin(); w != words.rend() && name.empty(); ++w) {
      if (!IsFiller(*w)) name = *w;
    }
    if (name.empty() || IsReserved(name)) name = "arg" + std::to_string(names.size());
    std::string unique = name;
    for (int n = 2; used.count(unique) != 0; ++n) unique = name + "_" + std::to_string(n);
    used.insert(unique);
    names.push_back(unique);
    words.clear();
  }
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

std::string Describe(const std::string &id, const std::vector<MsgFmt_Value> &args) {
  if (const EventTemplate *t = FindTemplate(id)) {
    return MsgFmt_FormatValues(t->text, args);
  }
  std::string out = id;
  for (const MsgFmt_Value &v : args) out += " " + ArgText(v);
  return out;
}

bool IsResolver(const std::string &id) {
  for (const ClearPair &p : ClearPairs()) {
    if (id == p.resolver) return true;
  }
  return false;
}

}  // namespace tevfwd
