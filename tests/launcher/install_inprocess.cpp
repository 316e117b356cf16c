/* Installation in-process, on the scripted window backend: the command lines of staging, the
 * Installer, the AutoSetup copy and the script (recorded, not run), the boxes and the
 * progress window. */
#include "support.h"

using namespace launcher_test;

namespace {

const std::string kRemoval = "rm -R -f  \"/tmp/qv_tmp_vantorel.mpkg\"";
const std::string kOpenApp = "open -a \"/Applications/Vantorel.app\"";
const std::string kOldInstaller =
    "/Applications/Utilities/Installer.app/Contents/MacOS/Installer  \"/tmp/qv_tmp_vantorel.mpkg\"";
const std::string kNewInstaller =
    "/System/Library/CoreServices/Installer.app/Contents/MacOS/Installer  \"/tmp/qv_tmp_vantorel.mpkg\"";

std::string PackageCopy(const std::string& bundle) {
    return "cp -R \"" + bundle + "/Contents/Resources/Vantorel.mpkg\" /tmp/qv_tmp_vantorel.mpkg";
}
std::string AutoSetupCopy(const std::string& bundle) {
    return "cp -R \"" + bundle + "/Contents/AutoSetup\" \"/tmp/AutoSetup\"";
}

// Sends a control hit the way a click reaches the application target.
OSStatus SendHit(ControlRef control) {
    EventRef event = nullptr;
    CreateEvent(nullptr, kEventClassControl, kEventControlHit, GetCurrentEventTime(), 0, &event);
    if (control != nullptr)
        SetEventParameter(event, kEventParamDirectObject, typeControlRef, sizeof control, &control);
    OSStatus status = SendEventToEventTarget(event, GetApplicationEventTarget());
    ReleaseEvent(event);
    return status;
}

std::string ControlText(const char* window) {
    char text[1024] = {};
    PlatScriptGetControlText(window, 'MSG1', 1, text, sizeof text);
    return text;
}

using Install = InProcess;
using Show = void (*)();

} // namespace

// Away from "/Volumes" (case counts) the Installer of the running system is used.
TEST_F(Install, OthersPathRunsTheInstallerOfTheSystem) {
    std::string bundle = UseBundle("volumes/Disc/Launcher.app");
    for (const auto& [release, installer] : std::vector<std::pair<const char*, std::string>>{
             {"8.11.1", kOldInstaller}, {"9.0.0", kNewInstaller}, {nullptr, kNewInstaller}}) {
        PlatSetOSRelease(release);
        PlatSetOSReleaseQueryFails(release == nullptr);
        AutoInstallPkg(false);
        EXPECT_EQ(Lines({kRemoval, PackageCopy(bundle), installer, kRemoval, kOpenApp}), TakeCommands());
        EXPECT_EQ(1, TakeSignals());
        std::vector<LogLine> log = TakeLog();
        EXPECT_GE(FindMessage(log, "installerPath:" + installer + "."),
                  FindMessage(log, "**Install from others path**"));
        EXPECT_EQ(-1, FindMessage(log, "**Install from dashboard path**"));
    }
}

// With AutoSetup in the bundle and the package staged the script is run (the cases without
// them run end to end). A '%' in a path reaches the shell and the log as it is.
TEST_F(Install, DashboardPathHandsOverToTheScript) {
    FixedPathGuard staged(kStaged);
    std::string bundle = UseBundle("Users/me/Volumes/Kestrun 100% Disc/Launcher.app");
    const std::string script = "\"" + bundle + "/Contents/run_local_kestrun\"";
    WriteFile(bundle + "/Contents/AutoSetup", "#!/bin/sh\n", true);
    fs::create_directories(kStaged + "/Contents");
    AutoInstallPkg(false);
    EXPECT_EQ(Lines({kRemoval, PackageCopy(bundle), AutoSetupCopy(bundle), script}), TakeCommands());
    EXPECT_EQ(1, TakeSignals());
    std::vector<LogLine> log = TakeLog();
    // The AutoSetup copy follows the staging step and its modal loop; the script comes last.
    int copy =
        FindMessage(log, AutoSetupCopy(bundle), FindMessage(log, "RunAppModalLoopForWindow exit....."));
    ASSERT_GT(copy, FindMessage(log, "**Install from dashboard path**"));
    EXPECT_EQ("copytolocal", log[copy].function);
    EXPECT_GT(FindMessage(log, "Run Script,path: " + script), copy);
}

// Every command is cut at 1023 characters, never refused or overrun. The bundle URL of the
// older system has room for such paths.
TEST_F(Install, LongBundlePathsAreCut) {
    PlatSetOSRelease("8.11.1");
    std::string relative = "Volumes";
    while (dir_.path.size() + relative.size() + 7 < 1010) {
        relative +=
            "/" + std::string(std::min<size_t>(60, 1010 - dir_.path.size() - relative.size() - 8), 'd');
    }
    std::string bundle = UseBundle(relative + "/L.app");
    ASSERT_EQ(1010u, bundle.size());
    AutoInstallPkg(false);
    // The script's path is cut, so it is not found and not run.
    EXPECT_EQ(Lines({kRemoval, PackageCopy(bundle).substr(0, 1023), AutoSetupCopy(bundle).substr(0, 1023)}),
              TakeCommands());
    EXPECT_EQ(1, TakeSignals());
}

