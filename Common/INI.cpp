/* Reader of the INI-style "SysConfig.dat" files.
 *
 * Every lookup opens the current file, scans it from its first byte and closes it;
 * what it finds is left in g_linetext and answered with a pointer into it. */
#include "Common/INI.h"

#include "Common/Log.h"
#include "Common/PlainFile.h"
#include "bounded/bounded.h"

#include <string.h>

char g_filename[1024] = "/Applications/Selvara.app/Contents/Resources/SysConfig.dat";
char g_linetext[1024];

namespace {

constexpr const char* kSource = "Common/INI";
constexpr size_t kLineSize = sizeof g_linetext; // a line holds at most kLineSize - 1 characters
constexpr size_t kPatternSize = 128;

// A pipe or a device "opens" as a file that cannot be opened; a directory opens and
// yields no line.
FILE* OpenConfigFile(const char* path) {
    return OpenPlainFile(path, O_RDONLY, "rb", true);
}

// The one lookup of both readers: the value of key in section of the current file as it
// stands in g_linetext, or null. A file that does not open is logged under func with
// openFailure (its path the one argument); a missing section or key only if reportMissing.
char* LookUp(const char* func, const char* section, const char* key, const char* openFailure,
             bool reportMissing) {
    FILE* file = OpenConfigFile(g_filename);
    if (file == nullptr) {
        Log(kSource, func, openFailure, g_filename);
        return nullptr;
    }
    char* value = nullptr;
    if (!SectionExists(file, section)) {
        if (reportMissing) {
            Log(kSource, func, "cfg section [%s] not exists...", section);
        }
    } else if (!KeyExists(file, key)) {
        if (reportMissing) {
            Log(kSource, func, "cfg key [%s] not exists...", key);
        }
    } else {
        value = GetKeyValue(g_linetext);
    }
    fclose(file);
    return value;
}

} // namespace

bool SetIniFileName(const char* path) {
    if (path == nullptr) {
        Log(kSource, __func__, "param error.");
        return false;
    }
    FILE* file = OpenConfigFile(path);
    if (file == nullptr) {
        Log(kSource, __func__, "open file: %s failed, please check...\n", path);
        return false;
    }
    memset_s(g_filename, sizeof g_filename, 0, sizeof g_filename);
    strncpy_s(g_filename, sizeof g_filename, path, sizeof g_filename - 1);
    fclose(file);
    return true;
}

const char* ReadString(const char* section, const char* key, const char* defaultValue) {
    if (section == nullptr || key == nullptr || defaultValue == nullptr) {
        Log(kSource, __func__, "param error.");
        return defaultValue;
    }
    char* value = LookUp(__func__, section, key, "open file: %s failed, please check...", true);
    return value != nullptr ? Trim(value) : defaultValue;
}

const char* ReadStringEx(const char* section, const char* key, const char* defaultValue) {
    if (section == nullptr || key == nullptr) {
        Log(kSource, __func__, "param error.");
        return defaultValue;
    }
    char* value = LookUp(__func__, section, key, "open file: %s failed, please check...\n", false);
    return value != nullptr ? value : defaultValue;
}

const char* GetInitKey(const char* section, const char* key) {
    if (section == nullptr || key == nullptr) {
        Log(kSource, __func__, "param error.");
        return nullptr;
    }
    return ReadString(section, key, "");
}

bool SectionExists(FILE* file, const char* section) {
    if (file == nullptr || section == nullptr) {
        Log(kSource, __func__, "param error");
        return false;
    }
    for (char* line = ReadLine(file); line != nullptr; line = ReadLine(file)) {
        if (SectionExistsInLine(line, section)) {
            return true;
        }
    }
    Log(kSource, __func__, "not found the section");
    return false;
}

bool SectionExistsInLine(const char* line, const char* section) {
    if (line == nullptr || section == nullptr) {
        Log(kSource, __func__, "param error.");
        return false;
    }
    // A name too long for the buffer is searched as its cut pattern: "[" and the name's
    // first 126 characters, without the closing bracket.
    char pattern[kPatternSize];
    memset_s(pattern, sizeof pattern, 0, sizeof pattern);
    snprintf_s(pattern, sizeof pattern, sizeof pattern - 1, "[%s]", section);
    if (pattern[0] == '\0') {
        return false; // an empty pattern would match every line
    }
    return strstr(line, pattern) != nullptr;
}

bool KeyExists(FILE* file, const char* key) {
    if (file == nullptr || key == nullptr) {
        Log(kSource, __func__, "param error");
        return false;
    }
    for (char* line = ReadLine(file); line != nullptr; line = ReadLine(file)) {
        if (KeyExistsInLine(line, key)) {
            return true;
        }
        if (strchr(line, '[') != nullptr && strchr(line, ']') != nullptr) {
            return false; // the next section begins
        }
    }
    Log(kSource, __func__, "not found the key");
    return false;
}

bool KeyExistsInLine(char* line, const char* key) {
    if (line == nullptr || key == nullptr) {
        Log(kSource, __func__, "param error.");
        return false;
    }
    const char* text = Trim(line);
    size_t keyLength = strlen(key);
    if (strncmp(text, key, keyLength) != 0) {
        return false;
    }
    const char* rest = text + keyLength;
    while (*rest == ' ') {
        ++rest;
    }
    return *rest == '=' || *rest == '\0';
}

char* ReadLine(FILE* file) {
    if (file == nullptr) {
        Log(kSource, __func__, "param error");
        return nullptr;
    }
    char buffer[kLineSize];
    memset_s(buffer, sizeof buffer, 0, sizeof buffer);
    size_t length = 0;
    // A read error ends the line like the end of the file, so a directory yields nothing.
    // Characters beyond the line's capacity are dropped up to the next line feed.
    for (int c = fgetc(file); c != EOF; c = fgetc(file)) {
        if (c == '\n') {
            if (length > 0) {
                break;
            }
            continue; // empty lines are skipped
        }
        if (c == '\r') {
            continue;
        }
        if (length < kLineSize - 1) {
            buffer[length++] = static_cast<char>(c);
        }
    }
    memset_s(g_linetext, sizeof g_linetext, 0, sizeof g_linetext);
    memcpy_s(g_linetext, sizeof g_linetext, buffer, sizeof buffer);
    return g_linetext[0] != '\0' ? g_linetext : nullptr;
}

char* Trim(char* text) {
    if (text == nullptr) {
        Log(kSource, __func__, "param error.");
        return nullptr;
    }
    while (*text == ' ') {
        ++text;
    }
    size_t length = strlen(text);
    while (length > 0 && text[length - 1] == ' ') {
        text[--length] = '\0';
    }
    return text;
}

char* GetKeyValue(char* line) {
    if (line == nullptr) {
        Log(kSource, __func__, "param error");
        return nullptr;
    }
    // A key line without "=" has the empty text as its value.
    char* equals = strchr(line, '=');
    return equals != nullptr ? equals + 1 : line + strlen(line);
}
