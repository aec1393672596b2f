// The translation engine's run-time half: read a row's arguments, order them,
// and post the template with each value as the C type of its conversion.
#include "tevdTranslate.h"

#include <cstdio>
#include <cstring>

#include "tevdLog.h"
#include "tevdPanicTags.h"

namespace {

// One argument as read, in the storage its kind reads into.
union RawArg {
  const char *s;
  int32_t d;
  uint32_t u;
  unsigned long l;
};

// One value as posted: 'p' pointer, 'w' 32-bit, 'q' 64-bit.
struct PostArg {
  char size = 'w';
  const char *p = nullptr;
  uint32_t w = 0;
  uint64_t q = 0;
};

void LogFailure(const char *line, const char *id, int rc) {
  if (line == nullptr) {
    return;
  }
  // The compile-time check allows exactly (id, error) or (error).
  if (strstr(line, "%s") != nullptr) {
    TevdLog(line, id != nullptr ? id : "(null)", rc);
  } else {
    TevdLog(line, rc);
  }
}

const char *FailLine(const TevdRow &row, int index) {
  return row.failLog[index] != nullptr ? row.failLog[index] : row.failLog[0];
}

// One Tev_GetArgs call with the format the kinds spell.
int ReadOneCall(Tev *tev, const char *kinds, int n, RawArg *raw) {
  char format[4 * TEVD_TRANSLATE_MAX_ARGS + 1] = "";
  void *out[TEVD_TRANSLATE_MAX_ARGS] = {};
  size_t used = 0;
  for (int i = 0; i < n; ++i) {
    const char *conv = kinds[i] == 's'   ? "%p"
                       : kinds[i] == 'd' ? "%d"
                       : kinds[i] == 'l' ? "%lu"
                                         : "%u";  // u, h
    used += static_cast<size_t>(
        snprintf(format + used, sizeof format - used, i == 0 ? "%s" : " %s", conv));
    out[i] = &raw[i];
  }
  return Tev_GetArgs(tev, 0, format, out[0], out[1], out[2], out[3]);
}

int ReadByIndex(Tev *tev, const char *kinds, int index, RawArg *raw) {
  return kinds[index] == 's' ? Tev_GetStringArg(tev, index, &raw[index].s)
                             : Tev_GetIntArg(tev, index, &raw[index].d);
}

// Reads the row's arguments; 0, or the error (its line logged).
int ReadArgs(Tev *tev, const TevdRow &row, const char *id, int n, RawArg *raw) {
  int rc = 0;
  switch (row.read) {
    case TevdRead::OneCall:
    case TevdRead::OneCallLenient:
      rc = ReadOneCall(tev, row.kinds, n, raw);
      if (rc == 0 || (row.read == TevdRead::OneCallLenient && rc > 0)) {
        return 0;
      }
      LogFailure(FailLine(row, 0), id, rc);
      return rc;
    case TevdRead::ByIndex:
      for (int i = 0; i < n; ++i) {
        if ((rc = ReadByIndex(tev, row.kinds, i, raw)) != 0) {
          LogFailure(FailLine(row, i), id, rc);
          return rc;
        }
      }
      return 0;
    case TevdRead::ByIndexDown:
      for (int i = n - 1; i >= 0; --i) {
        if ((rc = ReadByIndex(tev, row.kinds, i, raw)) != 0) {
          LogFailure(FailLine(row, i), id, rc);
          return rc;
        }
      }
      return 0;
  }
  return 0;
}

// Calls TevdQprob_Post with the values as the C types their conversions read.
template <typename... Values>
void Post(EventClass cls, const char *templ, const PostArg *args, int n, Values... values) {
  constexpr int k = static_cast<int>(sizeof...(Values));
  if (k == n) {
#pragma GCC diagnostic push
    // A row without conversions posts its template alone; every template was
    // checked against its arguments at compile time.
#pragma GCC diagnostic ignored "-Wformat-security"
    TevdQprob_Post(0, cls, templ, values...);
#pragma GCC diagnostic pop
    return;
  }
  if constexpr (k < TEVD_TRANSLATE_MAX_ARGS) {
    const PostArg &a = args[k];
    if (a.size == 'p') {
      Post(cls, templ, args, n, values..., a.p);
    } else if (a.size == 'w') {
      Post(cls, templ, args, n, values..., a.w);
    } else {
      Post(cls, templ, args, n, values..., a.q);
    }
  }
}

}  // namespace

