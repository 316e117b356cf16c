/* The backend for a process with neither a display nor a terminal: nothing can be
 * shown, so creating a window fails and nobody waits for an answer that cannot
 * come. Loops still run and dispatch events from other threads. */
#include "events/EventInternal.h"
#include "backends/PlatBackend.h"

namespace {

OSStatus NoneCreateWindow(WindowRef) {
    return errInvalidWindowPtr;
}

void NonePump(int timeoutMs) {
    plat::WaitForWake(timeoutMs);
}

void NoneWake() {
    plat::SignalWake();
}

} // namespace

const PlatBackendOps gPlatNoneBackend = {
    "none", NoneCreateWindow, nullptr, nullptr, nullptr, nullptr, NonePump, NoneWake,
};
