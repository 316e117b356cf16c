/* Windows and controls (HIToolbox), built on the Event Manager: the layer's model
 * of what is on screen, and the modal loops.
 *
 * The model owns every window and control and their event targets; a backend
 * only shows them, reading the model through PlatGetWindowInfo and
 * PlatGetControlInfo, and turns the user's input into events with
 * PlatPostControlHit and PlatPostWindowClose, posted to the main queue. Like the
 * Mac's, all of it belongs to the main thread: a call from another thread is
 * refused (PlatRefusedOffMainThread). */
#include "backends/BackendInternal.h"
#include "events/EventInternal.h"
#include "windows/WindowInternal.h"

#include <PlatformTesting.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <unordered_map>
#include <vector>

namespace {

/* SetControlData with a tag the control does not have. */
constexpr OSErr errDataNotSupported = -30586;

struct ControlRec {
    uintptr_t window;
    EventTargetRef target;
    bool isRoot; /* the window's content view, parent of all its controls */
    PlatControlKind kind;
    PlatRect frame;
    ControlID id;
    std::string text;              /* UTF-8 */
    CFStringRef textRef = nullptr; /* our reference to the last string set */
    bool indeterminate = false;
    std::vector<unsigned char> rgba;
    size_t imageWidth = 0;
    size_t imageHeight = 0;
};

struct WindowRec {
    EventTargetRef target;
    std::string nibName;
    std::string title;
    int width;
    int height;
    bool closeBox;
    bool visible = false;
    bool disposing = false; /* no longer valid; the backend is tearing it down */
    uintptr_t root = 0;
    std::vector<uintptr_t> controls; /* in nib order, the root excluded */
    uintptr_t defaultButton = 0;     /* pressed by Return and Enter; 0: none */
    uintptr_t cancelButton = 0;      /* pressed by Escape; 0: none */
};

struct WindowModel {
    std::unordered_map<uintptr_t, WindowRec> windows;
    std::unordered_map<uintptr_t, ControlRec> controls;
};

WindowModel& Windows() {
    static WindowModel* model = new WindowModel;
    return *model;
}

using Lock = std::lock_guard<std::recursive_mutex>;

/* A window that exists and is not being disposed of. Call with the lock held. */
WindowRec* LiveWindow(WindowRef window) {
    auto it = Windows().windows.find(PlatIdOf(window));
    if (it == Windows().windows.end() || it->second.disposing) {
        return nullptr;
    }
    return &it->second;
}

ControlRec* LiveControl(ControlRef control) {
    auto it = Windows().controls.find(PlatIdOf(control));
    if (it == Windows().controls.end() || Windows().windows.at(it->second.window).disposing) {
        return nullptr;
    }
    return &it->second;
}

/* The newest live window made from the nib window of that name. */
WindowRec* NewestByName(const char* name) {
    WindowRec* found = nullptr;
    uintptr_t foundId = 0;
    for (auto& [id, window] : Windows().windows) {
        if (!window.disposing && window.nibName == name && id > foundId) {
            found = &window;
            foundId = id;
        }
    }
    return found;
}

const PlatBackendOps* Backend() {
    return PlatCurrentBackend();
}

/* An idle loop waits in the backend's pump(); another thread wakes it there. */
void WaitInBackend() {
    const PlatBackendOps* backend = Backend();
    if (backend != nullptr && backend->pump != nullptr) {
        backend->pump(-1);
    } else {
        PlatWaitForWake(-1);
    }
}

void WakeBackend() {
    const PlatBackendOps* backend = Backend();
    if (backend != nullptr && backend->wake != nullptr) {
        backend->wake();
    }
}

/* A close that neither the window's own handlers nor those above it took disposes of
 * the window, as the Mac's standard window handler does. */
OSStatus DisposeOnUnhandledClose(EventRef event, EventTargetRef target) {
    if (GetEventClass(event) != kEventClassWindow || GetEventKind(event) != kEventWindowClose) {
        return eventNotHandledErr;
    }
    WindowRef closed = nullptr;
    {
        Lock lock(PlatModelLock());
        for (const auto& [id, window] : Windows().windows) {
            if (window.target == target && !window.disposing) {
                closed = reinterpret_cast<WindowRef>(id);
            }
        }
    }
    if (closed == nullptr) {
        return eventNotHandledErr;
    }
    DisposeWindow(closed);
    return noErr;
}

/* Copies a decoded picture's pixels; false leaves the view empty. */
bool CopyImage(CGImageRef image, ControlRec& control) {
    size_t width = CGImageGetWidth(image);
    size_t height = CGImageGetHeight(image);
    const unsigned char* pixels = PlatCGImageGetRGBA(image);
    if (pixels == nullptr || width == 0 || height == 0 || width > SIZE_MAX / 4 / height) {
        return false;
    }
    control.rgba.assign(pixels, pixels + width * height * 4);
    control.imageWidth = width;
    control.imageHeight = height;
    return true;
}

/* An image view's picture, a resource of the main bundle. A missing or bad
 * picture leaves the view empty. */
void LoadPicture(const std::string& name, ControlRec& control) {
    CFBundleRef bundle = CFBundleGetMainBundle();
    if (bundle == nullptr || name.empty()) {
        return;
    }
    CFStringRef resource =
        CFStringCreateWithCString(kCFAllocatorDefault, name.c_str(), kCFStringEncodingUTF8);
    if (resource == nullptr) {
        return;
    }
    CFURLRef url = CFBundleCopyResourceURL(bundle, resource, nullptr, nullptr);
    CFRelease(resource);
    if (url == nullptr) {
        return;
    }
    CGDataProviderRef provider = CGDataProviderCreateWithURL(url);
    CFRelease(url);
    if (provider == nullptr) {
        return;
    }
    CGImageRef image = CGImageCreateWithPNGDataProvider(provider, nullptr, false, kCGRenderingIntentDefault);
    CGDataProviderRelease(provider);
    if (image != nullptr) {
        CopyImage(image, control);
        CGImageRelease(image);
    }
}

/* UTF-8 text of a string; false when it is not one. */
bool StringToUTF8(CFStringRef string, std::string& out) {
    CFIndex length = CFStringGetLength(string);
    if (length < 0) {
        return false;
    }
    /* a UTF-16 unit never takes more than three bytes of UTF-8 */
    std::vector<char> buffer(static_cast<size_t>(length) * 3 + 1);
    if (!CFStringGetCString(string, buffer.data(), static_cast<CFIndex>(buffer.size()),
                            kCFStringEncodingUTF8)) {
        return false;
    }
    out = buffer.data();
    return true;
}

/* Forgets a window and its controls; returns the strings to release. */
std::vector<CFStringRef> EraseWindow(uintptr_t id) {
    std::vector<CFStringRef> strings;
    auto it = Windows().windows.find(id);
    if (it == Windows().windows.end()) {
        return strings;
    }
    std::vector<uintptr_t> controls = it->second.controls;
    controls.push_back(it->second.root);
    for (uintptr_t c : controls) {
        auto control = Windows().controls.find(c);
        if (control == Windows().controls.end()) {
            continue;
        }
        PlatDestroyTarget(control->second.target);
        if (control->second.textRef != nullptr) {
            strings.push_back(control->second.textRef);
        }
        Windows().controls.erase(control);
    }
    PlatDestroyTarget(it->second.target);
    Windows().windows.erase(it);
    return strings;
}

void ReleaseAll(const std::vector<CFStringRef>& strings) {
    for (CFStringRef s : strings) {
        CFRelease(s);
    }
}

/* A user event for the main thread's loop, to the object it concerns. */
void PostUserEvent(UInt32 eventClass, UInt32 kind, EventParamType type, const void* object,
                   EventTargetRef target) {
    EventRef event = nullptr;
    if (CreateEvent(nullptr, eventClass, kind, GetCurrentEventTime(), kEventAttributeUserEvent, &event) !=
        noErr) {
        return;
    }
    SetEventParameter(event, kEventParamDirectObject, type, sizeof(object), &object);
    SetEventParameter(event, kEventParamPostTarget, typeEventTargetRef, sizeof target, &target);
    PostEventToQueue(GetMainEventQueue(), event, kEventPriorityStandard);
    ReleaseEvent(event);
}

/* Static texts and push buttons (their captions) hold the CFString text tag. */
bool CarriesText(const ControlRec& rec) {
    return !rec.isRoot && (rec.kind == kPlatControlStaticText || rec.kind == kPlatControlPushButton);
}

/* A modal loop in progress, innermost last. */
struct ModalFrame {
    WindowRef window;
    bool quit;
};
std::vector<ModalFrame*> gModalFrames;

/* Disposing of the window ends its loop as well. */
bool ModalLoopDone(void* context) {
    const ModalFrame* frame = static_cast<const ModalFrame*>(context);
    return frame->quit || !IsValidWindowPtr(frame->window);
}

} // namespace

