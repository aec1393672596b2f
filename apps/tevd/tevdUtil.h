// The daemon's own argument-format reader: reads a Tev's arguments by a
// printf-style format (the observation's message format), turning it into
// the compact scanf list that Tev_GetArgsVA takes. %s comes back as a
// `const char *`. Returns 0, or 22 for a format it does not accept.
#pragma once

#include "TevLib.h"

int TevdUtil_GetArgs(Tev *tev, const char *format, ...);
// The compact list for `format` (exposed for tests); 0 or 22.
int TevdUtil_CompactFormat(const char *format, char *out, size_t outSize);

// A string argument that names something whose state is kept or looked up
// (a NIC, port group, path or device). A null string names nothing, so it
// fails like a missing argument: 22, and *name is left null.
int TevdUtil_GetNameArg(Tev *tev, int index, const char **name);
