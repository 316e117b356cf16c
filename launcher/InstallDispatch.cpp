/* Install dispatch: from a disc image the installation is handed to the script on the
 * disc; from anywhere else the system Installer runs on the staged package. */
#include "Launcher.h"
#include "PackageStaging.h"

#include "Common/Log.h"
#include "bounded/bounded.h"

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

namespace {

constexpr char kVolumeMarker[] = "/Volumes";
constexpr char kInstallerProcess[] = "AutoSetup";
constexpr unsigned kPauseBeforeScriptSeconds = 1;

} // namespace

void copytolocal(const char* source, const char* destination) {
    if (source == nullptr || destination == nullptr) {
        Log(kMainSource, "copytolocal", "param error");
        return;
    }
    char command[kPathSize] = {};
    snprintf_s(command, sizeof command, sizeof command - 1, "cp -R \"%s\" \"%s\"", source, destination);
    // A path may hold a '%': the command is the message, not a format.
    Log(kMainSource, "copytolocal", "%s", command);
    RunShellCommand(command);
}

void AutoInstallPkg(bool showProgress) {
    Log(kMainSource, "AutoInstallPkg", "AutoInstallPkg Enter");
    char bundlePath[kPathSize] = {};
    if (!GetModulePath(bundlePath, sizeof bundlePath)) {
        Log(kMainSource, "AutoInstallPkg", "Get Module Path error.");
        Notify();
        return;
    }
    Log(kMainSource, "AutoInstallPkg", "GetModulepath:%s", bundlePath);

    if (strstr(bundlePath, kVolumeMarker) == nullptr) {
        Log(kMainSource, "AutoInstallPkg", "**Install from others path**");
        AutoRunInstallPkg(isShowProcessWindow); // signals completion itself
        return;
    }

    Log(kMainSource, "AutoInstallPkg", "**Install from dashboard path**");
    if (CheckProcessExists(kInstallerProcess)) {
        Log(kMainSource, "AutoInstallPkg", "AutoSetup process is Exist,quite installation......");
        Notify();
        return;
    }

    if (!showProgress) {
        Log(kMainSource, "AutoInstallPkg", "copy mpkg not showprogress");
    }
    StagePackage(showProgress, "AutoInstallPkg");
    Log(kMainSource, "AutoInstallPkg", "RunAppModalLoopForWindow exit.....");
    QuitApplicationEventLoop();

    char autoSetupPath[kPathSize] = {};
    snprintf_s(autoSetupPath, sizeof autoSetupPath, sizeof autoSetupPath - 1, "%s/Contents/AutoSetup",
               bundlePath);
    copytolocal(autoSetupPath, kAutoSetupCopy);

    char scriptCommand[kPathSize] = {};
    snprintf_s(scriptCommand, sizeof scriptCommand, sizeof scriptCommand - 1,
               "\"%s/Contents/run_local_kestrun\"", bundlePath);
    sleep(kPauseBeforeScriptSeconds);

    // The script needs the bundle's own AutoSetup and the staged package.
    if (IsFileExist(autoSetupPath) && IsFileExist(kStagedPackage)) {
        Log(kMainSource, "AutoInstallPkg", "Run Script,path: %s", scriptCommand);
        RunShellCommand(scriptCommand);
    }
    Notify();
}
