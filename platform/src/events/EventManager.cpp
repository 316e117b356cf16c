/* The Carbon Event Manager: events with typed parameters, event targets and the
 * dispatch of an event to the handlers of its target and of the targets above it,
 * on the calling thread. Queues and loops are in EventLoop.cpp. */
#include "events/EventInternal.h"

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <unordered_map>
#include <vector>

namespace {

/* A parameter asked for as another type than the one it was stored as. */
constexpr OSStatus errAECoercionFail = -1700;

struct EventParam {
    EventParamType type;
    std::vector<unsigned char> data;
};

struct EventRec {
    UInt32 eventClass;
    UInt32 kind;
    EventTime when;
    EventAttributes attributes;
    long retainCount;
    std::map<EventParamName, EventParam> params;
};

struct TargetRec {
    uintptr_t parent;                /* where unhandled events go next; 0 for the application */
    std::vector<uintptr_t> handlers; /* in installation order */
};

struct HandlerRec {
    uintptr_t target;
    EventHandlerUPP proc;
    std::vector<EventTypeSpec> types;
    void* userData;
};

struct EventRegistry {
    std::unordered_map<uintptr_t, EventRec> events;
    std::unordered_map<uintptr_t, TargetRec> targets;
    std::unordered_map<uintptr_t, HandlerRec> handlers;
    uintptr_t applicationTarget = 0;
};

/* Lives until the process ends: worker threads may still send events while
 * static destructors run. */
EventRegistry& Registry() {
    static EventRegistry* registry = [] {
        auto* r = new EventRegistry;
        r->applicationTarget = PlatNewObjectId();
        r->targets[r->applicationTarget] = TargetRec{0, {}};
        return r;
    }();
    return *registry;
}

EventRec* FindEvent(EventRef event) {
    auto it = Registry().events.find(PlatIdOf(event));
    return it == Registry().events.end() ? nullptr : &it->second;
}

bool Matches(const HandlerRec& handler, UInt32 eventClass, UInt32 kind) {
    for (const EventTypeSpec& type : handler.types) {
        if (type.eventClass == eventClass && type.eventKind == kind) {
            return true;
        }
    }
    return false;
}

/* What the layer above does with an event nobody took (the windows: a close disposes of
 * its window); null: nothing. */
std::atomic<PlatUnhandledEventHook> gUnhandledHook{nullptr};

/* The handlers of a target that take the event, newest first. Call with the lock held. */
std::vector<uintptr_t> HandlersFor(uintptr_t target, UInt32 eventClass, UInt32 kind) {
    std::vector<uintptr_t> found;
    auto it = Registry().targets.find(target);
    if (it == Registry().targets.end()) {
        return found; /* disposed while the event travelled: go on above it */
    }
    const std::vector<uintptr_t>& installed = it->second.handlers;
    for (auto h = installed.rbegin(); h != installed.rend(); ++h) {
        if (Matches(Registry().handlers.at(*h), eventClass, kind)) {
            found.push_back(*h);
        }
    }
    return found;
}

} // namespace

std::recursive_mutex& PlatModelLock() {
    static std::recursive_mutex* lock = new std::recursive_mutex;
    return *lock;
}

uintptr_t PlatNewObjectId() {
    /* Spaced like aligned pointers, far from null and from small integers. */
    static std::atomic<uintptr_t> next{0x10000};
    return next.fetch_add(0x10);
}

bool PlatRefusedOffMainThread(const char* call) {
    if (pthread_main_np()) {
        return false;
    }
    const char* abortSwitch = getenv("PLAT_ABORT_ON_THREAD_MISUSE");
    bool abortNow = abortSwitch != nullptr && strcmp(abortSwitch, "1") == 0;
    fprintf(stderr, "platform: %s called off the main thread: %s\n", call, abortNow ? "aborting" : "refused");
    if (abortNow) {
        abort();
    }
    return true;
}

EventTargetRef PlatCreateTarget(EventTargetRef parent) {
    std::lock_guard<std::recursive_mutex> lock(PlatModelLock());
    uintptr_t id = PlatNewObjectId();
    Registry().targets[id] = TargetRec{PlatIdOf(parent), {}};
    return reinterpret_cast<EventTargetRef>(id);
}

