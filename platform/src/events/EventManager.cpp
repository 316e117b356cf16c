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

struct Registry {
    std::unordered_map<uintptr_t, EventRec> events;
    std::unordered_map<uintptr_t, TargetRec> targets;
    std::unordered_map<uintptr_t, HandlerRec> handlers;
    uintptr_t applicationTarget = 0;
};

/* Lives until the process ends: worker threads may still send events while
 * static destructors run. */
Registry& Reg() {
    static Registry* registry = [] {
        Registry* r = new Registry;
        r->applicationTarget = PlatNewObjectId();
        r->targets[r->applicationTarget] = TargetRec{0, {}};
        return r;
    }();
    return *registry;
}

uintptr_t IdOf(const void* ref) {
    return reinterpret_cast<uintptr_t>(ref);
}

EventRec* FindEvent(EventRef event) {
    auto it = Reg().events.find(IdOf(event));
    return it == Reg().events.end() ? nullptr : &it->second;
}

bool Matches(const HandlerRec& handler, UInt32 eventClass, UInt32 kind) {
    for (const EventTypeSpec& type : handler.types) {
        if (type.eventClass == eventClass && type.eventKind == kind) {
            return true;
        }
    }
    return false;
}

/* One dispatch in progress: the targets it travels through and how far it got.
 * The handler call reference points at it, so CallNextEventHandler can go on
 * from where the calling handler was reached. */
struct Dispatch {
    EventRef event;
    UInt32 eventClass;
    UInt32 kind;
    std::vector<uintptr_t> chain; /* target, then its parents up to the application */
    size_t level = 0;
    bool levelStarted = false;
    std::vector<uintptr_t> pending; /* handlers of the current level, newest first */
    size_t next = 0;
    bool restTaken = false; /* the running handler passed the event on itself */
};

thread_local std::vector<Dispatch*> tRunning;

OSStatus RunFrom(Dispatch& d);

OSStatus RunFrom(Dispatch& d) {
    for (;;) {
        EventHandlerUPP proc = nullptr;
        void* userData = nullptr;
        {
            std::lock_guard<std::recursive_mutex> lock(PlatModelLock());
            if (!d.levelStarted) {
                if (d.level >= d.chain.size()) {
                    break;
                }
                auto target = Reg().targets.find(d.chain[d.level]);
                if (target == Reg().targets.end()) {
                    /* disposed while the event travelled: go on above it */
                    d.level++;
                    continue;
                }
                d.pending.clear();
                const std::vector<uintptr_t>& installed = target->second.handlers;
                for (auto h = installed.rbegin(); h != installed.rend(); ++h) {
                    if (Matches(Reg().handlers.at(*h), d.eventClass, d.kind)) {
                        d.pending.push_back(*h);
                    }
                }
                d.next = 0;
                d.levelStarted = true;
            }
            if (d.next >= d.pending.size()) {
                d.level++;
                d.levelStarted = false;
                continue;
            }
            /* a handler removed by an earlier one is skipped */
            auto handler = Reg().handlers.find(d.pending[d.next++]);
            if (handler == Reg().handlers.end()) {
                continue;
            }
            proc = handler->second.proc;
            userData = handler->second.userData;
        }
        bool outerTaken = d.restTaken;
        d.restTaken = false;
        tRunning.push_back(&d);
        OSStatus result = proc(reinterpret_cast<EventHandlerCallRef>(&d), d.event, userData);
        tRunning.pop_back();
        bool taken = d.restTaken;
        d.restTaken = outerTaken;
        if (taken || result != eventNotHandledErr) {
            return result;
        }
    }
    return eventNotHandledErr;
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
    Reg().targets[id] = TargetRec{IdOf(parent), {}};
    return reinterpret_cast<EventTargetRef>(id);
}

void PlatDestroyTarget(EventTargetRef target) {
    std::lock_guard<std::recursive_mutex> lock(PlatModelLock());
    auto it = Reg().targets.find(IdOf(target));
    if (it == Reg().targets.end() || it->first == Reg().applicationTarget) {
        return;
    }
    for (uintptr_t handler : it->second.handlers) {
        Reg().handlers.erase(handler);
    }
    Reg().targets.erase(it);
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
    auto target = Reg().targets.find(IdOf(inTarget));
    if (target == Reg().targets.end()) {
        return paramErr;
    }
    uintptr_t id = PlatNewObjectId();
    Reg().handlers[id] = HandlerRec{target->first, inHandler,
                                    std::vector<EventTypeSpec>(inList, inList + inNumTypes), inUserData};
    target->second.handlers.push_back(id);
    if (outRef != nullptr) {
        *outRef = reinterpret_cast<EventHandlerRef>(id);
    }
    return noErr;
}

OSStatus RemoveEventHandler(EventHandlerRef inHandlerRef) {
    std::lock_guard<std::recursive_mutex> lock(PlatModelLock());
    auto handler = Reg().handlers.find(IdOf(inHandlerRef));
    if (handler == Reg().handlers.end()) {
        return paramErr;
    }
    auto target = Reg().targets.find(handler->second.target);
    if (target != Reg().targets.end()) {
        std::vector<uintptr_t>& list = target->second.handlers;
        list.erase(std::remove(list.begin(), list.end(), handler->first), list.end());
    }
    Reg().handlers.erase(handler);
    return noErr;
}

OSStatus CallNextEventHandler(EventHandlerCallRef inCallRef, EventRef) {
    Dispatch* d = reinterpret_cast<Dispatch*>(inCallRef);
    if (std::find(tRunning.begin(), tRunning.end(), d) == tRunning.end()) {
        return paramErr;
    }
    OSStatus result = RunFrom(*d);
    d->restTaken = true;
    return result;
}

/* ---- Targets ---- */

EventTargetRef GetApplicationEventTarget(void) {
    return reinterpret_cast<EventTargetRef>(Reg().applicationTarget);
}

/* ---- Events ---- */

OSStatus CreateEvent(CFAllocatorRef, UInt32 inClassID, UInt32 inKind, EventTime inWhen,
                     EventAttributes inAttributes, EventRef* outEvent) {
    if (outEvent == nullptr) {
        return paramErr;
    }
    std::lock_guard<std::recursive_mutex> lock(PlatModelLock());
    uintptr_t id = PlatNewObjectId();
    Reg().events[id] = EventRec{inClassID, inKind, inWhen, inAttributes, 1, {}};
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
        Reg().events.erase(IdOf(inEvent));
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

/* On the calling thread, as on the Mac; an unknown event or target is refused. */
OSStatus SendEventToEventTarget(EventRef inEvent, EventTargetRef inTarget) {
    Dispatch d;
    {
        std::lock_guard<std::recursive_mutex> lock(PlatModelLock());
        EventRec* rec = FindEvent(inEvent);
        if (rec == nullptr || Reg().targets.count(IdOf(inTarget)) == 0) {
            return paramErr;
        }
        rec->retainCount++; /* a handler may release it while it travels */
        d.event = inEvent;
        d.eventClass = rec->eventClass;
        d.kind = rec->kind;
        for (uintptr_t t = IdOf(inTarget); t != 0;) {
            d.chain.push_back(t);
            auto it = Reg().targets.find(t);
            t = it == Reg().targets.end() ? 0 : it->second.parent;
        }
    }
    OSStatus result = RunFrom(d);
    ReleaseEvent(inEvent);
    return result;
}
