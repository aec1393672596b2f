// The catalogue's look-ups, and its consistency, checked when this file
// compiles: a row that breaks a rule fails the build, and the assertion's
// note names the first bad row's index.
#include "tevdEvents.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr int Compare(const char *a, const char *b) {
  for (; *a != '\0' && *a == *b; ++a, ++b) {}
  return static_cast<unsigned char>(*a) - static_cast<unsigned char>(*b);
}

constexpr bool StartsWith(const char *s, const char *prefix) {
  for (; *prefix != '\0'; ++s, ++prefix) {
    if (*s != *prefix) {
      return false;
    }
  }
  return true;
}

// Word `i` of a blank-separated list: its start and length (0: none).
struct Word {
  const char *at = nullptr;
  int length = 0;
};

constexpr Word NthWord(const char *list, int i) {
  for (int n = 0; *list != '\0';) {
    while (*list == ' ') {
      ++list;
    }
    if (*list == '\0') {
      break;
    }
    const char *start = list;
    while (*list != '\0' && *list != ' ') {
      ++list;
    }
    if (n++ == i) {
      return Word{start, static_cast<int>(list - start)};
    }
  }
  return Word{};
}

constexpr int CountWords(const char *list) {
  int n = 0;
  while (NthWord(list, n).length != 0) {
    ++n;
  }
  return n;
}

constexpr bool SameWord(Word a, Word b) {
  if (a.length != b.length) {
    return false;
  }
  for (int k = 0; k < a.length; ++k) {
    if (a.at[k] != b.at[k]) {
      return false;
    }
  }
  return true;
}

constexpr bool SameWordAsText(Word w, const char *text) {
  int k = 0;
  for (; k < w.length; ++k) {
    if (text[k] != w.at[k]) {
      return false;
    }
  }
  return text[k] == '\0';
}

constexpr bool HasWord(const char *list, Word w) {
  for (int i = 0; NthWord(list, i).length != 0; ++i) {
    if (SameWord(NthWord(list, i), w)) {
      return true;
    }
  }
  return false;
}

// The printf conversions of `text`, "%%" left out.
constexpr int CountConversions(const char *text) {
  int n = 0;
  for (int i = 0; text[i] != '\0'; ++i) {
    if (text[i] == '%') {
      if (text[i + 1] == '%') {
        ++i;
      } else {
        ++n;
      }
    }
  }
  return n;
}

// A Prometheus label name that the forwarder does not set itself.
constexpr bool GoodLabel(Word w) {
  for (const char *reserved : {"alertname", "host", "instance", "class", "severity"}) {
    if (SameWordAsText(w, reserved)) {
      return false;
    }
  }
  for (int k = 0; k < w.length; ++k) {
    char c = w.at[k];
    bool letter = (c >= 'a' && c <= 'z') || c == '_';
    if (!letter && !(k > 0 && c >= '0' && c <= '9')) {
      return false;
    }
  }
  return w.length > 0;
}

constexpr int FindRow(Word id) {
  for (size_t i = 0; i < kTevdNumEvents; ++i) {
    if (SameWordAsText(id, kTevdEvents[i].id)) {
      return static_cast<int>(i);
    }
  }
  return -1;
}

constexpr bool NamedByAClear(const char *id) {
  for (const TevdEventInfo &ev : kTevdEvents) {
    for (int i = 0; NthWord(ev.clearedBy, i).length != 0; ++i) {
      if (SameWordAsText(NthWord(ev.clearedBy, i), id)) {
        return true;
      }
    }
  }
  return false;
}

constexpr bool LabelsFit(const TevdEventInfo &ev) {
  const int n = CountWords(ev.labels);
  if (n != CountConversions(ev.text)) {
    return false;
  }
  for (int i = 0; i < n; ++i) {
    Word w = NthWord(ev.labels, i);
    if (!GoodLabel(w)) {
      return false;
    }
    for (int j = 0; j < i; ++j) {
      if (SameWord(w, NthWord(ev.labels, j))) {
        return false;
      }
    }
  }
  for (int i = 0; NthWord(ev.object, i).length != 0; ++i) {
    if (!HasWord(ev.labels, NthWord(ev.object, i))) {
      return false;
    }
  }
  return true;
}