void PlatDestroyTarget(EventTargetRef target) {
    std::lock_guard<std::recursive_mutex> lock(PlatModelLock());
    auto it = Registry().targets.find(PlatIdOf(target));
    if (it == Registry().targets.end() || it->first == Registry().applicationTarget) {
        return;
    }
    for (uintptr_t handler : it->second.handlers) {
        Registry().handlers.erase(handler);
    }
    Registry().targets.erase(it);
}

/* ---- Handlers ---- */

EventHandlerUPP NewEventHandlerUPP(EventHandlerProcPtr userRoutine) {
    return userRoutine;
}

OSStatus InstallEventHandler(EventTargetRef inTarget, EventHandlerUPP inHandler, ItemCount inNumTypes,
                             const EventTypeSpec* inList, void* inUserData, EventHandlerRef* outRef) {
    if (outRef != nullptr) {
        *outRef = nullptr;
    }
    if (inHandler == nullptr || (inNumTypes > 0 && inList == nullptr)) {
        return paramErr;
    }
    std::lock_guard<std::recursive_mutex> lock(PlatModelLock());
    auto target = Registry().targets.find(PlatIdOf(inTarget));
    if (target == Registry().targets.end()) {
        return paramErr;
    }
    uintptr_t id = PlatNewObjectId();
    Registry().handlers[id] = HandlerRec{target->first, inHandler,
                                         std::vector<EventTypeSpec>(inList, inList + inNumTypes), inUserData};
    target->second.handlers.push_back(id);
    if (outRef != nullptr) {
        *outRef = reinterpret_cast<EventHandlerRef>(id);
    }
    return noErr;
}

OSStatus RemoveEventHandler(EventHandlerRef inHandlerRef) {
    std::lock_guard<std::recursive_mutex> lock(PlatModelLock());
    auto handler = Registry().handlers.find(PlatIdOf(inHandlerRef));
    if (handler == Registry().handlers.end()) {
        return paramErr;
    }
    auto target = Registry().targets.find(handler->second.target);
    if (target != Registry().targets.end()) {
        std::vector<uintptr_t>& list = target->second.handlers;
        list.erase(std::remove(list.begin(), list.end(), handler->first), list.end());
    }
    Registry().handlers.erase(handler);
    return noErr;
}

/* ---- Targets ---- */

EventTargetRef GetApplicationEventTarget(void) {
    return reinterpret_cast<EventTargetRef>(Registry().applicationTarget);
}

/* ---- Events ---- */

OSStatus CreateEvent(CFAllocatorRef, UInt32 inClassID, UInt32 inKind, EventTime inWhen,
                     EventAttributes inAttributes, EventRef* outEvent) {
    if (outEvent == nullptr) {
        return paramErr;
    }
    std::lock_guard<std::recursive_mutex> lock(PlatModelLock());
    uintptr_t id = PlatNewObjectId();
    Registry().events[id] = EventRec{inClassID, inKind, inWhen, inAttributes, 1, {}};
    *outEvent = reinterpret_cast<EventRef>(id);
    return noErr;
}

EventRef RetainEvent(EventRef inEvent) {
    std::lock_guard<std::recursive_mutex> lock(PlatModelLock());
    EventRec* rec = FindEvent(inEvent);
    if (rec == nullptr) {
        return nullptr;
    }
    rec->retainCount++;
    return inEvent;
}

void ReleaseEvent(EventRef inEvent) {
    std::lock_guard<std::recursive_mutex> lock(PlatModelLock());
    EventRec* rec = FindEvent(inEvent);
    if (rec != nullptr && --rec->retainCount == 0) {
        Registry().events.erase(PlatIdOf(inEvent));
    }
}

OSStatus SetEventParameter(EventRef inEvent, EventParamName inName, EventParamType inType, ByteCount inSize,
                           const void* inDataPtr) {
    if (inDataPtr == nullptr && inSize > 0) {
        return paramErr;
    }
    std::lock_guard<std::recursive_mutex> lock(PlatModelLock());
    EventRec* rec = FindEvent(inEvent);
    if (rec == nullptr) {
        return paramErr;
    }
    const unsigned char* bytes = static_cast<const unsigned char*>(inDataPtr);
    rec->params[inName] = EventParam{inType, std::vector<unsigned char>(bytes, bytes + inSize)};
    return noErr;
}

