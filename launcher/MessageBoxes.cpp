/* The question boxes: built from the nib "main", texts from the string table "custom".
 * A box only shows itself; its handlers act on the answer inside the application event loop. */
#include "Launcher.h"

#include "Common/Log.h"

WindowRef g_msgBoxRef = nullptr;
ControlRef g_msgBoxYesRef = nullptr;
ControlRef g_msgBoxNoRef = nullptr;
EventHandlerRef g_appClickEventHandlerRef = nullptr;
const EventTypeSpec CTRL_EVENT[1] = {{kEventClassControl, kEventControlHit}};
const EventTypeSpec WIN_EVENT[1] = {{kEventClassWindow, kEventWindowClose}};

namespace {

constexpr OSType kMessageSignature = 'MSG1';

struct BoxLayout {
    const char* funcName;   // the box's name in the log
    CFStringRef windowName; // its window in the nib
    OSType yesSignature;
    OSType noSignature; // 0: the box has no No button
    EventHandlerProcPtr clickHandler;
};

// With no window there is nobody to answer: do what the close box does.
void AnswerAsClosed(const char* funcName) {
    Log(kMainSource, funcName, "CreateWindowFromNib failed");
    QuitApplicationEventLoop();
    AutoRunApplication();
}

void ShowBox(const BoxLayout& layout, const char* textKey) {
    IBNibRef nibRef = nullptr;
    WindowRef window = nullptr;
    if (CreateNibReference(CFSTR("main"), &nibRef) == noErr && nibRef != nullptr) {
        CreateWindowFromNib(nibRef, layout.windowName, &window);
        DisposeNibReference(nibRef);
    }
    if (window == nullptr) {
        AnswerAsClosed(layout.funcName);
        return;
    }
    g_msgBoxRef = window;
    g_msgBoxYesRef = GetControlRef(window, layout.yesSignature, 1);
    // Return and Enter answer yes; Escape and Cmd-. answer no where the box asks.
    SetWindowDefaultButton(window, g_msgBoxYesRef);
    if (layout.noSignature != 0) {
        g_msgBoxNoRef = GetControlRef(window, layout.noSignature, 1);
        SetWindowCancelButton(window, g_msgBoxNoRef);
    }
    if (InstallEventHandler(GetApplicationEventTarget(), NewEventHandlerUPP(layout.clickHandler), 1,
                            CTRL_EVENT, nullptr, &g_appClickEventHandlerRef) != noErr) {
        Log(kMainSource, layout.funcName, "InstallApplicationEventHandler failed");
        return;
    }
    if (InstallEventHandler(HIObjectGetEventTarget(reinterpret_cast<HIObjectRef>(window)),
                            NewEventHandlerUPP(CloseWindowHandle), 1, WIN_EVENT, nullptr, nullptr) != noErr) {
        Log(kMainSource, layout.funcName, "HIViewInstallEventHandler failed");
        return;
    }
    ControlRef message = GetControlRef(window, kMessageSignature, 1);
    if (message != nullptr) {
        SetControlTextEx(message, textKey);
    }
    ShowWindow(window);
}

// The control a hit event names, or null when the event names none.
OSStatus GetHitControl(EventRef event, const char* funcName, ControlRef* control) {
    *control = nullptr;
    OSStatus err = GetEventParameter(event, kEventParamDirectObject, typeControlRef, nullptr,
                                     sizeof(ControlRef), nullptr, control);
    if (err != noErr) {
        Log(kMainSource, funcName, "GetEventParameter failed");
    }
    return err;
}

// A further click must reach no handler once the box has been answered.
void RemoveClickHandler(const char* funcName) {
    if (RemoveEventHandler(g_appClickEventHandlerRef) != noErr) {
        Log(kMainSource, funcName, "RemoveEventHandler failed");
    }
    g_appClickEventHandlerRef = nullptr;
}

} // namespace

