/* sysconfig-check PACKAGE|SYSCONFIG: prints a package's "SysConfig.dat" as the
 * launcher reads it, through the launcher's own INI reader, and warns about the settings that
 * make the launcher misbehave without a word.
 *
 * Exit status: 0 nothing to warn about, 1 warnings, 2 the file cannot be read, 3 usage. */
#include "Common/INI.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <string>
#include <vector>

namespace {

constexpr int kClean = 0;
constexpr int kWarnings = 1;
constexpr int kUnreadable = 2;
constexpr int kUsage = 3;

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
    if (stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
        path += kConfigInPackage;
    }
    // Only a regular file is read: a pipe would block and a device would never end.
    if (stat(path.c_str(), &info) != 0) {
        fprintf(stderr, "sysconfig-check: %s: %s\n", path.c_str(), strerror(errno));
        return kUnreadable;
    }
    if (!S_ISREG(info.st_mode)) {
        fprintf(stderr, "sysconfig-check: %s: not a regular file\n", path.c_str());
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
    CheckLineEnds(content);

    int versions[6] = {};
    std::string report =
        "Package configuration: " + path + "\n[" + kVersionSection + "] as the launcher reads it\n";
    for (int i = 0; i < 6; i++) {
        std::string value, line;
        const char* key = kVersionKeys[i];
        if (!LookUp(kVersionSection, key, &value, &line)) {
            Warn(std::string(key) + " is missing from [" + kVersionSection + "]: it reads as 0");
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
    } else {
        Warn(std::string("VALUE is missing from [") + kPathSection +
             "]: the launcher never finds the installed copy and installs at every start");
    }
    report += "  VALUE             \"" + appPath + "\"\n";
    bool progress = false;
    if (LookUp(kPathSection, "RUN_PROCESS_DLG", &showProgress, &line)) {
        CheckBlanks("RUN_PROCESS_DLG", showProgress, line);
        progress = strcasecmp(showProgress.c_str(), "yes") == 0;
    } else {
        Warn(std::string("RUN_PROCESS_DLG is missing from [") + kPathSection + "]: no progress window");
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