int TevdTranslate_Row(Tev *tev, const TevdRow &row, const char *id) {
  const int n = static_cast<int>(strlen(row.kinds));
  RawArg raw[TEVD_TRANSLATE_MAX_ARGS];
  for (RawArg &r : raw) {
    r.l = 0;
  }
  for (int i = 0; i < n; ++i) {
    if (row.kinds[i] == 's') {
      raw[i].s = nullptr;
    }
  }
  int rc = ReadArgs(tev, row, id, n, raw);
  if (rc != 0) {
    return rc;
  }
  PostArg args[TEVD_TRANSLATE_MAX_ARGS];
  char hexText[TEVD_TRANSLATE_MAX_ARGS][5];
  // The conversions after the event identifier, as the compile-time check
  // counted them; each value takes the C type its conversion reads.
  const char *text = strchr(row.templ, ')');
  int k = 0;
  for (const char *p = text != nullptr ? text : row.templ;
       *p != '\0' && k < TEVD_TRANSLATE_MAX_ARGS; ++p) {
    if (*p != '%') {
      continue;
    }
    if (*++p == '%') {
      continue;
    }
    const int index = row.order[0] == '\0' ? k : row.order[k] - '0';
    const RawArg &r = raw[index];
    PostArg &a = args[k];
    switch (row.kinds[index]) {
      case 's':
        a.size = 'p';
        a.p = r.s;
        break;
      case 'h':
        // Status class and detail bytes: four digits; a larger value is cut
        // to its first four by the buffer.
        snprintf(hexText[k], sizeof hexText[k], "%04x", r.u);
        a.size = 'p';
        a.p = hexText[k];
        break;
      case 'd':
        if (*p == 'l') {  // %lu: the unsigned value, widened
          a.size = 'q';
          a.q = static_cast<uint32_t>(r.d);
        } else {
          a.w = static_cast<uint32_t>(r.d);
        }
        break;
      case 'u': a.w = r.u; break;
      default:  // 'l'
        a.size = 'q';
        a.q = r.l;
        break;
    }
    ++k;
  }
  Post(row.cls, row.templ, args, k);
  return 0;
}

int TevdTranslate_ById(Tev *tev, TevdRows rows, TevHandler handler, bool logNullId) {
  const char *id = nullptr;
  if (Tev_GetID(tev, &id) != 0 || id == nullptr) {
    if (logNullId) {
      TevdLog("FAIL: Received NULL tevID\n");
    }
    return -1;
  }
  for (size_t i = 0; i < rows.count; ++i) {
    const TevdRow &row = rows.rows[i];
    if (row.handler == handler && row.templ[0] != '\0' && strcmp(row.tevId, id) == 0) {
      return TevdTranslate_Row(tev, row, id);
    }
  }
  return 0;
}

int TevdTranslate_Only(Tev *tev, TevdRows rows, TevHandler handler) {
  for (size_t i = 0; i < rows.count; ++i) {
    const TevdRow &row = rows.rows[i];
    if (row.handler == handler && row.templ[0] != '\0') {
      return TevdTranslate_Row(tev, row, row.tevId);
    }
  }
  TevdNotReached(tevd_tag::kTranslateNoRow);
}

TevHandlerMap TevdTranslate_BuildMap(TevdRows rows) {
  TevHandlerMap map;
  for (size_t i = 0; i < rows.count; ++i) {
    map.insert({rows.rows[i].tevId, rows.rows[i].handler});
  }
  return map;
}
