// The daemon's own argument-format reader: reads a Tev's arguments by a
// printf-style format (the observation's message format), turning it into
// the compact scanf list that Tev_GetArgsVA takes. %s comes back as a
// `const char *`. Returns 0, or 22 for a format it does not accept.
#pragma once

#include "TevLib.h"

int TevdUtil_GetArgs(Tev *tev, const char *format, ...);
// The compact list for `format` (exposed for tests); 0 or 22.
int TevdUtil_CompactFormat(const char *format, char *out, size_t outSize);
