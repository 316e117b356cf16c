/* The main thread's event queue and the application and modal loops.
 *
 * Events sent from other threads wait in the queue until a loop on the main thread
 * (or PlatDrainEvents) dispatches them. A loop dispatches one queued event at a
 * time and checks its quit condition after each, so it ends right after the
 * handler that asked has returned; with nothing queued it blocks in the backend's
 * pump(), or in the layer's own wait before a backend is chosen. */
#include "backends/BackendInternal.h"
#include "events/EventInternal.h"

#include <PlatformTesting.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <vector>

namespace {

struct Queued {
    EventRef event;
    EventTargetRef target;
};

/* The queue and the layer's own wake-up flag; separate from the model's lock so
 * that a wait never holds it. */
struct MainQueue {
    std::mutex lock;
    std::condition_variable wakeUp;
    bool woken = false;
    std::deque<Queued> events;
};

MainQueue& Queue() {
    static MainQueue* queue = new MainQueue;
    return *queue;
}

/* A modal loop in progress, innermost last. */
struct ModalFrame {
    uintptr_t window;
    bool quit;
};

/* Loop state, guarded by the model's lock so that quits may come from any thread. */
bool gQuitApplication = false; /* kept until an application loop takes it */
std::vector<ModalFrame*> gModalFrames;

bool TakeApplicationQuit() {
    std::lock_guard<std::recursive_mutex> lock(plat::ModelLock());
    bool quit = gQuitApplication;
    gQuitApplication = false;
    return quit;
}

bool ModalQuitAsked(const ModalFrame& frame) {
    std::lock_guard<std::recursive_mutex> lock(plat::ModelLock());
    return frame.quit;
}

/* Blocks until there may be something to do: user input or a wake-up. */
void WaitForInput() {
    const PlatBackendOps* backend = plat::CurrentBackend();
    if (backend != nullptr && backend->pump != nullptr) {
        backend->pump(-1);
    } else {
        plat::WaitForWake(-1);
    }
}

} // namespace

namespace plat {

void PostToMainThread(EventRef event, EventTargetRef target) {
    if (RetainEvent(event) == nullptr) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(Queue().lock);
        Queue().events.push_back(Queued{event, target});
    }
    WakeMainThread();
}

bool DispatchOneQueued() {
    Queued next;
    {
        std::lock_guard<std::mutex> lock(Queue().lock);
        if (Queue().events.empty()) {
            return false;
        }
        next = Queue().events.front();
        Queue().events.pop_front();
    }
    /* A target disposed of since the event was queued drops it. */
    DispatchNow(next.event, next.target);
    ReleaseEvent(next.event);
    return true;
}

void SignalWake() {
    {
        std::lock_guard<std::mutex> lock(Queue().lock);
        Queue().woken = true;
    }
    Queue().wakeUp.notify_all();
}

void WakeMainThread() {
    SignalWake();
    const PlatBackendOps* backend = CurrentBackend();
    if (backend != nullptr && backend->wake != nullptr) {
        backend->wake();
    }
}

void WaitForWake(int timeoutMs) {
    std::unique_lock<std::mutex> lock(Queue().lock);
    auto woken = [] { return Queue().woken; };
    if (timeoutMs < 0) {
        Queue().wakeUp.wait(lock, woken);
    } else {
        Queue().wakeUp.wait_for(lock, std::chrono::milliseconds(timeoutMs), woken);
    }
    Queue().woken = false;
}

} // namespace plat

void RunApplicationEventLoop(void) {
    if (!plat::IsMainThread()) {
        return;
    }
    while (!TakeApplicationQuit()) {
        if (!plat::DispatchOneQueued()) {
            WaitForInput();
        }
    }
}

void QuitApplicationEventLoop(void) {
    {
        std::lock_guard<std::recursive_mutex> lock(plat::ModelLock());
        gQuitApplication = true;
    }
    if (!plat::IsMainThread()) {
        plat::WakeMainThread();
    }
}

OSStatus RunAppModalLoopForWindow(WindowRef inWindow) {
    if (!IsValidWindowPtr(inWindow)) {
        return errInvalidWindowRef;
    }
    if (!plat::IsMainThread()) {
        return eventInternalErr;
    }
    ModalFrame frame{reinterpret_cast<uintptr_t>(inWindow), false};
    {
        std::lock_guard<std::recursive_mutex> lock(plat::ModelLock());
        gModalFrames.push_back(&frame);
    }
    /* Disposing of the window ends its loop as well. */
    while (!ModalQuitAsked(frame) && IsValidWindowPtr(inWindow)) {
        if (!plat::DispatchOneQueued()) {
            WaitForInput();
        }
    }
    {
        std::lock_guard<std::recursive_mutex> lock(plat::ModelLock());
        gModalFrames.erase(std::find(gModalFrames.begin(), gModalFrames.end(), &frame));
    }
    return noErr;
}

OSStatus QuitAppModalLoopForWindow(WindowRef inWindow) {
    if (!IsValidWindowPtr(inWindow)) {
        return errInvalidWindowRef;
    }
    {
        std::lock_guard<std::recursive_mutex> lock(plat::ModelLock());
        for (auto it = gModalFrames.rbegin(); it != gModalFrames.rend(); ++it) {
            if ((*it)->window == reinterpret_cast<uintptr_t>(inWindow) && !(*it)->quit) {
                (*it)->quit = true;
                break;
            }
        }
    }
    if (!plat::IsMainThread()) {
        plat::WakeMainThread();
    }
    return noErr;
}

void PlatDrainEvents(void) {
    if (!plat::IsMainThread()) {
        return;
    }
    while (plat::DispatchOneQueued()) {
    }
}
