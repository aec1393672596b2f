// Where each fatal internal error says it happened: "NOT_REACHED SOURCE:LINE"
// or "MEM_ALLOC SOURCE:LINE" on standard error and in the log. Operators and
// tests search for these tags, so each is a name fixed once, not the line the
// check sits on today: it never moves when the file is edited, and a new
// check gets a new entry here rather than __LINE__. docs/errors.md lists them.
#pragma once

#include "tevdLog.h"

struct TevdPanicTag {
  const char *source;
  int line;
};

namespace tevd_tag {
// An event class other than problem, audit or clear was posted.
constexpr TevdPanicTag kQprobUnknownClass{"apps/tevd/tevdQprob", 608};
// The identifier cut out of a template could not be copied.
constexpr TevdPanicTag kQprobSuffixNoMemory{"apps/tevd/tevdQprob", 619};
// A file-system volume or NFS handler got an identifier its table lacks.
constexpr TevdPanicTag kKfsVolumeUnknownId{"apps/tevd/tevdKfsCorrelator", 142};
constexpr TevdPanicTag kKfsNfsUnknownId{"apps/tevd/tevdKfsCorrelator", 646};
// The page-retirement settings read at start, and the firmware-logging option
// read per request, are absent from the host model.
constexpr TevdPanicTag kPageRetireNoThreshold{"apps/tevd/tevdPageRetireCorrelator", 178};
constexpr TevdPanicTag kPageRetireNoInterval{"apps/tevd/tevdPageRetireCorrelator", 189};
constexpr TevdPanicTag kPageRetireNoApeiOption{"apps/tevd/tevdPageRetireCorrelator", 126};
// A device's path-redundancy status outside 0..3 on a path coming up.
constexpr TevdPanicTag kScsiUnknownPathStatus{"apps/tevd/tevdScsiCorrelator", 1018};
// A translation handler that no row of its table names.
constexpr TevdPanicTag kTranslateNoRow{"apps/tevd/tevdTranslate", 213};
}  // namespace tevd_tag

[[noreturn]] inline void TevdNotReached(const TevdPanicTag &tag) {
  TevdNotReached(tag.source, tag.line);
}
[[noreturn]] inline void TevdNoMemory(const TevdPanicTag &tag) {
  Panic("MEM_ALLOC %s:%d\n", tag.source, tag.line);
}
