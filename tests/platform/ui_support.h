// Shared by the window layer's tests: a temporary application bundle holding a
// nib, handlers written as lambdas, and a watchdog that ends a stuck loop.
#pragma once

#include <Carbon/Carbon.h>
#include <PlatformTesting.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace uitest {

// The nib most tests build their windows from.
inline const char kTestNib[] = R"(<?xml version="1.0" encoding="UTF-8"?>
<nib>
  <window name="Box" title="Question" width="400" height="150" closebox="true">
    <statictext signature="MSG1" id="1" x="10" y="10" width="380" height="60">Install the new version?</statictext>
    <pushbutton signature="NO11" id="1" x="200" y="110" width="80" height="28">No</pushbutton>
    <pushbutton signature="YES1" id="1" x="300" y="110" width="80" height="28" default="true">Yes</pushbutton>
  </window>
  <window name="Other" title="Second" width="300" height="100" closebox="true">
    <pushbutton signature="OK  " id="7" x="10" y="10" width="80" height="28">OK</pushbutton>
  </window>
  <window name="Progress" title="Copying" width="300" height="100">
    <imageview signature="copy" id="1" x="10" y="10" width="64" height="64" picture="Installer.png"/>
    <statictext signature="TXT1" id="1" x="80" y="10" width="200" height="20">Copying files</statictext>
    <progressindicator signature="prog" id="1" x="80" y="40" width="200" height="16" indeterminate="true"/>
  </window>
</nib>
)";

// An application bundle in a temporary folder, taken as the main bundle while it lives.
class TempBundle {
  public:
    TempBundle() {
        char base[] = "/tmp/kestrun_ui_XXXXXX";
        if (mkdtemp(base) == nullptr) {
            ADD_FAILURE() << "mkdtemp failed";
            return;
        }
        root_ = base;
        bundle_ = root_ + "/Test App.app";
        std::filesystem::create_directories(bundle_ + "/Contents/MacOS");
        std::filesystem::create_directories(bundle_ + "/Contents/Resources");
        std::ofstream(bundle_ + "/Contents/MacOS/Test").put('\n');
        PlatSetExecutablePath((bundle_ + "/Contents/MacOS/Test").c_str());
    }
    ~TempBundle() {
        PlatSetExecutablePath(nullptr);
        std::error_code ignored;
        std::filesystem::remove_all(root_, ignored);
    }
    void WriteResource(const std::string& name, const std::string& content) const {
        std::ofstream(bundle_ + "/Contents/Resources/" + name, std::ios::binary) << content;
    }
    void CopyIn(const std::string& from, const std::string& to) const {
        std::filesystem::create_directories(std::filesystem::path(bundle_ + "/" + to).parent_path());
        std::filesystem::copy_file(from, bundle_ + "/" + to,
                                   std::filesystem::copy_options::overwrite_existing);
    }
    const std::string& Path() const { return bundle_; }

  private:
    std::string root_;
    std::string bundle_;
};

using HandlerFn = std::function<OSStatus(EventHandlerCallRef, EventRef)>;

inline OSStatus Trampoline(EventHandlerCallRef call, EventRef event, void* userData) {
    return (*static_cast<HandlerFn*>(userData))(call, event);
}

// Ends a loop that does not end by itself: after `seconds` it fails the test and asks
// every loop it knows of to quit; if even that does not help, it ends the process.
class Watchdog {
  public:
    explicit Watchdog(int seconds = 10, std::vector<WindowRef> modalWindows = {})
        : windows_(std::move(modalWindows)), thread_([this, seconds] { Watch(seconds); }) {}
    ~Watchdog() {
        {
            std::lock_guard<std::mutex> lock(lock_);
            done_ = true;
        }
        wake_.notify_all();
        thread_.join();
    }
    bool Fired() const { return fired_; }

  private:
    void Watch(int seconds) {
        std::unique_lock<std::mutex> lock(lock_);
        if (wake_.wait_for(lock, std::chrono::seconds(seconds), [this] { return done_; })) {
            return;
        }
        fired_ = true;
        ADD_FAILURE() << "a loop did not end within " << seconds << " s";
        QuitApplicationEventLoop();
        for (WindowRef w : windows_) {
            QuitAppModalLoopForWindow(w);
        }
        if (!wake_.wait_for(lock, std::chrono::seconds(5), [this] { return done_; })) {
            fprintf(stderr, "watchdog: the loop ignores quits too; giving up\n");
            _exit(3);
        }
    }

    std::vector<WindowRef> windows_;
    std::mutex lock_;
    std::condition_variable wake_;
    bool done_ = false;
    std::atomic<bool> fired_{false};
    std::thread thread_;
};

// A test with the scripted backend, a bundle holding kTestNib, and cleanup of the
// windows and handlers it made, so tests can share one process.
class UiTest : public ::testing::Test {
  protected:
    void SetUp() override {
        bundle_.WriteResource("main.nib", kTestNib);
        bundle_.CopyIn(KESTRUN_SOURCE_DIR "/resources/Installer.png", "Contents/Resources/Installer.png");
        PlatSetBackend("scripted");
        PlatScriptReset();
        ASSERT_EQ(CreateNibReference(CFSTR("main"), &nib_), noErr);
    }
    void TearDown() override {
        for (EventHandlerRef h : handlers_) {
            RemoveEventHandler(h);
        }
        for (WindowRef w : windows_) {
            DisposeWindow(w);
        }
        PlatDrainEvents(); // drops what was queued for the windows just disposed of
        DisposeNibReference(nib_);
        PlatScriptReset();
    }

    WindowRef NewWindow(const char* name) {
        WindowRef window = nullptr;
        CFStringRef cfName = CFStringCreateWithCString(nullptr, name, kCFStringEncodingUTF8);
        OSStatus status = CreateWindowFromNib(nib_, cfName, &window);
        CFRelease(cfName);
        EXPECT_EQ(status, noErr) << name;
        if (window != nullptr) {
            windows_.push_back(window);
        }
        return window;
    }

    ControlRef Control(WindowRef window, OSType signature, SInt32 id) {
        ControlID cid = {signature, id};
        ControlRef control = nullptr;
        EXPECT_EQ(GetControlByID(window, &cid, &control), noErr);
        return control;
    }

    // Installs fn for the given event types; removed again at the end of the test.
    EventHandlerRef Install(EventTargetRef target, std::vector<EventTypeSpec> types, HandlerFn fn) {
        functions_.push_back(std::move(fn));
        EventHandlerRef ref = nullptr;
        EXPECT_EQ(
            InstallEventHandler(target, Trampoline, types.size(), types.data(), &functions_.back(), &ref),
            noErr);
        handlers_.push_back(ref);
        return ref;
    }

    TempBundle bundle_;
    IBNibRef nib_ = nullptr;
    std::vector<WindowRef> windows_;
    std::vector<EventHandlerRef> handlers_;
    std::list<HandlerFn> functions_;
};

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

inline UInt32 CommandOf(EventRef event) {
    HICommand command = {};
    if (GetEventParameter(event, kEventParamDirectObject, typeHICommand, nullptr, sizeof command, nullptr,
                          &command) != noErr) {
        return 0;
    }
    return command.commandID;
}

// Sends a command to the application target, from the calling thread.
inline OSStatus SendCommand(UInt32 commandID) {
    EventRef event = NewCommandEvent(commandID);
    OSStatus status = SendEventToEventTarget(event, GetApplicationEventTarget());
    ReleaseEvent(event);
    return status;
}

inline bool OnMainThread() {
    return gettid() == getpid();
}

} // namespace uitest
