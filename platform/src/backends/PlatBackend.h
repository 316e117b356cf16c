/* The interface between the window layer and a backend that shows its windows.
 *
 * The layer owns windows, controls, events and loops; a backend only shows
 * windows and turns the user's input into events through PlatPostControlHit and
 * PlatPostWindowClose. All backend entry points except wake() are called on the
 * main thread. */
#ifndef PLATFORM_PLATBACKEND_H
#define PLATFORM_PLATBACKEND_H

#include <Carbon/Carbon.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
    kPlatControlStaticText = 1,
    kPlatControlPushButton,
    kPlatControlImageView,
    kPlatControlProgressIndicator
} PlatControlKind;

typedef struct PlatRect {
    int x, y, width, height;
} PlatRect;

/* Read-only views of the layer's model, valid while the window lives. */
typedef struct PlatControlInfo {
    ControlRef control;
    PlatControlKind kind;
    PlatRect frame;
    ControlID id;
    const char* text;      /* UTF-8: static text, or a button's caption */
    Boolean isDefault;     /* push button pressed by Return and Enter */
    Boolean isCancel;      /* push button pressed by Escape */
    Boolean indeterminate; /* progress indicator */
    /* image view: decoded picture as 8-bit RGBA rows, or null */
    const unsigned char* rgba;
    size_t imageWidth, imageHeight;
} PlatControlInfo;

typedef struct PlatWindowInfo {
    WindowRef window;
    const char* nibName; /* name of the window in the nib */
    const char* title;   /* UTF-8 */
    int width, height;
    Boolean hasCloseBox;
    size_t controlCount;
} PlatWindowInfo;

Boolean PlatGetWindowInfo(WindowRef window, PlatWindowInfo* info);
Boolean PlatGetControlInfo(WindowRef window, size_t index, PlatControlInfo* info);

/* A decoded picture as 8-bit RGBA rows, width * 4 bytes each (CoreGraphics side). */
const unsigned char* PlatCGImageGetRGBA(CGImageRef image);

/* Input from the user, turned into Carbon events dispatched on the main thread:
 * a kEventControlHit to the control, a kEventWindowClose to the window. */
void PlatPostControlHit(ControlRef control);
void PlatPostWindowClose(WindowRef window);

typedef struct PlatBackendOps {
    const char* name;
    /* Build the native side of a window (not yet shown). Non-zero: the window
     * cannot be created, and CreateWindowFromNib fails with this status. */
    OSStatus (*createWindow)(WindowRef window);
    void (*showWindow)(WindowRef window);
    void (*disposeWindow)(WindowRef window);
    void (*controlChanged)(WindowRef window, ControlRef control);
    /* Wait for user input or wake(), at most timeoutMs (-1: no limit), and turn
     * the input into events. Returns after at least one round. */
    void (*pump)(int timeoutMs);
    /* Any thread: make a running pump() return soon. */
    void (*wake)(void);
} PlatBackendOps;

/* Backends compiled into the layer; the gtk one is loaded as a module. */
extern const PlatBackendOps gPlatScriptedBackend;
extern const PlatBackendOps gPlatTerminalBackend;
extern const PlatBackendOps gPlatNoneBackend;

/* Entry point of the gtk module, a shared object loaded with dlopen from
 * <main bundle>/Contents/Linux/PlugIns/PLAT_GTK_MODULE_NAME (else PLAT_GTK_MODULE_FALLBACK,
 * the build tree's copy): returns its ops, or null when GTK cannot start. */
typedef const PlatBackendOps* (*PlatBackendEntry)(void);
#define PLAT_GTK_MODULE_ENTRY "PlatGtkBackend"

#ifdef __cplusplus
}
#endif

#endif