OSStatus PlatCreateWindowFromDef(const PlatWindowDef& def, WindowRef* outWindow) {
    *outWindow = nullptr;
    const PlatBackendOps* backend = PlatAcquireBackend();
    if (backend == nullptr) {
        return errInvalidWindowPtr; /* the window code could not be loaded */
    }
    PlatSetLoopWaiter(WaitInBackend, WakeBackend);

    /* Pictures are decoded before the model is touched: it takes the disk. */
    std::vector<ControlRec> controls(def.controls.size());
    for (size_t i = 0; i < def.controls.size(); i++) {
        const PlatControlDef& d = def.controls[i];
        ControlRec& c = controls[i];
        c.isRoot = false;
        c.kind = d.kind;
        c.frame = d.frame;
        c.id = d.id;
        c.text = d.text;
        c.indeterminate = d.indeterminate;
        if (d.kind == kPlatControlImageView) {
            LoadPicture(d.picture, c);
        }
    }

    uintptr_t id = PlatNewObjectId();
    {
        Lock lock(PlatModelLock());
        WindowRec window;
        window.target = PlatCreateTarget(GetApplicationEventTarget());
        window.nibName = def.name;
        window.title = def.title;
        window.width = def.width;
        window.height = def.height;
        window.closeBox = def.closeBox;

        window.root = PlatNewObjectId();
        ControlRec root{};
        root.window = id;
        root.target = PlatCreateTarget(window.target);
        root.isRoot = true;
        root.frame = PlatRect{0, 0, def.width, def.height};
        Windows().controls[window.root] = std::move(root);

        for (size_t i = 0; i < controls.size(); i++) {
            uintptr_t controlId = PlatNewObjectId();
            ControlRec& c = controls[i];
            c.window = id;
            c.target = PlatCreateTarget(window.target);
            Windows().controls[controlId] = std::move(c);
            window.controls.push_back(controlId);
            /* A nib's default and cancel button types mark the window's buttons, as when
             * the program calls SetWindowDefaultButton and SetWindowCancelButton. */
            if (def.controls[i].isDefault && window.defaultButton == 0) {
                window.defaultButton = controlId;
            }
            if (def.controls[i].isCancel && window.cancelButton == 0) {
                window.cancelButton = controlId;
            }
        }
        Windows().windows[id] = std::move(window);
    }

    WindowRef window = reinterpret_cast<WindowRef>(id);
    PlatSetUnhandledEventHook(DisposeOnUnhandledClose);
    OSStatus status = noErr;
    if (backend->createWindow != nullptr) {
        status = backend->createWindow(window);
    }
    if (status != noErr) {
        std::vector<CFStringRef> strings;
        {
            Lock lock(PlatModelLock());
            strings = EraseWindow(id);
        }
        ReleaseAll(strings);
        PlatReleaseBackend();
        return status;
    }
    *outWindow = window;
    return noErr;
}

