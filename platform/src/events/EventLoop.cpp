/* Event queues and the application loop.
 *
 * Any thread may post to a queue. The main queue is dispatched by whatever loop
 * runs on the main thread, one event at a time, highest priority first and in
 * order of posting within a priority; a posted event goes to its
 * kEventParamPostTarget, else to the application target. Other threads' queues
 * hold what is posted to them: nothing here runs a loop on those threads. */
#include "events/EventInternal.h"

#include <PlatformTesting.h>

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <set>
#include <unordered_map>
#include <vector>

namespace {

constexpr int kPriorities = kEventPriorityHigh + 1;

struct Queue {
    std::deque<EventRef> byPriority[kPriorities];
};

/* The queues and the layer's own wake-up flag; separate from the model's lock so
 * that a wait never holds it. */
struct Queues {
    std::mutex lock;
    std::condition_variable wakeUp;
    bool woken = false;
    uintptr_t mainQueue = 0;
    std::unordered_map<uintptr_t, Queue> queues;
    std::set<uintptr_t> posted; /* events in any queue */
};

/* Lives until the process ends: other threads may post while static destructors run. */
Queues& Q() {
    static Queues* queues = [] {
        Queues* q = new Queues;
        q->mainQueue = PlatNewObjectId();
        q->queues[q->mainQueue];
        return q;
    }();
    return *queues;
}

uintptr_t IdOf(const void* ref) {
    return reinterpret_cast<uintptr_t>(ref);
}

/* Forgets a queue and releases what it still holds. */
void DropQueue(uintptr_t id) {
    std::vector<EventRef> held;
    {
        std::lock_guard<std::mutex> lock(Q().lock);
        auto it = Q().queues.find(id);
        if (it == Q().queues.end()) {
            return;
        }
        for (std::deque<EventRef>& events : it->second.byPriority) {
            for (EventRef event : events) {
                Q().posted.erase(IdOf(event));
                held.push_back(event);
            }
        }
        Q().queues.erase(it);
    }
    for (EventRef event : held) {
        ReleaseEvent(event);
    }
}

/* A thread's own queue, made when first asked for, gone with the thread. */
struct ThreadQueue {
    uintptr_t id = 0;
    ~ThreadQueue() {
        if (id != 0) {
            DropQueue(id);
        }
    }
};
thread_local ThreadQueue tQueue;

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
        std::lock_guard<std::mutex> lock(Q().lock);
        Queue& main = Q().queues[Q().mainQueue];
        for (int priority = kEventPriorityHigh; priority >= kEventPriorityLow && event == nullptr;
             priority--) {
            if (!main.byPriority[priority].empty()) {
                event = main.byPriority[priority].front();
                main.byPriority[priority].pop_front();
            }
        }
        if (event == nullptr) {
            return false;
        }
        Q().posted.erase(IdOf(event));
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
    {
        std::lock_guard<std::mutex> lock(Q().lock);
        Q().woken = true;
    }
    Q().wakeUp.notify_all();
}

void PlatWaitForWake(int timeoutMs) {
    std::unique_lock<std::mutex> lock(Q().lock);
    auto woken = [] { return Q().woken; };
    if (timeoutMs < 0) {
        Q().wakeUp.wait(lock, woken);
    } else {
        Q().wakeUp.wait_for(lock, std::chrono::milliseconds(timeoutMs), woken);
    }
    Q().woken = false;
}

void PlatRunLoopUntil(bool (*done)(void* context), void* context) {
    while (!done(context)) {
        if (!DispatchOnePosted()) {
            WaitForInput();
        }
    }
}

EventQueueRef GetMainEventQueue(void) {
    return reinterpret_cast<EventQueueRef>(Q().mainQueue);
}

EventQueueRef GetCurrentEventQueue(void) {
    if (pthread_main_np()) {
        return GetMainEventQueue();
    }
    if (tQueue.id == 0) {
        uintptr_t id = PlatNewObjectId();
        std::lock_guard<std::mutex> lock(Q().lock);
        Q().queues[id];
        tQueue.id = id;
    }
    return reinterpret_cast<EventQueueRef>(tQueue.id);
}

OSStatus PostEventToQueue(EventQueueRef inQueue, EventRef inEvent, EventPriority inPriority) {
    if (inPriority < kEventPriorityLow || inPriority > kEventPriorityHigh) {
        return paramErr;
    }
    /* The queue's own reference; an event that does not exist is refused here. */
    if (RetainEvent(inEvent) == nullptr) {
        return paramErr;
    }
    OSStatus status = noErr;
    {
        std::lock_guard<std::mutex> lock(Q().lock);
        auto queue = Q().queues.find(IdOf(inQueue));
        if (queue == Q().queues.end()) {
            status = paramErr;
        } else if (!Q().posted.insert(IdOf(inEvent)).second) {
            status = eventAlreadyPostedErr;
        } else {
            queue->second.byPriority[inPriority].push_back(inEvent);
        }
    }
    if (status != noErr) {
        ReleaseEvent(inEvent);
    } else if (IdOf(inQueue) == Q().mainQueue) {
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