// Yes disposes the box and installs; No and the close box start the installed application.
// A later click reaches a handler only where it is still installed.
TEST_F(Install, BoxAnswers) {
    const std::string newVersion =
        "A newer version of Vantorel is on this disc. Do you want to install it now? To keep using the "
        "version already installed on this computer, click Open Vantorel.";
    const std::string installed = "This version of Vantorel is already installed on this computer. Click "
                                  "Open Vantorel to start using it.";
    auto messageBox = [] { MessageBox("NEW_VERSION_CONFIRM"); };
    auto messageBoxR7 = [] { MessageBoxR7("NEW_VERSION_CONFIRM"); };
    for (const auto& [window, show, action, control, installs, later, laterCommands] :
         std::vector<std::tuple<const char*, Show, PlatScriptAction, OSType, bool, ControlRef*, size_t>>{
             {"MessageBox", messageBox, kPlatScriptPressControl, 'YES1', true, &g_msgBoxYesRef, 0},
             {"MessageBox", messageBox, kPlatScriptPressControl, 'NO11', false, &g_msgBoxNoRef, 0},
             {"MessageBox", messageBox, kPlatScriptClose, 0, false, &g_msgBoxNoRef, 1},
             // Return presses Yes and Escape No: the box marks its default and cancel buttons.
             {"MessageBox_Installed", messageBoxR7, kPlatScriptReturn, 0, true, &g_msgBoxYesRef, 0},
             {"MessageBox_Installed", messageBoxR7, kPlatScriptEscape, 0, false, &g_msgBoxYesRef, 0},
             {"MessageBox_Installed", messageBoxR7, kPlatScriptClose, 0, false, &g_msgBoxNoRef, 1},
             {"WarnningBox_Installed", WarningBoxR7, kPlatScriptReturn, 0, false, &g_msgBoxYesRef, 0},
             {"WarnningBox_Installed", WarningBoxR7, kPlatScriptClose, 0, false, nullptr, 0}}) {
        SCOPED_TRACE(std::string(window) + (action == kPlatScriptClose ? " close" : " button"));
        PlatScriptSetAction(window, action, control, 1);
        show();
        RunApplicationEventLoop();
        Lines commands = TakeCommands();
        std::vector<LogLine> log = TakeLog();
        EXPECT_EQ(installs ? 5u : 1u, commands.size());
        EXPECT_EQ(kOpenApp, commands.back());
        EXPECT_EQ(installs, FindMessage(log, "AutoInstallPkg Enter") >= 0);
        if (action == kPlatScriptClose) {
            int closed =
                FindMessage(log, "Close messageBox window", FindMessage(log, "AutoRunApplication end......"));
            ASSERT_GT(closed, 0);
            EXPECT_EQ("CloseWindowHandle", log[closed].function);
        } else {
            EXPECT_EQ(!installs, PlatScriptIsVisible(window)); // only Yes takes the box down
            EXPECT_EQ(installs ? "" : window[0] == 'W' ? installed : newVersion, ControlText(window));
        }
        if (later != nullptr) {
            SendHit(*later);
            EXPECT_EQ(laterCommands, TakeCommands().size());
        }
    }
}

// Clicks on other controls and hits without a control leave the box waiting for its answer.
TEST_F(Install, BoxIgnoresOtherHits) {
    MessageBox("NO_SUCH_KEY");
    EXPECT_EQ("NO_SUCH_KEY", ControlText("MessageBox")); // a key the table lacks shows itself
    EXPECT_EQ(noErr, SendHit(GetControlRef(g_msgBoxRef, 'MSG1', 1)));
    EXPECT_NE(noErr, SendHit(nullptr));
    EXPECT_EQ(Lines(), TakeCommands());
    EXPECT_TRUE(PlatScriptIsVisible("MessageBox"));
    EXPECT_EQ("MessageBoxAppClickEventHandler --- GetEventParameter failed", TakeLog().back().Call());
    SendHit(g_msgBoxNoRef);
    EXPECT_EQ(Lines{kOpenApp}, TakeCommands());

    MessageBox(nullptr);
    MessageBoxR7(nullptr);
    EXPECT_EQ(1, PlatScriptShowCount("MessageBox"));
    EXPECT_EQ(0, PlatScriptShowCount("MessageBox_Installed"));
}

// Sent on the main thread, a command is handled at once; a close that arrives twice, or a
// command of another kind, touches no dead window. A worker faster than the main thread
// closes the window before its modal loop starts.
TEST_F(Install, ProgressWindowClosesOnce) {
    ShowProgressWindow();
    ASSERT_TRUE(PlatScriptIsVisible("ProgressWindow"));
    SendCommandProcessEvent('abcd');
    EXPECT_TRUE(PlatScriptIsVisible("ProgressWindow"));
    SendCommandProcessEvent('clos'); // on the main thread, handled before the call returns
    EXPECT_FALSE(PlatScriptIsVisible("ProgressWindow"));
    SendCommandProcessEvent('clos');
    EXPECT_FALSE(IsValidWindowPtr(g_ProgressWindowRef));

    std::thread([] { SendCommandProcessEvent('clos'); }).join();
    testing::internal::CaptureStdout();
    ShowProgressWindow();
    if (IsValidWindowPtr(g_ProgressWindowRef))
        RunAppModalLoopForWindow(g_ProgressWindowRef);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_FALSE(PlatScriptIsVisible("ProgressWindow"));
    EXPECT_NE(std::string::npos, out.find("ProgressWindowHandler: event handled!")) << out;
}
