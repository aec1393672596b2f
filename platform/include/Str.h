// Support routines: string formatting and thread names.
#pragma once

#include <cstdarg>
#include <cstddef>

#define TEV_PRINTF(f, a) __attribute__((format(printf, f, a)))

char *Str_Asprintf(size_t *length, const char *format, ...) TEV_PRINTF(2, 3);
char *Str_Vasprintf(size_t *length, const char *format, va_list ap) TEV_PRINTF(2, 0);
int Str_Sprintf(char *buf, size_t size, const char *format, ...) TEV_PRINTF(3, 4);
// Bounded copy that aborts when `src` does not fit.
char *Str_Strcpy(char *dst, const char *src, size_t size);

// Full thread names, longer than the kernel's 15 characters.
void VThreadBase_SetName(const char *name);
const char *VThreadBase_CurName(void);
