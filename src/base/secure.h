// Bounded memory and string functions (destination, destination size, source,
// count). They return 0 on success and an error number otherwise; on an error
// the destination, when it has room, is left as an empty text or cleared.
// Internal to the library: never exported.
#pragma once

#include <stdarg.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef int errno_t;

#define VEK_SECURE_EINVAL 22
#define VEK_SECURE_ERANGE 34
#define VEK_SECURE_EOVERLAP 54

errno_t memcpy_s(void *dest, size_t destMax, const void *src, size_t count);
errno_t memset_s(void *dest, size_t destMax, int c, size_t count);
errno_t memmove_s(void *dest, size_t destMax, const void *src, size_t count);
errno_t strcpy_s(char *dest, size_t destMax, const char *src);
errno_t strncpy_s(char *dest, size_t destMax, const char *src, size_t count);
errno_t strcat_s(char *dest, size_t destMax, const char *src);
// Number of characters written, or -1 (dest emptied) when the text does not fit.
int sprintf_s(char *dest, size_t destMax, const char *format, ...)
    __attribute__((format(printf, 3, 4)));
// At most `count` characters; -1 when truncated or on error.
int snprintf_s(char *dest, size_t destMax, size_t count, const char *format, ...)
    __attribute__((format(printf, 4, 5)));
int vsprintf_s(char *dest, size_t destMax, const char *format, va_list ap)
    __attribute__((format(printf, 3, 0)));
// Tokeniser with explicit context: strtok_s(str, delimiters, &context).
char *strtok_s(char *str, const char *delim, char **context);

#ifdef __cplusplus
}
#endif
