/* Our own hooks into the platform layer, for tests and for the backends.
 * Nothing here exists on the Mac; every name carries the Plat prefix. */
#ifndef PLATFORM_TESTING_H
#define PLATFORM_TESTING_H

#include <Carbon/Carbon.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The path the layer takes as the running executable (and so the main bundle).
 * Null restores /proc/self/exe. Forgets the cached main bundle. */
void PlatSetExecutablePath(const char* path);

/* The text sysctl answers for {CTL_KERN, KERN_OSRELEASE}. Null restores the
 * default (the host's release on Darwin, "10.8.0" elsewhere). The answer's length
 * counts the terminator, so an empty text is answered as one zero byte. */
void PlatSetOSRelease(const char* release);
/* Makes every sysctl for {CTL_KERN, KERN_OSRELEASE} fail with -1 and ENOENT. */
void PlatSetOSReleaseQueryFails(Boolean fails);

/* The window backend, chosen once when the first window is created: "scripted",
 * "terminal", "none" or "gtk". Before that, a test may force one; null lets the
 * layer choose (a display: gtk; a terminal on standard input: terminal; else none).
 * While no window is alive, a call also undoes the choice made, so the next window
 * chooses again; with windows alive it is ignored. */
void PlatSetBackend(const char* name);
const char* PlatGetBackendName(void); /* null until chosen */

/* ---- The scripted backend: what the "user" does once a window is shown ---- */
typedef enum {
    kPlatScriptNothing = 0,  /* leave the window up */
    kPlatScriptPressControl, /* a hit on control {signature, id} */
    kPlatScriptClose,        /* the close box */
    kPlatScriptReturn,       /* the Return key: the window's default button, if any */
    kPlatScriptEscape        /* the Escape key: the window's cancel button, if any */
} PlatScriptAction;

/* Set the answer for windows created from the nib window of that name. The
 * answer is posted to the main queue when the window is shown. */
void PlatScriptSetAction(const char* windowName, PlatScriptAction action, OSType signature, SInt32 id);
void PlatScriptReset(void); /* forget every answer and every record */

/* What is and was shown, by nib window name. */
int PlatScriptShowCount(const char* windowName);     /* times the scripted backend showed it */
Boolean PlatScriptIsVisible(const char* windowName); /* a live window of that name is visible */
/* The text of control {signature, id} in the live window of that name, UTF-8.
 * False when there is no such window or control. */
Boolean PlatScriptGetControlText(const char* windowName, OSType signature, SInt32 id, char* buffer,
                                 size_t size);

/* Dispatches the events posted to the main queue without entering a loop. Main thread. */
void PlatDrainEvents(void);

#ifdef __cplusplus
}
#endif

#endif