OSStatus GetEventParameter(EventRef inEvent, EventParamName inName, EventParamType inDesiredType,
                           EventParamType* outActualType, ByteCount inBufferSize, ByteCount* outActualSize,
                           void* outData) {
    std::lock_guard<std::recursive_mutex> lock(PlatModelLock());
    EventRec* rec = FindEvent(inEvent);
    if (rec == nullptr) {
        return paramErr;
    }
    auto it = rec->params.find(inName);
    if (it == rec->params.end()) {
        return eventParameterNotFoundErr;
    }
    const EventParam& param = it->second;
    if (inDesiredType != typeWildCard && inDesiredType != param.type) {
        return errAECoercionFail;
    }
    if (outData != nullptr) {
        /* Nothing is written unless all of it fits. */
        if (inBufferSize < param.data.size()) {
            return errDataSizeMismatch;
        }
        if (!param.data.empty()) {
            std::memcpy(outData, param.data.data(), param.data.size());
        }
    }
    if (outActualType != nullptr) {
        *outActualType = param.type;
    }
    if (outActualSize != nullptr) {
        *outActualSize = param.data.size();
    }
    return noErr;
}

UInt32 GetEventClass(EventRef inEvent) {
    std::lock_guard<std::recursive_mutex> lock(PlatModelLock());
    EventRec* rec = FindEvent(inEvent);
    return rec == nullptr ? 0 : rec->eventClass;
}

UInt32 GetEventKind(EventRef inEvent) {
    std::lock_guard<std::recursive_mutex> lock(PlatModelLock());
    EventRec* rec = FindEvent(inEvent);
    return rec == nullptr ? 0 : rec->kind;
}

EventTime GetCurrentEventTime(void) {
    /* Seconds since the system started, like the Mac's event clock. */
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<EventTime>(now.tv_sec) + static_cast<EventTime>(now.tv_nsec) / 1e9;
}

void PlatSetUnhandledEventHook(PlatUnhandledEventHook hook) {
    gUnhandledHook.store(hook);
}

/* On the calling thread, as on the Mac; an unknown event or target is refused. The event
 * goes to the target's handlers, newest first, then to those of the targets above it,
 * until one takes it (answers other than eventNotHandledErr). */
OSStatus SendEventToEventTarget(EventRef inEvent, EventTargetRef inTarget) {
    UInt32 eventClass, kind;
    std::vector<uintptr_t> chain; /* the target, then its parents up to the application */
    {
        std::lock_guard<std::recursive_mutex> lock(PlatModelLock());
        EventRec* rec = FindEvent(inEvent);
        if (rec == nullptr || Registry().targets.count(PlatIdOf(inTarget)) == 0) {
            return paramErr;
        }
        rec->retainCount++; /* a handler may release it while it travels */
        eventClass = rec->eventClass;
        kind = rec->kind;
        for (uintptr_t t = PlatIdOf(inTarget); t != 0;) {
            chain.push_back(t);
            auto it = Registry().targets.find(t);
            t = it == Registry().targets.end() ? 0 : it->second.parent;
        }
    }
    OSStatus result = eventNotHandledErr;
    for (size_t level = 0; level < chain.size() && result == eventNotHandledErr; level++) {
        std::vector<uintptr_t> handlers;
        {
            std::lock_guard<std::recursive_mutex> lock(PlatModelLock());
            handlers = HandlersFor(chain[level], eventClass, kind);
        }
        for (size_t next = 0; next < handlers.size() && result == eventNotHandledErr; next++) {
            EventHandlerUPP proc;
            void* userData;
            {
                std::lock_guard<std::recursive_mutex> lock(PlatModelLock());
                /* a handler removed by an earlier one is skipped */
                auto handler = Registry().handlers.find(handlers[next]);
                if (handler == Registry().handlers.end()) {
                    continue;
                }
                proc = handler->second.proc;
                userData = handler->second.userData;
            }
            result = proc(reinterpret_cast<EventHandlerCallRef>(handlers[next]), inEvent, userData);
        }
    }
    if (result == eventNotHandledErr) {
        if (PlatUnhandledEventHook hook = gUnhandledHook.load()) {
            result = hook(inEvent, inTarget);
        }
    }
    ReleaseEvent(inEvent);
    return result;
}
