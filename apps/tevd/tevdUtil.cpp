// The daemon's own argument-format reader. Correlators describe an
// observation's arguments by the printf format of its message; this reduces
// that format to the bare conversion list that Tev_GetArgsVA reads, so that
// text, flags, widths and precisions never reach the library.
#include "tevdUtil.h"

#include <cstdarg>
#include <cstring>

#include "tevdLog.h"

namespace {
enum class State { Text, Percent, Width, Precision, Length };
}

int TevdUtil_CompactFormat(const char *format, char *out, size_t outSize) {
  // Even an empty list needs room for its terminator.
  if (format == nullptr || out == nullptr || outSize == 0) {
    return 22;
  }
  size_t n = 0;
  auto put = [&](char c) -> bool {
    if (n + 1 >= outSize) {
      return false;
    }
    out[n++] = c;
    return true;
  };
  State state = State::Text;
  for (const char *p = format; *p != '\0'; ++p) {
    char c = *p;
    switch (state) {
      case State::Text:
        if (c == '%') {
          if (p[1] == '%') {
            ++p;  // a literal percent takes no argument
          } else {
            state = State::Percent;
          }
        }
        break;
      case State::Percent:
      case State::Width:
      case State::Precision:
      case State::Length:
        if (state == State::Percent && strchr(" #+-0", c) != nullptr) {
          break;
        }
        if ((state == State::Percent || state == State::Width) && c >= '0' && c <= '9') {
          state = State::Width;
          break;
        }
        if ((state == State::Percent || state == State::Width) && c == '.') {
          state = State::Precision;
          break;
        }
        if (state == State::Precision && c >= '0' && c <= '9') {
          break;
        }
        if (state != State::Length && (c == 'h' || c == 'l' || c == 'L')) {
          if (!put('%') || !put(c)) {
            return 22;
          }
          if ((c == 'h' || c == 'l') && p[1] == c) {
            if (!put(c)) {
              return 22;
            }
            ++p;
          }
          state = State::Length;
          break;
        }
        if (strchr("cdiouxXs", c) == nullptr || c == '\0') {
          return 22;
        }
        if (state != State::Length && !put('%')) {
          return 22;
        }
        if (!put(c == 's' ? 'p' : (c == 'X' ? 'x' : c))) {
          return 22;
        }
        state = State::Text;
        break;
      default:
        TevdNotReached("apps/tevd/tevdUtil", 260);
    }
  }
  if (state != State::Text) {
    return 22;  // the format ends inside a conversion
  }
  out[n] = '\0';
  return 0;
}

int TevdUtil_GetArgs(Tev *tev, const char *format, ...) {
  char compact[256];
  if (format == nullptr || TevdUtil_CompactFormat(format, compact, sizeof compact) != 0) {
    return 22;
  }
  va_list ap;
  va_start(ap, format);
  int rc = Tev_GetArgsVA(tev, 0, compact, ap);
  va_end(ap);
  return rc;
}

int TevdUtil_GetNameArg(Tev *tev, int index, const char **name) {
  int rc = Tev_GetStringArg(tev, index, name);
  if (rc == 0 && *name == nullptr) {
    return 22;
  }
  return rc;
}
