// One translation engine for the table-driven correlators (net, user-level,
// SCSI, all-paths-down, iSCSI).
//
// DESIGN: a correlator's table is a constexpr array of TevdRow in registration
// order; its handler map is built from the rows. A row with a template is a
// translation: it names the observation's argument kinds by position, how
// they are read, which argument fills each of the template's conversions, the
// template ("@&!*@*@(" event id ")" text) and the lines logged when a read
// fails. A row without a template only registers its handler, which posts its
// own events. The templates reach TevdQprob_Post as data, out of the printf
// check's sight, so TevdTranslate_FirstBadRow runs at compile time instead
// (each table's file asserts it is -1): every conversion must fit the kind of
// the argument that fills it, the event identifier must carry the row's
// class, and a failure line may only take (identifier, error) or (error).
// At run time each value is passed as the C type its conversion reads, so the
// message and its bytes are those of a literal TevdQprob_Post call.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tevdCorrelator.h"
#include "tevdQprob.h"

constexpr int TEVD_TRANSLATE_MAX_ARGS = 4;

// Argument kinds, one letter per observation argument by position:
//   s  string ("%p", Tev_GetStringArg); fills %s
//   d  32-bit integer ("%d", Tev_GetIntArg); fills %d, %x (its unsigned
//      value) or %lu (its unsigned value widened to 64 bits)
//   u  unsigned 32-bit ("%u"); fills %u or %x
//   l  unsigned 64-bit ("%lu"); fills %lu or %ld
//   h  unsigned 32-bit ("%u") sent as text: its low four hexadecimal digits
//      ("%04x" into 5 bytes); fills %s
enum class TevdRead : uint8_t {
  ByIndex,         // Tev_GetStringArg / Tev_GetIntArg from index 0 up (s, d)
  ByIndexDown,     // the same from the highest index down (s, d)
  OneCall,         // one Tev_GetArgs call: "%p", "%d", "%u", "%lu" by kind,
                   // separated by blanks
  OneCallLenient,  // the same call; only a negative status stops the event,
                   // which then carries what was read (null strings, zeros)
};

struct TevdRow {
  const char *tevId;
  TevHandler handler;
  EventClass cls = Problem;
  TevdRead read = TevdRead::ByIndex;
  const char *kinds = "";
  // Digit k: the argument that fills the template's conversion k; "" fills
  // the conversions with the arguments in order.
  const char *order = "";
  // "": the handler posts its own events. (Not null: whether a catalogue
  // array's address is null is no constant where null checks are kept, as
  // in the sanitizer builds, so the check below could not run there.)
  const char *templ = "";
  // [0]: logged when a one-call read fails, or argument 0 of a by-index read;
  // [i]: argument i's line (falls back to [0]). Each takes (identifier,
  // error) or (error). All null: a failed read is silent.
  const char *failLog[TEVD_TRANSLATE_MAX_ARGS] = {};
};

// A table as the run-time functions take it.
struct TevdRows {
  const TevdRow *rows;
  size_t count;
  template <size_t N>
  constexpr TevdRows(const TevdRow (&r)[N]) : rows(r), count(N) {}  // NOLINT: implicit on purpose
};

// Every row's identifier with its handler.
TevHandlerMap TevdTranslate_BuildMap(TevdRows rows);
// For a handler that serves several observations: finds the row of `tev`'s
// identifier among `handler`'s own translations (a longer identifier with the
// same prefix matches nothing), reads and posts. A null identifier returns -1,
// logging "FAIL: Received NULL tevID\n" when `logNullId`; an identifier
// without a row returns 0 and posts nothing.
int TevdTranslate_ById(Tev *tev, TevdRows rows, TevHandler handler, bool logNullId);
// For a handler that serves one observation: translates with its only row and
// never reads the identifier.
int TevdTranslate_Only(Tev *tev, TevdRows rows, TevHandler handler);
// Reads `row`'s arguments and posts its event: 0, or the read's error after
// logging the row's failure line (`id` fills its %s).
int TevdTranslate_Row(Tev *tev, const TevdRow &row, const char *id);

