// Stands in for the gtk module in the tests of the backend choice: loaded the same
// way, from the bundle's PlugIns folder, and failing to start when asked to.
#include "PlatBackend.h"

#include <poll.h>
#include <stdlib.h>

namespace {

OSStatus FakeCreateWindow(WindowRef) {
    return noErr;
}
void FakePump(int timeoutMs) {
    poll(nullptr, 0, timeoutMs < 0 ? 50 : timeoutMs);
}
void FakeWake() {}

const PlatBackendOps kFakeBackend = {
    "fake-gtk", FakeCreateWindow, nullptr, nullptr, nullptr, nullptr, FakePump, FakeWake,
};

} // namespace

extern "C" const PlatBackendOps* PlatGtkBackend(void) {
    return getenv("UI_FAKE_GTK_FAILS") != nullptr ? nullptr : &kFakeBackend;
}
