// The event catalogue as C++: each row of tevdEvents.def as a template the
// daemon posts (tevd_ev::Name, a constexpr array, so TevdQprob_Post's printf
// check and the translation tables' compile-time check still see the text)
// and as a TevdEventInfo in kTevdEvents for the tools. No dependency on the
// daemon: tevfwd and tevctl include it too.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// Every template opens with this marker, then the event identifier and ")".
// Nothing compares it: posting skips its length (TevdQprob_Post).
#define TEVD_TEMPLATE_MARKER "@&!*@*@("

namespace tevd_ev {
#define TEVD_EVENT(name, id, text, ...) \
  inline constexpr char name[] = TEVD_TEMPLATE_MARKER id ")" text;
#include "tevdEvents.def"
#undef TEVD_EVENT
}  // namespace tevd_ev

enum class TevdSeverity : uint8_t { Critical, Warning, Info };

enum class TevdResolution : uint8_t {
  ClearedBy,  // firing until an event of clearedBy arrives about its object
  Lifetime,   // ends lifetimeSec after it was raised
  OneShot,    // a notice about a moment
  Recovery,   // ends other events' alerts; never an alert itself
};

struct TevdEventInfo {
  const char *name;    // "ProblemNetRedundancyLost"
  const char *id;      // "kos.problem.net.redundancy.lost"
  const char *text;    // the printf text of the log line
  const char *templ;   // "@&!*@*@(" id ")" text
  const char *labels;  // one name per conversion, blank-separated
  const char *object;  // the labels naming what it is about, blank-separated
  TevdResolution resolution;
  const char *clearedBy;  // blank-separated identifiers (ClearedBy)
  uint32_t lifetimeSec;   // (Lifetime)
  TevdSeverity severity;
  const char *summary;
  const char *note;
};

#define CLEARED_BY(ids) TevdResolution::ClearedBy, ids, 0
#define LIFETIME(seconds) TevdResolution::Lifetime, "", seconds
#define ONE_SHOT TevdResolution::OneShot, "", 0
#define RECOVERY TevdResolution::Recovery, "", 0
inline constexpr TevdEventInfo kTevdEvents[] = {
#define TEVD_EVENT(name, id, text, labels, object, resolution, severity, summary, note)   \
  {#name,   id,  text, tevd_ev::name, labels, object, resolution, TevdSeverity::severity, \
   summary, note},
#include "tevdEvents.def"
#undef TEVD_EVENT
};
#undef CLEARED_BY
#undef LIFETIME
#undef ONE_SHOT
#undef RECOVERY

inline constexpr size_t kTevdNumEvents = sizeof kTevdEvents / sizeof kTevdEvents[0];

// The row of `id`, or null.
const TevdEventInfo *TevdEvents_Find(const char *id);
// "problem", "audit" or "clear": the identifier's second word.
const char *TevdEvents_Class(const TevdEventInfo &ev);
const char *TevdEvents_SeverityName(TevdSeverity s);
const char *TevdEvents_ResolutionName(TevdResolution r);
// The blank-separated words of `list` (labels, object, clearedBy).
std::vector<std::string> TevdEvents_Words(const char *list);
