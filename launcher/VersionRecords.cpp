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
char szAppPath[kPathSize] = {};
bool isShowProcessWindow = false;

namespace {
constexpr char kPkgConfigSuffix[] = "/Contents/Resources/Vantorel.mpkg/Contents/Resources/SysConfig.dat";
constexpr char kVersionSection[] = "System";
constexpr char kAppSection[] = "APP_PATH";

// Builds the path of the installed application's configuration (forConfig) or of the
// file that proves it is installed, from szAppPath and the package's record.
void BuildInstalledPath(char* path, bool forConfig) {
    const char* suffix = "";
    if (pkgVersion.DebugVersion != 0) {
        suffix = forConfig ? "/Contents/Resources/SysConfig.dat" : "/Contents/Info.plist";
    } else if (pkgVersion.MajorVersion != 0) {
        suffix = "/SysConfig.dat";
    } else if (!forConfig) {
        Log(kMainSource, "IsApplicationExists", "pkgVersion info may be error.");
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
    if (record == nullptr) {
        Log(kMainSource, "GetVersionCfg", "param error.");
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
        if (value == nullptr) {
            Log(kMainSource, "GetVersionCfg", "Get Version cfg error.");
            return false;
        }
        record->*entry.field = atoi(value);
    }
    return true;
}

bool GetPkgVersion() {
    char bundlePath[kPathSize] = {};
    char iniPath[kPathSize] = {};

    if (!GetModulePath(bundlePath, kPathSize)) {
        Log(kMainSource, "GetPkgVersion", "Get Module Path error.");
        return false;
    }
    strncpy_s(iniPath, kPathSize, bundlePath, kPathSize - 1);
    strncat_s(iniPath, kPathSize, kPkgConfigSuffix, kPathSize - 1 - strlen(iniPath));
    Log(kMainSource, "GetPkgVersion", "inipath:%s.", iniPath);

    if (!SetIniFileName(iniPath)) {
        Log(kMainSource, "GetPkgVersion", "SetIniFileName inipath error.");
        return false;
    }
    GetVersionCfg(&pkgVersion);

    memset_s(szAppPath, sizeof(szAppPath), 0, sizeof(szAppPath));
    const char* appPath = ReadStringEx(kAppSection, "VALUE", "");
    if (appPath != nullptr) {
        strncpy_s(szAppPath, sizeof(szAppPath), appPath, sizeof(szAppPath) - 1);
    }

    const char* showWindow = ReadStringEx(kAppSection, "RUN_PROCESS_DLG", "");
    if (showWindow != nullptr && strcasecmp(showWindow, "yes") == 0) {
        Log(kMainSource, "GetPkgVersion", "read RUN_PROCESS_DLG is yes, run process window");
        isShowProcessWindow = true;
    } else {
        Log(kMainSource, "GetPkgVersion", "read RUN_PROCESS_DLG is not yes,not run process window");
        isShowProcessWindow = false;
    }
    return true;
}

bool GetInstalledVersion() {
    char installedPath[kPathSize] = {};
    BuildInstalledPath(installedPath, true);

    if (!SetIniFileName(installedPath)) {
        Log(kMainSource, "GetInstalledVersion", "SetIniFileName szInstalledPath error.");
        return false;
    }
    return GetVersionCfg(&installedVersion);
}

bool IsApplicationExists() {
    char presencePath[kPathSize] = {};
    BuildInstalledPath(presencePath, false);

    FILE* file = OpenPresent(presencePath);
    if (file != nullptr) {
        fclose(file);
        return true;
    }
    Log(kMainSource, "IsApplicationExists", "%s not exist", presencePath);
    return false;
}

bool IsFileExist(const char* path) {
    if (path == nullptr) {
        Log(kMainSource, "IsFileExist", "param error");
        return false;
    }
    FILE* file = OpenPresent(path);
    if (file != nullptr) {
        Log(kMainSource, "IsFileExist", "File: %s exist", path);
        fclose(file);
        return true;
    }
    Log(kMainSource, "IsFileExist", "File: %s isn't exist", path);
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
    if (installed == nullptr || package == nullptr || textKey == nullptr) {
        Log(kMainSource, "ChooseDialog", "param error.");
        return kNoDialog;
    }
    *textKey = nullptr;

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
