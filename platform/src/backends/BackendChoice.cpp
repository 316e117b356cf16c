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

const PlatBackendOps* Scripted() {
    return &gPlatScriptedBackend;
}
const PlatBackendOps* Terminal() {
    return &gPlatTerminalBackend;
}
const PlatBackendOps* None() {
    return &gPlatNoneBackend;
}

/* The backends by the names tests force them with; gtk's is null without a usable module. */
struct PlatBackendByName {
    const char* name;
    const PlatBackendOps* (*ops)();
};
constexpr PlatBackendByName kBackends[] = {
    {"gtk", LoadGtkModule},
    {"terminal", Terminal},
    {"none", None},
    {"scripted", Scripted},
};

/* What a process can show with no display, or with no GTK on it. */
const PlatBackendOps* WithoutDisplay() {
    return isatty(STDIN_FILENO) ? Terminal() : None();
}

const PlatBackendOps* Automatic() {
    if (IsSet("DISPLAY") || IsSet("WAYLAND_DISPLAY")) {
        if (const PlatBackendOps* gtk = LoadGtkModule()) {
            return gtk;
        }
    }
    return WithoutDisplay();
}

const PlatBackendOps* Forced(const std::string& name) {
    for (const PlatBackendByName& backend : kBackends) {
        if (name == backend.name) {
            /* a forced gtk without a usable module: as if nothing had been forced */
            const PlatBackendOps* ops = backend.ops();
            return ops != nullptr ? ops : WithoutDisplay();
        }
    }
    /* a backend we do not have can show nothing */
    return None();
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
