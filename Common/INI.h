/* Reader of the INI-style "SysConfig.dat" files. One current file at a time;
 * every lookup reopens and rescans it, and answers with a pointer into g_linetext
 * (valid until the next lookup) or the caller's default. */
#ifndef COMMON_INI_H
#define COMMON_INI_H

#include <stdbool.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

extern char g_filename[1024];
extern char g_linetext[1024];

bool SetIniFileName(const char* path);
const char* ReadString(const char* section, const char* key, const char* defaultValue);
const char* ReadStringEx(const char* section, const char* key, const char* defaultValue);
const char* GetInitKey(const char* section, const char* key);

bool SectionExists(FILE* file, const char* section);
bool SectionExistsInLine(const char* line, const char* section);
bool KeyExists(FILE* file, const char* key);
bool KeyExistsInLine(char* line, const char* key);
char* ReadLine(FILE* file);
char* Trim(char* text);
char* GetKeyValue(char* line);

#ifdef __cplusplus
}
#endif

#endif
