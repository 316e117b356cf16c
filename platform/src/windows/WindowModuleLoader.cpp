/* The program's side of the window module: the nib, picture and backend calls open the
 * module at their first use, and answer as they would without windows until then.
 *
 * A program that carries the module's code itself (the tests) uses that copy. */
#include "windows/WindowModule.h"

#include "backends/BackendInternal.h"
#include "cf/PlatCF.h"

#include <PlatformTesting.h>

#include <dlfcn.h>
#include <limits.h>
#include <stdio.h>

#include <atomic>
#include <string>

extern "C" const PlatWindowModule* PlatWindowModuleEntry(void) __attribute__((weak));

namespace {

/* Set once the module is open; calls on objects only the module makes need no loading. */
std::atomic<const PlatWindowModule*> gModule{nullptr};

/* The bundle's module, else the build tree's; null (and one line on standard error)
 * when neither opens. The module stays open: the objects it made live on. */
const PlatWindowModule* Open() {
    if (PlatWindowModuleEntry != nullptr) {
        return PlatWindowModuleEntry();
    }
    std::string error;
    auto entry = reinterpret_cast<const PlatWindowModule* (*)(void)>(PlatCFOpenPlugIn(
        PLAT_WINDOW_MODULE_NAME, PLAT_WINDOW_MODULE_FALLBACK, PLAT_WINDOW_MODULE_ENTRY, &error));
    if (entry != nullptr) {
        return entry();
    }
    fprintf(stderr, "The window module cannot be loaded: %s\n", error.c_str());
    return nullptr;
}

/* The module, opened now if it is not yet; null when it cannot be. */
const PlatWindowModule* Load() {
    static const PlatWindowModule* const module = [] {
        const PlatWindowModule* opened = Open();
        gModule.store(opened);
        return opened;
    }();
    return module;
}

const PlatWindowModule* Loaded() {
    return gModule.load();
}

} // namespace

OSStatus CreateNibReference(CFStringRef inNibName, IBNibRef* outNibRef) {
    const PlatWindowModule* module = Load();
    if (module == nullptr) {
        if (outNibRef != nullptr) {
            *outNibRef = nullptr;
        }
        return kIBCarbonRuntimeCantFindNibFile;
    }
    return module->createNibReference(inNibName, outNibRef);
}

void DisposeNibReference(IBNibRef inNibRef) {
    if (const PlatWindowModule* module = Loaded()) {
        module->disposeNibReference(inNibRef);
    }
}

OSStatus CreateWindowFromNib(IBNibRef inNibRef, CFStringRef inName, WindowRef* outWindow) {
    const PlatWindowModule* module = Loaded();
    if (module == nullptr) {
        /* no nib can have been opened */
        if (outWindow != nullptr) {
            *outWindow = nullptr;
        }
        return paramErr;
    }
    return module->createWindowFromNib(inNibRef, inName, outWindow);
}

CGDataProviderRef CGDataProviderCreateWithURL(CFURLRef url) {
    const PlatWindowModule* module = Load();
    return module != nullptr ? module->dataProviderCreateWithURL(url) : nullptr;
}

void CGDataProviderRelease(CGDataProviderRef provider) {
    if (const PlatWindowModule* module = Loaded()) {
        module->dataProviderRelease(provider);
    }
}

CGImageRef CGImageCreateWithPNGDataProvider(CGDataProviderRef source, const CGFloat* decode,
                                            bool shouldInterpolate, CGColorRenderingIntent intent) {
    const PlatWindowModule* module = Load();
    return module != nullptr
               ? module->imageCreateWithPNGDataProvider(source, decode, shouldInterpolate, intent)
               : nullptr;
}

size_t CGImageGetWidth(CGImageRef image) {
    const PlatWindowModule* module = Loaded();
    return module != nullptr ? module->imageGetWidth(image) : 0;
}

size_t CGImageGetHeight(CGImageRef image) {
    const PlatWindowModule* module = Loaded();
    return module != nullptr ? module->imageGetHeight(image) : 0;
}

const unsigned char* PlatCGImageGetRGBA(CGImageRef image) {
    const PlatWindowModule* module = Loaded();
    return module != nullptr ? module->imageGetRGBA(image) : nullptr;
}

void CGImageRelease(CGImageRef image) {
    if (const PlatWindowModule* module = Loaded()) {
        module->imageRelease(image);
    }
}

const PlatBackendOps* PlatAcquireBackend() {
    const PlatWindowModule* module = Load();
    return module != nullptr ? module->acquireBackend() : nullptr;
}

void PlatReleaseBackend() {
    if (const PlatWindowModule* module = Loaded()) {
        module->releaseBackend();
    }
}

/* Asked by every loop round: never loads the module, which no window has needed yet. */
const PlatBackendOps* PlatCurrentBackend() {
    const PlatWindowModule* module = Loaded();
    return module != nullptr ? module->currentBackend() : nullptr;
}

void PlatSetBackend(const char* name) {
    if (const PlatWindowModule* module = Load()) {
        module->setBackend(name);
    }
}

const char* PlatGetBackendName(void) {
    const PlatWindowModule* module = Loaded();
    return module != nullptr ? module->backendName() : nullptr;
}
