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

constexpr char kSource[] = "main";
constexpr char kVolumeMarker[] = "/Volumes";
constexpr char kInstallerProcess[] = "AutoSetup";
constexpr char kAutoSetupCopy[] = "/tmp/AutoSetup";
constexpr char kStagedPackage[] = "/tmp/qv_tmp_vantorel.mpkg";
constexpr unsigned kPauseBeforeScriptSeconds = 1;

} // namespace

void copytolocal(const char* source, const char* destination) {
    if (source == nullptr || destination == nullptr) {
        Log(kSource, "copytolocal", "param error");
        return;
    }
    char command[1024] = {};
    snprintf_s(command, sizeof command, sizeof command - 1, "cp -R \"%s\" \"%s\"", source, destination);
    // A path may hold a '%': the command is the message, not a format.
    Log(kSource, "copytolocal", "%s", command);
    RunShellCommand(command);
}

void AutoInstallPkg(bool showProgress) {
    Log(kSource, "AutoInstallPkg", "AutoInstallPkg Enter");
    char bundlePath[1024] = {};
    if (!GetModulePath(bundlePath, sizeof bundlePath)) {
        Log(kSource, "AutoInstallPkg", "Get Module Path error.");
        Notify();
        return;
    }
    Log(kSource, "AutoInstallPkg", "GetModulepath:%s", bundlePath);

    if (strstr(bundlePath, kVolumeMarker) == nullptr) {
        Log(kSource, "AutoInstallPkg", "**Install from others path**");
        AutoRunInstallPkg(isShowProcessWindow); // signals completion itself
        return;
    }

    Log(kSource, "AutoInstallPkg", "**Install from dashboard path**");
    if (CheckProcessExists(kInstallerProcess)) {
        Log(kSource, "AutoInstallPkg", "AutoSetup process is Exist,quite installation......");
        Notify();
        return;
    }

    if (!showProgress) {
        Log(kSource, "AutoInstallPkg", "copy mpkg not showprogress");
    }
    StagePackage(showProgress, "AutoInstallPkg");
    Log(kSource, "AutoInstallPkg", "RunAppModalLoopForWindow exit.....");
    QuitApplicationEventLoop();

    char autoSetupPath[1024] = {};
    snprintf_s(autoSetupPath, sizeof autoSetupPath, sizeof autoSetupPath - 1, "%s/Contents/AutoSetup",
               bundlePath);
    copytolocal(autoSetupPath, kAutoSetupCopy);

    char scriptCommand[1024] = {};
    snprintf_s(scriptCommand, sizeof scriptCommand, sizeof scriptCommand - 1,
               "\"%s/Contents/run_local_kestrun\"", bundlePath);
    sleep(kPauseBeforeScriptSeconds);

    // The script needs the bundle's own AutoSetup and the staged package.
    if (IsFileExist(autoSetupPath) && IsFileExist(kStagedPackage)) {
        Log(kSource, "AutoInstallPkg", "Run Script,path: %s", scriptCommand);
        RunShellCommand(scriptCommand);
    }
    Notify();
}
