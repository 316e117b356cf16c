/* The progress window on the scripted backend: its close command from the main thread and
 * from the worker, early, late and twice, and a window without its logo. */
#include "Common/Log.h"
#include "Launcher.h"
#include "PlatformTesting.h"
#include "install_support.h"

#include <gtest/gtest.h>

#include <string.h>

#include <thread>

using namespace install_test;

namespace {

bool Contains(const std::string& text, const std::string& piece) {
    return text.find(piece) != std::string::npos;
}

size_t CountOf(const std::string& text, const std::string& piece) {
    size_t count = 0;
    for (size_t at = text.find(piece); at != std::string::npos; at = text.find(piece, at + 1)) {
        ++count;
    }
    return count;
}

// A quit asked outside any loop waits for the next one: start from none pending.
void ForgetPendingQuit() {
    QuitApplicationEventLoop();
    RunApplicationEventLoop();
}

class ProgressTest : public ::testing::Test {
  protected:
    void SetUp() override {
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

TEST_F(ProgressTest, CloseCommandTakesTheWindowDownOnce) {
    testing::internal::CaptureStdout();
    ShowProgressWindow();
    ASSERT_TRUE(PlatScriptIsVisible("ProgressWindow"));
    ASSERT_NE(g_ImageViewRef, nullptr);

    // Another command passes as handled and closes nothing.
    SendCommandProcessEvent('abcd');
    PlatDrainEvents();
    EXPECT_TRUE(PlatScriptIsVisible("ProgressWindow"));

    SendCommandProcessEvent('clos');
    PlatDrainEvents();
    EXPECT_FALSE(PlatScriptIsVisible("ProgressWindow"));
    EXPECT_FALSE(IsValidWindowPtr(g_ProgressWindowRef));

    // A second close finds no window and touches nothing.
    SendCommandProcessEvent('clos');
    PlatDrainEvents();
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(Contains(out, "show windowformNib\n")) << out;
    EXPECT_EQ(CountOf(out, "ProgressWindowHandler: entered!\n"), 3u) << out;
    EXPECT_EQ(CountOf(out, "ProgressWindowHandler: event received!\n"), 2u) << out;
    EXPECT_EQ(CountOf(out, "ProgressWindowHandler: event handled!\n"), 2u) << out;
    EXPECT_FALSE(Contains(out, "SetLogoImage")) << out;

    // Events of another class are left to other handlers.
    EventRef event = nullptr;
    ASSERT_EQ(CreateEvent(nullptr, kEventClassWindow, kEventWindowClose, GetCurrentEventTime(), 0, &event),
              noErr);
    EXPECT_EQ(ProgressWindowHandler(nullptr, event, nullptr), eventNotHandledErr);
    ReleaseEvent(event);
}

TEST_F(ProgressTest, WindowIsShownWithoutItsLogo) {
    // No picture among the resources.
    fs::remove(bundle_ + "/Contents/Resources/Installer.png");
    testing::internal::CaptureStdout();
    ShowProgressWindow();
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(PlatScriptIsVisible("ProgressWindow"));
    EXPECT_TRUE(Contains(out, "LoadImage: create url failed!\nSetLogoImage: load image failed ")) << out;
    SendCommandProcessEvent('clos');
    PlatDrainEvents();

    // A picture that is no PNG.
    WriteFile(bundle_ + "/Contents/Resources/Installer.png", "not a picture");
    testing::internal::CaptureStdout();
    ShowProgressWindow();
    out = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(PlatScriptIsVisible("ProgressWindow"));
    EXPECT_TRUE(Contains(out, "SetLogoImage: load image failed ")) << out;
    EXPECT_FALSE(Contains(out, "LoadImage:")) << out;
    SendCommandProcessEvent('clos');
    PlatDrainEvents();

    // A window without the image view.
    WriteFile(bundle_ + "/Contents/Resources/main.nib",
              "<nib><window name=\"ProgressWindow\" title=\"Installing\" width=\"300\" height=\"100\">"
              "<statictext signature=\"TXT1\" id=\"1\" x=\"10\" y=\"10\" width=\"280\" "
              "height=\"20\">Copying</statictext>"
              "</window></nib>\n");
    testing::internal::CaptureStdout();
    ShowProgressWindow();
    out = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(PlatScriptIsVisible("ProgressWindow"));
    EXPECT_TRUE(Contains(out, "SetLogoImage: find HIView failed, err = ")) << out;
    EXPECT_FALSE(Contains(out, "load image failed")) << out;
    SendCommandProcessEvent('clos');
    PlatDrainEvents();

    // No such window: nothing to show and no handler.
    WriteFile(bundle_ + "/Contents/Resources/main.nib", "<nib></nib>\n");
    testing::internal::CaptureStdout();
    ShowProgressWindow();
    out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out, "show windowformNib\n");
    EXPECT_EQ(g_ProgressWindowRef, nullptr);
}

// A worker faster than the main thread: its close is queued before the window exists, and
// the modal loop that follows still ends.
TEST_F(ProgressTest, CloseFromTheWorkerBeforeTheModalLoop) {
    std::thread worker([] { SendCommandProcessEvent('clos'); });
    worker.join();
    testing::internal::CaptureStdout();
    ShowProgressWindow();
    if (IsValidWindowPtr(g_ProgressWindowRef)) {
        RunAppModalLoopForWindow(g_ProgressWindowRef);
    }
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_FALSE(PlatScriptIsVisible("ProgressWindow"));
    EXPECT_TRUE(Contains(out, "ProgressWindowHandler: event handled!")) << out;
}

// The whole staging step with the worker: three seconds of pause by design.
TEST_F(ProgressTest, WorkerCopiesThenClosesTheWindow) {
    testing::internal::CaptureStdout();
    AutoRunInstallPkg(true);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(PlatScriptShowCount("ProgressWindow"), 1);
    EXPECT_FALSE(PlatScriptIsVisible("ProgressWindow"));
    EXPECT_TRUE(Contains(out, "ProgressWindowHandler: event handled!")) << out;

    std::vector<std::string> commands = RecordedCommands();
    ASSERT_EQ(commands.size(), 5u);
    EXPECT_EQ(commands[1],
              "cp -R \"" + bundle_ + "/Contents/Resources/Vantorel.mpkg\" /tmp/qv_tmp_vantorel.mpkg");

    std::vector<LogEntry> log = LogEntries();
    int begin = FindMessage(log, "copy mpkg to local begin...");
    int end = FindMessage(log, "copy mpkg to local end ....", begin);
    int send = FindMessage(log, "Now we show send the close order to showProcess", end);
    int done = FindMessage(log, "QuitApplicationEventLoop done....", send);
    int installer =
        FindMessage(log, "installerPath:/System/Library/CoreServices/Installer.app/Contents/MacOS/"
                         "Installer  \"/tmp/qv_tmp_vantorel.mpkg\".");
    ASSERT_GE(begin, 0);
    EXPECT_EQ(log[begin].function, "threadFunc");
    EXPECT_GT(end, begin);
    EXPECT_GT(send, end);
    EXPECT_GT(done, send);
    EXPECT_GT(installer, done);
}

} // namespace
