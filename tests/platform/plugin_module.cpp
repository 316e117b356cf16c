// A module that passes for the GTK backend: a whole shared object of this machine whose entry
// gives a backend that shows nothing. Built without the entry, it stands for another library.
#include "backends/PlatBackend.h"

namespace {

OSStatus Create(WindowRef) {
    return noErr;
}
void OnWindow(WindowRef) {}
void OnControl(WindowRef, ControlRef) {}
void Pump(int) {}
void Wake() {}

const PlatBackendOps kOps = {"test-module", Create, OnWindow, OnWindow, OnControl, Pump, Wake};

} // namespace

#ifdef WITH_ENTRY
extern "C" __attribute__((visibility("default"))) const PlatBackendOps* PlatGtkBackend(void) {
    return &kOps;
}
#else
extern "C" __attribute__((visibility("default"))) const PlatBackendOps* SomethingElse(void) {
    return &kOps;
}
#endif
