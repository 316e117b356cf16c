/* Bounded memory, string and formatting functions.
 *
 * Every function takes the destination and its capacity (destMax) first and never
 * writes past that capacity. The copy and fill functions answer with a code
 * (BOUNDED_OK on success); the formatters answer with the number of characters
 * written or -1.
 */
#ifndef BOUNDED_BOUNDED_H
#define BOUNDED_BOUNDED_H

#include <stdarg.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#define BOUNDED_OK 0
#define BOUNDED_EINVAL 22          /* dest is null: untouched */
#define BOUNDED_ERANGE 34          /* destMax is 0 or above BOUNDED_MAX_LEN: untouched */
#define BOUNDED_EINVAL_RESET 150   /* src is null or dest unterminated: reset */
#define BOUNDED_ERANGE_RESET 162   /* count or result does not fit: reset */
#define BOUNDED_EOVERLAP_RESET 182 /* source and destination overlap: reset */

#define BOUNDED_MAX_LEN 0x7FFFFFFFUL

int memcpy_s(void* dest, size_t destMax, const void* src, size_t count);
int memmove_s(void* dest, size_t destMax, const void* src, size_t count);
int memset_s(void* dest, size_t destMax, int c, size_t count);
int strncpy_s(char* dest, size_t destMax, const char* src, size_t count);
int strncat_s(char* dest, size_t destMax, const char* src, size_t count);
int strcpy_s(char* dest, size_t destMax, const char* src);

int snprintf_s(char* dest, size_t destMax, size_t count, const char* format, ...)
    __attribute__((format(printf, 4, 5)));
int vsnprintf_s(char* dest, size_t destMax, size_t count, const char* format, va_list argList);

#ifdef __cplusplus
}
#endif

#endif