/* ---- Windows ---- */

void ShowWindow(WindowRef window) {
    if (PlatRefusedOffMainThread("ShowWindow")) {
        return;
    }
    {
        Lock lock(PlatModelLock());
        WindowRec* rec = LiveWindow(window);
        if (rec == nullptr || rec->visible) {
            return;
        }
        rec->visible = true;
    }
    if (Backend() != nullptr && Backend()->showWindow != nullptr) {
        Backend()->showWindow(window);
    }
}

void DisposeWindow(WindowRef window) {
    if (PlatRefusedOffMainThread("DisposeWindow")) {
        return;
    }
    {
        Lock lock(PlatModelLock());
        WindowRec* rec = LiveWindow(window);
        if (rec == nullptr) {
            return;
        }
        /* Invalid from here on, also for whatever the backend's teardown calls. */
        rec->disposing = true;
    }
    if (Backend() != nullptr && Backend()->disposeWindow != nullptr) {
        Backend()->disposeWindow(window);
    }
    std::vector<CFStringRef> strings;
    {
        Lock lock(PlatModelLock());
        strings = EraseWindow(PlatIdOf(window));
    }
    ReleaseAll(strings);
    PlatReleaseBackend();
}

Boolean IsValidWindowPtr(WindowRef possibleWindow) {
    if (PlatRefusedOffMainThread("IsValidWindowPtr")) {
        return false;
    }
    Lock lock(PlatModelLock());
    return LiveWindow(possibleWindow) != nullptr;
}

