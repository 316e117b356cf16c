/* The progress window shown while the package is copied. It has no progress value of its
 * own: the worker ends its modal loop with the command "clos" once the copy is done. */
#include "Launcher.h"

#include "Common/Log.h"

#include <errno.h>
#include <pthread.h>
#include <stdio.h>

WindowRef g_ProgressWindowRef = nullptr;
HIViewRef g_ImageViewRef = nullptr;
const EventTypeSpec sApplicationEvents[1] = {{kEventClassCommand, kEventCommandProcess}};

namespace {

constexpr HIViewID kLogoViewID = {'copy', 1};

// Standard output is often a pipe or a file: each message is flushed so it keeps its place
// among the output of the commands the launcher runs.
void Say(const char* line) {
    puts(line);
    fflush(stdout);
}

// The logo picture from the bundle's resources, or null.
CGImageRef LoadImage() {
    CFBundleRef bundle = CFBundleGetMainBundle();
    if (bundle == nullptr) {
        return nullptr;
    }
    CFURLRef url = CFBundleCopyResourceURL(bundle, CFSTR("Installer.png"), nullptr, nullptr);
    if (url == nullptr) {
        Say("LoadImage: create url failed!");
        return nullptr;
    }
    CGDataProviderRef provider = CGDataProviderCreateWithURL(url);
    if (provider == nullptr) {
        Say("LoadImage: CGDataProviderCreateWithURL failed!");
        CFRelease(url);
        return nullptr;
    }
    CGImageRef image = CGImageCreateWithPNGDataProvider(provider, nullptr, false, kCGRenderingIntentDefault);
    CGDataProviderRelease(provider);
    CFRelease(url);
    return image;
}

void SetLogoImage(WindowRef window) {
    HIViewRef view = nullptr;
    OSStatus err = HIViewFindByID(HIViewGetRoot(window), kLogoViewID, &view);
    if (err != noErr || view == nullptr) {
        printf("SetLogoImage: find HIView failed, err = %d\n", static_cast<int>(err));
        fflush(stdout);
        return;
    }
    g_ImageViewRef = view;
    CGImageRef image = LoadImage();
    if (image == nullptr) {
        printf("SetLogoImage: load image failed %d\n", errno);
        fflush(stdout);
        return;
    }
    HIImageViewSetImage(view, image);
    CGImageRelease(image);
}

} // namespace

void ShowProgressWindow() {
    // A reference from an earlier window must not be taken for this one.
    g_ProgressWindowRef = nullptr;
    IBNibRef nibRef = nullptr;
    CreateNibReference(CFSTR("main"), &nibRef);
    if (nibRef == nullptr) {
        return;
    }
    Say("show windowformNib");
    WindowRef window = nullptr;
    CreateWindowFromNib(nibRef, CFSTR("ProgressWindow"), &window);
    DisposeNibReference(nibRef);
    if (window == nullptr) {
        return;
    }
    g_ProgressWindowRef = window;
    SetLogoImage(window);
    InstallEventHandler(GetApplicationEventTarget(), NewEventHandlerUPP(ProgressWindowHandler), 1,
                        sApplicationEvents, nullptr, nullptr);
    ShowWindow(window);
}

OSStatus ProgressWindowHandler(EventHandlerCallRef, EventRef event, void*) {
    UInt32 eventClass = GetEventClass(event);
    UInt32 eventKind = GetEventKind(event);
    Say("ProgressWindowHandler: entered!");
    if (eventClass != kEventClassCommand) {
        return eventNotHandledErr;
    }
    HICommand command = {};
    if (GetEventParameter(event, kEventParamDirectObject, typeHICommand, nullptr, sizeof command, nullptr,
                          &command) != noErr) {
        command.commandID = 0;
    }
    if (eventKind == kEventCommandProcess && command.commandID == kCloseCommand) {
        Say("ProgressWindowHandler: event received!");
        // A close that comes late, early or twice finds no window and changes nothing.
        if (IsValidWindowPtr(g_ProgressWindowRef)) {
            QuitAppModalLoopForWindow(g_ProgressWindowRef);
            DisposeWindow(g_ProgressWindowRef);
        }
        Say("ProgressWindowHandler: event handled!");
    }
    return noErr;
}

void SendCommandProcessEvent(UInt32 commandID) {
    HICommand command = {};
    command.commandID = commandID;
    EventRef event = nullptr;
    if (CreateEvent(nullptr, kEventClassCommand, kEventCommandProcess, GetCurrentEventTime(),
                    kEventAttributeUserEvent, &event) != noErr) {
        Log(kProgressWindowSource, "SendCommandProcessEvent", "CreateEvent failed");
        return;
    }
    if (SetEventParameter(event, kEventParamDirectObject, typeHICommand, sizeof command, &command) != noErr) {
        Log(kProgressWindowSource, "SendCommandProcessEvent", "SetEventParameter failed");
        ReleaseEvent(event);
        return;
    }
    // Handlers run on the thread that sends; the window belongs to the main thread, so from the
    // worker the command is posted to the main queue, which the modal loop there dispatches.
    if (pthread_main_np()) {
        SendEventToEventTarget(event, GetApplicationEventTarget());
    } else {
        EventTargetRef target = GetApplicationEventTarget();
        SetEventParameter(event, kEventParamPostTarget, typeEventTargetRef, sizeof target, &target);
        PostEventToQueue(GetMainEventQueue(), event, kEventPriorityStandard);
    }
    ReleaseEvent(event);
}
