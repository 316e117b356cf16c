/* The numbered, time-stamped, append-only diagnostic log. */
#ifndef COMMON_LOG_H
#define COMMON_LOG_H

#include <stdbool.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

extern char g_szlogFileName[1025];
extern bool g_blogSystemInitSuccess;
extern FILE* g_stream;

void InitLogSystem(const char* path);
void CloseLogSystem(void);
/* source: the caller's source file name ("main", "Common/INI"); func: the calling
 * operation's name; format: a format of the bounded formatter. */
void Log(const char* source, const char* func, const char* format, ...);

#ifdef __cplusplus
}
#endif

#endif