Boolean IsWindowVisible(WindowRef window) {
    if (PlatRefusedOffMainThread("IsWindowVisible")) {
        return false;
    }
    Lock lock(PlatModelLock());
    WindowRec* rec = LiveWindow(window);
    return rec != nullptr && rec->visible;
}

EventTargetRef GetWindowEventTarget(WindowRef inWindow) {
    if (PlatRefusedOffMainThread("GetWindowEventTarget")) {
        return nullptr;
    }
    Lock lock(PlatModelLock());
    WindowRec* rec = LiveWindow(inWindow);
    return rec == nullptr ? nullptr : rec->target;
}

EventTargetRef HIObjectGetEventTarget(HIObjectRef inObject) {
    if (PlatRefusedOffMainThread("HIObjectGetEventTarget")) {
        return nullptr;
    }
    Lock lock(PlatModelLock());
    if (WindowRec* window = LiveWindow(reinterpret_cast<WindowRef>(inObject))) {
        return window->target;
    }
    if (ControlRec* control = LiveControl(reinterpret_cast<ControlRef>(inObject))) {
        return control->target;
    }
    return nullptr;
}

namespace {

/* Makes control the window's default or cancel button, and has the backend draw
 * the button that lost the part and the one that got it. */
OSStatus SetWindowButton(WindowRef inWindow, ControlRef inControl, uintptr_t WindowRec::*button) {
    uintptr_t old = 0;
    {
        Lock lock(PlatModelLock());
        WindowRec* window = LiveWindow(inWindow);
        if (window == nullptr) {
            return errInvalidWindowRef;
        }
        ControlRec* control = inControl == nullptr ? nullptr : LiveControl(inControl);
        if (inControl != nullptr &&
            (control == nullptr || control->isRoot || control->window != PlatIdOf(inWindow))) {
            return errUnknownControl;
        }
        old = window->*button;
        window->*button = PlatIdOf(inControl);
    }
    if (Backend() != nullptr && Backend()->controlChanged != nullptr) {
        if (old != 0 && old != PlatIdOf(inControl)) {
            Backend()->controlChanged(inWindow, reinterpret_cast<ControlRef>(old));
        }
        if (inControl != nullptr) {
            Backend()->controlChanged(inWindow, inControl);
        }
    }
    return noErr;
}

OSStatus GetWindowButton(WindowRef inWindow, ControlRef* outControl, uintptr_t WindowRec::*button) {
    if (outControl == nullptr) {
        return paramErr;
    }
    *outControl = nullptr;
    Lock lock(PlatModelLock());
    WindowRec* window = LiveWindow(inWindow);
    if (window == nullptr) {
        return errInvalidWindowRef;
    }
    *outControl = reinterpret_cast<ControlRef>(window->*button);
    return noErr;
}

} // namespace

OSStatus SetWindowDefaultButton(WindowRef inWindow, ControlRef inControl) {
    return SetWindowButton(inWindow, inControl, &WindowRec::defaultButton);
}

OSStatus SetWindowCancelButton(WindowRef inWindow, ControlRef inControl) {
    return SetWindowButton(inWindow, inControl, &WindowRec::cancelButton);
}

OSStatus GetWindowDefaultButton(WindowRef inWindow, ControlRef* outControl) {
    return GetWindowButton(inWindow, outControl, &WindowRec::defaultButton);
}

OSStatus GetWindowCancelButton(WindowRef inWindow, ControlRef* outControl) {
    return GetWindowButton(inWindow, outControl, &WindowRec::cancelButton);
}

/* ---- Controls ---- */

