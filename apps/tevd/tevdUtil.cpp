// The daemon's own argument-format reader. Correlators describe an
// observation's arguments by the printf format of its message; this reduces
// that format to the bare conversion list that Tev_GetArgsVA reads, so that
// text, flags, widths and precisions never reach the library.
#include "tevdUtil.h"

#include <cstdarg>
#include <cstddef>
#include <cstring>

namespace {

enum class State { Text, Percent, Width, Precision, Length };

// The compact list being written; always leaves room for the terminator.
struct Writer {
  char *out;
  size_t size;
  size_t n;
  bool Put(char c) {
    if (n + 1 >= size) {
      return false;
    }
    out[n++] = c;
    return true;
  }
};

// One character inside a conversion (*p, which may take the next one too);
// false when the format cannot be reduced.
bool ConversionChar(State *state, const char **p, Writer *w) {
  const char c = **p;
  const State st = *state;
  if (st == State::Percent && strchr(" #+-0", c) != nullptr) {
    return true;
  }
  if ((st == State::Percent || st == State::Width) && c >= '0' && c <= '9') {
    *state = State::Width;
    return true;
  }
  if ((st == State::Percent || st == State::Width) && c == '.') {
    *state = State::Precision;
    return true;
  }
  if (st == State::Precision && c >= '0' && c <= '9') {
    return true;
  }
  if (st != State::Length && (c == 'h' || c == 'l' || c == 'L')) {
    if (!w->Put('%') || !w->Put(c)) {
      return false;
    }
    if ((c == 'h' || c == 'l') && (*p)[1] == c) {
      if (!w->Put(c)) {
        return false;
      }
      ++*p;
    }
    *state = State::Length;
    return true;
  }
  if (strchr("cdiouxXs", c) == nullptr || c == '\0') {
    return false;
  }
  if (st != State::Length && !w->Put('%')) {
    return false;
  }
  if (!w->Put(c == 's' ? 'p' : (c == 'X' ? 'x' : c))) {
    return false;
  }
  *state = State::Text;
  return true;
}

}  // namespace

int TevdUtil_CompactFormat(const char *format, char *out, size_t outSize) {
  // Even an empty list needs room for its terminator.
  if (format == nullptr || out == nullptr || outSize == 0) {
    return 22;
  }
  Writer w{out, outSize, 0};
  State state = State::Text;
  for (const char *p = format; *p != '\0'; ++p) {
    if (state != State::Text) {
      if (!ConversionChar(&state, &p, &w)) {
        return 22;
      }
    } else if (*p == '%') {
      if (p[1] == '%') {
        ++p;  // a literal percent takes no argument
      } else {
        state = State::Percent;
      }
    }
  }
  if (state != State::Text) {
    return 22;  // the format ends inside a conversion
  }
  out[w.n] = '\0';
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
