/* sysconfig-check PACKAGE|SYSCONFIG: prints a package's "SysConfig.dat" as the
 * launcher reads it, through the launcher's own INI reader, and warns about the settings that
 * make the launcher misbehave without a word.
 *
 * Exit status: 0 nothing to warn about, 1 warnings, 2 the file cannot be read, 3 usage. */
#include "Common/INI.h"

#include <errno.h>
#include "CheckStatus.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <string>
#include <vector>

namespace {

constexpr const char* kConfigInPackage = "/Contents/Resources/SysConfig.dat";
constexpr const char* kVersionKeys[] = {"VRVersion", "BuildVersion",     "DebugVersion",
                                        "SPVersion", "CustomizeVersion", "MajorVersion"};
constexpr const char* kVersionSection = "System";
constexpr const char* kPathSection = "APP_PATH";

std::vector<std::string> gWarnings;

void Warn(const std::string& text) {
    gWarnings.push_back(text);
}

// A key's value exactly as ReadStringEx hands it to the launcher (blanks after "=" kept), and
// the whole key line as the reader saw it; false when the section or the key is missing.
bool LookUp(const char* section, const char* key, std::string* value, std::string* line) {
    const char* found = ReadStringEx(section, key, nullptr);
    if (found == nullptr) {
        return false;
    }
    *value = found;
    *line = g_linetext; // the value points into the line: the line itself ends at the "="
    return true;
}

// Whether atoi reads the whole text: blanks, an optional sign, digits and nothing else.
bool IsPlainNumber(const std::string& text) {
    size_t at = text.find_first_not_of(" \t");
    if (at == std::string::npos) {
        return false;
    }
    if (text[at] == '+' || text[at] == '-') {
        at++;
    }
    return at < text.size() && text.find_first_not_of("0123456789", at) == std::string::npos;
}

void CheckBlanks(const char* key, const std::string& value, const std::string& line) {
    if (!value.empty() && value[0] == ' ') {
        Warn(std::string(key) + ": a blank after \"=\" stays part of the value" +
             (strcmp(key, "VALUE") == 0 ? ": the installed copy is never found and every start installs again"
                                        : ": it does not read as \"yes\", so the progress window stays off"));
    }
    size_t equals = line.find('=');
    if (equals != std::string::npos && equals > 0 && line[equals - 1] == ' ') {
        Warn(std::string(key) +
             ": a blank before \"=\": the launcher reads it, but scripts that look for \"" + key +
             "=\" (such as an installer script reading the staged package) do not");
    }
}

// Line ends: the reader drops every carriage return, so CR-only line ends make one line.
void CheckLineEnds(const std::string& content) {
    size_t lone = 0;
    for (size_t i = 0; i < content.size(); i++) {
        if (content[i] == '\r' && (i + 1 == content.size() || content[i + 1] != '\n')) {
            lone++;
        }
    }
    if (lone == 0) {
        return;
    }
    if (content.find('\n') == std::string::npos) {
        Warn("CR-only line ends: the launcher reads the whole file as one line, so every version reads 0 "
             "and VALUE is empty (save the file with LF or CR LF line ends)");
    } else {
        Warn(std::to_string(lone) +
             " carriage return(s) without a line feed: the launcher joins the lines on either side into one");
    }
}

void CheckApplicationPath(const std::string& path) {
    if (path.empty()) {
        Warn("VALUE is empty: the launcher never finds the installed copy and installs at every start");
        return;
    }
    for (const char* special : {"$", "`", "\"", "\\"}) {
        if (path.find(special) != std::string::npos) {
            Warn(
                std::string("VALUE holds ") + special +
                ": the path is given to the shell between double quotes (open -a \"...\"), which expands it");
        }
    }
    // A leading blank has its own warning; judge the rest of the path.
    std::string trimmed = path.substr(
        path.find_first_not_of(' ') == std::string::npos ? path.size() : path.find_first_not_of(' '));
    if (trimmed.empty()) {
        return;
    }
    if (trimmed[0] != '/') {
        Warn("VALUE is not an absolute path: the launcher looks for it relative to wherever it was started");
    } else if (trimmed.size() < 4 || trimmed.compare(trimmed.size() - 4, 4, ".app") != 0) {
        Warn("VALUE does not end in \".app\": open -a starts an application bundle; check the path");
    }
}

// ---- Why a section or key is not found: the reader's rules, applied to the raw lines ----

// The file's lines as the launcher's reader splits them: at line feeds, carriage returns dropped.
std::vector<std::string> SplitLines(const std::string& content) {
    std::vector<std::string> lines(1);
    for (char c : content) {
        if (c == '\n') {
            lines.emplace_back();
        } else if (c != '\r') {
            lines.back() += c;
        }
    }
    return lines;
}

bool IsBlankOrTab(char c) {
    return c == ' ' || c == '\t' || c == '\v' || c == '\f';
}

bool HoldsBrackets(const std::string& line) {
    return line.find('[') != std::string::npos && line.find(']') != std::string::npos;
}

bool SameLetters(const std::string& a, const std::string& b) {
    return a.size() == b.size() && strncasecmp(a.c_str(), b.c_str(), a.size()) == 0;
}

// The first line holding "[section]" as written, or -1.
int SectionLine(const std::vector<std::string>& lines, const std::string& section) {
    for (size_t i = 0; i < lines.size(); i++) {
        if (lines[i].find("[" + section + "]") != std::string::npos) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

// Why no line holds "[section]": a header written with blanks or in another case, or none.
std::string SectionCause(const std::vector<std::string>& lines, const std::string& section) {
    for (const std::string& line : lines) {
        size_t open = line.find('[');
        size_t close = open == std::string::npos ? open : line.find(']', open);
        if (close == std::string::npos) {
            continue;
        }
        std::string inside = line.substr(open + 1, close - open - 1);
        std::string squeezed;
        for (char c : inside) {
            if (!IsBlankOrTab(c)) {
                squeezed += c;
            }
        }
        if (!SameLetters(squeezed, section)) {
            continue;
        }
        if (squeezed != inside) {
            return "the header \"" + line.substr(open, close - open + 1) +
                   "\" has a blank or tab inside the brackets; write [" + section + "]";
        }
        return "the header \"" + line.substr(open, close - open + 1) + "\" is in another case: write [" +
               section + "], names are read in the case written";
    }
    return "no line holds [" + section + "]";
}

// Why the reader finds no line for the key in its section: a tab around it, another case,
// or a line that ends the section before it. Empty when nothing like it is there.
std::string KeyCause(const std::vector<std::string>& lines, int sectionLine, const std::string& key) {
    size_t end = lines.size();
    for (size_t i = static_cast<size_t>(sectionLine) + 1; i < lines.size(); i++) {
        if (HoldsBrackets(lines[i])) {
            end = i;
            break;
        }
    }
    for (size_t i = static_cast<size_t>(sectionLine) + 1; i < lines.size(); i++) {
        const std::string& line = lines[i];
        size_t at = 0;
        while (at < line.size() && IsBlankOrTab(line[at])) {
            at++;
        }
        size_t after = at + key.size();
        if (line.size() < after || !SameLetters(line.substr(at, key.size()), key)) {
            continue;
        }
        size_t equals = after;
        while (equals < line.size() && IsBlankOrTab(line[equals])) {
            equals++;
        }
        if (equals == line.size() || line[equals] != '=') {
            continue;
        }
        const std::string written = line.substr(at, key.size());
        if (i >= end) {
            return "it stands after the line \"" + lines[end] +
                   "\", which holds both [ and ] and so ends the section";
        }
        if (written != key) {
            return "written \"" + written + "\": keys are read in the case written";
        }
        return "a tab before it or before its \"=\": only spaces are skipped there";
    }
    return std::string();
}

// Text the launcher's byte-wise reader cannot read: UTF-16 (it stops at the first zero byte).
void CheckEncoding(const std::string& content) {
    const bool utf16Mark = content.size() >= 2 && ((content[0] == '\xff' && content[1] == '\xfe') ||
                                                   (content[0] == '\xfe' && content[1] == '\xff'));
    if (utf16Mark || content.find('\0') != std::string::npos) {
        Warn("the file is UTF-16 text (or holds zero bytes): the launcher reads bytes and finds no section "
             "or key in it; save it as plain ASCII or UTF-8");
    } else if (content.compare(0, 3, "\xef\xbb\xbf") == 0) {
        Warn("the file begins with a UTF-8 byte-order mark: the launcher reads it as part of the first "
             "line; save it without one");
    }
}

std::string ReadWhole(FILE* file) {
    std::string content;
    char buffer[4096];
    size_t got;
    while ((got = fread(buffer, 1, sizeof buffer, file)) > 0) {
        content.append(buffer, got);
    }
    return content;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2 || argv[1][0] == '-') {
        fputs("usage: sysconfig-check PACKAGE.mpkg|SysConfig.dat\n", stderr);
        return kUsage;
    }
    std::string path = argv[1];
    struct stat info;
    const bool namesFile = path.size() >= 4 && path.compare(path.size() - 4, 4, ".dat") == 0;
    if (stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode) && !namesFile) {
        path += kConfigInPackage;
    }
    // Only a regular file is read: a pipe would block and a device would never end.
    if (stat(path.c_str(), &info) != 0) {
        fprintf(stderr, "sysconfig-check: %s: %s\n", path.c_str(), strerror(errno));
        return kUnreadable;
    }
    if (!S_ISREG(info.st_mode)) {
        fprintf(stderr, "sysconfig-check: %s: %s\n", path.c_str(),
                S_ISDIR(info.st_mode) ? "a folder, not a file" : "not a regular file");
        return kUnreadable;
    }
    FILE* file = fopen(path.c_str(), "rb");
    if (file == nullptr || !SetIniFileName(path.c_str())) {
        fprintf(stderr, "sysconfig-check: %s: cannot be read: the launcher would install at every start\n",
                path.c_str());
        if (file != nullptr) {
            fclose(file);
        }
        return kUnreadable;
    }
    std::string content = ReadWhole(file);
    fclose(file);
    CheckEncoding(content);
    CheckLineEnds(content);
    const std::vector<std::string> lines = SplitLines(content);
    // A section the launcher does not find is named once; its keys then all read as missing.
    bool hasSection[2] = {true, true};
    const char* sections[2] = {kVersionSection, kPathSection};
    for (int i = 0; i < 2; i++) {
        if (SectionLine(lines, sections[i]) < 0) {
            hasSection[i] = false;
            Warn(std::string("section [") + sections[i] + "] not found (" + SectionCause(lines, sections[i]) +
                 "): " +
                 (i == 0
                      ? "every version reads 0"
                      : "no VALUE: the launcher never finds the installed copy and installs at every start"));
        }
    }
    // The warning for a key the launcher does not find, with what is written in its place.
    auto missing = [&lines](const char* section, const char* key, const std::string& consequence) {
        std::string cause = KeyCause(lines, SectionLine(lines, section), key);
        Warn(std::string(key) + " is missing from [" + section + "]" +
             (cause.empty() ? "" : " (" + cause + ")") + ": " + consequence);
    };

    int versions[6] = {};
    std::string report =
        "Package configuration: " + path + "\n[" + kVersionSection + "] as the launcher reads it\n";
    for (int i = 0; i < 6; i++) {
        std::string value, line;
        const char* key = kVersionKeys[i];
        if (!LookUp(kVersionSection, key, &value, &line)) {
            if (hasSection[0]) {
                missing(kVersionSection, key, "it reads as 0");
            }
        } else if (!IsPlainNumber(value)) {
            Warn(std::string(key) + "=\"" + value + "\" is not a whole number: it reads as " +
                 std::to_string(atoi(value.c_str())));
        }
        // The launcher's own conversion: GetInitKey, then atoi.
        versions[i] = atoi(GetInitKey(kVersionSection, key));
        char row[128];
        snprintf(row, sizeof row, "  %-17s %d\n", key, versions[i]);
        report += row;
    }

    std::string appPath, showProgress, line;
    report += std::string("[") + kPathSection + "]\n";
    if (LookUp(kPathSection, "VALUE", &appPath, &line)) {
        CheckBlanks("VALUE", appPath, line);
        CheckApplicationPath(appPath);
    } else if (hasSection[1]) {
        missing(kPathSection, "VALUE",
                "the launcher never finds the installed copy and installs at every start");
    }
    report += "  VALUE             \"" + appPath + "\"\n";
    bool progress = false;
    if (LookUp(kPathSection, "RUN_PROCESS_DLG", &showProgress, &line)) {
        CheckBlanks("RUN_PROCESS_DLG", showProgress, line);
        progress = strcasecmp(showProgress.c_str(), "yes") == 0;
    } else if (hasSection[1]) {
        missing(kPathSection, "RUN_PROCESS_DLG", "no progress window");
    }
    report += "  RUN_PROCESS_DLG   \"" + showProgress + "\": " +
              (progress ? "progress window shown while the package is copied" : "no progress window") + "\n";

    // Where the installed copy is looked for: the package's DebugVersion, then MajorVersion.
    const int debugVersion = versions[2], majorVersion = versions[5];
    std::string presence = appPath, record = appPath;
    if (debugVersion != 0) {
        presence += "/Contents/Info.plist";
        record += "/Contents/Resources/SysConfig.dat";
    } else if (majorVersion != 0) {
        presence += "/SysConfig.dat";
        record = presence;
    } else {
        Warn("DebugVersion and MajorVersion are both 0: the launcher logs \"pkgVersion info may be error.\" "
             "and takes the application path itself as the installed record, so every installed version "
             "reads 0");
    }
    report += "Installed copy\n  present when      \"" + presence + "\" opens\n  record read from  \"" +
              record + "\"\nLaunch decision: " +
              (majorVersion != 0 ? "MajorVersion is not 0: an installed copy is never started without a box "
                                   "(an equal version gets the warning box)\n"
                                 : "MajorVersion is 0: an installed copy as new as the package or newer is "
                                   "started without a box\n");

    fputs(report.c_str(), stdout);
    for (const std::string& warning : gWarnings) {
        printf("warning: %s\n", warning.c_str());
    }
    return gWarnings.empty() ? kClean : kWarnings;
}