// ---- compile-time checks ------------------------------------------------------
namespace tevd_translate {

constexpr bool StartsWith(const char *s, const char *prefix) {
  for (; *prefix != '\0'; ++s, ++prefix) {
    if (*s != *prefix) {
      return false;
    }
  }
  return true;
}

constexpr int Length(const char *s) {
  int n = 0;
  while (s[n] != '\0') {
    ++n;
  }
  return n;
}

// The conversion at t[*pos] (just after a '%'), advancing *pos past it:
// 's', 'd', 'u', 'x', 'D' for %ld, 'U' for %lu, '%' for "%%", '?' otherwise.
constexpr char Conversion(const char *t, int *pos) {
  char c = t[*pos];
  if (c == 's' || c == 'd' || c == 'u' || c == 'x' || c == '%') {
    ++*pos;
    return c;
  }
  if (c == 'l' && (t[*pos + 1] == 'd' || t[*pos + 1] == 'u')) {
    *pos += 2;
    return t[*pos - 1] == 'd' ? 'D' : 'U';
  }
  return '?';
}

// The conversions of `text` in order, "%%" left out, into out (up to `max`);
// their number, or -1 for an unknown conversion or too many.
constexpr int Conversions(const char *text, char *out, int max) {
  int n = 0;
  for (int i = 0; text[i] != '\0';) {
    if (text[i++] != '%') {
      continue;
    }
    char c = Conversion(text, &i);
    if (c == '%') {
      continue;
    }
    if (c == '?' || n == max) {
      return -1;
    }
    out[n++] = c;
  }
  return n;
}

constexpr bool Fits(char kind, char conversion) {
  switch (kind) {
    case 's':
    case 'h': return conversion == 's';
    case 'd': return conversion == 'd' || conversion == 'x' || conversion == 'U';
    case 'u': return conversion == 'u' || conversion == 'x';
    case 'l': return conversion == 'U' || conversion == 'D';
    default: return false;
  }
}

constexpr const char *EventPrefix(EventClass cls) {
  return cls == Problem ? TEVD_TEMPLATE_MARKER "kos.problem."
         : cls == Audit ? TEVD_TEMPLATE_MARKER "kos.audit."
         : cls == Clear ? TEVD_TEMPLATE_MARKER "kos.clear."
                        : nullptr;
}

constexpr bool FailLogFits(const char *line) {
  if (line == nullptr) {
    return true;
  }
  char c[3] = {};
  int n = Conversions(line, c, 2);
  return (n == 1 && c[0] == 'd') || (n == 2 && c[0] == 's' && c[1] == 'd');
}

constexpr bool RowFits(const TevdRow &row) {
  // (The handler is not compared with null: a function's address is not a
  // constant in every build, sanitizer builds included.)
  if (row.tevId == nullptr) {
    return false;
  }
  if (row.templ[0] == '\0') {
    return true;
  }
  const int numKinds = Length(row.kinds);
  const bool byIndex = row.read == TevdRead::ByIndex || row.read == TevdRead::ByIndexDown;
  if (numKinds > TEVD_TRANSLATE_MAX_ARGS) {
    return false;
  }
  for (int i = 0; i < numKinds; ++i) {
    if (byIndex && row.kinds[i] != 's' && row.kinds[i] != 'd') {
      return false;
    }
  }
  const char *prefix = EventPrefix(row.cls);
  if (prefix == nullptr || !StartsWith(row.templ, prefix)) {
    return false;
  }
  const char *text = row.templ;
  while (*text != '\0' && *text != ')') {
    ++text;
  }
  char conv[TEVD_TRANSLATE_MAX_ARGS + 1] = {};
  const int numConv = Conversions(text, conv, TEVD_TRANSLATE_MAX_ARGS);
  const int numOrder = Length(row.order);
  if (numConv < 0 || (numOrder != 0 && numOrder != numConv) ||
      (numOrder == 0 && numConv != numKinds)) {
    return false;
  }
  for (int k = 0; k < numConv; ++k) {
    const int arg = numOrder == 0 ? k : row.order[k] - '0';
    if (arg < 0 || arg >= numKinds || !Fits(row.kinds[arg], conv[k])) {
      return false;
    }
  }
  for (const char *line : row.failLog) {
    if (!FailLogFits(line)) {
      return false;
    }
  }
  return true;
}

}  // namespace tevd_translate

// Index of the first row that does not fit, or -1. Tables assert -1, so a
// wrong row fails the build and the compiler's note shows its index.
template <size_t N>
constexpr int TevdTranslate_FirstBadRow(const TevdRow (&rows)[N]) {
  for (size_t i = 0; i < N; ++i) {
    if (!tevd_translate::RowFits(rows[i])) {
      return static_cast<int>(i);
    }
  }
  return -1;
}
