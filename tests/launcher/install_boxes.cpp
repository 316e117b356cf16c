/* The question boxes on the scripted backend: each answer, a click elsewhere, a click after
 * the answer, and a box whose window cannot be made. Commands are recorded, not run. */
#include "Common/Log.h"
#include "Launcher.h"
#include "PlatformTesting.h"
#include "install_support.h"

#include <gtest/gtest.h>

#include <string.h>

using namespace install_test;

namespace {

const std::string kOpenApp = "open -a \"/Applications/Vantorel.app\"";
const std::string kNewVersionText =
    "A newer version of Vantorel is on this disc. Do you want to install it now? "
    "Choose No to start the Vantorel that is already installed.";
const std::string kInstallDriverText =
    "This version of Vantorel is already installed on this computer. Choose Yes to start it.";

// Sends a control hit the way a click reaches the application target.
OSStatus SendHit(ControlRef control) {
    EventRef event = nullptr;
    if (CreateEvent(nullptr, kEventClassControl, kEventControlHit, GetCurrentEventTime(), 0, &event) !=
        noErr) {
        return -1;
    }
    if (control != nullptr) {
        SetEventParameter(event, kEventParamDirectObject, typeControlRef, sizeof control, &control);
    }
    OSStatus status = SendEventToEventTarget(event, GetApplicationEventTarget());
    ReleaseEvent(event);
    return status;
}

std::string ControlText(const char* window, OSType signature) {
    char text[1024] = {};
    if (!PlatScriptGetControlText(window, signature, 1, text, sizeof text)) {
        return "<no such control>";
    }
    return text;
}

// A quit asked outside any loop waits for the next one: start from none pending.
void ForgetPendingQuit() {
    QuitApplicationEventLoop();
    RunApplicationEventLoop();
}

class BoxesTest : public ::testing::Test {
  protected:
    void SetUp() override {
        unsetenv("LC_ALL");
        unsetenv("LC_MESSAGES");
        setenv("LANG", "en_US.UTF-8", 1);
        PlatSetBackend("scripted");
        PlatScriptReset();
        ClearRecordedCommands();
        ForgetPendingQuit();
        bundle_ = temp_ / "Disc/Launcher.app";
        MakeBundleSkeleton(bundle_);
        CopySourceResources(bundle_);
        PlatSetExecutablePath((bundle_ + "/Contents/MacOS/Launcher").c_str());
        logPath_ = temp_ / "Kestrun.log";
        InitLogSystem(logPath_.c_str());
        SetEvent("QV_EVENT");
        isShowProcessWindow = false;
        strncpy(szAppPath, "/Applications/Vantorel.app", sizeof szAppPath - 1);
    }
    void TearDown() override {
        CloseLogSystem();
        StopEvent();
        PlatDrainEvents();
        PlatScriptReset();
        PlatSetExecutablePath(nullptr);
    }
    std::vector<LogEntry> LogEntries() {
        CloseLogSystem();
        std::vector<LogEntry> entries = ReadLog(logPath_);
        InitLogSystem(logPath_.c_str());
        return entries;
    }