OSStatus GetControlByID(WindowRef inWindow, const ControlID* inID, ControlRef* outControl) {
    if (PlatRefusedOffMainThread("GetControlByID")) {
        return eventInternalErr;
    }
    if (outControl != nullptr) {
        *outControl = nullptr;
    }
    if (inID == nullptr || outControl == nullptr) {
        return paramErr;
    }
    Lock lock(PlatModelLock());
    WindowRec* window = LiveWindow(inWindow);
    if (window == nullptr) {
        return errInvalidWindowRef;
    }
    for (uintptr_t c : window->controls) {
        const ControlID& id = Windows().controls.at(c).id;
        if (id.signature == inID->signature && id.id == inID->id) {
            *outControl = reinterpret_cast<ControlRef>(c);
            return noErr;
        }
    }
    return errUnknownControl;
}

HIViewRef HIViewGetRoot(WindowRef inWindow) {
    if (PlatRefusedOffMainThread("HIViewGetRoot")) {
        return nullptr;
    }
    Lock lock(PlatModelLock());
    WindowRec* rec = LiveWindow(inWindow);
    return rec == nullptr ? nullptr : reinterpret_cast<HIViewRef>(rec->root);
}

OSStatus HIViewFindByID(HIViewRef inStartView, HIViewID inID, HIViewRef* outControl) {
    if (PlatRefusedOffMainThread("HIViewFindByID")) {
        return eventInternalErr;
    }
    if (outControl == nullptr) {
        return paramErr;
    }
    *outControl = nullptr;
    Lock lock(PlatModelLock());
    ControlRec* start = LiveControl(inStartView);
    if (start == nullptr) {
        return paramErr;
    }
    if (!start->isRoot) {
        /* controls have no subviews of their own */
        if (start->id.signature == inID.signature && start->id.id == inID.id) {
            *outControl = inStartView;
            return noErr;
        }
        return errUnknownControl;
    }
    WindowRef window = reinterpret_cast<WindowRef>(start->window);
    return GetControlByID(window, &inID, outControl);
}

OSErr SetControlData(ControlRef inControl, ControlPartCode, ResType inTagName, Size inSize,
                     const void* inData) {
    if (PlatRefusedOffMainThread("SetControlData")) {
        return OSErr(eventInternalErr);
    }
    if (inData == nullptr) {
        return paramErr;
    }
    CFStringRef old = nullptr;
    WindowRef window = nullptr;
    {
        Lock lock(PlatModelLock());
        ControlRec* rec = LiveControl(inControl);
        if (rec == nullptr) {
            return paramErr;
        }
        if (inTagName != kControlStaticTextCFStringTag || !CarriesText(*rec)) {
            return errDataNotSupported;
        }
        if (inSize != static_cast<Size>(sizeof(CFStringRef))) {
            return errDataSizeMismatch;
        }
        CFStringRef string = nullptr;
        std::memcpy(&string, inData, sizeof string);
        std::string text;
        if (string == nullptr || !StringToUTF8(string, text)) {
            return paramErr;
        }
        CFRetain(string);
        old = rec->textRef;
        rec->textRef = string;
        rec->text = std::move(text);
        window = reinterpret_cast<WindowRef>(rec->window);
    }
    if (old != nullptr) {
        CFRelease(old);
    }
    if (Backend() != nullptr && Backend()->controlChanged != nullptr) {
        Backend()->controlChanged(window, inControl);
    }
    return noErr;
}

OSStatus HIImageViewSetImage(HIViewRef inView, CGImageRef inImage) {
    if (PlatRefusedOffMainThread("HIImageViewSetImage")) {
        return eventInternalErr;
    }
    WindowRef window = nullptr;
    {
        Lock lock(PlatModelLock());
        ControlRec* rec = LiveControl(inView);
        if (rec == nullptr || rec->isRoot || rec->kind != kPlatControlImageView) {
            return paramErr;
        }
        rec->rgba.clear();
        rec->imageWidth = 0;
        rec->imageHeight = 0;
        if (inImage != nullptr && !CopyImage(inImage, *rec)) {
            return paramErr;
        }
        window = reinterpret_cast<WindowRef>(rec->window);
    }
    if (Backend() != nullptr && Backend()->controlChanged != nullptr) {
        Backend()->controlChanged(window, inView);
    }
    return noErr;
}

/* ---- Modal loops ---- */

