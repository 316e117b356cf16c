// Shared by the platform tests: a temporary main bundle, a watchdog, handlers as lambdas.
#pragma once

#include <Carbon/Carbon.h>
#include "backends/PlatBackend.h"
#include <PlatformTesting.h>
#include <gtest/gtest.h>

#include "support/TempDir.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
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
    std::string PlugIns() const { return path_ + "/Contents/Linux/PlugIns"; }

  private:
    kestrun_test::TempDir root_;
    std::string path_ = root_ / "Disc One/Launcher.app";
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
    for (CFTypeRef object : objects)
        if (object)
            CFRelease(object);
}

using HandlerFn = std::function<OSStatus(EventHandlerCallRef, EventRef)>;
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

// An Interface Builder archive of the given top-level objects, each named in the name
// table: {name, id}. Written where a test bundle's nib "main" is looked for.
inline std::string NibArchive(const std::string& objects,
                              std::initializer_list<std::pair<const char*, int>> names) {
    std::string parents, table;
    for (const auto& [name, id] : names) {
        parents += "<reference idRef=\"1\"/>";
        table +=
            std::string("<string>") + name + "</string><reference idRef=\"" + std::to_string(id) + "\"/>";
    }
    return "<?xml version=\"1.0\" standalone=\"yes\"?>\n<object class=\"NSIBObjectData\">\n"
           "<string name=\"targetFramework\">IBCarbonFramework</string>\n"
           "<object name=\"rootObject\" class=\"NSCustomObject\" id=\"1\"/>\n<array name=\"allObjects\">" +
           objects + "</array>\n<array name=\"allParents\">" + parents +
           "</array>\n<dictionary name=\"nameTable\">" + table + "</dictionary>\n</object>\n";
}
inline const char kNibPath[] = "en.lproj/main.nib/objects.xib";

// Pieces of a nib: a titled window of views, a view with its bounds ("top left bottom right"),
// signature and ID, and a title.
inline std::string NibWindow(int id, const char* rect, const char* title, const std::string& views,
                             const std::string& more = "") {
    return "<object class=\"IBCarbonWindow\" id=\"" + std::to_string(id) + "\"><string name=\"windowRect\">" +
           rect + " </string><string name=\"title\">" + title +
           "</string><object name=\"rootControl\" class=\"IBCarbonRootControl\"><array name=\"subviews\">" +
           views + "</array></object>" + more + "</object>\n";
}
inline std::string NibView(const char* kind, const char* bounds, const char* signature, int id,
                           const std::string& more) {
    return std::string("<object class=\"IBCarbon") + kind + "\"><string name=\"bounds\">" + bounds +
           " </string><ostype name=\"controlSignature\">" + signature + "</ostype><int name=\"controlID\">" +
           std::to_string(id) + "</int>" + more + "</object>\n";
}
inline std::string NibTitle(const char* title) {
    return std::string("<string name=\"title\">") + title + "</string>";
}

// The nib the event and loop tests build from: three empty windows.
inline const std::string kTestNib = NibArchive(NibWindow(10, "100 100 250 500", "Question", "") +
                                                   NibWindow(20, "50 50 150 350", "Second", "") +
                                                   NibWindow(30, "50 50 150 350", "Copying", ""),
                                               {{"Box", 10}, {"Other", 20}, {"Progress", 30}});

// The scripted backend, a bundle holding kTestNib, and cleanup
// of the windows and handlers a test made.
class UiTest : public ::testing::Test {
  protected:
    void SetUp() override {
        alarm(20); // a wait or loop that does not end by itself ends the test process
        bundle_.Put(kNibPath, kTestNib);
        PlatSetBackend("scripted");
        ASSERT_EQ(CreateNibReference(CFSTR("main"), &nib_), noErr);
    }
    void TearDown() override {
        for (EventHandlerRef h : handlers_)
            RemoveEventHandler(h);
        for (WindowRef w : windows_)
            DisposeWindow(w);
        PlatDrainEvents();
        DisposeNibReference(nib_);
        PlatScriptReset();
        alarm(0);
    }

    WindowRef NewWindow(const char* name) {
        WindowRef window = nullptr;
        CFStringRef cfName = Str(name);
        EXPECT_EQ(CreateWindowFromNib(nib_, cfName, &window), noErr) << name;
        CFRelease(cfName);
        windows_.push_back(window);
        return window;
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

    TempBundle bundle_;
    IBNibRef nib_ = nullptr;
    std::vector<WindowRef> windows_;
    std::vector<EventHandlerRef> handlers_;
    std::list<HandlerFn> functions_;
};

} // namespace ptest
