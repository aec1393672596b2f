#include "ToolLog.h"

#include <cstdio>
#include <cstring>

void ToolLog_Diagnostic(const char *program, const char *format, va_list ap) {
  char line[2048];
  vsnprintf(line, sizeof line, format, ap);
  size_t n = strlen(line);
  if (n > 0 && line[n - 1] == '\n') line[n - 1] = '\0';
  fprintf(stderr, "%s: %s\n", program, line);
}
