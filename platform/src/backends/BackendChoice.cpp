/* The choice of the window backend, made once, when the first window is created:
 * the one a test forced; else under a display the gtk module, loaded only then;
 * else the terminal when standard input is one; else none. */
#include "backends/BackendInternal.h"
#include "cf/PlatCF.h"

#include <PlatformTesting.h>

#include <dlfcn.h>
#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <string>

namespace {

std::atomic<const PlatBackendOps*> gBackend{nullptr};

std::mutex& ChoiceLock() {
    static std::mutex* lock = new std::mutex;
    return *lock;
}
std::string* gForcedName = nullptr; /* guarded by ChoiceLock */
int gWindowsAlive = 0;              /* guarded by ChoiceLock */

bool IsSet(const char* variable) {
    const char* value = getenv(variable);
    return value != nullptr && value[0] != '\0';
}

/* The gtk module's backend, or null when there is no module or GTK cannot start.
 * A module once loaded stays loaded: GTK cannot be unloaded. */
const PlatBackendOps* LoadGtkModule() {
    auto entry =
        reinterpret_cast<PlatBackendEntry>(PlatCFOpenPlugIn(PLAT_GTK_MODULE_NAME, PLAT_GTK_MODULE_ENTRY));
    return entry != nullptr ? entry() : nullptr;
}

const PlatBackendOps* Automatic() {
    if (IsSet("DISPLAY") || IsSet("WAYLAND_DISPLAY")) {
        if (const PlatBackendOps* gtk = LoadGtkModule()) {
            return gtk;
        }
    }
    return isatty(STDIN_FILENO) ? &gPlatTerminalBackend : &gPlatNoneBackend;
}

const PlatBackendOps* Forced(const std::string& name) {
    if (name == "scripted") {
        return &gPlatScriptedBackend;
    }
    if (name == "terminal") {
        return &gPlatTerminalBackend;
    }
    if (name == "none") {
        return &gPlatNoneBackend;
    }
    if (name == "gtk") {
        /* without a usable module, as if nothing had been forced */
        const PlatBackendOps* gtk = LoadGtkModule();
        return gtk != nullptr ? gtk : isatty(STDIN_FILENO) ? &gPlatTerminalBackend : &gPlatNoneBackend;
    }
    /* a backend we do not have can show nothing */
    return &gPlatNoneBackend;
}

} // namespace

const PlatBackendOps* PlatCurrentBackend() {
    return gBackend.load();
}

const PlatBackendOps* PlatAcquireBackend() {
    std::lock_guard<std::mutex> lock(ChoiceLock());
    const PlatBackendOps* backend = gBackend.load();
    if (backend == nullptr) {
        backend = gForcedName != nullptr ? Forced(*gForcedName) : Automatic();
        gBackend.store(backend);
    }
    gWindowsAlive++;
    return backend;
}

void PlatReleaseBackend() {
    std::lock_guard<std::mutex> lock(ChoiceLock());
    if (gWindowsAlive > 0) {
        gWindowsAlive--;
    }
}

void PlatSetBackend(const char* name) {
    std::lock_guard<std::mutex> lock(ChoiceLock());
    /* Windows a backend has built stay with it. */
    if (gWindowsAlive > 0) {
        return;
    }
    delete gForcedName;
    gForcedName = name != nullptr ? new std::string(name) : nullptr;
    gBackend.store(nullptr);
}

const char* PlatGetBackendName(void) {
    const PlatBackendOps* backend = gBackend.load();
    return backend != nullptr ? backend->name : nullptr;
}
