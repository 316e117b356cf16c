/* The command lines of staging, removal, the Installer, the AutoSetup copy and the script,
 * recorded instead of run (system is wrapped in this test binary). */
#include "Common/Log.h"
#include "Launcher.h"
#include "PlatformTesting.h"
#include "install_support.h"

#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>

using namespace install_test;

namespace {

const std::string kStaged = "/tmp/qv_tmp_vantorel.mpkg";
const std::string kRemoval = "rm -R -f  \"/tmp/qv_tmp_vantorel.mpkg\"";
const std::string kOpenApp = "open -a \"/Applications/Vantorel.app\"";
const std::string kOldInstaller =
    "/Applications/Utilities/Installer.app/Contents/MacOS/Installer  \"/tmp/qv_tmp_vantorel.mpkg\"";
const std::string kNewInstaller =
    "/System/Library/CoreServices/Installer.app/Contents/MacOS/Installer  \"/tmp/qv_tmp_vantorel.mpkg\"";

std::string PackageCopy(const std::string& bundle) {
    return "cp -R \"" + bundle + "/Contents/Resources/Vantorel.mpkg\" /tmp/qv_tmp_vantorel.mpkg";
}

class InstallCommandsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ClearRecordedCommands();
        logPath_ = temp_ / "Kestrun.log";
        InitLogSystem(logPath_.c_str());
        SetEvent("QV_EVENT");
        isShowProcessWindow = false;
        strncpy(szAppPath, "/Applications/Vantorel.app", sizeof szAppPath - 1);
    }
    void TearDown() override {
        ForgetProcessTable();
        CloseLogSystem();
        StopEvent();
        PlatSetExecutablePath(nullptr);
        PlatSetOSRelease(nullptr);
    }

    // Lays out a bundle at temp/relative and makes it the running launcher's.
    std::string UseBundle(const std::string& relative) {
        std::string bundle = temp_ / relative;
        MakeBundleSkeleton(bundle);
        PlatSetExecutablePath((bundle + "/Contents/MacOS/Launcher").c_str());
        return bundle;
    }

    std::vector<LogEntry> LogEntries() {
        CloseLogSystem();
        std::vector<LogEntry> entries = ReadLog(logPath_);
        InitLogSystem(logPath_.c_str());
        return entries;
    }

    // The process table is fetched once per launcher run: each dispatch here is a new run.
    static void ForgetProcessTable() {
        free(pprocesslist);
        pprocesslist = nullptr;
        processcount = 0;
    }

    // How often the completion event has been signalled since the last call.
    int TakeSignals() {
        int signals = 0;
        while (signals < 10 && Wait(0)) {
            ++signals;
        }
        return signals;
    }

    TempDir temp_;
    std::string logPath_;
};

TEST_F(InstallCommandsTest, StagingQuotesTheSourceAndRemovesTheOldCopyFirst) {
    std::string bundle = UseBundle("My Disc/Kestrun Launcher.app");
    EXPECT_TRUE(CopyPkgToLocal());
    EXPECT_EQ(RecordedCommands(), (std::vector<std::string>{kRemoval, PackageCopy(bundle)}));

    // Without a bundle the old staged copy is still removed, and nothing is copied.
    ClearRecordedCommands();
    PlatSetExecutablePath((temp_ / "loose/Launcher").c_str());
    EXPECT_FALSE(CopyPkgToLocal());
    EXPECT_EQ(RecordedCommands(), std::vector<std::string>{kRemoval});
    std::vector<LogEntry> log = LogEntries();
    int line = FindMessage(log, "Get Module Path error.");
    ASSERT_GE(line, 0);
    EXPECT_EQ(log[line].function, "CopyPkgToLocal");
}

