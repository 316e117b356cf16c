/* The version records of the carried package and of the installed application, and
 * the settings the package's configuration gives. */

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "Common/INI.h"
#include "Common/Log.h"
#include "Common/PlainFile.h"
#include "Launcher.h"
#include "bounded/bounded.h"

VersionRecord pkgVersion = {0, 0, 0, 0, 0, 0};
VersionRecord installedVersion = {0, 0, 0, 0, 0, 0};
char szAppPath[1024] = {0};
bool isShowProcessWindow = false;

namespace {
constexpr const char* kSource = "main";
constexpr size_t kPathSize = 1024;
constexpr const char* kPkgConfigSuffix = "/Contents/Resources/Vantorel.mpkg/Contents/Resources/SysConfig.dat";
constexpr const char* kVersionSection = "System";
constexpr const char* kAppSection = "APP_PATH";

// Builds the path of the installed application's configuration (forConfig) or of the
// file that proves it is installed, from szAppPath and the package's record.
void BuildInstalledPath(char* path, bool forConfig) {
    const char* suffix = "";
    if (pkgVersion.DebugVersion != 0) {
        suffix = forConfig ? "/Contents/Resources/SysConfig.dat" : "/Contents/Info.plist";
    } else if (pkgVersion.MajorVersion != 0) {
        suffix = "/SysConfig.dat";
    } else if (!forConfig) {
        Log(kSource, "IsApplicationExists", "pkgVersion info may be error.");
    }
    strncpy_s(path, kPathSize, szAppPath, kPathSize - 1);
    strncat_s(path, kPathSize, suffix, kPathSize - 1 - strlen(path));
}

// The presence tests: a file or a folder (a package, a bundle) is present. A pipe or a
// device is not what any tested path names, and opening one could block or act.
FILE* OpenPresent(const char* path) {
    return OpenPlainFile(path, O_RDONLY, "r", true);
}
} // namespace

bool GetVersionCfg(VersionRecord* record) {
    if (record == NULL) {
        Log(kSource, "GetVersionCfg", "param error.");
        return false;
    }
    struct Field {
        const char* key;
        int32_t VersionRecord::*field;
    };
    static const Field kFields[] = {
        {"VRVersion", &VersionRecord::VRVersion},
        {"BuildVersion", &VersionRecord::BuildVersion},
        {"DebugVersion", &VersionRecord::DebugVersion},
        {"SPVersion", &VersionRecord::SPVersion},
        {"CustomizeVersion", &VersionRecord::CustomizeVersion},
        {"MajorVersion", &VersionRecord::MajorVersion},
    };
    for (const Field& entry : kFields) {
        const char* value = GetInitKey(kVersionSection, entry.key);
        if (value == NULL) {
            Log(kSource, "GetVersionCfg", "Get Version cfg error.");
            return false;
        }
        record->*entry.field = atoi(value);
    }
    return true;
}

bool GetPkgVersion() {
    char bundlePath[kPathSize];
    char iniPath[kPathSize];
    memset_s(bundlePath, sizeof(bundlePath), 0, sizeof(bundlePath));
    memset_s(iniPath, sizeof(iniPath), 0, sizeof(iniPath));

    if (!GetModulePath(bundlePath, kPathSize)) {
        Log(kSource, "GetPkgVersion", "Get Module Path error.");
        return false;
    }
    strncpy_s(iniPath, kPathSize, bundlePath, kPathSize - 1);
    strncat_s(iniPath, kPathSize, kPkgConfigSuffix, kPathSize - 1 - strlen(iniPath));
    Log(kSource, "GetPkgVersion", "inipath:%s.", iniPath);

    if (!SetIniFileName(iniPath)) {
        Log(kSource, "GetPkgVersion", "SetIniFileName inipath error.");
        return false;
    }
    GetVersionCfg(&pkgVersion);

    memset_s(szAppPath, sizeof(szAppPath), 0, sizeof(szAppPath));
    const char* appPath = ReadStringEx(kAppSection, "VALUE", "");
    if (appPath != NULL) {
        strncpy_s(szAppPath, sizeof(szAppPath), appPath, sizeof(szAppPath) - 1);
    }

    const char* showWindow = ReadStringEx(kAppSection, "RUN_PROCESS_DLG", "");
    if (showWindow != NULL && strcasecmp(showWindow, "yes") == 0) {
        Log(kSource, "GetPkgVersion", "read RUN_PROCESS_DLG is yes, run process window");
        isShowProcessWindow = true;
    } else {
        Log(kSource, "GetPkgVersion", "read RUN_PROCESS_DLG is not yes,not run process window");
        isShowProcessWindow = false;
    }
    return true;
}

