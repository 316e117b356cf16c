/* Carbon: the Event Manager, windows and controls from nibs (HIToolbox), and,
 * through the umbrella includes, CoreFoundation, Multiprocessing Services, the
 * Process Manager and CoreGraphics. */
#ifndef __CARBON__
#define __CARBON__

#include <CoreFoundation/CoreFoundation.h>
#include <CoreServices/CoreServices.h>
#include <ApplicationServices/ApplicationServices.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Event Manager ---- */
/* Carbon's records are packed to 2 bytes. */
#pragma pack(push, 2)

typedef struct OpaqueEventRef* EventRef;
typedef struct OpaqueEventQueueRef* EventQueueRef;
typedef struct OpaqueEventTargetRef* EventTargetRef;
typedef struct OpaqueEventHandlerRef* EventHandlerRef;
typedef struct OpaqueEventHandlerCallRef* EventHandlerCallRef;
typedef struct OpaqueHIObjectRef* HIObjectRef;
typedef struct OpaqueWindowPtr* WindowRef;
typedef WindowRef WindowPtr;
typedef struct OpaqueControlRef* ControlRef;
typedef ControlRef HIViewRef;
typedef struct OpaqueMenuRef* MenuRef;
typedef struct OpaqueIBNibRef* IBNibRef;

typedef double EventTime;
typedef UInt32 EventAttributes;
typedef OSType EventParamName;
typedef OSType EventParamType;
typedef UInt16 MenuItemIndex;
typedef SInt16 ControlPartCode;
typedef SInt16 EventPriority;

typedef OSStatus (*EventHandlerProcPtr)(EventHandlerCallRef inHandlerCallRef, EventRef inEvent,
                                        void* inUserData);
typedef EventHandlerProcPtr EventHandlerUPP;

typedef struct EventTypeSpec {
    OSType eventClass;
    UInt32 eventKind;
} EventTypeSpec;

typedef struct HICommand {
    UInt32 attributes;
    UInt32 commandID;
    struct {
        MenuRef menuRef;
        MenuItemIndex menuItemIndex;
    } menu;
} HICommand;

enum { kEventClassCommand = 'cmds', kEventClassControl = 'cntl', kEventClassWindow = 'wind' };
enum { kEventCommandProcess = 1 };
enum { kEventControlHit = 1 };
enum { kEventWindowClose = 72 };
enum { kEventParamDirectObject = '----', kEventParamPostTarget = 'ptrg' };
enum {
    typeControlRef = 'ctrl',
    typeWindowRef = 'wind',
    typeHICommand = 'hcmd',
    typeControlPartCode = 'cprt',
    typeUInt32 = 'magn',
    typeEventTargetRef = 'etrg',
    typeWildCard = '****'
};
enum { kEventAttributeUserEvent = 1 };
enum { kEventPriorityLow = 0, kEventPriorityStandard = 1, kEventPriorityHigh = 2 };
enum { kHICommandClose = 'clos' };

EventHandlerUPP NewEventHandlerUPP(EventHandlerProcPtr userRoutine);

OSStatus InstallEventHandler(EventTargetRef inTarget, EventHandlerUPP inHandler, ItemCount inNumTypes,
                             const EventTypeSpec* inList, void* inUserData, EventHandlerRef* outRef);
OSStatus RemoveEventHandler(EventHandlerRef inHandlerRef);

EventTargetRef GetApplicationEventTarget(void);
EventTargetRef GetWindowEventTarget(WindowRef inWindow);
EventTargetRef HIObjectGetEventTarget(HIObjectRef inObject);

#define InstallApplicationEventHandler(h, n, l, u, r)                                                        \
    InstallEventHandler(GetApplicationEventTarget(), (h), (n), (l), (u), (r))

OSStatus CreateEvent(CFAllocatorRef inAllocator, UInt32 inClassID, UInt32 inKind, EventTime inWhen,
                     EventAttributes inAttributes, EventRef* outEvent);
EventRef RetainEvent(EventRef inEvent);
void ReleaseEvent(EventRef inEvent);
OSStatus SetEventParameter(EventRef inEvent, EventParamName inName, EventParamType inType, ByteCount inSize,
                           const void* inDataPtr);
OSStatus GetEventParameter(EventRef inEvent, EventParamName inName, EventParamType inDesiredType,
                           EventParamType* outActualType, ByteCount inBufferSize, ByteCount* outActualSize,
                           void* outData);
UInt32 GetEventClass(EventRef inEvent);
UInt32 GetEventKind(EventRef inEvent);
EventTime GetCurrentEventTime(void);
/* Dispatches on the calling thread; returns the handlers' answer. */
OSStatus SendEventToEventTarget(EventRef inEvent, EventTargetRef inTarget);

/* Queues: the main thread's, dispatched by whatever loop runs there, and one per
 * other thread. Posting is thread safe; the event goes to its kEventParamPostTarget,
 * else to the application target. */
EventQueueRef GetMainEventQueue(void);
OSStatus PostEventToQueue(EventQueueRef inQueue, EventRef inEvent, EventPriority inPriority);

void RunApplicationEventLoop(void);
void QuitApplicationEventLoop(void);
OSStatus RunAppModalLoopForWindow(WindowRef inWindow);
OSStatus QuitAppModalLoopForWindow(WindowRef inWindow);

/* ---- Windows and controls from nibs ---- */
typedef struct ControlID {
    OSType signature;
    SInt32 id;
} ControlID;
typedef ControlID HIViewID;

enum { kControlEntireControl = 0, kControlEditTextPart = 5 };
enum { kControlStaticTextCFStringTag = 'cfst' };

OSStatus CreateNibReference(CFStringRef inNibName, IBNibRef* outNibRef);
void DisposeNibReference(IBNibRef inNibRef);
OSStatus CreateWindowFromNib(IBNibRef inNibRef, CFStringRef inName, WindowRef* outWindow);

void ShowWindow(WindowRef window);
void DisposeWindow(WindowRef window);
Boolean IsValidWindowPtr(WindowRef possibleWindow);
Boolean IsWindowVisible(WindowRef window);

/* Return and Enter press a window's default button; Escape and Command-period its
 * cancel button. A null control clears the choice. */
OSStatus SetWindowDefaultButton(WindowRef inWindow, ControlRef inControl);
OSStatus SetWindowCancelButton(WindowRef inWindow, ControlRef inControl);
OSStatus GetWindowDefaultButton(WindowRef inWindow, ControlRef* outControl);
OSStatus GetWindowCancelButton(WindowRef inWindow, ControlRef* outControl);

OSStatus GetControlByID(WindowRef inWindow, const ControlID* inID, ControlRef* outControl);
OSErr SetControlData(ControlRef inControl, ControlPartCode inPart, ResType inTagName, Size inSize,
                     const void* inData);
HIViewRef HIViewGetRoot(WindowRef inWindow);
OSStatus HIViewFindByID(HIViewRef inStartView, HIViewID inID, HIViewRef* outControl);
OSStatus HIImageViewSetImage(HIViewRef inView, CGImageRef inImage);

#pragma pack(pop)

#ifdef __cplusplus
}
#endif

#endif