TEST_F(InstallCommandsTest, InstallerFollowsTheSystemVersion) {
    std::string bundle = UseBundle("Disc/Launcher.app");
    struct Case {
        const char* release;
        std::string installer;
    } cases[] = {{"8.11.1", kOldInstaller}, {"9.0.0", kNewInstaller}, {"10.8.0", kNewInstaller}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.release);
        ClearRecordedCommands();
        PlatSetOSRelease(c.release);
        AutoRunInstallPkg(false);
        // Staging, the Installer on the staged copy, its removal, then the application.
        EXPECT_EQ(RecordedCommands(),
                  (std::vector<std::string>{kRemoval, PackageCopy(bundle), c.installer, kRemoval, kOpenApp}));
        EXPECT_EQ(TakeSignals(), 1);
        std::vector<LogEntry> log = LogEntries();
        EXPECT_GE(FindMessage(log, "installerPath:" + c.installer + "."), 0);
    }

    // A failing version query counts as a recent system.
    ClearRecordedCommands();
    PlatSetOSRelease(nullptr);
    PlatSetOSReleaseQueryFails(true);
    AutoRunInstallPkg(false);
    PlatSetOSReleaseQueryFails(false);
    std::vector<std::string> commands = RecordedCommands();
    ASSERT_EQ(commands.size(), 5u);
    EXPECT_EQ(commands[2], kNewInstaller);
}

TEST_F(InstallCommandsTest, NoInstallerWithoutABundle) {
    PlatSetExecutablePath((temp_ / "loose/Launcher").c_str());
    AutoRunInstallPkg(false);
    // The removal of CopyPkgToLocal only: no Installer, no removal after it, no start.
    EXPECT_EQ(RecordedCommands(), std::vector<std::string>{kRemoval});
    EXPECT_EQ(TakeSignals(), 1);
    std::vector<LogEntry> log = LogEntries();
    ASSERT_GE(FindMessage(log, "Get Module Path error."), 0);
    EXPECT_EQ(log.back().function, "AutoRunInstallPkg");
    EXPECT_EQ(log.back().message, "Get Module Path error.");

    // The dispatch answers the same way and signals once.
    ClearRecordedCommands();
    AutoInstallPkg(false);
    EXPECT_TRUE(RecordedCommands().empty());
    EXPECT_EQ(TakeSignals(), 1);
}

TEST_F(InstallCommandsTest, OthersPathRunsTheInstallerAndSignalsOnce) {
    // "/volumes" in lower case is no disc image.
    std::string bundle = UseBundle("volumes/Disc/Launcher.app");
    AutoInstallPkg(false);
    EXPECT_EQ(RecordedCommands(),
              (std::vector<std::string>{kRemoval, PackageCopy(bundle), kNewInstaller, kRemoval, kOpenApp}));
    EXPECT_EQ(TakeSignals(), 1);
    std::vector<std::string> messages = Messages(LogEntries());
    EXPECT_NE(std::find(messages.begin(), messages.end(), "**Install from others path**"), messages.end());
    EXPECT_EQ(std::find(messages.begin(), messages.end(), "**Install from dashboard path**"), messages.end());
}

// The dashboard path runs the script only when the bundle's AutoSetup and the staged package
// both exist; the staged package is the one fixed path these cases touch.
TEST_F(InstallCommandsTest, DashboardPathHandsOverToTheScript) {
    FixedPathGuard staged(kStaged);
    std::string bundle = UseBundle("Users/me/Volumes/Kestrun Disc/Launcher.app");
    const std::string autoSetupCopy = "cp -R \"" + bundle + "/Contents/AutoSetup\" \"/tmp/AutoSetup\"";
    const std::string script = "\"" + bundle + "/Contents/run_local_kestrun\"";

    struct Case {
        const char* name;
        bool autoSetup, stagedPackage, scriptRuns;
    } cases[] = {{"both present", true, true, true},
                 {"no AutoSetup in the bundle", false, true, false},
                 {"no staged package", true, false, false}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        fs::remove(bundle + "/Contents/AutoSetup");
        fs::remove_all(kStaged);
        if (c.autoSetup) {
            WriteFile(bundle + "/Contents/AutoSetup", "#!/bin/sh\n", true);
        }
        if (c.stagedPackage) {
            fs::create_directories(kStaged + "/Contents");
        }
        ClearRecordedCommands();
        CloseLogSystem();
        fs::remove(logPath_);
        InitLogSystem(logPath_.c_str());
        ForgetProcessTable();

        AutoInstallPkg(false);

        std::vector<std::string> expected = {kRemoval, PackageCopy(bundle), autoSetupCopy};
        if (c.scriptRuns) {
            expected.push_back(script);
        }
        EXPECT_EQ(RecordedCommands(), expected);
        EXPECT_EQ(TakeSignals(), 1);

        std::vector<LogEntry> log = LogEntries();
        int dashboard = FindMessage(log, "**Install from dashboard path**");
        int noProgress = FindMessage(log, "copy mpkg not showprogress", dashboard);
        int loopExit = FindMessage(log, "RunAppModalLoopForWindow exit.....", noProgress);
        int copyLine = FindMessage(log, autoSetupCopy, loopExit);
        EXPECT_GE(dashboard, 0);
        EXPECT_GT(noProgress, dashboard);
        EXPECT_GT(loopExit, noProgress);
        ASSERT_GT(copyLine, loopExit);
        EXPECT_EQ(log[copyLine].function, "copytolocal");
        EXPECT_EQ(FindMessage(log, "Run Script,path: " + script) >= 0, c.scriptRuns);
        // Only the bundle's AutoSetup is tested when it is missing.
        int missingStaged = FindMessage(log, "File: /tmp/qv_tmp_vantorel.mpkg isn't exist");
        EXPECT_EQ(missingStaged >= 0, c.autoSetup && !c.stagedPackage);
    }
}

