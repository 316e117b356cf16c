/* Package staging: the carried package is copied to /tmp, and on the others path the
 * system Installer is run on that copy. */
#include "Launcher.h"
#include "PackageStaging.h"

#include "Common/Log.h"
#include "bounded/bounded.h"

#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

namespace {

constexpr char kResourcesDir[] = "/Contents/Resources/";
constexpr char kPackageName[] = "Vantorel.mpkg";
// Both Installer literals end with two blanks and the opening quote of the package argument.
constexpr char kInstallerBefore105[] = "/Applications/Utilities/Installer.app/Contents/MacOS/Installer  \"";
constexpr char kInstaller105[] = "/System/Library/CoreServices/Installer.app/Contents/MacOS/Installer  \"";
constexpr unsigned kWorkerPauseSeconds = 3; // lets the main thread enter the modal loop first

// Appends text, cut so that the buffer keeps its terminator.
void Append(char* buffer, size_t size, const char* text) {
    strncat_s(buffer, size, text, size - 1 - strlen(buffer));
}

} // namespace

void CleanTmpPKGFile() {
    char path[128] = {};
    char command[256] = {};
    strncpy_s(path, sizeof path, kStagedPackage, sizeof path - 1);
    strncpy_s(command, sizeof command, "rm -R -f  \"", sizeof command - 1);
    Append(command, sizeof command, path);
    Append(command, sizeof command, "\"");
    RunShellCommand(command);
}

bool CopyPkgToLocal() {
    char packagePath[kPathSize] = {};
    char command[kPathSize] = {};
    CleanTmpPKGFile();
    strncpy_s(command, sizeof command, "cp -R \"", sizeof command - 1);
    if (!GetModulePath(packagePath, sizeof packagePath)) {
        Log(kMainSource, "CopyPkgToLocal", "Get Module Path error.");
        return false;
    }
    // The closing quote of the source belongs to the path piece; the destination stays unquoted.
    Append(packagePath, sizeof packagePath, kResourcesDir);
    Append(packagePath, sizeof packagePath, kPackageName);
    Append(packagePath, sizeof packagePath, "\"");
    Append(command, sizeof command, packagePath);
    Append(command, sizeof command, " ");
    Append(command, sizeof command, kStagedPackage);
    RunShellCommand(command);
    return true;
}

void* threadFunc(void*) {
    sleep(kWorkerPauseSeconds);
    Log(kMainSource, "threadFunc", "copy mpkg to local begin...");
    CopyPkgToLocal();
    Log(kMainSource, "threadFunc", "copy mpkg to local end ....");
    Log(kMainSource, "threadFunc", "Now we show send the close order to showProcess");
    SendCommandProcessEvent(kCloseCommand);
    Log(kMainSource, "threadFunc", "QuitApplicationEventLoop done....");
    return nullptr;
}

void StagePackage(bool showProgress, const char* funcName) {
    if (showProgress) {
        pthread_t worker;
        if (pthread_create(&worker, nullptr, threadFunc, nullptr) == 0) {
            ShowProgressWindow();
            // The close command may already have taken the window down; then there is no loop to wait in.
            if (IsValidWindowPtr(g_ProgressWindowRef)) {
                RunAppModalLoopForWindow(g_ProgressWindowRef);
            }
            pthread_join(worker, nullptr);
            return;
        }
        // Without a worker nobody would close the window: copy here, without it.
        Log(kMainSource, funcName, "pthread_create failed");
    }
    CopyPkgToLocal();
}

void AutoRunInstallPkg(bool showProgress) {
    StagePackage(showProgress, "AutoRunInstallPkg");

    char command[kPathSize] = {};
    char bundlePath[kPathSize] = {};
    strncpy_s(command, sizeof command, kInstallerBefore105, sizeof command - 1);
    QuitApplicationEventLoop();
    // The path itself is not needed: this only confirms that the bundle can be found.
    if (!GetModulePath(bundlePath, sizeof bundlePath)) {
        Log(kMainSource, "AutoRunInstallPkg", "Get Module Path error.");
        Notify();
        return;
    }
    if (!IsOldThanMacOS105()) {
        strncpy_s(command, sizeof command, kInstaller105, sizeof command - 1);
    }
    Append(command, sizeof command, kStagedPackage);
    Append(command, sizeof command, "\"");
    Log(kMainSource, "AutoRunInstallPkg", "installerPath:%s.", command);
    RunShellCommand(command); // returns when the user quits the Installer
    CleanTmpPKGFile();
    AutoRunApplication();
    Notify();
}
