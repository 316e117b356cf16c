/* The backend for a process with neither a display nor a terminal: nothing can be
 * shown, so creating a window fails and nobody waits for an answer that cannot
 * come. Loops still run, waiting in the layer's own wait, and dispatch posted events. */
#include "events/EventInternal.h"
#include "backends/PlatBackend.h"

namespace {

OSStatus NoneCreateWindow(WindowRef) {
    return errInvalidWindowPtr;
}

} // namespace

const PlatBackendOps gPlatNoneBackend = {
    "none", NoneCreateWindow, nullptr, nullptr, nullptr, PlatWaitForWake, PlatSignalWake,
};