bool GetInstalledVersion() {
    char installedPath[kPathSize];
    memset_s(installedPath, sizeof(installedPath), 0, sizeof(installedPath));
    BuildInstalledPath(installedPath, true);

    if (!SetIniFileName(installedPath)) {
        Log(kSource, "GetInstalledVersion", "SetIniFileName szInstalledPath error.");
        return false;
    }
    return GetVersionCfg(&installedVersion);
}

bool IsApplicationExists() {
    char presencePath[kPathSize];
    memset_s(presencePath, sizeof(presencePath), 0, sizeof(presencePath));
    BuildInstalledPath(presencePath, false);

    FILE* file = OpenPresent(presencePath);
    if (file != NULL) {
        fclose(file);
        return true;
    }
    Log(kSource, "IsApplicationExists", "%s not exist", presencePath);
    return false;
}

bool IsFileExist(const char* path) {
    if (path == NULL) {
        Log(kSource, "IsFileExist", "param error");
        return false;
    }
    FILE* file = OpenPresent(path);
    if (file != NULL) {
        Log(kSource, "IsFileExist", "File: %s exist", path);
        fclose(file);
        return true;
    }
    Log(kSource, "IsFileExist", "File: %s isn't exist", path);
    return false;
}

namespace {
typedef int32_t VersionRecord::*VersionField;

// -1, 0 or 1 as installed is below, equal to or above package in the given field
// order: the first pair of fields that differs decides.
int CompareInFieldOrder(const VersionRecord* installed, const VersionRecord* package,
                        const VersionField* fields, size_t count) {
    for (size_t i = 0; i < count; i++) {
        int32_t mine = installed->*fields[i];
        int32_t theirs = package->*fields[i];
        if (mine != theirs) {
            return mine < theirs ? -1 : 1;
        }
    }
    return 0;
}
} // namespace

DialogChoice ChooseDialog(const VersionRecord* installed, const VersionRecord* package,
                          const char** textKey) {
    if (installed == NULL || package == NULL || textKey == NULL) {
        Log(kSource, "ChooseDialog", "param error.");
        return kNoDialog;
    }
    *textKey = NULL;

    if (package->MajorVersion != 0) {
        static const VersionField kMajorOrder[] = {&VersionRecord::MajorVersion, &VersionRecord::VRVersion,
                                                   &VersionRecord::BuildVersion, &VersionRecord::SPVersion};
        if (installed->CustomizeVersion != package->CustomizeVersion) {
            *textKey = "DIFFERENT_VERSION_CONFIRM";
            return kMessageBoxR7;
        }
        int order = CompareInFieldOrder(installed, package, kMajorOrder, 4);
        if (order < 0) {
            *textKey = "NEW_VERSION_CONFIRM";
            return kMessageBoxR7;
        }
        if (order == 0) {
            return kWarningBoxR7;
        }
        *textKey = "DIFFERENT_VERSION_CONFIRM";
        return kMessageBoxR7;
    }

    static const VersionField kPlainOrder[] = {&VersionRecord::VRVersion, &VersionRecord::BuildVersion,
                                               &VersionRecord::DebugVersion, &VersionRecord::SPVersion};
    if (installed->CustomizeVersion != package->CustomizeVersion) {
        *textKey = "DIFFERENT_VERSION_CONFIRM";
        return kMessageBox;
    }
    if (CompareInFieldOrder(installed, package, kPlainOrder, 4) < 0) {
        *textKey = "NEW_VERSION_CONFIRM";
        return kMessageBox;
    }
    return kNoDialog;
}