TEST_F(InstallCommandsTest, CopyToLocalQuotesBothPathsAndLogsThemVerbatim) {
    copytolocal("/Volumes/A 100% Disc/AutoSetup", "/tmp/Auto Setup");
    const std::string command = "cp -R \"/Volumes/A 100% Disc/AutoSetup\" \"/tmp/Auto Setup\"";
    EXPECT_EQ(RecordedCommands(), std::vector<std::string>{command});

    copytolocal(nullptr, "/tmp/AutoSetup");
    copytolocal("/x", nullptr);
    EXPECT_EQ(RecordedCommands().size(), 1u);

    std::vector<LogEntry> log = LogEntries();
    ASSERT_EQ(log.size(), 3u);
    EXPECT_EQ(log[0].message, command);
    EXPECT_EQ(log[1].message, "param error");
    EXPECT_EQ(log[2].message, "param error");
    EXPECT_EQ(log[2].function, "copytolocal");
}

// Long bundle paths: every command is cut at 1023 characters, never refused or overrun.
// The bundle's URL gives the path on the older system, which has room for such paths.
TEST_F(InstallCommandsTest, LongBundlePathsAreCutAt1023Characters) {
    PlatSetOSRelease("8.11.1");
    // A bundle path of 1010 characters: "%s/Contents/AutoSetup" and the rest no longer fit.
    std::string relative = "Volumes";
    const size_t wanted = 1010 - temp_.path().size() - 1 - std::string("/L.app").size();
    while (relative.size() < wanted) {
        relative += "/" + std::string(std::min<size_t>(60, wanted - relative.size() - 1), 'd');
    }
    std::string bundle = UseBundle(relative + "/L.app");
    ASSERT_EQ(bundle.size(), 1010u);

    AutoInstallPkg(false);
    std::vector<std::string> commands = RecordedCommands();
    // The script's path is cut, so neither it nor the staged package is found: no script.
    ASSERT_EQ(commands.size(), 3u);
    const std::string fullCopy = PackageCopy(bundle);
    const std::string fullAutoSetupCopy = "cp -R \"" + bundle + "/Contents/AutoSetup\" \"/tmp/AutoSetup\"";
    EXPECT_EQ(commands[1], fullCopy.substr(0, 1023));
    EXPECT_EQ(commands[2], fullAutoSetupCopy.substr(0, 1023));
    EXPECT_EQ(TakeSignals(), 1);

    std::vector<LogEntry> log = LogEntries();
    std::string scriptCommand = ("\"" + bundle + "/Contents/run_local_kestrun\"").substr(0, 1023);
    EXPECT_LT(FindMessage(log, "Run Script,path: " + scriptCommand), 0);

    // The Installer command itself does not grow with the bundle path.
    ClearRecordedCommands();
    AutoRunInstallPkg(false);
    commands = RecordedCommands();
    ASSERT_EQ(commands.size(), 5u);
    EXPECT_EQ(commands[2], kOldInstaller);
}

} // namespace