// Every clearing event exists, is another row, and carries the object's
// labels, so the forwarder can compare them.
constexpr bool ResolutionFits(const TevdEventInfo &ev) {
  const bool clearClass = StartsWith(ev.id, "kos.clear.");
  switch (ev.resolution) {
    case TevdResolution::ClearedBy: {
      if (clearClass || CountWords(ev.clearedBy) == 0) {
        return false;
      }
      for (int i = 0; NthWord(ev.clearedBy, i).length != 0; ++i) {
        int r = FindRow(NthWord(ev.clearedBy, i));
        if (r < 0 || &kTevdEvents[r] == &ev) {
          return false;
        }
        for (int k = 0; NthWord(ev.object, k).length != 0; ++k) {
          if (!HasWord(kTevdEvents[r].labels, NthWord(ev.object, k))) {
            return false;
          }
        }
      }
      return true;
    }
    case TevdResolution::Lifetime: return !clearClass && ev.lifetimeSec > 0;
    case TevdResolution::OneShot: return !clearClass;
    // A recovery of the problem or audit class that no row names would
    // silently vanish from the forwarder.
    case TevdResolution::Recovery: return clearClass || NamedByAClear(ev.id);
  }
  return false;
}

constexpr bool RowFits(size_t i) {
  const TevdEventInfo &ev = kTevdEvents[i];
  const bool classOk = StartsWith(ev.id, "kos.problem.") || StartsWith(ev.id, "kos.audit.") ||
                       StartsWith(ev.id, "kos.clear.");
  // In identifier order, which also makes identifiers unique.
  const bool ordered = i == 0 || Compare(kTevdEvents[i - 1].id, ev.id) < 0;
  return classOk && ordered && LabelsFit(ev) && ResolutionFits(ev) && ev.summary[0] != '\0' &&
         ev.note[0] != '\0';
}

constexpr int FirstBadRow() {
  for (size_t i = 0; i < kTevdNumEvents; ++i) {
    if (!RowFits(i)) {
      return static_cast<int>(i);
    }
  }
  return -1;
}

static_assert(FirstBadRow() == -1,
              "a catalogue row breaks a rule of tevdEvents.def (see the index in the note)");

}  // namespace

const TevdEventInfo *TevdEvents_Find(const char *id) {
  const TevdEventInfo *end = kTevdEvents + kTevdNumEvents;
  const TevdEventInfo *it = std::lower_bound(
      kTevdEvents, end, id,
      [](const TevdEventInfo &ev, const char *key) { return strcmp(ev.id, key) < 0; });
  return it != end && strcmp(it->id, id) == 0 ? it : nullptr;
}

const char *TevdEvents_Class(const TevdEventInfo &ev) {
  return StartsWith(ev.id, "kos.problem.") ? "problem"
         : StartsWith(ev.id, "kos.audit.") ? "audit"
                                           : "clear";
}

const char *TevdEvents_SeverityName(TevdSeverity s) {
  switch (s) {
    case TevdSeverity::Critical: return "critical";
    case TevdSeverity::Warning: return "warning";
    case TevdSeverity::Info: return "info";
  }
  return "?";
}

const char *TevdEvents_ResolutionName(TevdResolution r) {
  switch (r) {
    case TevdResolution::ClearedBy: return "cleared";
    case TevdResolution::Lifetime: return "lifetime";
    case TevdResolution::OneShot: return "one-shot";
    case TevdResolution::Recovery: return "recovery";
  }
  return "?";
}

std::vector<std::string> TevdEvents_Words(const char *list) {
  std::vector<std::string> out;
  for (int i = 0;; ++i) {
    Word w = NthWord(list, i);
    if (w.length == 0) {
      return out;
    }
    out.emplace_back(w.at, static_cast<size_t>(w.length));
  }
}
