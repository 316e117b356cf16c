/* The launcher's entry point: start-up, the launch decision and its outcomes. */

#include "Common/Log.h"
#include "Launcher.h"

#include <signal.h>

namespace {
constexpr char kLogFile[] = "/var/tmp/Kestrun.log";
constexpr char kEventName[] = "QV_EVENT";
constexpr char kUpdaterProcess[] = "UpdateWizard";

void IgnoreBrokenPipe(int) {}

// The progress window writes to standard output, which may be a pipe whose reader has gone:
// that write must fail, not end the launcher. A handler that does nothing does this, and
// unlike an ignored signal it is back at its default in every command the launcher runs.
void SurviveBrokenPipes() {
    struct sigaction action = {};
    action.sa_handler = IgnoreBrokenPipe;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGPIPE, &action, nullptr);
}
} // namespace

int main(int /*argc*/, char** /*argv*/) {
    SurviveBrokenPipes();
    InitLogSystem(kLogFile);
    SetEvent(kEventName);
    Log(kMainSource, "main", "Main Enter");

    // An unreadable package record leaves the path empty, which ends in INSTALL below.
    GetPkgVersion();
    Log(kMainSource, "main", "GetPkgVersion Sunccess");

    if (!IsApplicationExists()) {
        // INSTALL: the dispatch signals the completion event on every ending.
        Log(kMainSource, "main", "Application isn't Exist,then install");
        AutoInstallPkg(isShowProcessWindow);
        Wait(static_cast<uint32_t>(-1));
        StopEvent();
        CloseLogSystem();
        return 0;
    }

    if (IsProcessExists(kUpdaterProcess)) {
        // UPDATER: leave everything to the running updater.
        return 0;
    }

    // An unreadable installed record stays all zeros and is judged as such.
    GetInstalledVersion();

    const char* textKey = nullptr;
    DialogChoice dialog = ChooseDialog(&installedVersion, &pkgVersion, &textKey);
    if (dialog == kNoDialog) {
        Log(kMainSource, "main", "CheckInstallerExists");
        if (IsFileExist(kStagedPackage)) {
            // STOP: an installation has staged its package; leave it alone.
            Log(kMainSource, "main", "Installer Exists stop event");
            StopEvent();
            CloseLogSystem();
            return 0;
        }
        // LAUNCH
        AutoRunApplication();
        CloseLogSystem();
        return 0;
    }

    // DIALOG: the box's handlers act on the answer and end the event loop. A box that could not
    // be made has already acted as its close box, and no handler could end the loop.
    if (dialog == kMessageBoxR7) {
        MessageBoxR7(textKey);
    } else if (dialog == kWarningBoxR7) {
        WarningBoxR7();
    } else {
        MessageBox(textKey);
    }
    if (g_msgBoxRef != nullptr) {
        RunApplicationEventLoop();
    }
    CloseLogSystem();
    return 0;
}
