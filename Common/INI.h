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

extern char g_filename[1024]; /* the current file */
extern char g_linetext[1024]; /* the last line read, where every answer points */

/* Makes path the current file when it opens as a regular file or a folder; false, logged, otherwise. */
bool SetIniFileName(const char* path);
/* The value of key in [section], trimmed, or defaultValue when the file, section or key is
 * missing (each logged). */
const char* ReadString(const char* section, const char* key, const char* defaultValue);
/* The value of key in [section] as it stands, or defaultValue; only an unopened file is logged. */
const char* ReadStringEx(const char* section, const char* key, const char* defaultValue);
/* ReadString with the empty text for default; null for a null argument. */
const char* GetInitKey(const char* section, const char* key);

/* Reads file up to the first line holding "[section]"; false at the end of the file. */
bool SectionExists(FILE* file, const char* section);
/* Whether line holds "[section]", the pattern cut to 127 characters. */
bool SectionExistsInLine(const char* line, const char* section);
/* Reads file on up to the line of key, left in g_linetext; false at a section line or the end. */
bool KeyExists(FILE* file, const char* key);
/* Whether line, trimmed in place, starts with key followed by blanks and "=" or its end. */
bool KeyExistsInLine(char* line, const char* key);
/* The next non-empty line of file in g_linetext, CR and LF dropped, cut to 1023 characters;
 * null at the end of the file. */
char* ReadLine(FILE* file);
/* Cuts the blanks off text's end in place and answers its first character that is no blank. */
char* Trim(char* text);
/* What follows the first "=" of line, or the empty text at its end when it has none. */
char* GetKeyValue(char* line);

#ifdef __cplusplus
}
#endif

#endif
