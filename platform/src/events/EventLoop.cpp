/* The main event queue and the application loop.
 *
 * Any thread may post to the main queue. It is dispatched by whatever loop runs on
 * the main thread, one event at a time, highest priority first and in order of
 * posting within a priority; a posted event goes to its kEventParamPostTarget, else
 * to the application target. */
#include "events/EventInternal.h"

#include <PlatformTesting.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <set>

namespace {

constexpr int kPriorities = kEventPriorityHigh + 1;

/* The main queue and the layer's own wake-up flag; separate from the model's lock so
 * that a wait never holds it. */
struct MainQueueState {
    std::mutex lock;
    std::condition_variable wakeUp;
    bool woken = false;
    uintptr_t id = 0;
    std::deque<EventRef> byPriority[kPriorities];
    std::set<uintptr_t> posted; /* events in the queue */
};

/* Lives until the process ends: other threads may post while static destructors run. */
MainQueueState& MainQueue() {
    static MainQueueState* queue = [] {
        auto* made = new MainQueueState;
        made->id = PlatNewObjectId();
        return made;
    }();
    return *queue;
}

std::atomic<void (*)(void)> gWait{nullptr};
std::atomic<void (*)(void)> gWake{nullptr};

void WakeMainThread() {
    PlatSignalWake();
    if (void (*wake)(void) = gWake.load()) {
        wake();
    }
}

void WaitForInput() {
    if (void (*wait)(void) = gWait.load()) {
        wait();
    } else {
        PlatWaitForWake(-1);
    }
}

/* Dispatches the main queue's next event; false when it was empty. */
bool DispatchOnePosted() {
    EventRef event = nullptr;
    {
        MainQueueState& queue = MainQueue();
        std::lock_guard<std::mutex> lock(queue.lock);
        for (int priority = kEventPriorityHigh; priority >= kEventPriorityLow && event == nullptr;
             priority--) {
            if (!queue.byPriority[priority].empty()) {
                event = queue.byPriority[priority].front();
                queue.byPriority[priority].pop_front();
            }
        }
        if (event == nullptr) {
            return false;
        }
        queue.posted.erase(PlatIdOf(event));
    }
    EventTargetRef target = nullptr;
    if (GetEventParameter(event, kEventParamPostTarget, typeEventTargetRef, nullptr, sizeof target, nullptr,
                          &target) != noErr) {
        target = GetApplicationEventTarget();
    }
    /* A target gone since the event was posted drops it. */
    SendEventToEventTarget(event, target);
    ReleaseEvent(event);
    return true;
}

/* The application loops running, innermost last, and whether a quit was asked. */
int gApplicationLoops = 0;
bool gApplicationQuit = false;

bool TakeApplicationQuit(void*) {
    bool quit = gApplicationQuit;
    gApplicationQuit = false;
    return quit;
}

} // namespace

void PlatSetLoopWaiter(void (*wait)(void), void (*wake)(void)) {
    gWait.store(wait);
    gWake.store(wake);
}

void PlatSignalWake() {
    MainQueueState& queue = MainQueue();
    {
        std::lock_guard<std::mutex> lock(queue.lock);
        queue.woken = true;
    }
    queue.wakeUp.notify_all();
}

void PlatWaitForWake(int timeoutMs) {
    MainQueueState& queue = MainQueue();
    std::unique_lock<std::mutex> lock(queue.lock);
    auto woken = [&queue] { return queue.woken; };
    if (timeoutMs < 0) {
        queue.wakeUp.wait(lock, woken);
    } else {
        queue.wakeUp.wait_for(lock, std::chrono::milliseconds(timeoutMs), woken);
    }
    queue.woken = false;
}

void PlatRunLoopUntil(bool (*done)(void* context), void* context) {
    while (!done(context)) {
        if (!DispatchOnePosted()) {
            WaitForInput();
        }
    }
}

EventQueueRef GetMainEventQueue(void) {
    return reinterpret_cast<EventQueueRef>(MainQueue().id);
}

OSStatus PostEventToQueue(EventQueueRef inQueue, EventRef inEvent, EventPriority inPriority) {
    if (inPriority < kEventPriorityLow || inPriority > kEventPriorityHigh) {
        return paramErr;
    }
    /* The queue's own reference; an event that does not exist is refused here. */
    if (RetainEvent(inEvent) == nullptr) {
        return paramErr;
    }
    MainQueueState& queue = MainQueue();
    OSStatus status = noErr;
    {
        std::lock_guard<std::mutex> lock(queue.lock);
        if (PlatIdOf(inQueue) != queue.id) {
            status = paramErr;
        } else if (!queue.posted.insert(PlatIdOf(inEvent)).second) {
            status = eventAlreadyPostedErr;
        } else {
            queue.byPriority[inPriority].push_back(inEvent);
        }
    }
    if (status != noErr) {
        ReleaseEvent(inEvent);
    } else {
        WakeMainThread();
    }
    return status;
}

void RunApplicationEventLoop(void) {
    if (PlatRefusedOffMainThread("RunApplicationEventLoop")) {
        return;
    }
    gApplicationLoops++;
    PlatRunLoopUntil(TakeApplicationQuit, nullptr);
    gApplicationLoops--;
}

/* Ends the innermost application loop once the running handler has returned. With
 * no application loop running there is nothing to end, and nothing is kept. */
void QuitApplicationEventLoop(void) {
    if (PlatRefusedOffMainThread("QuitApplicationEventLoop")) {
        return;
    }
    if (gApplicationLoops > 0) {
        gApplicationQuit = true;
    }
}

void PlatDrainEvents(void) {
    if (PlatRefusedOffMainThread("PlatDrainEvents")) {
        return;
    }
    while (DispatchOnePosted()) {
    }
}
