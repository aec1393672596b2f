// The companions' log line for the platform's own diagnostics (a skipped
// file): "PROGRAM: TEXT" on standard error, the platform's trailing newline
// dropped, at most 2047 bytes of text.
#pragma once

#include <cstdarg>

void ToolLog_Diagnostic(const char *program, const char *format, va_list ap)
    __attribute__((format(printf, 2, 0)));