CFStringRef GetText(const char* key) {
    if (key == nullptr) {
        return nullptr;
    }
    CFStringRef keyRef = CFStringCreateWithCString(nullptr, key, kCFStringEncodingMacRoman);
    if (keyRef == nullptr) {
        return nullptr;
    }
    CFBundleRef bundle = CFBundleGetMainBundle();
    if (bundle == nullptr) {
        return keyRef; // no table to look in: the key is the text
    }
    CFStringRef text = CFBundleCopyLocalizedString(bundle, keyRef, keyRef, CFSTR("custom"));
    CFRelease(keyRef);
    return text;
}

ControlRef GetControlRef(WindowRef window, OSType signature, SInt32 id) {
    if (window == nullptr) {
        return nullptr;
    }
    ControlID controlID = {signature, id};
    ControlRef control = nullptr;
    if (GetControlByID(window, &controlID, &control) != noErr) {
        return nullptr;
    }
    return control;
}

OSStatus SetControlTextEx(ControlRef control, const char* key) {
    if (control == nullptr || key == nullptr) {
        return paramErr;
    }
    CFStringRef text = GetText(key);
    if (text == nullptr) {
        return paramErr;
    }
    OSStatus err =
        SetControlData(control, kControlEditTextPart, kControlStaticTextCFStringTag, sizeof text, &text);
    CFRelease(text);
    return err;
}

void MessageBox(const char* textKey) {
    if (textKey == nullptr) {
        return;
    }
    ShowBox({"MessageBox", CFSTR("MessageBox"), 'YES1', 'NO11', MessageBoxAppClickEventHandler}, textKey);
}

void MessageBoxR7(const char* textKey) {
    if (textKey == nullptr) {
        return;
    }
    ShowBox({"MessageBoxR7", CFSTR("MessageBox_Installed"), 'YES1', 'NO11', MessageBoxAppClickEventHandler},
            textKey);
}

void WarningBoxR7() {
    ShowBox({"WarningBoxR7", CFSTR("WarnningBox_Installed"), 'YES2', 0, WarningBoxAppClickEventHandler},
            "INSTALL_DRIVER");
}

OSStatus MessageBoxAppClickEventHandler(EventHandlerCallRef, EventRef event, void*) {
    ControlRef control = nullptr;
    OSStatus err = GetHitControl(event, "MessageBoxAppClickEventHandler", &control);
    if (err != noErr) {
        return err;
    }
    if (control == nullptr) {
        return noErr;
    }
    if (control == g_msgBoxYesRef) {
        QuitApplicationEventLoop();
        RemoveClickHandler("MessageBoxAppClickEventHandler");
        DisposeWindow(g_msgBoxRef);
        AutoInstallPkg(isShowProcessWindow);
    } else if (control == g_msgBoxNoRef) {
        // The box stays on screen until the launcher ends.
        QuitApplicationEventLoop();
        RemoveClickHandler("MessageBoxAppClickEventHandler");
        AutoRunApplication();
    }
    return noErr;
}

OSStatus WarningBoxAppClickEventHandler(EventHandlerCallRef, EventRef event, void*) {
    ControlRef control = nullptr;
    OSStatus err = GetHitControl(event, "WarningBoxAppClickEventHandler", &control);
    if (err != noErr) {
        return err;
    }
    if (control != nullptr && control == g_msgBoxYesRef) {
        QuitApplicationEventLoop();
        RemoveClickHandler("WarningBoxAppClickEventHandler");
        AutoRunApplication();
    }
    return noErr;
}

OSStatus CloseWindowHandle(EventHandlerCallRef, EventRef event, void*) {
    WindowRef window = nullptr;
    OSStatus err = GetEventParameter(event, kEventParamDirectObject, typeWindowRef, nullptr,
                                     sizeof(WindowRef), nullptr, &window);
    if (err != noErr) {
        Log(kMainSource, "CloseWindowHandle", "GetEventParameter failed");
        return err;
    }
    // Handled here, so the window stays: the launcher ends soon after.
    if (window != nullptr) {
        QuitApplicationEventLoop();
        AutoRunApplication();
        Log(kMainSource, "CloseWindowHandle", "Close messageBox window");
    }
    return noErr;
}
