/* The window code kept in a module of the bundle (Contents/Linux/PlugIns): the nib reader,
 * PNG pictures and the window backends. The program opens it when the first window or
 * picture is made, so a run that shows no window never loads the XML and PNG readers.
 *
 * The module's copies of the calls below carry other names (see platform/CMakeLists.txt);
 * the program's calls of the same names go through the table, in WindowModuleLoader.cpp. */
#ifndef PLATFORM_WINDOWMODULE_H
#define PLATFORM_WINDOWMODULE_H

#include <ApplicationServices/ApplicationServices.h>
#include <Carbon/Carbon.h>

#include "backends/PlatBackend.h"

extern "C" {

typedef struct PlatWindowModule {
    OSStatus (*createNibReference)(CFStringRef name, IBNibRef* outNib);
    void (*disposeNibReference)(IBNibRef nib);
    OSStatus (*createWindowFromNib)(IBNibRef nib, CFStringRef name, WindowRef* outWindow);
    CGDataProviderRef (*dataProviderCreateWithURL)(CFURLRef url);
    void (*dataProviderRelease)(CGDataProviderRef provider);
    CGImageRef (*imageCreateWithPNGDataProvider)(CGDataProviderRef source, const CGFloat* decode,
                                                 bool shouldInterpolate, CGColorRenderingIntent intent);
    size_t (*imageGetWidth)(CGImageRef image);
    size_t (*imageGetHeight)(CGImageRef image);
    const unsigned char* (*imageGetRGBA)(CGImageRef image);
    void (*imageRelease)(CGImageRef image);
    const PlatBackendOps* (*acquireBackend)(void);
    void (*releaseBackend)(void);
    const PlatBackendOps* (*currentBackend)(void);
    void (*setBackend)(const char* name);
    const char* (*backendName)(void);
} PlatWindowModule;

/* The module's one exported symbol: its table. */
const PlatWindowModule* PlatWindowModuleEntry(void);
#define PLAT_WINDOW_MODULE_ENTRY "PlatWindowModuleEntry"

} // extern "C"

#endif
