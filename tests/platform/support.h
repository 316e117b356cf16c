// Shared by the platform tests: a temporary main bundle, a watchdog, handlers as lambdas.
#pragma once

#include <Carbon/Carbon.h>
#include "backends/PlatBackend.h"
#include <PlatformTesting.h>
#include <gtest/gtest.h>

#include "support/TempDir.h"

#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <list>
#include <string>
#include <thread>
#include <vector>

namespace ptest {

// A bundle "<temporary>/Disc One/Launcher.app", the main bundle while it lives.
class TempBundle {
  public:
    TempBundle() {
        Put("../MacOS/Launcher", "\n");
        PlatSetExecutablePath((path_ + "/Contents/MacOS/Launcher").c_str());
    }
    ~TempBundle() { PlatSetExecutablePath(nullptr); }
    // Writes a file below Contents/Resources, creating the folders on the way.
    void Put(const std::string& relative, const std::string& bytes) const {
        kestrun_test::WriteFile(Resources() + "/" + relative, bytes);
    }
    std::string Resources() const { return path_ + "/Contents/Resources"; }

  private:
    kestrun_test::TempDir root_;
    std::string path_ = root_ / "Disc One/Launcher.app";
};

// Ends the test process if a wait or loop does not end by itself.
struct Watchdog {
    explicit Watchdog(unsigned seconds = 20) { alarm(seconds); }
    ~Watchdog() { alarm(0); }
};

inline std::string UTF8(CFStringRef string) {
    std::string buffer(string ? static_cast<size_t>(CFStringGetLength(string)) * 4 + 1 : 1, '\0');
    bool ok =
        string && CFStringGetCString(string, buffer.data(), CFIndex(buffer.size()), kCFStringEncodingUTF8);
    return ok ? buffer.c_str() : "<null>";
}

// A CFString of UTF-8 text, null for null; and the release of those that are not null.
inline CFStringRef Str(const char* text) {
    return text ? CFStringCreateWithCString(nullptr, text, kCFStringEncodingUTF8) : nullptr;
}
inline void Release(std::initializer_list<CFTypeRef> objects) {
    for (CFTypeRef object : objects) {
        if (object) {
            CFRelease(object);
        }
    }
}

// The file-system path of a URL, which is released.
inline std::string TakePath(CFURLRef url) {
    UInt8 buffer[4096] = {};
    bool ok = url && CFURLGetFileSystemRepresentation(url, true, buffer, sizeof buffer);
    Release({url});
    return ok ? reinterpret_cast<char*>(buffer) : "<null>";
}

using HandlerFn = std::function<OSStatus(EventHandlerCallRef, EventRef)>;
inline const EventTypeSpec kHit = {kEventClassControl, kEventControlHit};
inline const EventTypeSpec kClose = {kEventClassWindow, kEventWindowClose};
inline const EventTypeSpec kCommand = {kEventClassCommand, kEventCommandProcess};

// A command event as the launcher sends it: an HICommand with only the command ID set.
inline EventRef NewCommandEvent(UInt32 commandID) {
    EventRef event = nullptr;
    CreateEvent(nullptr, kEventClassCommand, kEventCommandProcess, GetCurrentEventTime(),
                kEventAttributeUserEvent, &event);
    HICommand command = {};
    command.commandID = commandID;
    SetEventParameter(event, kEventParamDirectObject, typeHICommand, sizeof command, &command);
    return event;
}

// Sends a command to the application target as the launcher does: at once on the main
// thread, posted to the main queue from any other.
inline OSStatus SendCommand(UInt32 commandID) {
    EventRef event = NewCommandEvent(commandID);
    OSStatus status = pthread_main_np()
                          ? SendEventToEventTarget(event, GetApplicationEventTarget())
                          : PostEventToQueue(GetMainEventQueue(), event, kEventPriorityStandard);
    ReleaseEvent(event);
    return status;
}

// Runs fn on a new thread after a pause, as a worker does.
inline std::thread After(int milliseconds, std::function<void()> fn) {
    return std::thread([milliseconds, fn] {
        std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
        fn();
    });
}

// The nib most window tests build from.
inline const char kTestNib[] = R"(<nib>
  <window name="Box" title="Question" width="400" height="150" closebox="true">
    <statictext signature="MSG1" id="1" x="10" y="10" width="380" height="60">Install the new version?</statictext>
    <pushbutton signature="NO11" id="1" x="200" y="110" width="80" height="28">No</pushbutton>
    <pushbutton signature="YES1" id="1" x="300" y="110" width="80" height="28" default="true">Yes</pushbutton>
  </window>
  <window name="Other" title="Second" width="300" height="100" closebox="true"><pushbutton signature="OK  " id="7">OK</pushbutton></window>
  <window name="Progress" title="Copying" width="300" height="100">
    <imageview signature="copy" id="1" x="10" y="10" width="64" height="64" picture="Installer.png"/>
    <statictext signature="TXT1" id="1" x="80" y="10" width="200" height="20">Copying files</statictext>
    <progressindicator signature="prog" id="1" x="80" y="40" width="200" height="16" indeterminate="true"/>
  </window>
</nib>
)";

// The scripted backend, a bundle holding kTestNib and the real picture, and cleanup
// of the windows and handlers a test made.
class UiTest : public ::testing::Test {
  protected:
    void SetUp() override {
        bundle_.Put("main.nib", kTestNib);
        std::filesystem::copy_file(KESTRUN_SOURCE_DIR "/resources/Installer.png",
                                   bundle_.Resources() + "/Installer.png");
        PlatSetBackend("scripted");
        ASSERT_EQ(CreateNibReference(CFSTR("main"), &nib_), noErr);
    }
    void TearDown() override {
        for (EventHandlerRef h : handlers_) {
            RemoveEventHandler(h);
        }
        for (WindowRef w : windows_) {
            DisposeWindow(w);
        }
        PlatDrainEvents();
        DisposeNibReference(nib_);
        PlatScriptReset();
    }

    WindowRef NewWindow(const char* name) {
        WindowRef window = nullptr;
        CFStringRef cfName = Str(name);
        EXPECT_EQ(CreateWindowFromNib(nib_, cfName, &window), noErr) << name;
        CFRelease(cfName);
        windows_.push_back(window);
        return window;
    }

    ControlRef Control(WindowRef window, OSType signature, SInt32 id) {
        ControlID cid = {signature, id};
        ControlRef control = nullptr;
        EXPECT_EQ(GetControlByID(window, &cid, &control), noErr);
        return control;
    }

    // Installs fn for one event type; removed again at the end of the test.
    EventHandlerRef Install(EventTargetRef target, EventTypeSpec type, HandlerFn fn) {
        functions_.push_back(std::move(fn));
        EventHandlerRef ref = nullptr;
        auto trampoline = [](EventHandlerCallRef call, EventRef event, void* fn) {
            return (*static_cast<HandlerFn*>(fn))(call, event);
        };
        EXPECT_EQ(InstallEventHandler(target, trampoline, 1, &type, &functions_.back(), &ref), noErr);
        handlers_.push_back(ref);
        return ref;
    }

    Watchdog watchdog_;
    TempBundle bundle_;
    IBNibRef nib_ = nullptr;
    std::vector<WindowRef> windows_;
    std::vector<EventHandlerRef> handlers_;
    std::list<HandlerFn> functions_;
};

} // namespace ptest