OSStatus RunAppModalLoopForWindow(WindowRef inWindow) {
    if (PlatRefusedOffMainThread("RunAppModalLoopForWindow")) {
        return eventInternalErr;
    }
    if (!IsValidWindowPtr(inWindow)) {
        return errInvalidWindowRef;
    }
    ModalFrame frame{inWindow, false};
    gModalFrames.push_back(&frame);
    PlatRunLoopUntil(ModalLoopDone, &frame);
    gModalFrames.erase(std::find(gModalFrames.begin(), gModalFrames.end(), &frame));
    return noErr;
}

/* Ends the innermost modal loop running for the window, once the running handler
 * has returned. */
OSStatus QuitAppModalLoopForWindow(WindowRef inWindow) {
    if (PlatRefusedOffMainThread("QuitAppModalLoopForWindow")) {
        return eventInternalErr;
    }
    if (!IsValidWindowPtr(inWindow)) {
        return errInvalidWindowRef;
    }
    for (auto it = gModalFrames.rbegin(); it != gModalFrames.rend(); ++it) {
        if ((*it)->window == inWindow && !(*it)->quit) {
            (*it)->quit = true;
            break;
        }
    }
    return noErr;
}

/* ---- The model, for backends ---- */

Boolean PlatGetWindowInfo(WindowRef window, PlatWindowInfo* info) {
    Lock lock(PlatModelLock());
    auto it = Windows().windows.find(PlatIdOf(window));
    if (info == nullptr || it == Windows().windows.end()) {
        return false;
    }
    const WindowRec& rec = it->second;
    info->window = window;
    info->nibName = rec.nibName.c_str();
    info->title = rec.title.c_str();
    info->width = rec.width;
    info->height = rec.height;
    info->hasCloseBox = rec.closeBox;
    info->controlCount = rec.controls.size();
    return true;
}

Boolean PlatGetControlInfo(WindowRef window, size_t index, PlatControlInfo* info) {
    Lock lock(PlatModelLock());
    auto it = Windows().windows.find(PlatIdOf(window));
    if (info == nullptr || it == Windows().windows.end() || index >= it->second.controls.size()) {
        return false;
    }
    uintptr_t id = it->second.controls[index];
    const ControlRec& rec = Windows().controls.at(id);
    info->control = reinterpret_cast<ControlRef>(id);
    info->kind = rec.kind;
    info->frame = rec.frame;
    info->id = rec.id;
    info->text = rec.text.c_str();
    info->isDefault = id == it->second.defaultButton;
    info->isCancel = id == it->second.cancelButton;
    info->indeterminate = rec.indeterminate;
    info->rgba = rec.rgba.empty() ? nullptr : rec.rgba.data();
    info->imageWidth = rec.imageWidth;
    info->imageHeight = rec.imageHeight;
    return true;
}

void PlatPostControlHit(ControlRef control) {
    EventTargetRef target = HIObjectGetEventTarget(reinterpret_cast<HIObjectRef>(control));
    if (target != nullptr) {
        PostUserEvent(kEventClassControl, kEventControlHit, typeControlRef, control, target);
    }
}

void PlatPostWindowClose(WindowRef window) {
    EventTargetRef target = GetWindowEventTarget(window);
    if (target != nullptr) {
        PostUserEvent(kEventClassWindow, kEventWindowClose, typeWindowRef, window, target);
    }
}

/* ---- What tests see ---- */

Boolean PlatScriptIsVisible(const char* windowName) {
    if (windowName == nullptr) {
        return false;
    }
    Lock lock(PlatModelLock());
    for (const auto& [id, window] : Windows().windows) {
        if (!window.disposing && window.visible && window.nibName == windowName) {
            return true;
        }
    }
    return false;
}

Boolean PlatScriptGetControlText(const char* windowName, OSType signature, SInt32 id, char* buffer,
                                 size_t size) {
    if (windowName == nullptr || buffer == nullptr || size == 0) {
        return false;
    }
    buffer[0] = '\0';
    Lock lock(PlatModelLock());
    WindowRec* window = NewestByName(windowName);
    if (window == nullptr) {
        return false;
    }
    for (uintptr_t c : window->controls) {
        const ControlRec& control = Windows().controls.at(c);
        if (control.id.signature == signature && control.id.id == id) {
            /* a text that does not fit is cut, and reported as not read */
            size_t n = control.text.size() < size ? control.text.size() : size - 1;
            std::memcpy(buffer, control.text.data(), n);
            buffer[n] = '\0';
            return n == control.text.size();
        }
    }
    return false;
}