    TempDir temp_;
    std::string bundle_, logPath_;
};

// MessageBox and MessageBoxR7 differ only in their window and their name in the log.
struct ConfirmBox {
    const char* window;
    const char* logName;
    void (*show)(const char*);
};
const ConfirmBox kConfirmBoxes[] = {{"MessageBox", "MessageBox", MessageBox},
                                    {"MessageBox_Installed", "MessageBoxR7", MessageBoxR7}};

TEST_F(BoxesTest, YesDisposesTheBoxThenInstalls) {
    for (const ConfirmBox& box : kConfirmBoxes) {
        SCOPED_TRACE(box.window);
        ForgetPendingQuit();
        ClearRecordedCommands();
        PlatScriptSetAction(box.window, kPlatScriptPressControl, 'YES1', 1);
        box.show("NEW_VERSION_CONFIRM");
        RunApplicationEventLoop();

        EXPECT_EQ(PlatScriptShowCount(box.window), 1);
        EXPECT_FALSE(PlatScriptIsVisible(box.window));
        // Others path: staging, the Installer, removal, the application.
        std::vector<std::string> commands = RecordedCommands();
        ASSERT_EQ(commands.size(), 5u);
        EXPECT_EQ(commands.back(), kOpenApp);
        EXPECT_GE(FindMessage(LogEntries(), "AutoInstallPkg Enter"), 0);

        // The handler has removed itself: a second Yes installs nothing more.
        ClearRecordedCommands();
        SendHit(g_msgBoxYesRef);
        EXPECT_TRUE(RecordedCommands().empty());
    }
}

TEST_F(BoxesTest, NoStartsTheApplicationAndLeavesTheBoxUp) {
    for (const ConfirmBox& box : kConfirmBoxes) {
        SCOPED_TRACE(box.window);
        ForgetPendingQuit();
        ClearRecordedCommands();
        PlatScriptSetAction(box.window, kPlatScriptPressControl, 'NO11', 1);
        box.show("NEW_VERSION_CONFIRM");
        RunApplicationEventLoop();

        EXPECT_EQ(RecordedCommands(), std::vector<std::string>{kOpenApp});
        EXPECT_TRUE(PlatScriptIsVisible(box.window));
        EXPECT_EQ(ControlText(box.window, 'MSG1'), kNewVersionText);
        EXPECT_LT(FindMessage(LogEntries(), "AutoInstallPkg Enter"), 0);

        // Neither button reaches a handler any more.
        SendHit(g_msgBoxNoRef);
        SendHit(g_msgBoxYesRef);
        EXPECT_EQ(RecordedCommands().size(), 1u);
    }
}

TEST_F(BoxesTest, CloseBoxStartsTheApplicationAndKeepsTheClickHandler) {
    for (const ConfirmBox& box : kConfirmBoxes) {
        SCOPED_TRACE(box.window);
        ForgetPendingQuit();
        ClearRecordedCommands();
        PlatScriptSetAction(box.window, kPlatScriptClose, 0, 0);
        box.show("DIFFERENT_VERSION_CONFIRM");
        RunApplicationEventLoop();

        EXPECT_EQ(RecordedCommands(), std::vector<std::string>{kOpenApp});
        std::vector<LogEntry> log = LogEntries();
        int started = FindMessage(log, "AutoRunApplication end......");
        int closed = FindMessage(log, "Close messageBox window");
        ASSERT_GE(started, 0);
        ASSERT_GT(closed, started);
        EXPECT_EQ(log[closed].function, "CloseWindowHandle");

        // The click handler stays: No still answers.
        SendHit(g_msgBoxNoRef);
        EXPECT_EQ(RecordedCommands().size(), 2u);
    }
}

TEST_F(BoxesTest, OtherControlsAndEmptyEventsAreIgnored) {
    MessageBox("NO_SUCH_KEY");
    ASSERT_TRUE(PlatScriptIsVisible("MessageBox"));
    // A key that the table lacks shows itself.
    EXPECT_EQ(ControlText("MessageBox", 'MSG1'), "NO_SUCH_KEY");

    EXPECT_EQ(SendHit(GetControlRef(g_msgBoxRef, 'MSG1', 1)), noErr);
    EXPECT_TRUE(RecordedCommands().empty());
    EXPECT_TRUE(PlatScriptIsVisible("MessageBox"));

    // A hit that names no control is refused with the parameter's error.
    EXPECT_NE(SendHit(nullptr), noErr);
    EXPECT_TRUE(RecordedCommands().empty());
    std::vector<LogEntry> log = LogEntries();
    int line = FindMessage(log, "GetEventParameter failed");
    ASSERT_GE(line, 0);
    EXPECT_EQ(log[line].function, "MessageBoxAppClickEventHandler");

    // The handler is still there for the real answer.
    SendHit(g_msgBoxNoRef);
    EXPECT_EQ(RecordedCommands(), std::vector<std::string>{kOpenApp});

    // No key, no box.
    MessageBox(nullptr);
    MessageBoxR7(nullptr);
    EXPECT_EQ(PlatScriptShowCount("MessageBox"), 1);
    EXPECT_EQ(PlatScriptShowCount("MessageBox_Installed"), 0);
}

TEST_F(BoxesTest, WarningBoxStartsTheApplicationEitherWay) {
    PlatScriptSetAction("WarnningBox_Installed", kPlatScriptPressControl, 'YES2', 1);
    WarningBoxR7();
    RunApplicationEventLoop();
    EXPECT_EQ(RecordedCommands(), std::vector<std::string>{kOpenApp});
    EXPECT_TRUE(PlatScriptIsVisible("WarnningBox_Installed"));
    EXPECT_EQ(ControlText("WarnningBox_Installed", 'MSG1'), kInstallDriverText);
    SendHit(g_msgBoxYesRef);
    EXPECT_EQ(RecordedCommands().size(), 1u);

    ForgetPendingQuit();
    ClearRecordedCommands();
    PlatScriptSetAction("WarnningBox_Installed", kPlatScriptClose, 0, 0);
    WarningBoxR7();
    RunApplicationEventLoop();
    EXPECT_EQ(RecordedCommands(), std::vector<std::string>{kOpenApp});
    EXPECT_GE(FindMessage(LogEntries(), "Close messageBox window"), 0);
}

// Nobody can answer a box that has no window: it answers as its close box would, and the
// event loop that follows ends at once.
TEST_F(BoxesTest, BoxWithoutWindowStartsTheApplication) {
    WriteFile(bundle_ + "/Contents/Resources/main.nib", "<nib><window name=\"Other\" title=\"x\"/></nib>\n");
    struct Case {
        const char* logName;
        void (*show)();
    } cases[] = {{"MessageBox", [] { MessageBox("NEW_VERSION_CONFIRM"); }},
                 {"MessageBoxR7", [] { MessageBoxR7("DIFFERENT_VERSION_CONFIRM"); }},
                 {"WarningBoxR7", [] { WarningBoxR7(); }}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.logName);
        ForgetPendingQuit();
        ClearRecordedCommands();
        c.show();
        RunApplicationEventLoop();
        EXPECT_EQ(RecordedCommands(), std::vector<std::string>{kOpenApp});
        std::vector<LogEntry> log = LogEntries();
        ASSERT_FALSE(log.empty());
        int line = FindMessage(log, "CreateWindowFromNib failed");
        ASSERT_GE(line, 0);
        EXPECT_EQ(log[line].function, c.logName);
        CloseLogSystem();
        fs::remove(logPath_);
        InitLogSystem(logPath_.c_str());
    }

    // Without any nib the same holds.
    fs::remove(bundle_ + "/Contents/Resources/main.nib");
    ForgetPendingQuit();
    ClearRecordedCommands();
    MessageBox("NEW_VERSION_CONFIRM");
    RunApplicationEventLoop();
    EXPECT_EQ(RecordedCommands(), std::vector<std::string>{kOpenApp});
}

} // namespace
